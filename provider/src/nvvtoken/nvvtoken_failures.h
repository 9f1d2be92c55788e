// How the provider tells failures that could also be exceptions: the rest of what dll.cpp does with those
// that leave it. For the provider's own files.

#pragma once

#include "base/cng.h"

#include <new>
#include <system_error>

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

// Of the exception that is being handled.
inline SECURITY_STATUS statusOfCaught()
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return failureRules().noMemory;
    } catch (const std::system_error& error) {
        // The platform allocates a lock when it is first taken.
        if (error.code() == std::errc::not_enough_memory)
            return failureRules().noMemory;
    } catch (...) {
        return NTE_INTERNAL_ERROR;
    }
    return NTE_INTERNAL_ERROR;
}

}  // namespace NV
