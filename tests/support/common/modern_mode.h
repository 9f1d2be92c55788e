// The modern behaviour for the life of an object, in the module's objects that are linked into the test.

#pragma once

#include "config/mode.h"

namespace NV::test {

class ModernMode {
public:
    explicit ModernMode(bool silentPrompt = false) : before_(mode())
    {
        setMode(Mode(Behaviour::modern, silentPrompt));
    }
    ~ModernMode() { setMode(before_); }
    ModernMode(const ModernMode&) = delete;
    ModernMode& operator=(const ModernMode&) = delete;

private:
    Mode before_;
};

}  // namespace NV::test
