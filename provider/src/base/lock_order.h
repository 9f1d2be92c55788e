// The order in which a thread may take the module's locks, and the check of that order, which only
// the build of the tests contains. For mutex.h.

#pragma once

#include <cstddef>
#include <cstdint>

namespace NV {

// A thread that holds a lock waits only for locks of a higher rank.
enum class LockRank : uint8_t {
    registry,
    provider,
    sequence,
    keyStore,
    callLayer,
    library,
    log,
    severeLog,  // a crash report may interrupt an ordinary record
    leaf,       // no other lock is taken under it
};

#ifdef KEYWARDEN_CHECK_LOCK_ORDER

// A lock's place in the order. A violation writes a line with both ranks to standard error and ends
// the process with an illegal instruction.
class LockOrder {
public:
    explicit LockOrder(LockRank rank) : rank_(rank) {}

    // Call it before this thread waits for the lock. The thread may hold no lock of this rank or a
    // higher one.
    void expectFree() const;
    // Called when this thread has taken or released the lock.
    void taken() const;
    // Called by the thread that has taken the lock.
    void released() const;

private:
    LockRank rank_;
};

// While an object exists, the calling thread runs code of the program from inside the module: window
// procedures, from the loop of the dialog. That code may call the module, for another provider or to
// free this one, so the order begins anew. A lock that the thread already holds is still out of reach.
class OutsideCode {
public:
    OutsideCode();
    ~OutsideCode();
    OutsideCode(const OutsideCode&) = delete;
    OutsideCode& operator=(const OutsideCode&) = delete;

private:
    size_t before_;
};

#else

// Has no size and no code.
class LockOrder {
public:
    explicit LockOrder(LockRank) {}
    void expectFree() const {}
    void taken() const {}
    void released() const {}
};

class [[maybe_unused]] OutsideCode {
public:
    OutsideCode() = default;
    ~OutsideCode() = default;
    OutsideCode(const OutsideCode&) = delete;
    OutsideCode& operator=(const OutsideCode&) = delete;
};

#endif

}  // namespace NV
