// Joining and leaving the library's one initialized state.

#include "p11/library_life.h"

#include <mutex>
#include <utility>

#include "base/process_end.h"
#include "base/scope_exit.h"
#include "logger/operation.h"
#include "p11/p11_mutex.h"
#include "p11/p11text.h"

namespace NV {

Mutex& sequenceLock()
{
    static NeverDestroyed<Mutex> lock(LockRank::sequence);
    return *lock;
}

LibraryLife& LibraryLife::instance()
{
    static NeverDestroyed<LibraryLife> life;
    return *life;
}

CK_RV LibraryLife::initialize(const Site& site, const CK_FUNCTION_LIST& list)
{
    NV_UNDER(TRC, site, "Call C_Initialize():START");
    if (list.C_Initialize == nullptr)
        return CKR_FUNCTION_FAILED;
    auto args = initArgsWithMutexes();
    CK_RV rv = CKR_FUNCTION_FAILED;
    // Before the call: a library that throws may be initialized.
    initializedHere_ = true;
    try {
        rv = list.C_Initialize(args.get());
    } catch (...) {
        NV_UNDER(ERR, site, "Caught Exception");
        finalizeOwn(list);
        return CKR_FUNCTION_FAILED;
    }
    initializedHere_ = rv == CKR_OK;
    if (rv == CKR_OK)
        initArgs_ = std::move(args);
    ++generation_;
    NV_UNDER(TRC, site, "Call C_Initialize():END RV=%s", returnValueText(rv));
    return rv;
}

void LibraryLife::finalizeOwn(const CK_FUNCTION_LIST& list) noexcept
{
    if (std::exchange(initializedHere_, false) && list.C_Finalize != nullptr)
        quietly([&] { list.C_Finalize(nullptr); });
}

CK_RV LibraryLife::join(const Site& site, const CK_FUNCTION_LIST& list)
{
    const std::lock_guard guard(lock_);
    CK_RV rv = CKR_OK;
    if (users_ == 0) {
        Undo finalize([&]() NV_NO_THREAD_SAFETY_ANALYSIS { finalizeOwn(list); });
        rv = initialize(site, list);
        if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
            return rv;
        finalize.commit();
    }
    ++users_;
    return rv;
}

void LibraryLife::leave(const Site& site,
                        const CK_FUNCTION_LIST& list) noexcept NV_NO_THREAD_SAFETY_ANALYSIS
{
    // The thread that held the lock may be gone.
    if (processEnds()) {
        const bool locked = lock_.try_lock();
        leaveLocked(site, list);
        if (locked)
            lock_.unlock();
        return;
    }
    quietly([&]() NV_NO_THREAD_SAFETY_ANALYSIS {
        const std::lock_guard guard(lock_);
        leaveLocked(site, list);
    });
}

void LibraryLife::leaveLocked(const Site& site, const CK_FUNCTION_LIST& list) noexcept
{
    if (users_ == 0 || --users_ != 0 || !initializedHere_)
        return;
    NV_CLEAN_UP(TRC, site, "Call C_Finalize(): START");
    finalizeOwn(list);
    NV_CLEAN_UP(TRC, site, "Call C_Finalize(): END");
}

bool LibraryLife::resume(const Site& site, const CK_FUNCTION_LIST& list, uint32_t generation)
{
    const std::lock_guard guard(lock_);
    if (generation == generation_) {
        NV_UNDER(WRN, site, "Another part of the process has finalized the library");
        const CK_RV rv = initialize(site, list);
        if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
            return false;
    }
    forgetResult();
    return true;
}

}  // namespace NV
