// How the stand-in reports its failures. For its own files.

#pragma once

#include <windows.h>

namespace NV::stand_in {

// Sets the last error. Returns FALSE.
BOOL failed(LONG error);

// The error of Windows for a value of errno.
LONG systemError(int number);

}  // namespace NV::stand_in
