// Reads what the logger wrote, for comparison with literal text. Portable; used by all tests that
// look at the log.
//
// A line "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] NV::Provider::init[nvvtoken.cpp:87]:ENTER"
// renders as "TRC NV::Provider::init:ENTER": what changes from run to run or with the source's
// layout is left out. Pointers and elapsed times are masked in the message on request.

#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace NV::test {

struct LogLine {
    std::string timestamp;  // "2026-03-04 17:05:09.042"
    std::string level;      // "TRC"
    std::string identity;   // "[04312,1a2b3c4d]"
    std::string function;   // "NV::Provider::init"; empty when the message carries no place
    std::string file;       // "nvvtoken.cpp"
    int line = 0;
    std::string message;  // what follows the place: "ENTER"
    std::string raw;      // the whole line without its end
};

using LogLines = std::vector<LogLine>;

// Throws std::runtime_error, with the line in its text, for anything that is not a whole record.
LogLine parseLine(std::string_view raw);

// Every line, banner included. Line ends may be LF or CR LF; the last line must have one.
LogLines parseLog(std::string_view text);

// The file's lines; for a folder, those of all *.log files in the order of their names. A folder
// that does not exist has none.
LogLines readLog(const std::filesystem::path& fileOrFolder);

LogLines selected(const LogLines& lines, const std::function<bool(const LogLine&)>& condition);
LogLines ofLevel(const LogLines& lines, std::string_view level);
LogLines ofFunction(const LogLines& lines, std::string_view function);
LogLines withoutBanner(const LogLines& lines);

// The function's last run on one thread: from its last ENTER to the LEAVE that belongs to it, with
// what other functions wrote in between on the same thread. Ends with the log when the function was
// left by an exception; empty when it never ran.
LogLines lastRun(const LogLines& lines, std::string_view function);

// The lines as one text, each with a line feed.
std::string joined(const std::vector<std::string>& lines);

// "TRC NV::Provider::init:ENTER", or "INF LOGGER():STARTED" for a line without a place.
std::string render(const LogLine& line);

// A rendered line a line, each with a line feed.
std::string render(const LogLines& lines);

// Printed pointers (16 hexadecimal digits) become "PTR", null pointers "NULL".
std::string maskPointers(const std::string& text);

// Numbers with three decimals after "Elapsed [", "END [" and "ELAPSED:" become "#".
std::string maskTimes(const std::string& text);

// Both.
std::string masked(const std::string& text);

// Fails the test, with a diff, unless the lines render, masked, as the expected block. The block
// is written one line a line; a line feed at its beginning is ignored, and one at its end.
void expectBlock(const LogLines& lines, std::string_view expected,
                 const char* file = __builtin_FILE(), int line = __builtin_LINE());

// Whether a line renders, masked, exactly as the text.
bool hasLine(const LogLines& lines, std::string_view rendered);

// How many do.
size_t countLines(const LogLines& lines, std::string_view rendered);

}  // namespace NV::test
