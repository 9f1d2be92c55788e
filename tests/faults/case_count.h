// The cases of the fault matrix that this program has run. It prints their number at its end, where a whole
// run must have been more than a thousand.

#pragma once

namespace NV::test {

void countCase();

}  // namespace NV::test
