// The exception with which a command reports that it could not do what was asked.

#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "exit_code.h"

namespace NV::tool {

// Ends the program with an exit code. The reason is printed, and the advice: what to do next, if that
// is known. Both are UTF-8.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& reason, std::string advice = {},
                     ExitCode exitCode = ExitCode::failed, std::optional<long> status = {})
        : std::runtime_error(reason), advice_(std::move(advice)), exitCode_(exitCode),
          status_(status)
    {
    }

    const std::string& advice() const { return advice_; }
    ExitCode exitCode() const { return exitCode_; }

    // The status of the call that failed, if a call did.
    std::optional<long> status() const { return status_; }

private:
    std::string advice_;
    ExitCode exitCode_;
    std::optional<long> status_;
};

// Why something at the end of a command failed, in a destructor, which cannot throw. Empty if nothing
// did. main prints it, and the program ends as failed.
inline std::string& lateFailure()
{
    static std::string reason;
    return reason;
}

}  // namespace NV::tool
