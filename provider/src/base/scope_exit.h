// Work that must be done on every way out of a scope, and clean-up whose errors must not propagate.

#pragma once

#include <utility>

namespace NV {

// Does the work in run, or in the destructor if run was not called. The destructor ignores
// exceptions of the work, because it then usually runs while another exception unwinds.
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
            // The exception that ends the scope is the one to report.
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
        // The log itself has failed, so there is nowhere to report this.
    }
}

}  // namespace NV
