// The program's exit codes. Scripts rely on the numbers, so they never change.

#pragma once

namespace NV::tool {

enum class ExitCode {
    good = 0,
    failed =
        1,      // the command could not do what was asked, for a reason that is none of those below
    usage = 2,  // the arguments are wrong
    badSignature = 3,
    pinCancelled = 4,
    pinWrong = 5,
    pinLocked = 6,
    noTokenOrKey = 7,
    noDesktop = 8,  // the PIN dialog cannot be shown
};

}  // namespace NV::tool
