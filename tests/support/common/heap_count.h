// Counts the blocks of the C heap that the program's own objects hold, the module's among them,
// whoever of them allocates one.

#pragma once

#include <cstddef>

namespace NV::test {

long liveHeapBlocks();

// The bytes of these blocks, and the most that they have been since the peak was last forgotten.
size_t liveHeapBytes();
size_t peakHeapBytes();
void forgetPeakHeapBytes();

// Asked before each block is allocated, with its size in bytes: false makes the allocation fail. It may
// not allocate. Null, as at the start: none fails.
using AllocationGate = bool (*)(size_t size);
void setAllocationGate(AllocationGate gate);

// Called before each block is released, with its size in bytes. Null, as at the start: nobody looks.
using ReleaseWatch = void (*)(const void* block, size_t size);
void setReleaseWatch(ReleaseWatch watch);

}  // namespace NV::test
