// Assembling operations from the lines of a log.

#include "log/log_operation.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace NV::tool {

namespace {

constexpr uint32_t noMoreItems = 0x8009002A;
constexpr size_t mostThreads = 10'000;
constexpr size_t mostPrograms = 10'000;
// Functions inside each other; a whole log has fewer.
constexpr size_t mostFrames = 100;
// No dialog is shown and answered within this time, so no signature takes less. Milliseconds.
constexpr double leastWithDialog = 2;

constexpr std::string_view tableNames[] = {"CreatePersistedKey",
                                           "Decrypt",
                                           "DeleteKey",
                                           "DeriveKey",
                                           "Encrypt",
                                           "EnumAlgorithms",
                                           "EnumKeys",
                                           "ExportKey",
                                           "FinalizeKey",
                                           "FreeBuffer",
                                           "FreeKey",
                                           "FreeProvider",
                                           "FreeSecret",
                                           "GetKeyProperty",
                                           "GetProviderProperty",
                                           "ImportKey",
                                           "IsAlgSupported",
                                           "NotifyChangeKey",
                                           "OpenKey",
                                           "OpenProvider",
                                           "PromptUser",
                                           "SecretAgreement",
                                           "SetKeyProperty",
                                           "SetProviderProperty",
                                           "SignHash",
                                           "VerifySignature"};

// The operations that can be asked for the length of their output, and its parameter.
struct OutputOf {
    std::string_view operation;
    std::string_view parameter;
    bool needsPin;
};
constexpr OutputOf outputs[] = {{"SignHash", "pbSignature", true},
                                {"Decrypt", "pbOutput", true},
                                {"Encrypt", "pbOutput", false},
                                {"ExportKey", "pbOutput", false},
                                {"DeriveKey", "pbDerivedKey", false},
                                {"GetKeyProperty", "pbOutput", false},
                                {"GetProviderProperty", "pbOutput", false}};

const OutputOf* outputOf(std::string_view operation)
{
    const auto* row = std::ranges::find(outputs, operation, &OutputOf::operation);
    return row != std::end(outputs) ? row : nullptr;
}

// "CKR_OK" from "... 00000000(CKR_OK)...", or the number of a result without a name.
std::string resultName(std::string_view text)
{
    const std::string_view value = text.substr(0, text.find_first_of(", "));
    return std::string(between(value, "(", ")").value_or(value));
}

// Milliseconds; 0 for an invalid time.
double toTime(std::string_view text)
{
    const double value = std::strtod(std::string(text).c_str(), nullptr);
    return std::isfinite(value) && value > 0 ? value : 0;
}

// Never negative: a log has local times, which go back when daylight saving time ends.
double timeBetween(int64_t begin, int64_t end)
{
    return static_cast<double>(std::max<int64_t>(end - begin, 0));
}

bool isOperation(std::string_view function)
{
    return function.starts_with("NV::Provider::") || function.starts_with("NV::ProviderManager::");
}

std::string_view lastName(std::string_view function)
{
    return function.substr(function.rfind(':') + 1);
}

bool isNull(std::string_view pointer)
{
    return pointer.find_first_not_of("0x") == std::string_view::npos;
}

// What a message says of an operation's end: "STATUS=0x80090027, ELAPSED:0.012(ms)".
void takeEnd(Operation& operation, std::string_view message)
{
    const std::string_view status = between(message, "STATUS=0x", ",").value_or("");
    std::from_chars(status.data(), status.data() + status.size(), operation.status, 16);
    operation.elapsed = toTime(between(message, "ELAPSED:", "(ms)").value_or("0"));
    operation.finished = true;
}

template <typename T>
void append(std::vector<T>& to, std::vector<T>& from)
{
    to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

}  // namespace

std::span<const std::string_view> operationNames()
{
    return tableNames;
}

bool Operation::failed() const
{
    return finished && (withoutPin || (status != 0 && status != noMoreItems));
}

std::string Operation::failedResult() const
{
    if (!result.empty())
        return result;
    for (const TokenCall& call : calls) {
        if (call.failed() && call.result != noReturn && call.result != "exception")
            return call.result;
    }
    for (const std::string& error : errors) {
        if (const std::string_view found = resultInError(error); !found.empty())
            return std::string(found);
    }
    return {};
}

void OperationReader::beginFile()
{
    ++file_;
    line_ = 0;
}

void OperationReader::addLine(std::string_view line)
{
    ++line_;
    if (const auto record = parseRecord(line)) {
        ++records_;
        add(*record);
    } else if (line.find_first_not_of(" \r\n") != std::string_view::npos) {
        ++foreignLines_;
    }
}

// Most records come from the thread of the record before.
OperationReader::Thread& OperationReader::threadOf(const LogRecord& record)
{
    if (latest_ == nullptr || latest_->first.first != record.process ||
        latest_->first.second != record.thread) {
        if (threads_.size() >= mostThreads)
            forgetThreads();
        latest_ =
            &*threads_.try_emplace({std::string(record.process), std::string(record.thread)}).first;
    }
    latest_->second.used = records_;
    return latest_->second;
}

// Ends what the threads do that have not written for the longest time: a log has many short processes.
void OperationReader::forgetThreads()
{
    std::vector<size_t> times;
    times.reserve(threads_.size());
    for (const auto& [identity, thread] : threads_)
        times.push_back(thread.used);
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::ranges::nth_element(times, middle);
    for (auto entry = threads_.begin(); entry != threads_.end();) {
        if (entry->second.used > *middle) {
            ++entry;
            continue;
        }
        abandon(entry->second);
        give(entry->second);
        entry = threads_.erase(entry);
    }
    latest_ = nullptr;
}

void OperationReader::add(const LogRecord& record)
{
    if (record.function == "DllMain" && record.message.starts_with("Program="))
        beginProcess(record);
    Thread& thread = threadOf(record);
    if (record.message == "ENTER")
        enter(thread, record);
    if (!thread.frames.empty()) {
        if (record.isError())
            addError(thread, record);
        readCall(thread, record);
        readArgument(thread, record);
        readStatus(thread, record);
    } else if (record.isError()) {
        thread.errors.emplace_back(record.message);
    }
    if (const auto end = parseEnd(record))
        readEnd(thread, record, *end);
    if (record.message.starts_with("LEAVE"))
        leave(thread, record);
}

// The first record of a process. Whatever an earlier process of the same number has left open was never
// finished.
void OperationReader::beginProcess(const LogRecord& record)
{
    for (auto entry = threads_.lower_bound({std::string(record.process), ""});
         entry != threads_.end() && entry->first.first == record.process; ++entry) {
        abandon(entry->second);
        give(entry->second);
    }
    if (programs_.size() >= mostPrograms)
        programs_.clear();
    const std::string_view text = record.message.substr(std::string_view("Program=").size());
    programs_.insert_or_assign(std::string(record.process),
                               std::string(text.substr(0, text.find(", USER="))));
}

void OperationReader::enter(Thread& thread, const LogRecord& record)
{
    if (record.function == "NV::PINDialog::open")
        thread.dialogBegun = record.milliseconds;
    if (!isOperation(record.function))
        return;
    // A function of the table never runs inside another one. A frame that is still open was left by
    // an exception or by the end of its process.
    if (!operationOfTable(record.function).empty() || thread.frames.size() >= mostFrames)
        abandon(thread);
    Frame frame;
    frame.function = record.function;
    frame.operation = operationAt(record);
    frame.operation.name = lastName(record.function);
    frame.operation.traced = true;
    thread.frames.push_back(std::move(frame));
}

// Without a name.
Operation OperationReader::operationAt(const LogRecord& record) const
{
    Operation operation;
    operation.process = record.process;
    operation.thread = record.thread;
    if (const auto program = programs_.find(record.process); program != programs_.end())
        operation.program = program->second;
    operation.time = record.time;
    operation.begun = record.milliseconds;
    operation.line = line_;
    operation.file = file_;
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
    Operation& operation = frame.operation;
    operation.sizeQuery = frame.hasStatus && operation.status == 0 && !frame.hasOutput;
    if (!frames.empty()) {
        // The calls and errors of a step belong to the operation, whether or not the step is one itself.
        Operation& outer = frames.back().operation;
        if (!frame.hasStatus) {
            append(outer.calls, operation.calls);
            append(outer.errors, operation.errors);
        } else {
            outer.calls.insert(outer.calls.end(), operation.calls.begin(), operation.calls.end());
            outer.errors.insert(outer.errors.end(), operation.errors.begin(),
                                operation.errors.end());
        }
    }
    if (!frame.hasStatus)
        return;
    give(thread);
    thread.left = std::move(operation);
    thread.settling = false;
}

// Gives the operation that waits for the record of its end.
void OperationReader::give(Thread& thread)
{
    if (thread.left)
        take_(std::move(*std::exchange(thread.left, std::nullopt)));
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
    give(thread);
    take_(std::move(thread.frames.front().operation));
    thread.frames.clear();
}

// A call without a result in its own record gets it from the error record that follows.
void OperationReader::addError(Thread& thread, const LogRecord& record)
{
    Operation& operation = thread.frames.back().operation;
    operation.errors.emplace_back(record.message);
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
    const std::string_view text = record.message;
    const bool layer = text.starts_with("CALL C_");
    if (!layer && !text.starts_with("Call C_"))
        return;
    const std::string_view name = text.substr(5, text.find("()") - 5);
    if (text.ends_with("START")) {
        thread.callName = name;
        thread.callBegun = record.milliseconds;
        return;
    }
    // Some calls have their result in a separate record after that of their end.
    if (const size_t code = text.find("RETURN CODE:"); code != std::string::npos) {
        auto& calls = thread.frames.back().operation.calls;
        if (!calls.empty() && calls.back().name == name && calls.back().result.empty())
            calls.back().result = resultName(text.substr(code + 12));
        return;
    }
    if (thread.callName != name)
        return;
    TokenCall call{std::string(name), "", thread.callBegun, 0};
    thread.callName.clear();
    if (!layer) {
        call.elapsed = timeBetween(call.begun, record.milliseconds);
        if (const size_t result = text.find("RV="); result != std::string::npos)
            call.result = resultName(text.substr(result + 3));
    } else {
        call.elapsed = toTime(between(text, "[", " msec").value_or("0"));
        if (const size_t result = text.find("Result = "); result != std::string::npos)
            call.result = resultName(text.substr(result + 9));
    }
    addCall(thread, std::move(call));
}

// The pointer to the output, "ARG[4]:pbSignature=0000000000000000", and the length of an empty PIN.
void OperationReader::readArgument(Thread& thread, const LogRecord& record)
{
    Frame& frame = thread.frames.back();
    if (frame.function != record.function)
        return;
    // Compat: "retrive" is how the log writes it.
    if (record.message.starts_with("Success to retrive the entered pin = 0 "))
        frame.operation.withoutPin = true;
    if (!record.message.starts_with("ARG["))
        return;
    const OutputOf* output = outputOf(frame.operation.name);
    const size_t name = record.message.find("]:");
    if (output == nullptr || name == std::string_view::npos)
        return;
    const std::string_view argument = record.message.substr(name + 2);
    const size_t equals = argument.find('=');
    if (equals != std::string_view::npos && argument.substr(0, equals) == output->parameter)
        frame.hasOutput = !isNull(argument.substr(equals + 1));
}

// "STATUS=0x80090027, ELAPSED:0.012(ms)" of the innermost operation.
void OperationReader::readStatus(Thread& thread, const LogRecord& record)
{
    Frame& frame = thread.frames.back();
    if (frame.function != record.function || !record.message.starts_with("STATUS=0x"))
        return;
    takeEnd(frame.operation, record.message);
    // In modern, the status says it.
    frame.operation.withoutPin = frame.operation.withoutPin && frame.operation.status == 0;
    frame.hasStatus = true;
}

// With the level TRACE, the record of the end belongs to the operation that the thread has just left;
// otherwise it is all that the log has of it, but for errors. Then only the time tells a size query.
void OperationReader::readEnd(Thread& thread, const LogRecord& record, const EndRecord& end)
{
    std::vector<std::string> errors = std::exchange(thread.errors, {});
    if (!thread.left || thread.left->name != end.operation) {
        give(thread);
        Operation operation = operationAt(record);
        operation.name = end.operation;
        operation.errors = std::move(errors);
        takeEnd(operation, record.message);
        const OutputOf* output = outputOf(end.operation);
        operation.sizeQuery = output != nullptr && output->needsPin && operation.status == 0 &&
                              operation.elapsed < leastWithDialog;
        thread.left = std::move(operation);
    }
    thread.left->result = end.result;
    thread.left->key = end.key;
    give(thread);
}

void OperationReader::settle()
{
    for (auto& [identity, thread] : threads_) {
        if (thread.settling)
            give(thread);
        thread.settling = thread.left.has_value();
    }
}

void OperationReader::finish()
{
    for (auto& [identity, thread] : threads_) {
        abandon(thread);
        give(thread);
    }
}

}  // namespace NV::tool
