// How long the PKCS#11 library of the process stays initialized in the modern behaviour: from the
// opening of the first provider to the end of the last one. Other users of the library in the process
// keep what they have initialized. The discovery joins, the module's clean-up leaves, and the
// provider's operations ask for a new beginning when somebody else has finalized the library.

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"

namespace NV {

// Serializes the token sequences of all providers in the process. In the classic behaviour, the
// providers share the library's one initialized state, which a C_Finalize inside another provider's
// sequence would end: each sequence holds the lock from begin to end. In the modern behaviour, the
// sequences that log in hold it from login to logout, because all sessions of a token share the login.
//
// Take this lock after the provider's lock and before the key store's, never while the PIN dialog is
// open, and never at process detach.
Mutex& sequenceLock();

// One per process, created on first use and never destroyed. All providers of a process use the same
// library, the one of the configuration.
class LibraryLife {
public:
    static LibraryLife& instance();

    virtual ~LibraryLife() = default;
    LibraryLife(const LibraryLife&) = delete;
    LibraryLife& operator=(const LibraryLife&) = delete;

    // Counts a user, and initializes the library for the first one, with mutex callbacks. Returns
    // CKR_OK; CKR_CRYPTOKI_ALREADY_INITIALIZED if somebody else has initialized it, who then also
    // finalizes it; otherwise the library's failure, and counts nobody.
    CK_RV join(const Site& site, const CK_FUNCTION_LIST& list);

    // Counts a user less. The last one finalizes the library if it was initialized here. Does not wait
    // for a lock while the process ends.
    void leave(const Site& site, const CK_FUNCTION_LIST& list) noexcept;

    // Which initialized state this is. Ask before an operation, for resume.
    uint32_t generation() const { return generation_; }

    // Initializes the library again after an operation has met CKR_CRYPTOKI_NOT_INITIALIZED, unless
    // another thread has done so since `generation`. True if the operation can begin again. From then
    // on the library is this module's to finalize.
    bool resume(const Site& site, const CK_FUNCTION_LIST& list, uint32_t generation);

private:
    friend NeverDestroyed<LibraryLife>;
    LibraryLife() = default;

    CK_RV initialize(const Site& site, const CK_FUNCTION_LIST& list) NV_REQUIRES(lock_);
    void finalizeOwn(const CK_FUNCTION_LIST& list) noexcept NV_REQUIRES(lock_);
    void leaveLocked(const Site& site, const CK_FUNCTION_LIST& list) noexcept NV_REQUIRES(lock_);

    Mutex lock_{LockRank::library};
    uint32_t users_ NV_GUARDED_BY(lock_) = 0;
    bool initializedHere_ NV_GUARDED_BY(lock_) = false;
    // The library may keep the pointer.
    std::unique_ptr<CK_C_INITIALIZE_ARGS> initArgs_ NV_GUARDED_BY(lock_);
    std::atomic<uint32_t> generation_{0};
};

}  // namespace NV
