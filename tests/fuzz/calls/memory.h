// The blocks that the program's own objects hold, the module's among them, and the failure of one of
// their allocations. Whoever links memory.cpp has malloc, operator new and their kin wrapped; see
// CMakeLists.txt.

#pragma once

#include <cstdint>

namespace NV::fuzz {

long liveBlocks();

// Lets the nth allocation from now on fail, 1 being the next one; 0 takes the order back. Returns
// what was left of the order before. A failed allocation ends the order.
uint32_t failAllocation(uint32_t nth);

// Whether an allocation has failed since the last call of this function.
bool takeAllocationFailed();

// The last block of an operator new that returns null instead of throwing, if it is still there: a
// provider. Returns null the next time.
void* takeNothrowBlock();

}  // namespace NV::fuzz
