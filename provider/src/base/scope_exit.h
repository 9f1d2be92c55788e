// Work that must be done on every way out of a scope, and clean-up whose errors must not propagate.

#pragma once

#include <utility>

namespace NV {

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

// Does the work at the end of the scope, on every way out, and ignores exceptions of the work: the
// one that ends the scope is the one to report.
template <typename Work>
class ScopeExit {
public:
    explicit ScopeExit(Work work) : work_(std::move(work)) {}
    ~ScopeExit() { quietly(work_); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    Work work_;
};

// Undoes something at the end of the scope unless commit was called: for what must not stay when a
// later step throws.
template <typename Work>
class Undo {
public:
    explicit Undo(Work work) : work_(std::move(work)) {}
    ~Undo()
    {
        if (!committed_)
            quietly(work_);
    }
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;

    void commit() { committed_ = true; }

private:
    Work work_;
    bool committed_ = false;
};

}  // namespace NV
