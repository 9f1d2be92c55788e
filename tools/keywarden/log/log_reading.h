// Reading logs from their files, whole or as they grow.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "files.h"
#include "log/line_reader.h"
#include "log/log_operation.h"

namespace NV::tool {

// One log, which may still grow.
class OpenLog {
public:
    // "-" is standard input. Throws Failure when the file cannot be read.
    explicit OpenLog(const std::string& name);

    // Passes on all whole lines that there are now.
    void readTo(OperationReader& reader);
    // The same, and what follows the last line feed.
    void readAllTo(OperationReader& reader);

    // Bytes, so far.
    uint64_t size() const { return size_; }

private:
    InputFile file_;
    uint64_t size_ = 0;
    LineReader lines_;
};

// Reads one log after the other, whole. Throws Failure when one cannot be read, and when none contains a
// record of the module.
void readLogs(const std::vector<std::string>& names, OperationReader& reader);

}  // namespace NV::tool
