// Discards what the program writes to its standard output. Portable; used by the tests of this folder
// that let the log write to the console.

#pragma once

#include <cstdio>
#include <stdexcept>

#include <fcntl.h>
#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

namespace NV::test {

class QuietOutput {
public:
    QuietOutput() : output_(::dup(standardOutput)), nothing_(::open(nowhere, O_WRONLY))
    {
        if (output_ < 0 || nothing_ < 0)
            throw std::runtime_error("the standard output cannot be redirected");
    }
    ~QuietOutput()
    {
        end();
        ::close(nothing_);
        ::close(output_);
    }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

    void begin() { turnTo(nothing_, true); }
    void end() { turnTo(output_, false); }

private:
    static constexpr int standardOutput = 1;
#ifdef _WIN32
    static constexpr const char* nowhere = "NUL";
#else
    static constexpr const char* nowhere = "/dev/null";
#endif

    void turnTo(int target, bool quiet)
    {
        if (quiet == quiet_)
            return;
        static_cast<void>(std::fflush(stdout));
        ::dup2(target, standardOutput);
        quiet_ = quiet;
    }

    int output_;
    int nothing_;
    bool quiet_ = false;
};

}  // namespace NV::test
