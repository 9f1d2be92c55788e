// What the process holds on its heaps, whoever has allocated it: the program, the module's objects in
// it, the system's libraries.

#pragma once

#include <cstddef>

namespace NV::bench {

struct HeapUse {
    size_t blocks = 0;
    size_t bytes = 0;  // as asked for, without the heap's own
};

// Throws std::runtime_error when the heaps cannot be walked block by block.
HeapUse heapUse();

}  // namespace NV::bench
