// The provider's name. Also read by programs that work with its registration and its certificates.

#pragma once

namespace NV {

// The name under which the provider is registered with CNG.
inline constexpr const wchar_t* providerName = L"Norvanta Software KeyStore Provider";

}  // namespace NV
