// How the provider tells failures that could also be exceptions: the rest of what dll.cpp does with those
// that leave it. For the provider's own files.

#pragma once

#include "base/cng.h"

#include "config/mode.h"

namespace NV {

struct FailureRules {
    // Of memory that ends where exceptions are caught.
    SECURITY_STATUS noMemory;
    // An unknown provider handle has no provider. Otherwise looking it up throws, or adds it.
    bool unknownProviderIsNull;
};

inline const FailureRules& failureRules()
{
    static constexpr FailureRules classic = {NTE_INTERNAL_ERROR, false};
    static constexpr FailureRules modern = {NTE_NO_MEMORY, true};
    return mode().containsExceptions() ? modern : classic;
}

}  // namespace NV
