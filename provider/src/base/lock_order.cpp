// The check of the lock order. Not part of the released module.

#include "base/lock_order.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

namespace NV {

namespace {

struct HeldLock {
    const LockOrder* lock;
    LockRank rank;
};

// The locks that a thread holds, in the order in which it took them. Needs no construction or
// destruction, so that it is usable for the whole life of a thread.
struct HeldLocks {
    std::array<HeldLock, 16> locks;
    size_t count;
    size_t before;  // how many of them the thread took before it came to code outside the module

    HeldLock* begin() { return locks.data(); }
    HeldLock* end() { return locks.data() + count; }
};

constinit thread_local HeldLocks held{};

const char* nameOf(LockRank rank)
{
    static constexpr const char* names[] = {"registry",  "provider",   "sequence",
                                            "key store", "call layer", "library",
                                            "log",       "severe log", "leaf"};
    static_assert(std::size(names) == static_cast<size_t>(LockRank::leaf) + 1);
    return names[static_cast<size_t>(rank)];
}

[[noreturn]] void end(const char* what, LockRank rank, const char* more)
{
    static_cast<void>(std::fprintf(stderr, "lock order: %s %s%s\n", nameOf(rank), what, more));
    static_cast<void>(std::fflush(stderr));
    __builtin_trap();
}

}  // namespace

void LockOrder::expectFree() const
{
    size_t before = held.before;
    for (const HeldLock& lock : held) {
        const bool counts = before == 0;
        before -= counts ? 0 : 1;
        if (lock.lock == this || (counts && lock.rank >= rank_))
            end("is taken under ", rank_, nameOf(lock.rank));
    }
}

void LockOrder::taken() const
{
    if (held.count == held.locks.size())
        end("is taken under too many others", rank_, "");
    held.locks[held.count++] = {this, rank_};
}

void LockOrder::released() const
{
    HeldLock* const own = std::ranges::find(held.begin(), held.end(), this, &HeldLock::lock);
    if (own == held.end())
        end("is released by a thread that has not taken it", rank_, "");
    std::move(own + 1, held.end(), own);
    --held.count;
}

OutsideCode::OutsideCode() : before_(held.before)
{
    held.before = held.count;
}

OutsideCode::~OutsideCode()
{
    held.before = before_;
}

}  // namespace NV
