// What is said of a whole log: figures, kinds of failures, the slowest operations. Its size does not
// depend on that of the log, but for eight bytes an operation.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "log/log_operation.h"

namespace NV::tool {

// The figures of all operations of one name. Times are in milliseconds.
struct OperationFigures {
    std::string name;
    size_t count = 0;
    size_t failures = 0;
    size_t sizeQueries = 0;  // are in no other figure
    double median = 0;
    double percentile95 = 0;  // nearest rank
    double maximum = 0;
};

// Operations of one name that failed for the same reason, or did not finish.
struct FailureKind {
    std::string name;
    std::string status;  // as statusOf says it; "not finished"
    std::string reason;  // what the result or the status means; empty if that is not known
    size_t count = 0;
    Operation latest;
};

class LogSummary {
public:
    // How many single operations to keep of each sort: the slowest of at least this time, in
    // milliseconds, and the latest that failed or did not finish.
    LogSummary(size_t mostSlow, double slow, size_t mostFailed)
        : mostSlow_(mostSlow), slow_(slow), mostFailed_(mostFailed)
    {
    }

    void add(const Operation& operation);

    size_t operations() const { return operations_; }
    size_t failures() const { return failures_; }
    // How many have the record of their end alone, without their calls.
    size_t untraced() const { return untraced_; }

    // Of finished operations, by name.
    std::vector<OperationFigures> figures() const;
    // The most frequent first.
    std::vector<FailureKind> failureKinds() const;
    // The slowest first.
    std::vector<Operation> slowest() const;
    // In the order of the log.
    std::vector<Operation> failed() const;

private:
    struct Sample {
        std::vector<double> times;
        size_t failures = 0;
        size_t sizeQueries = 0;
    };
    using Kind = std::tuple<std::string, std::string>;  // name and status

    void addSlow(const Operation& operation);
    void addFailure(const Operation& operation);

    size_t mostSlow_;
    double slow_;
    size_t mostFailed_;
    size_t operations_ = 0;
    size_t failures_ = 0;
    size_t untraced_ = 0;
    std::map<std::string, Sample> samples_;
    std::map<Kind, FailureKind> kinds_;
    std::vector<Operation> slowest_;  // a heap: the fastest of them is the first
    std::deque<Operation> failed_;
};

// "ok", "NTE_INTERNAL_ERROR (0x8009002d), CKR_DEVICE_ERROR", "no PIN was entered", or "not finished".
std::string statusOf(const Operation& operation);

// What the reason of a failure means, in sentences. Empty if it is not known.
std::string meaningOf(const Operation& operation);

}  // namespace NV::tool
