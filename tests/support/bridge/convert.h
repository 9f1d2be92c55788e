// Converts numbers between the 64-bit CK_ULONG of a native library and the 32-bit CK_ULONG of
// Windows, and defines the error that ends a call whose result does not fit. For the bridge's own
// files.

#pragma once

#include <cstdint>
#include <limits>

#include "native.h"

namespace NV::bridge {

// Ends the current call with a return value; guarded() in exports.h catches it.
struct Failure {
    CK_RV value;
};

inline constexpr CK_ULONG unavailable = std::numeric_limits<CK_ULONG>::max();
inline constexpr native::CK_ULONG nativeUnavailable = std::numeric_limits<native::CK_ULONG>::max();

// Handles, identifiers, types and flags: all 32-bit numbers are ordinary values.
// Throws Failure when the number is larger.
inline CK_ULONG narrow(native::CK_ULONG value)
{
    if (value > unavailable)
        throw Failure{CKR_GENERAL_ERROR};
    return static_cast<CK_ULONG>(value);
}

// Lengths, counts and values of attributes. "All ones" has a special meaning in both widths, so a
// native number that would become "all ones" does not fit.
inline CK_ULONG narrowAmount(native::CK_ULONG value)
{
    if (value == nativeUnavailable)
        return unavailable;
    if (value >= unavailable)
        throw Failure{CKR_GENERAL_ERROR};
    return static_cast<CK_ULONG>(value);
}

inline native::CK_ULONG widenAmount(CK_ULONG value)
{
    return value == unavailable ? nativeUnavailable : value;
}

// A native return value; a value that does not fit becomes a general error.
inline CK_RV narrowResult(native::CK_RV value)
{
    return value > unavailable ? CK_RV{CKR_GENERAL_ERROR} : static_cast<CK_RV>(value);
}

}  // namespace NV::bridge
