// Cutting the log of a good run into its steps.

#include "failing_call.h"

#include <algorithm>
#include <cctype>

namespace NV::test {

namespace {

// The name of the call that begins here; empty for any other line.
std::string startedCall(const LogLine& line)
{
    constexpr std::string_view call = "CALL ";
    constexpr std::string_view start = "(): START";
    const std::string& text = line.message;
    if (!line.function.starts_with("NV::Pkcs11::") || !text.starts_with(call) ||
        !text.ends_with(start))
        return {};
    return text.substr(call.size(), text.size() - call.size() - start.size());
}

bool isHeading(const LogLine& line)
{
    return line.message.size() > 1 && line.message[1] == ')' &&
           std::isdigit(static_cast<unsigned char>(line.message[0])) != 0;
}

// A step of the operation: its heading, and what it logs until the next one.
LogLines stepWith(const LogLines& good, const std::string& operation, const std::string& call)
{
    const auto start = std::ranges::find(good, call, startedCall);
    LogLines step;
    for (auto line = good.begin(); line != good.end(); ++line) {
        if (line->function != operation)
            continue;
        if (line->message == "LEAVE" || isHeading(*line)) {
            if (line > start)
                break;
            step.clear();
        }
        step.push_back(*line);
    }
    return step;
}

}  // namespace

std::vector<LoggedCall> loggedCalls(const LogLines& run)
{
    std::map<std::string, uint32_t> counts;
    std::vector<LoggedCall> calls;
    for (const LogLine& line : run) {
        const std::string name = startedCall(line);
        if (!name.empty())
            calls.push_back({name, ++counts[name]});
    }
    return calls;
}

ErrorTexts withCommonErrors(ErrorTexts own)
{
    own.merge(ErrorTexts{
        {"C_Initialize", "Failed C_Initialize "},
        {"C_OpenSession", "Failed to open session "},
        {"C_Login", "Failed to login the token "},
        {"C_FindObjectsInit", "Failed to initialize FindObject "},
        {"C_FindObjects", "Failed to find Object "},
        {"C_FindObjectsFinal", "Failed to finalize the FindObject "},
        {"C_Logout", "Failed to logout the token "},
        {"C_CloseSession", "Failed to close session "},
        {"C_Finalize", "Failed C_Finalize "},
    });
    return own;
}

std::string linesWithFailure(const LogLines& good, const std::string& operation, size_t index,
                             const std::string& error, const std::vector<std::string>& seen)
{
    std::string text;
    size_t calls = 0;
    for (const LogLine& line : good) {
        if (!startedCall(line).empty() && calls++ == index)
            break;
        if (line.function == operation)
            text += masked(render(line)) + "\n";
    }
    text += "ERR " + operation + ":" + error + "\n";
    for (size_t i = index + 1; i < seen.size(); ++i)
        text += masked(render(stepWith(good, operation, seen[i])));
    return text + "TRC " + operation + ":LEAVE\n";
}

}  // namespace NV::test
