// What the test's process uses, as the system counts it. For the tests of this folder.

#pragma once

#include <cstddef>
#include <string>

namespace NV::test {

struct Usage {
    size_t privateKilobytes;  // anonymous memory in use
    size_t heapBlocks;        // in use, of all heaps of the process
    size_t heapBytes;
    size_t handles;
    size_t threads;
};

Usage usage();

// One line of figures under the line of their names.
std::string usageHeading();
std::string usageLine(const std::string& name, const Usage& usage);

}  // namespace NV::test
