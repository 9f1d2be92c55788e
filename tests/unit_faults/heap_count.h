// Counts the blocks of the C heap that the program's own objects hold, the module's among them. The
// program is linked with malloc and its kin wrapped.

#pragma once

namespace NV::test {

long liveHeapBlocks();

}  // namespace NV::test
