// Expected logs in files of their own, below tests/traces. Portable.
//
// A trace file has one rendered line a line ("TRC NV::Provider::init:ENTER"), as trace_log.h renders
// and masks them. Besides:
//
//     # A comment. It and empty lines are left out.
//     @include common/login PIN=12 TEXT="two words"    the lines of common/login.trace
//     TRC ${OPERATION}:Success to login the token      ${NAME} is replaced by a value
//
// A value comes from the test, or from the line that includes the file; an included file sees the
// values of the file that includes it. ${SPACE} is a blank: lines do not end with a bare one.

#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "trace_log.h"

namespace NV::test {

using TraceValues = std::map<std::string, std::string>;

struct TraceLine {
    std::string text;
    std::string place;  // where it is written: "common/login.trace:3"
};

// The lines of the file `name`.trace below the folder. Throws std::runtime_error, with the place in
// its text, for a file that cannot be read, a name without a value, a value that no line uses, a
// file that includes itself, and a line that is not well formed.
std::vector<TraceLine> readTrace(const std::filesystem::path& folder, const std::string& name,
                                 const TraceValues& values = {});

// How the lines differ, as a unified diff that says where each expected line is written; empty if
// they do not differ.
std::string traceDifference(const std::vector<TraceLine>& expected,
                            const std::vector<std::string>& logged);

// Fails the test, with the difference, unless the lines render, masked, as the trace file. The
// second form takes lines that are rendered and masked already.
//
// With KEYWARDEN_WRITE_TRACES=1 in the environment a difference is written to the build folder as
// well, where scripts/update-traces.sh finds it.
void expectTrace(const LogLines& lines, const std::string& name, const TraceValues& values = {},
                 const char* file = __builtin_FILE(), int line = __builtin_LINE());
void expectTrace(const std::string& text, const std::string& name, const TraceValues& values = {},
                 const char* file = __builtin_FILE(), int line = __builtin_LINE());

}  // namespace NV::test
