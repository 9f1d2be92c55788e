// Counts the blocks of the C heap that the program's own objects hold, the module's among them,
// whoever of them allocates one.

#pragma once

namespace NV::test {

long liveHeapBlocks();

}  // namespace NV::test
