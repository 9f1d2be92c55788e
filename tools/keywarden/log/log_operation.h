// The operations of the provider in a log, each with its token calls.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "log/log_record.h"

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
    std::string time;  // of its ENTER; without one, of its end
    int64_t begun = 0;
    size_t line = 0;  // of the same record, counted from 1
    bool finished = false;
    uint32_t status = 0;
    double elapsed = 0;
    std::vector<TokenCall> calls;
    std::vector<LogRecord> errors;  // records of the levels ERR and SEV
    // Of the record of its end; empty if there is none, or it does not say.
    std::string key;
    std::string result;  // the first failed one: "CKR_PIN_INCORRECT"

    // Whether the status is a failure. The end of an enumeration is not.
    bool failed() const;
};

// Reads a log line by line and assembles its operations, separately for each thread of each process.
class OperationReader {
public:
    void addLine(const std::string& line);

    // Returns all operations in the order in which they began, including those that the log does not
    // finish. Call it once, after the last line.
    std::vector<Operation> finish();

    size_t records() const { return records_; }
    // The number of lines that are not a record and not empty.
    size_t foreignLines() const { return foreignLines_; }

private:
    // A function that was entered and not left.
    struct Frame {
        std::string function;
        Operation operation;
        bool hasStatus = false;
    };
    // The state of one thread.
    struct Thread {
        std::vector<Frame> frames;
        std::string callName;
        int64_t callBegun = 0;
        int64_t dialogBegun = 0;
        // The latest operation of the table that was left. The record of its end follows.
        std::optional<size_t> left;
        std::vector<LogRecord> errors;  // outside of all functions
    };

    void add(const LogRecord& record);
    void enter(Thread& thread, const LogRecord& record);
    void leave(Thread& thread, const LogRecord& record);
    // Removes the innermost frame.
    void close(Thread& thread);
    // Removes all frames; they become one unfinished operation.
    void abandon(Thread& thread);
    Operation operationAt(const LogRecord& record) const;
    static void addError(Thread& thread, const LogRecord& record);
    static void addCall(Thread& thread, TokenCall call);
    static void readCall(Thread& thread, const LogRecord& record);
    static void readStatus(Thread& thread, const LogRecord& record);
    void readEnd(Thread& thread, const LogRecord& record);

    size_t line_ = 0;
    size_t records_ = 0;
    size_t foreignLines_ = 0;
    std::map<std::pair<std::string, std::string>, Thread> threads_;
    std::vector<Operation> operations_;
};

}  // namespace NV::tool
