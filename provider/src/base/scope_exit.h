// Work that must be done when a scope is left, whichever way, and clean-up whose own errors must not
// get out.

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

// Runs clean-up, mostly in a destructor, and swallows what it throws: an error of the log must not end
// the process.
template <typename Work>
void quietly(Work&& work) noexcept
{
    try {
        work();
    } catch (...) {
        // Nothing can be reported where reporting itself failed.
    }
}

}  // namespace NV
