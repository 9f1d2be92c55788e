// The mutex callbacks.

#include "p11/p11_mutex.h"

#include <mutex>
#include <new>

#include "base/process_end.h"

namespace NV {

namespace {

struct LibraryMutex {
    std::mutex mutex;
    // Locks that the ending thread passed without the mutex. No other thread uses the number.
    unsigned passed = 0;
};

CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR handle)
{
    auto* mutex = new (std::nothrow) LibraryMutex;
    if (mutex == nullptr)
        return CKR_HOST_MEMORY;
    *handle = mutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR handle)
{
    const std::unique_ptr<LibraryMutex> owned(static_cast<LibraryMutex*>(handle));
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR handle)
{
    if (handle == nullptr)
        return CKR_OK;
    auto& own = *static_cast<LibraryMutex*>(handle);
    if (!processEndsOnThisThread())
        own.mutex.lock();
    else if (!own.mutex.try_lock())
        ++own.passed;
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR handle)
{
    if (handle == nullptr)
        return CKR_OK;
    auto& own = *static_cast<LibraryMutex*>(handle);
    if (processEndsOnThisThread() && own.passed != 0)
        --own.passed;
    else
        own.mutex.unlock();
    return CKR_OK;
}

}  // namespace

std::unique_ptr<CK_C_INITIALIZE_ARGS> initArgsWithMutexes()
{
    return std::make_unique<CK_C_INITIALIZE_ARGS>(
        CK_C_INITIALIZE_ARGS{createMutex, destroyMutex, lockMutex, unlockMutex,
                             CKF_LIBRARY_CANT_CREATE_OS_THREADS | CKF_OS_LOCKING_OK, nullptr});
}

}  // namespace NV
