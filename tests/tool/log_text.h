// Trace logs written line by line, and their operations. For the tests of keywarden log.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "log/log_operation.h"
#include "log/log_page.h"
#include "log/log_summary.h"

namespace NV::test {

// A log that grows line by line. Each line is a tenth of a second later than the one before.
class LogText {
public:
    explicit LogText(std::string day = "2026-03-04") : day_(std::move(day)) {}

    // Sets the process and the thread of the lines that follow.
    LogText& as(const std::string& process, const std::string& thread)
    {
        identity_ = process + "," + thread;
        return *this;
    }

    LogText& record(const std::string& level, const std::string& function,
                    const std::string& message)
    {
        char time[32];
        std::snprintf(time, sizeof time, " 17:%02d:%02d.%d00", tenths_ / 600, tenths_ / 10 % 60,
                      tenths_ % 10);
        ++tenths_;
        text_ += day_ + time + " " + level + " [" + identity_ + "] " + function +
                 "[odd.cpp:" + std::to_string(tenths_) + "]:" + message + "\n";
        return *this;
    }
    LogText& trace(const std::string& function, const std::string& message)
    {
        return record("TRC", function, message);
    }
    LogText& enter(const std::string& operation)
    {
        return trace("NV::Provider::" + operation, "ENTER");
    }
    LogText& leave(const std::string& operation, const std::string& milliseconds,
                   const std::string& status = "0x0")
    {
        const std::string function = "NV::Provider::" + operation;
        trace(function, "STATUS=" + status + ", ELAPSED:" + milliseconds + "(ms)");
        return trace(function, "LEAVE");
    }
    // A whole operation.
    LogText& operation(const std::string& name, const std::string& milliseconds,
                       const std::string& status = "0x0")
    {
        return enter(name).leave(name, milliseconds, status);
    }
    // A call of the library in the two forms of its outcome.
    LogText& call(const std::string& name, const std::string& result,
                  const std::string& milliseconds = "1.500")
    {
        start(name);
        return trace("NV::Pkcs11::" + name, "CALL " + name + "(): Result = " + result +
                                                ", Elapsed [" + milliseconds + " msec]");
    }
    LogText& endedCall(const std::string& name, const std::string& milliseconds = "1.500")
    {
        start(name);
        return trace("NV::Pkcs11::" + name, "CALL " + name + "(): END [" + milliseconds + " msec]");
    }
    LogText& start(const std::string& name)
    {
        return trace("NV::Pkcs11::" + name, "CALL " + name + "(): START");
    }
    LogText& raw(const std::string& line)
    {
        text_ += line + "\n";
        return *this;
    }

    const std::string& text() const { return text_; }

private:
    std::string day_;
    std::string text_;
    std::string identity_ = "04312,1a2b3c4d";
    int tenths_ = 0;
};

// The operations of a log in the order in which they began. `foreign` receives the number of lines that are no records.
inline std::vector<tool::Operation> operationsOf(const std::string& text, size_t* foreign = nullptr)
{
    std::vector<tool::Operation> operations;
    tool::OperationReader reader(
        [&](tool::Operation operation) { operations.push_back(std::move(operation)); });
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        reader.addLine(line);
    reader.finish();
    if (foreign != nullptr)
        *foreign = reader.foreignLines();
    std::ranges::stable_sort(operations, {}, &tool::Operation::line);
    return operations;
}

// What is said of operations, with all of them kept.
inline tool::LogSummary summaryOf(const std::vector<tool::Operation>& operations)
{
    tool::LogSummary summary(1000, 0, 1000);
    for (const tool::Operation& operation : operations)
        summary.add(operation);
    return summary;
}

// Their page.
inline std::string pageOf(const std::vector<tool::Operation>& operations, const std::string& title)
{
    tool::LogPage page(false);
    for (const tool::Operation& operation : operations)
        page.add(operation);
    return page.text(title, summaryOf(operations));
}

}  // namespace NV::test
