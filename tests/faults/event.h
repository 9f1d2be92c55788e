// Something that goes wrong at a moment that nobody can choose: the nth record of the log, the nth
// allocation. The tests of such events run an operation once for each n.

#pragma once

#include <cstddef>
#include <string>

namespace NV::test {

enum class Extent {
    once,        // only the nth event fails
    fromThenOn,  // it and every later one
};

class Event {
public:
    Event() = default;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    virtual ~Event() = default;

    // The nth event from now on fails; counted from 1. With 0 none fails.
    virtual void arm(size_t nth, Extent extent) = 0;
    // From now on none fails. Whether one has.
    virtual bool disarm() = 0;
    // "record", "allocation".
    virtual const char* name() const = 0;
};

}  // namespace NV::test
