// Work that must be done when a scope is left, whichever way.

#pragma once

#include <utility>

namespace NV {

// Does the work when run is called, or else in the destructor, where what it throws is swallowed:
// that is the way out for an exception that is on its way already.
template <typename Work>
class ScopeExit {
public:
    explicit ScopeExit(Work work) : work_(std::move(work)) {}
    ~ScopeExit()
    {
        if (done_)
            return;
        try {
            work_();
        } catch (...) {
            // The exception that ends the scope is the one to be heard.
        }
    }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

    void run()
    {
        done_ = true;
        work_();
    }

private:
    Work work_;
    bool done_ = false;
};

}  // namespace NV
