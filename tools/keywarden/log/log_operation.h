// The operations of the provider in a log, each with its token calls. Portable.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "formats/log_record.h"

namespace NV::tool {

// The result of a call in which the log ends.
inline constexpr const char* noReturn = "no return";

// A PKCS#11 call, or the time that the PIN dialog was open ("PIN dialog").
struct TokenCall {
    std::string name;  // "C_Sign"
    // "CKR_OK"; empty if the log does not contain it; noReturn; "exception".
    std::string result;
    int64_t begun = 0;   // milliseconds, as in LogRecord
    double elapsed = 0;  // milliseconds
    // CKR_CRYPTOKI_NOT_INITIALIZED is no failure: opening the provider begins with C_Finalize.
    bool failed() const
    {
        return !result.empty() && result != "CKR_OK" && result != "CKR_CRYPTOKI_NOT_INITIALIZED";
    }
};

// A call of the provider's table: everything between its ENTER and its LEAVE, or, at a level without
// them, the record of its end.
struct Operation {
    std::string name;  // "SignHash"
    std::string process;
    std::string thread;
    std::string program;  // the file of the process; empty if the log does not say it
    std::string time;     // of its ENTER; without one, of its end
    int64_t begun = 0;    // milliseconds, as in LogRecord
    size_t line = 0;      // of the same record, counted from 1 in its file
    size_t file = 0;      // the number of the file, counted from 0
    bool traced =
        false;  // whether it has its ENTER: with the record of its end alone, there are no calls
    bool finished = false;
    uint32_t status = 0;
    double elapsed = 0;
    std::vector<TokenCall> calls;
    std::vector<std::string> errors;  // messages of the levels ERR and SEV
    // Of the record of its end; empty if there is none, or it does not say.
    std::string key;
    std::string result;  // the first failed one: "CKR_PIN_INCORRECT"
    // It asked for the length of an output, and not for the output.
    bool sizeQuery = false;
    // It succeeded without a PIN: in classic, the caller gets zeros.
    bool withoutPin = false;

    // Whether the status is a failure, or nobody entered a PIN. The end of an enumeration is no failure.
    bool failed() const;
    // The record of its end, or its first call or error that failed: "CKR_PIN_INCORRECT". Empty if there
    // is none.
    std::string failedResult() const;
};

// The names that operations have: the functions of CNG's table.
std::span<const std::string_view> operationNames();

// Reads the lines of one log or of several, and gives its caller each operation when it has ended, for
// each thread of each process on its own. It keeps only what has not ended, of at most 10,000 threads.
class OperationReader {
public:
    explicit OperationReader(std::function<void(Operation)> take) : take_(std::move(take)) {}

    // Call it before the first line of the second file, and of each one after that.
    void beginFile();
    void addLine(std::string_view line);

    // Gives what has waited for the record of its end since the last call; only modern writes one. For
    // logs that still grow: call it from time to time.
    void settle();
    // Gives all operations that the log does not finish. Call it once, after the last line.
    void finish();

    size_t records() const { return records_; }
    // The number of lines that are not a record and not empty.
    size_t foreignLines() const { return foreignLines_; }

private:
    // A function that was entered and not left.
    struct Frame {
        std::string function;
        Operation operation;
        bool hasStatus = false;
        bool hasOutput = true;
    };
    // The state of one thread.
    struct Thread {
        std::vector<Frame> frames;
        std::string callName;
        int64_t callBegun = 0;
        int64_t dialogBegun = 0;
        // The latest operation that was left. The record of its end may follow.
        std::optional<Operation> left;
        bool settling = false;            // it was there at the last call of settle
        std::vector<std::string> errors;  // outside of all functions
        size_t used = 0;                  // the number of its latest record
    };
    using Identity = std::pair<std::string, std::string>;

    Thread& threadOf(const LogRecord& record);
    void forgetThreads();
    void add(const LogRecord& record);
    void beginProcess(const LogRecord& record);
    void enter(Thread& thread, const LogRecord& record);
    void leave(Thread& thread, const LogRecord& record);
    // Removes the innermost frame.
    void close(Thread& thread);
    // Removes all frames; they become one unfinished operation.
    void abandon(Thread& thread);
    void give(Thread& thread);
    Operation operationAt(const LogRecord& record) const;
    static void addError(Thread& thread, const LogRecord& record);
    static void addCall(Thread& thread, TokenCall call);
    static void readCall(Thread& thread, const LogRecord& record);
    static void readArgument(Thread& thread, const LogRecord& record);
    static void readStatus(Thread& thread, const LogRecord& record);
    void readEnd(Thread& thread, const LogRecord& record, const EndRecord& end);

    std::function<void(Operation)> take_;
    size_t file_ = 0;
    size_t line_ = 0;
    size_t records_ = 0;
    size_t foreignLines_ = 0;
    std::map<Identity, Thread> threads_;
    std::map<Identity, Thread>::value_type* latest_ = nullptr;
    std::map<std::string, std::string, std::less<>> programs_;  // by process
};

}  // namespace NV::tool
