// What the tests of whole traces with a dialog share. Used by dialog_trace_test.cpp and
// dialog_failure_trace_test.cpp.

#pragma once

#include <regex>

#include "module_fixture.h"

namespace NV::test {

class DialogTraceTest : public ServedKeysTest {
protected:
    static std::wstring rightPin() { return {kPin.begin(), kPin.end()}; }

    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0,
                         void* padding = nullptr)
    {
        return table()->SignHash(handle(), key, padding, hash.data(), 32, output.at(), room,
                                 &output.length, flags);
    }

    // The lines since the last look. The dialog's size and place depend on fonts and screen; they
    // become "#".
    LogLines comparableLines()
    {
        static const std::regex size(R"(GetWindowRect\(\) w=\d+, h=\d+)");
        static const std::regex place(R"(cordination x=-?\d+, y=-?\d+)");
        LogLines lines = takeLines();
        for (LogLine& line : lines) {
            line.message = std::regex_replace(line.message, size, "GetWindowRect() w=#, h=#");
            line.message = std::regex_replace(line.message, place, "cordination x=#, y=#");
        }
        return lines;
    }

    Output output;
};

}  // namespace NV::test
