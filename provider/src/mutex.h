// The lock of the registry, the provider, the key store and the call layer.

#pragma once

#include <mutex>

namespace NV {

// One std::mutex, not recursive. Locking throws std::system_error when the platform refuses, and
// no caller catches that. Use it with std::lock_guard.
class Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    virtual ~Mutex() = default;

    // The names are the standard library's, so that its guards take a Mutex.
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

}  // namespace NV
