// The operations of a provider and of the registry as rows, each behind the same call, with what it
// gives and how that is released. Used by the tests of events (event.h).

#pragma once

#include <initializer_list>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "provider_world.h"

namespace NV::test {

// What a case begins with.
enum class Start {
    open,        // what ProviderWorld::open gives, which all runs of the case share
    fresh,       // the same for each run anew, because the operation changes it
    closed,      // no provider
    registered,  // providers that the registry owns, and a library that someone else has initialised
};

// What an operation does when memory ends.
enum class MemoryRule {
    plain,    // std::bad_alloc leaves it
    block,    // NTE_NO_MEMORY for the block that CNG would get
    token,    // NTE_INTERNAL_ERROR once it has called the token
    opening,  // it fails in its own ways
};

// What a provider has more than before, after the outputs were released.
enum class Stays { nothing, value };

// When an operation with an output writes its length.
enum class LengthTold {
    onSuccess,
    withTheOutput,  // although a later step may fail
};

// Whether a failure that the operation returns may leave blocks on the heap.
enum class OnFailure {
    leavesNothing,
    keepsProvider,  // Compat: a provider whose opening failed is never destroyed
};

struct ProviderCase {
    const char* name = nullptr;
    Start start{};
    MemoryRule memory{};
    size_t output = 0;  // bytes that it writes to the buffer; 0: it writes none
    // Before each run. Null: nothing to do.
    void (*prepare)(ProviderWorld& world) = nullptr;
    // The event may strike only here.
    SECURITY_STATUS (*act)(ProviderWorld& world) = nullptr;
    // Releases what the operation has given. `done`: it has succeeded. Says what is wrong: nothing
    // given by a success, or something given that is not whole.
    std::string (*settle)(ProviderWorld& world, bool done) = nullptr;
    OnFailure onFailure = OnFailure::leavesNothing;
    Stays stays = Stays::nothing;
    LengthTold told = LengthTold::onSuccess;
};

std::span<const ProviderCase> providerCases();
// Some of them. Throws std::invalid_argument when there is no such name.
std::vector<ProviderCase> providerCasesNamed(std::initializer_list<std::string_view> names);

inline void PrintTo(const ProviderCase& row, std::ostream* out)
{
    *out << row.name;
}

}  // namespace NV::test
