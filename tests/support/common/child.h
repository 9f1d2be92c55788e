// Starts Windows processes and waits for them. Used by tests of what cannot be seen or undone in
// the test's own process: standard output, attach and detach, crashes, environment at start.

#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "child_work.h"

namespace NV::test {

struct ChildOptions {
    std::vector<std::string> arguments = {};  // ANSI code page
    // Variables that differ from this process's; an empty optional removes one.
    std::map<std::wstring, std::optional<std::wstring>> environment = {};
    // What the child reads from standard input; without it, the input has ended. At most 4096 bytes.
    std::optional<std::string> input = {};
    // After this time the child is ended and timedOut is set.
    std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

struct ChildResult {
    unsigned long exitCode = 0;  // 0xC0000005 and the like after a crash
    std::string output;          // standard output and standard error, byte for byte
    bool timedOut = false;
};

// A second process of this test program that does the work registered by NV_TEST_CHILD.
ChildResult runChild(const std::string& work, const ChildOptions& options = {});

// Another program. Throws std::system_error when it cannot be started.
ChildResult runProgram(const std::filesystem::path& program, const ChildOptions& options = {});

// The running test program, and the folder where the build puts the module and all programs.
std::filesystem::path ownProgram();
std::filesystem::path programFolder();

}  // namespace NV::test
