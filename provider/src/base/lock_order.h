// The order in which a thread may take the module's locks, and the check of that order, which only the
// tests' build contains. For mutex.h.

#pragma once

#include <cstdint>

namespace NV {

// A thread that holds a lock waits only for locks of a higher rank.
enum class LockRank : uint8_t {
    registry,
    provider,
    sequence,
    keyStore,
    callLayer,
    log,
    severeLog,  // a crash report may come in the middle of an ordinary record
    leaf,       // the small locks under which no other lock is taken
};

#ifdef KEYWARDEN_CHECK_LOCK_ORDER

// A lock's place in the order. A thread that breaks the order ends the process at once, with an illegal
// instruction, after a line on standard error that names both ranks.
class LockOrder {
public:
    explicit LockOrder(LockRank rank) : rank_(rank) {}

    // Called before this thread waits for the lock: checks that it has none of this rank or a higher one.
    void expectFree() const;
    // Called when this thread has taken or released the lock.
    void taken() const;
    void released() const;

private:
    LockRank rank_;
};

#else

// Costs neither memory nor time.
class LockOrder {
public:
    explicit LockOrder(LockRank) {}
    void expectFree() const {}
    void taken() const {}
    void released() const {}
};

#endif

}  // namespace NV
