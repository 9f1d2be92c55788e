// The owner of the process-wide objects that outlive static destruction.

#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace NV {

// An object that is made with its owner and never destroyed: the exit code of other modules may call
// into this one after its static objects are gone. Use it for a static variable of a function:
//
//     static NeverDestroyed<Config> config;
//     return *config;
//
// A class with a private constructor must declare its NeverDestroyed a friend.
template <typename T>
class NeverDestroyed {
public:
    template <typename... Arguments>
    explicit NeverDestroyed(Arguments&&... arguments)
        // cppcheck-suppress noDestructor ; this class exists to never destroy the object
        : object_(new (storage_) T(std::forward<Arguments>(arguments)...))
    {
    }
    ~NeverDestroyed() = default;
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& operator*() { return *object_; }
    T* operator->() { return object_; }

private:
    alignas(T) std::byte storage_[sizeof(T)]{};
    T* object_;
};

}  // namespace NV
