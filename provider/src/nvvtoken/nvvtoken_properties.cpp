// The properties of the provider and of its keys.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_properties.h"
#include "logger/trace.h"

namespace NV {

namespace {

constexpr size_t maxPropertyNameLength = 64;  // characters

// A property stores its size as a signed number.
constexpr DWORD maxPropertySize = INT32_MAX;

// Types of the provider's own properties: a text with its terminating zero, and plain bytes.
constexpr uint32_t textProperty = 1;
constexpr uint32_t binaryProperty = 3;

// The owner window after "HWND Handle" is set to the value. Compat: a value longer than a handle does
// not change it; a shorter one is filled up with zeros.
HWND windowOf(const Site& site, const BYTE* pbInput, DWORD cbInput, HWND before)
{
    NV_UNDER(TRC, site, "Set NCRYPT_WINDOW_HANDLE_PROPERTY");
    uintptr_t window = 0;
    if (cbInput > sizeof window)
        return before;
    std::memcpy(&window, pbInput, cbInput);
    NV_UNDER(TRC, site, "Owner Window Handle is %p", asPointer(window));
    return reinterpret_cast<HWND>(window);  // NOLINT(performance-no-int-to-ptr)
}

// The last window that is set counts.
void setKeyWindow(const Site& site, P11KeyObject& key, const BYTE* pbInput, DWORD cbInput)
{
    HWND window = windowOf(site, pbInput, cbInput, key.ownerWindow());
    key.addProperty(NCRYPT_WINDOW_HANDLE_PROPERTY, pbInput, static_cast<int32_t>(cbInput),
                    P11KeyObject::IfPresent::replace);
    key.setOwnerWindow(window);
}

}  // namespace

void Provider::setDefaultProperties()
{
    const Trace trace(NV_HERE);
    const auto add = [this](const wchar_t* name, uint32_t type, const void* data, size_t size) {
        properties_[name] =
            std::make_shared<Property>(name, type, data, static_cast<int32_t>(size));
    };
    const std::wstring name = name_;
    const std::wstring version = L"1.0";
    constexpr uint32_t implementation = NCRYPT_IMPL_HARDWARE_FLAG;
    add(NCRYPT_NAME_PROPERTY, textProperty, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
    add(NCRYPT_VERSION_PROPERTY, textProperty, version.c_str(),
        (version.size() + 1) * sizeof(wchar_t));
    // Compat: the value is the first bytes of the provider and not its address.
    add(NCRYPT_PROVIDER_HANDLE_PROPERTY, binaryProperty, this, sizeof(NCRYPT_PROV_HANDLE));
    add(NCRYPT_IMPL_TYPE_PROPERTY, binaryProperty, &implementation, sizeof implementation);
    trace.leave();
}

SECURITY_STATUS Provider::outputProperty(const Site& site, const Property& property, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult)
{
    const auto& value = property.value();
    const auto size = static_cast<DWORD>(value.size());
    if (pbOutput != nullptr) {
        if (cbOutput < size) {
            NV_UNDER(ERR, site, "The length of output buffer is too short");
            return outputTooShort(size, pcbResult, NTE_BUFFER_TOO_SMALL);
        }
        NV_UNDER(TRC, site, "Store the value into output buffer (%d bytes)",
                 static_cast<int>(size));
        std::copy(value.begin(), value.end(), pbOutput);
    }
    *pcbResult = size;
    return ERROR_SUCCESS;
}

SECURITY_STATUS Provider::outputTooShort(DWORD size, DWORD* pcbResult, SECURITY_STATUS classic)
{
    if (!mode().tellsLengthsFirst())
        return classic;
    *pcbResult = size;
    return NTE_BUFFER_TOO_SMALL;
}

SECURITY_STATUS Provider::GetProviderProperty(LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                              DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(text("pszProperty", pszProperty), pointer("pbOutput", pbOutput),
                    number("cbOutput", cbOutput), pointer("pcbResult", pcbResult),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0)
        return trace.end(NTE_BAD_FLAGS);
    if (pszProperty == nullptr || pcbResult == nullptr ||
        std::wcslen(pszProperty) > maxPropertyNameLength)
        return trace.end(NTE_INVALID_PARAMETER);
    const auto property = properties_.find(pszProperty);
    if (property == properties_.end()) {
        // Compat: the text says "Key Property" for a property of the provider.
        NV_ERR("Not Found Key Property (%s)", printable(pszProperty).c_str());
        return trace.end(statusOfMissing(pszProperty));
    }
    NV_TRC("Found Provider Property (%s)", printable(pszProperty).c_str());
    return trace.end(outputProperty(here, *property->second, pbOutput, cbOutput, pcbResult));
}

SECURITY_STATUS Provider::GetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                         DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), text("pszProperty", pszProperty),
                    pointer("pbOutput", pbOutput), number("cbOutput", cbOutput),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pcbResult == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    const P11KeyObject* key = keyStore_.findOpenedOrImported(hKey);
    if (key == nullptr)
        return trace.end(NTE_INVALID_HANDLE);
    const Property* property = key->findProperty(pszProperty);
    if (property == nullptr) {
        NV_ERR("Not Found Key Property (%s)", printable(pszProperty).c_str());
        return trace.end(statusOfMissing(pszProperty));
    }
    NV_TRC("Found Key Property (%s)", printable(pszProperty).c_str());
    return trace.end(outputProperty(here, *property, pbOutput, cbOutput, pcbResult));
}

SECURITY_STATUS Provider::SetProviderProperty(LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                              DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(text("pszProperty", pszProperty), pointer("pbInput", pbInput),
                    number("cbInput", cbInput), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pbInput == nullptr || cbInput == 0 || cbInput > maxPropertySize)
        return trace.end(NTE_INVALID_PARAMETER);
    auto property =
        std::make_shared<Property>(pszProperty, 0, pbInput, static_cast<int32_t>(cbInput));
    HWND window = ownerWindow_;
    if (std::wstring_view(pszProperty) == NCRYPT_WINDOW_HANDLE_PROPERTY)
        window = windowOf(here, pbInput, cbInput, window);
    // Both only after the last line that can throw.
    properties_[pszProperty] = std::move(property);
    ownerWindow_ = window;
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::SetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), text("pszProperty", pszProperty),
                    pointer("pbInput", pbInput), number("cbInput", cbInput),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pbInput == nullptr || cbInput == 0 || cbInput > maxPropertySize)
        return trace.end(NTE_INVALID_PARAMETER);
    P11KeyObject* key = keyStore_.findOpenedOrImported(hKey);
    if (key == nullptr) {
        NV_ERR("Not Found the key (%p)", asPointer(hKey));
        return trace.end(NTE_INVALID_HANDLE);
    }
    NV_TRC("Found the key (%p)", asPointer(hKey));
    if (!mayBeSet(pszProperty)) {
        NV_ERR("Not Supported Key Property (%s)", printable(pszProperty).c_str());
        return trace.end(NTE_NOT_SUPPORTED);
    }
    if (mode().keysOwnDialogs() && std::wstring_view(pszProperty) == NCRYPT_WINDOW_HANDLE_PROPERTY)
        setKeyWindow(here, *key, pbInput, cbInput);
    else
        key->addProperty(pszProperty, pbInput, static_cast<int32_t>(cbInput));
    return trace.end(ERROR_SUCCESS);
}

}  // namespace NV
