// Collecting operations.

#include "log/log_summary.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

#include "system/explanation.h"

namespace NV::tool {

namespace {

// A damaged log could make as many kinds as it has lines.
constexpr size_t mostKinds = 1000;
constexpr size_t mostNames = 1000;

// The smallest value that is not exceeded by at least this share of the values (nearest rank).
double percentile(const std::vector<double>& sorted, double share)
{
    const auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[std::max<size_t>(rank, 1) - 1];
}

// The middle one, or the mean of the two in the middle.
double median(const std::vector<double>& sorted)
{
    const size_t middle = sorted.size() / 2;
    return sorted.size() % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

bool isSlower(const Operation& a, const Operation& b)
{
    if (a.elapsed != b.elapsed)
        return a.elapsed > b.elapsed;
    return std::pair(a.file, a.line) < std::pair(b.file, b.line);
}

}  // namespace

std::string statusOf(const Operation& operation)
{
    if (!operation.finished)
        return "not finished";
    if (operation.withoutPin)
        return "no PIN was entered";
    if (operation.status == 0)
        return "ok";
    const std::string result = operation.failedResult();
    return statusText(static_cast<SECURITY_STATUS>(operation.status)) +
           (result.empty() ? "" : ", " + result);
}

std::string meaningOf(const Operation& operation)
{
    if (operation.withoutPin)
        return "The PIN dialog could not be shown, or was left empty. The caller got zeros instead of a "
               "result.";
    if (!operation.failed())
        return {};
    const std::string result = operation.failedResult();
    const Explanation* row =
        result.empty() ? explain(operation.status) : explain(std::string_view(result));
    return row != nullptr ? std::string(row->meaning) : std::string();
}

void LogSummary::add(const Operation& operation)
{
    ++operations_;
    if (!operation.traced)
        ++untraced_;
    if (operation.finished && (samples_.size() < mostNames || samples_.contains(operation.name))) {
        Sample& sample = samples_[operation.name];
        if (operation.sizeQuery)
            ++sample.sizeQueries;
        else
            sample.times.push_back(operation.elapsed);
        if (operation.failed())
            ++sample.failures;
    }
    if (operation.failed() || !operation.finished)
        addFailure(operation);
    if (operation.finished && !operation.sizeQuery && operation.elapsed >= slow_)
        addSlow(operation);
}

void LogSummary::addSlow(const Operation& operation)
{
    if (mostSlow_ == 0 || (slowest_.size() == mostSlow_ && !isSlower(operation, slowest_.front())))
        return;
    if (slowest_.size() == mostSlow_) {
        std::ranges::pop_heap(slowest_, isSlower);
        slowest_.pop_back();
    }
    slowest_.push_back(operation);
    std::ranges::push_heap(slowest_, isSlower);
}

void LogSummary::addFailure(const Operation& operation)
{
    ++failures_;
    const Kind identity(operation.name, statusOf(operation));
    if (kinds_.size() < mostKinds || kinds_.contains(identity)) {
        FailureKind& kind = kinds_[identity];
        kind.name = operation.name;
        kind.status = std::get<1>(identity);
        kind.reason = meaningOf(operation);
        ++kind.count;
        kind.latest = operation;
    }
    failed_.push_back(operation);
    if (failed_.size() > mostFailed_)
        failed_.pop_front();
}

std::vector<OperationFigures> LogSummary::figures() const
{
    std::vector<OperationFigures> figures;
    for (const auto& [name, sample] : samples_) {
        OperationFigures row{.name = name,
                             .count = sample.times.size(),
                             .failures = sample.failures,
                             .sizeQueries = sample.sizeQueries};
        if (!sample.times.empty()) {
            std::vector<double> sorted = sample.times;
            std::ranges::sort(sorted);
            row.median = median(sorted);
            row.percentile95 = percentile(sorted, 0.95);
            row.maximum = sorted.back();
        }
        figures.push_back(std::move(row));
    }
    return figures;
}

std::vector<FailureKind> LogSummary::failureKinds() const
{
    std::vector<FailureKind> kinds;
    for (const auto& [identity, kind] : kinds_)
        kinds.push_back(kind);
    std::ranges::stable_sort(kinds, std::ranges::greater(), &FailureKind::count);
    return kinds;
}

std::vector<Operation> LogSummary::slowest() const
{
    std::vector<Operation> sorted = slowest_;
    std::ranges::sort(sorted, isSlower);
    return sorted;
}

std::vector<Operation> LogSummary::failed() const
{
    std::vector<Operation> sorted(failed_.begin(), failed_.end());
    std::ranges::stable_sort(sorted, {}, [](const Operation& operation) {
        return std::pair(operation.file, operation.line);
    });
    return sorted;
}

}  // namespace NV::tool
