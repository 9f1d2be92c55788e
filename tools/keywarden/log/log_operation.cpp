// Assembling operations from the lines of a log.

#include "log/log_operation.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

namespace NV::tool {

namespace {

constexpr uint32_t noMoreItems = 0x8009002A;

// The text between two marks; empty if one is missing.
std::optional<std::string> between(std::string_view text, std::string_view before,
                                   std::string_view after)
{
    const size_t begin = text.find(before);
    if (begin == std::string_view::npos)
        return std::nullopt;
    const std::string_view rest = text.substr(begin + before.size());
    const size_t end = rest.find(after);
    if (end == std::string_view::npos)
        return std::nullopt;
    return std::string(rest.substr(0, end));
}

// "CKR_OK" from "... 00000000(CKR_OK)...", or the number of a result without a name.
std::string resultName(std::string_view text)
{
    const std::string value(text.substr(0, text.find_first_of(", ")));
    return between(value, "(", ")").value_or(value);
}

// Milliseconds; 0 for an invalid time.
double toTime(const std::string& text)
{
    const double value = std::strtod(text.c_str(), nullptr);
    return std::isfinite(value) && value > 0 ? value : 0;
}

// Never negative: a log has local times, which go back when daylight saving time ends.
double timeBetween(int64_t begin, int64_t end)
{
    return static_cast<double>(std::max<int64_t>(end - begin, 0));
}

bool isOperation(const std::string& function)
{
    return function.starts_with("NV::Provider::") || function.starts_with("NV::ProviderManager::");
}

std::string lastName(const std::string& function)
{
    return function.substr(function.rfind(':') + 1);
}

// Functions of the operation table begin with a capital letter (SignHash), their steps do not.
bool isOfTable(const std::string& function)
{
    const std::string name = lastName(function);
    return !name.empty() && name.front() >= 'A' && name.front() <= 'Z' &&
           !name.starts_with("Provider");  // constructors
}

// "CKR_PIN_INCORRECT" from "Failed to login the token (000000a0(CKR_PIN_INCORRECT))", the form in which
// the steps of a token operation report a failed call.
std::string resultInError(std::string_view text)
{
    const size_t begin = text.rfind('(');
    if (begin == std::string_view::npos || !text.ends_with("))"))
        return {};
    const std::string_view name = text.substr(begin + 1, text.size() - begin - 3);
    return name.starts_with("CKR_") ? std::string(name) : std::string();
}

// What a message says of an operation's end: "STATUS=0x80090027, ELAPSED:0.012(ms)".
void takeEnd(Operation& operation, std::string_view message)
{
    const std::string status = between(message, "STATUS=0x", ",").value_or("");
    std::from_chars(status.data(), status.data() + status.size(), operation.status, 16);
    operation.elapsed = toTime(between(message, "ELAPSED:", "(ms)").value_or("0"));
    operation.finished = true;
}

constexpr std::string_view endOfOperation = "DONE, STATUS=0x";
constexpr std::string_view entryPoint = "NVKSP";

}  // namespace

bool Operation::failed() const
{
    return finished && status != 0 && status != noMoreItems;
}

void OperationReader::addLine(const std::string& line)
{
    ++line_;
    if (const auto record = parseRecord(line)) {
        ++records_;
        add(*record);
    } else if (line.find_first_not_of(" \r\n") != std::string::npos) {
        ++foreignLines_;
    }
}

void OperationReader::add(const LogRecord& record)
{
    Thread& thread = threads_[{record.process, record.thread}];
    if (record.message == "ENTER")
        enter(thread, record);
    if (!thread.frames.empty()) {
        if (record.level == "ERR" || record.level == "SEV")
            addError(thread, record);
        readCall(thread, record);
        readStatus(thread, record);
    } else if (record.level == "ERR" || record.level == "SEV") {
        thread.errors.push_back(record);
    }
    if (record.message.starts_with(endOfOperation) && record.function.starts_with(entryPoint))
        readEnd(thread, record);
    if (record.message.starts_with("LEAVE"))
        leave(thread, record);
}

void OperationReader::enter(Thread& thread, const LogRecord& record)
{
    if (record.function == "NV::PINDialog::open")
        thread.dialogBegun = record.milliseconds;
    if (!isOperation(record.function))
        return;
    // A function of the table never runs inside another one. A frame that is still open was left by
    // an exception or by the end of its process.
    if (isOfTable(record.function))
        abandon(thread);
    Frame frame;
    frame.function = record.function;
    frame.operation = operationAt(record);
    frame.operation.name = lastName(record.function);
    thread.frames.push_back(std::move(frame));
}

// Without a name.
Operation OperationReader::operationAt(const LogRecord& record) const
{
    Operation operation;
    operation.process = record.process;
    operation.thread = record.thread;
    operation.time = record.time;
    operation.begun = record.milliseconds;
    operation.line = line_;
    return operation;
}

// An exception leaves frames without a record, so all frames inside this one are closed too.
void OperationReader::leave(Thread& thread, const LogRecord& record)
{
    if (record.function == "NV::PINDialog::open") {
        addCall(thread, {"PIN dialog", "", thread.dialogBegun,
                         timeBetween(thread.dialogBegun, record.milliseconds)});
        return;
    }
    auto& frames = thread.frames;
    const auto left =
        std::ranges::find(frames.rbegin(), frames.rend(), record.function, &Frame::function);
    if (left == frames.rend())
        return;
    const auto count = static_cast<size_t>(left - frames.rbegin()) + 1;
    for (size_t i = 0; i < count; ++i)
        close(thread);
}

void OperationReader::close(Thread& thread)
{
    auto& frames = thread.frames;
    Frame frame = std::move(frames.back());
    frames.pop_back();
    if (!frames.empty()) {
        // The calls and errors of a step belong to the operation.
        Operation& outer = frames.back().operation;
        const Operation& inner = frame.operation;
        outer.calls.insert(outer.calls.end(), inner.calls.begin(), inner.calls.end());
        outer.errors.insert(outer.errors.end(), inner.errors.begin(), inner.errors.end());
    }
    if (!frame.hasStatus)
        return;
    thread.left = operations_.size();
    operations_.push_back(std::move(frame.operation));
}

// The outermost of the open frames becomes an unfinished operation. A token call that did not return
// is its last one.
void OperationReader::abandon(Thread& thread)
{
    if (thread.frames.empty())
        return;
    if (!thread.callName.empty())
        addCall(thread, {thread.callName, noReturn, thread.callBegun, 0});
    thread.callName.clear();
    while (thread.frames.size() > 1)
        close(thread);
    operations_.push_back(std::move(thread.frames.front().operation));
    thread.frames.clear();
}

// A call without a result in its own record gets it from the error record that follows.
void OperationReader::addError(Thread& thread, const LogRecord& record)
{
    Operation& operation = thread.frames.back().operation;
    operation.errors.push_back(record);
    // After an exception from the library there is no record of the end of the call.
    if (!thread.callName.empty() && record.message.starts_with("Caught E")) {
        addCall(thread, {thread.callName, "exception", thread.callBegun,
                         timeBetween(thread.callBegun, record.milliseconds)});
        thread.callName.clear();
    }
    if (!operation.calls.empty() && operation.calls.back().result.empty())
        operation.calls.back().result = resultInError(record.message);
}

void OperationReader::addCall(Thread& thread, TokenCall call)
{
    if (!thread.frames.empty())
        thread.frames.back().operation.calls.push_back(std::move(call));
}

// Two forms: the call layer's "CALL C_Sign(): START" with "CALL C_Sign(): Result = ..., Elapsed
// [0.1 msec]" or "CALL C_Sign(): END [0.1 msec]", and the discovery's "Call C_GetInfo():START" with
// "Call C_GetInfo():END RV=...".
void OperationReader::readCall(Thread& thread, const LogRecord& record)
{
    const std::string& text = record.message;
    const bool layer = text.starts_with("CALL C_");
    if (!layer && !text.starts_with("Call C_"))
        return;
    const std::string name = text.substr(5, text.find("()") - 5);
    if (text.ends_with("START")) {
        thread.callName = name;
        thread.callBegun = record.milliseconds;
        return;
    }
    // Some calls have their result in a separate record after that of their end.
    if (const size_t code = text.find("RETURN CODE:"); code != std::string::npos) {
        auto& calls = thread.frames.back().operation.calls;
        if (!calls.empty() && calls.back().name == name && calls.back().result.empty())
            calls.back().result = resultName(std::string_view(text).substr(code + 12));
        return;
    }
    if (thread.callName != name)
        return;
    TokenCall call{name, "", thread.callBegun, 0};
    thread.callName.clear();
    if (!layer) {
        call.elapsed = timeBetween(call.begun, record.milliseconds);
        if (const size_t result = text.find("RV="); result != std::string::npos)
            call.result = resultName(std::string_view(text).substr(result + 3));
    } else {
        call.elapsed = toTime(between(text, "[", " msec").value_or("0"));
        if (const size_t result = text.find("Result = "); result != std::string::npos)
            call.result = resultName(std::string_view(text).substr(result + 9));
    }
    addCall(thread, std::move(call));
}

// "STATUS=0x80090027, ELAPSED:0.012(ms)" of the innermost operation.
void OperationReader::readStatus(Thread& thread, const LogRecord& record)
{
    Frame& frame = thread.frames.back();
    if (frame.function != record.function || !record.message.starts_with("STATUS=0x"))
        return;
    takeEnd(frame.operation, record.message);
    frame.hasStatus = true;
}

// "DONE, STATUS=0x8010006b, ELAPSED:0.012(ms), RESULT=CKR_PIN_INCORRECT, KEY=01AB" of an entry point.
// With the level TRACE, it ends the operation that the thread has just left; otherwise it is all that
// the log has of it, but for errors.
void OperationReader::readEnd(Thread& thread, const LogRecord& record)
{
    const std::string name = record.function.substr(entryPoint.size());
    const std::optional<size_t> left = std::exchange(thread.left, std::nullopt);
    std::vector<LogRecord> errors = std::exchange(thread.errors, {});
    const bool traced = left && operations_[*left].name == name;
    if (!traced) {
        Operation& added = operations_.emplace_back(operationAt(record));
        added.name = name;
        added.errors = std::move(errors);
        takeEnd(added, record.message);
    }
    Operation& operation = traced ? operations_[*left] : operations_.back();
    const std::string text = record.message + ",";
    operation.result = between(text, ", RESULT=", ",").value_or("");
    if (const size_t key = record.message.find(", KEY="); key != std::string::npos)
        operation.key = record.message.substr(key + 6);
}

std::vector<Operation> OperationReader::finish()
{
    for (auto& [identity, thread] : threads_)
        abandon(thread);
    std::ranges::stable_sort(operations_, {}, &Operation::line);
    return std::move(operations_);
}

}  // namespace NV::tool
