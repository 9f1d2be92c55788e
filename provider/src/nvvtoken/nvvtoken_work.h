// How a provider operation works with an opened key and with the PIN. For the provider's own files.

#pragma once

#include <mutex>
#include <new>

#include "keystore/keystore_token.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"
#include "p11/library_life.h"

namespace NV {

template <typename Work>
SECURITY_STATUS Provider::withKey(const Site& site, Held& held, NCRYPT_KEY_HANDLE hKey,
                                  const Work& work)
{
    const std::shared_ptr<P11KeyObject> key = keyStore_.ownerOfOpened(hKey);
    if (logFound(site, key.get()) == nullptr)
        return NTE_INVALID_HANDLE;
    if (pkcs11_->joined())
        held.unlock();
    return work(*key);
}

template <typename Work>
SECURITY_STATUS Provider::onToken(const Site& site, const Work& work)
{
    return pkcs11_->joined() ? sideBySide(site, work) : inSequence(work);
}

// Under the sequence lock, because the operation initializes and finalizes the library.
// NTE_INTERNAL_ERROR if memory runs out in it.
template <typename Work>
SECURITY_STATUS Provider::inSequence(const Work& work)
{
    const std::lock_guard sequence(sequenceLock());
    try {
        return work(*pkcs11_);
    } catch (const std::bad_alloc&) {
        return NTE_INTERNAL_ERROR;
    }
}

// Each operation has a call layer of its own, so that none waits for another's calls, and begins again,
// once, when somebody else has finalized the library.
template <typename Work>
SECURITY_STATUS Provider::sideBySide(const Site& site, const Work& work)
{
    LibraryLife& life = LibraryLife::instance();
    const uint32_t generation = life.generation();
    SECURITY_STATUS status = libraryLost;
    {
        Pkcs11 p11(pkcs11_->sharedModule());
        status = work(p11);
    }
    if (status == libraryLost && pkcs11_->module() != nullptr &&
        life.resume(site, *pkcs11_->module()->functionList(), generation)) {
        Pkcs11 p11(pkcs11_->sharedModule());
        status = work(p11);
    }
    return status == libraryLost ? NTE_INTERNAL_ERROR : status;
}

template <typename Work>
SECURITY_STATUS Provider::withPIN(const Site& site, const Work& work)
{
    SECURITY_STATUS status = ERROR_SUCCESS;
    const SecretBytes pin = enterPIN(status);
    if (status != ERROR_SUCCESS)
        return status;
    // Compat: "retrive", because people search the log for this text.
    NV_UNDER(TRC, site, "Success to retrive the entered pin = %d (bytes)",
             static_cast<int>(pin.size()));
    if (pin.empty())
        return ERROR_SUCCESS;
    // Only after the dialog has closed: the user may leave it open for any time.
    return onToken(site, [&](Pkcs11& p11) { return work(p11, pin); });
}

}  // namespace NV
