// The locks of the module, each with its place in the order in which a thread may take them.

#pragma once

#include <condition_variable>
#include <mutex>

#include "base/lock_order.h"

namespace NV {

// A std::mutex, not recursive. lock throws std::system_error when the platform refuses, which no
// caller catches. Use it with std::lock_guard or std::unique_lock.
class Mutex {
public:
    explicit Mutex(LockRank rank) : order_(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    virtual ~Mutex() = default;

    // Named as in the standard library, so that its guards accept a Mutex.
    void lock()
    {
        order_.expectFree();
        mutex_.lock();
        order_.taken();
    }

    // The order does not matter here: a thread that does not wait cannot cause a deadlock.
    bool try_lock()
    {
        if (!mutex_.try_lock())
            return false;
        order_.taken();
        return true;
    }

    void unlock()
    {
        order_.released();
        mutex_.unlock();
    }

    // Waits until the condition is notified and the predicate is true. The caller holds the lock
    // before and after the call.
    template <typename Predicate>
    void wait(std::condition_variable& condition, const Predicate& predicate)
    {
        std::unique_lock guard(mutex_, std::adopt_lock);
        condition.wait(guard, predicate);
        static_cast<void>(guard.release());
    }

private:
    [[no_unique_address]] LockOrder order_;
    std::mutex mutex_;
};

}  // namespace NV
