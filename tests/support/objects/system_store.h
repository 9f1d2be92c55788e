// Keeps the user's "My" store out of the opening of providers: the program is linked with the
// system's function wrapped, and every opened store is an empty one in memory.

#pragma once

#include <cstdint>

namespace NV::test {

// How often the store has been opened: once for each certificate that is to be published.
uint32_t systemStoreOpenings();

}  // namespace NV::test
