// What a log tells: the operations of the provider, each with its token calls.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "log/log_record.h"

namespace NV::tool {

// In the place of a call's result, when the log ends within the call.
inline constexpr const char* noReturn = "no return";

// A PKCS#11 call, or the time that the PIN dialog was open ("PIN dialog").
struct TokenCall {
    std::string name;  // "C_Sign"
    // "CKR_OK"; empty where the log does not say it; noReturn; "exception".
    std::string result;
    int64_t begun = 0;   // milliseconds, as LogRecord has them
    double elapsed = 0;  // milliseconds
    // A finalise of a library that was not initialised is none: opening begins with one.
    bool failed() const
    {
        return !result.empty() && result != "CKR_OK" && result != "CKR_CRYPTOKI_NOT_INITIALIZED";
    }
};

// A call of the provider's table: everything between its ENTER and its LEAVE.
struct Operation {
    std::string name;  // "SignHash"
    std::string process;
    std::string thread;
    std::string time;  // of its ENTER
    int64_t begun = 0;
    size_t line = 0;  // of its ENTER, counted from 1
    bool finished = false;
    uint32_t status = 0;
    double elapsed = 0;
    std::vector<TokenCall> calls;
    std::vector<LogRecord> errors;  // records of the levels ERR and SEV

    // A status of failure; the end of an enumeration is none.
    bool failed() const;
};

// Takes the lines of a log one after another and puts the operations together, for each thread of
// each process on its own.
class OperationReader {
public:
    void addLine(const std::string& line);

    // All operations in the order in which they began. Those that the log leaves open are among
    // them, unfinished. To be called once, at the end.
    std::vector<Operation> finish();

    size_t records() const { return records_; }
    // Lines that are no record; empty ones do not count.
    size_t foreignLines() const { return foreignLines_; }

private:
    // A function that was entered and not left.
    struct Frame {
        std::string function;
        Operation operation;
        bool hasStatus = false;
    };
    // What one thread is at.
    struct Thread {
        std::vector<Frame> frames;
        std::string callName;
        int64_t callBegun = 0;
        int64_t dialogBegun = 0;
    };

    void add(const LogRecord& record);
    void enter(Thread& thread, const LogRecord& record);
    void leave(Thread& thread, const LogRecord& record);
    // Takes the innermost frame away.
    void close(Thread& thread);
    // Takes all of them away.
    void abandon(Thread& thread);
    static void addError(Thread& thread, const LogRecord& record);
    static void addCall(Thread& thread, TokenCall call);
    static void readCall(Thread& thread, const LogRecord& record);
    static void readStatus(Thread& thread, const LogRecord& record);

    size_t line_ = 0;
    size_t records_ = 0;
    size_t foreignLines_ = 0;
    std::map<std::pair<std::string, std::string>, Thread> threads_;
    std::vector<Operation> operations_;
};

}  // namespace NV::tool
