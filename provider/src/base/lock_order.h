// The order in which a thread may take the module's locks, and the watch over it, which stands in
// the build of the tests only. For mutex.h.

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
    leaf,       // of the small locks that nothing else is done under
};

#ifdef KEYWARDEN_CHECK_LOCK_ORDER

// A lock's place in the order. What breaks the order ends the process at once, with an illegal
// instruction, after a line on standard error that names both ranks.
class LockOrder {
public:
    explicit LockOrder(LockRank rank) : rank_(rank) {}

    // Before this thread waits for the lock: it holds none of this rank or a higher one.
    void expectFree() const;
    void taken() const;
    // This thread has taken the lock.
    void released() const;

private:
    LockRank rank_;
};

#else

// Takes neither room nor time.
class LockOrder {
public:
    explicit LockOrder(LockRank) {}
    void expectFree() const {}
    void taken() const {}
    void released() const {}
};

#endif

}  // namespace NV
