// How a provider operation works with an opened key and with the PIN. For the provider's own files.

#pragma once

#include <mutex>
#include <new>

#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"

namespace NV {

template <typename Work>
SECURITY_STATUS Provider::withKey(const Site& site, NCRYPT_KEY_HANDLE hKey, const Work& work)
{
    P11KeyObject* key = logFound(site, keyStore_.findOpened(hKey));
    return key != nullptr ? work(*key) : NTE_INVALID_HANDLE;
}

template <typename Work>
SECURITY_STATUS Provider::onToken(const Work& work)
{
    const std::lock_guard sequence(sequenceLock());
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return NTE_INTERNAL_ERROR;
    }
}

template <typename Work>
SECURITY_STATUS Provider::withPIN(const Site& site, const P11KeyObject& key, const Work& work)
{
    SECURITY_STATUS status = ERROR_SUCCESS;
    const SecretBytes pin = enterPIN(key, status);
    if (status != ERROR_SUCCESS)
        return status;
    // Compat: "retrive", because people search the log for this text.
    NV_UNDER(TRC, site, "Success to retrive the entered pin = %d (bytes)",
             static_cast<int>(pin.size()));
    if (pin.empty())
        return ERROR_SUCCESS;
    // Only after the dialog has closed: the user may leave it open for any time.
    return onToken([&] { return work(pin); });
}

}  // namespace NV
