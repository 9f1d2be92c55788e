// The exception with which a command reports that it could not do what was asked.

#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace NV::tool {

// Ends the program with exit code 1. The reason is printed, and the advice: what to do next, if that
// is known. Both are UTF-8.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& reason, std::string advice = {})
        : std::runtime_error(reason), advice_(std::move(advice))
    {
    }

    const std::string& advice() const { return advice_; }

private:
    std::string advice_;
};

}  // namespace NV::tool
