// What another program prints.

#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace NV::tool {

struct ProgramOutput {
    bool ended = false;  // false: it took too long and was ended
    std::string text;    // standard output and standard error, without carriage returns
};

// Runs a program with that command line, without an input and without a console of its own. Time in which
// it shows a window does not count. Throws Failure if it cannot be started.
ProgramOutput outputOfProgram(const std::filesystem::path& program, std::wstring commandLine,
                              std::chrono::milliseconds limit);

}  // namespace NV::tool
