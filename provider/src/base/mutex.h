// The locks of the module, each with its place in the order in which a thread may take them.

#pragma once

#include <mutex>

#include "base/lock_order.h"
#include "base/thread_annotations.h"

namespace NV {

// A std::mutex, not recursive. lock throws std::system_error when the platform refuses, which no
// caller catches. Use it with std::lock_guard or std::unique_lock.
class NV_CAPABILITY("mutex") Mutex {
public:
    explicit Mutex(LockRank rank) : order_(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    virtual ~Mutex() = default;

    // Named as in the standard library, so that its guards accept a Mutex.
    void lock() NV_ACQUIRE()
    {
        order_.expectFree();
        mutex_.lock();
        order_.taken();
    }

    // The order does not matter here: a thread that does not wait cannot cause a deadlock.
    bool try_lock() NV_TRY_ACQUIRE(true)
    {
        if (!mutex_.try_lock())
            return false;
        order_.taken();
        return true;
    }

    void unlock() NV_RELEASE()
    {
        order_.released();
        mutex_.unlock();
    }

private:
    [[no_unique_address]] LockOrder order_;
    std::mutex mutex_;
};

}  // namespace NV

#ifdef __clang__
// The standard library's guard for a Mutex, with the annotations that the library does not have.
// Without them the analysis would not see that a guard takes the lock.
template <>
class NV_SCOPED_CAPABILITY std::lock_guard<NV::Mutex> {
public:
    explicit lock_guard(NV::Mutex& mutex) NV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;
    ~lock_guard() NV_RELEASE() { mutex_.unlock(); }

private:
    NV::Mutex& mutex_;
};
#endif
