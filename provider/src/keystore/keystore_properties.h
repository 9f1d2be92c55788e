// The properties that the key store gives each key, and what applications may do with others. Used by
// the key store and by the provider's property operations.

#pragma once

#include "base/cng.h"

#include <string>
#include <string_view>

#include "keystore/keystore_key.h"

namespace NV {

// Adds the properties of the behaviour to a new key, texts with their terminating zero. The
// certificate is base64, empty for an imported key, which then lacks the property.
void addKeyProperties(P11KeyObject& key, std::string_view certificate);

// The value of "Algorithm Name", without a terminating zero.
std::wstring algorithmName(const P11KeyObject& key);

// Whether an application may set the property on a key.
bool mayBeSet(std::wstring_view name);

// What reading a property gives, of a key or of the provider, that it does not have: NTE_NOT_FOUND if an
// application could have set it by CNG's documentation, else NTE_NOT_SUPPORTED.
SECURITY_STATUS statusOfMissing(std::wstring_view name);

}  // namespace NV
