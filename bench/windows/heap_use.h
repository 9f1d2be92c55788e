// Counts the allocated blocks on all heaps of the process: those of the program, of the module's
// objects in it, and of the system's libraries.

#pragma once

#include <cstddef>

namespace NV::bench {

struct HeapUse {
    size_t blocks = 0;
    size_t bytes = 0;  // as requested, without the heap's overhead
};

// Throws std::runtime_error when the heaps cannot be walked block by block.
HeapUse heapUse();

}  // namespace NV::bench
