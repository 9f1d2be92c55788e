// Figures, lines and JSON of operations.

#include "log/log_report.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "text.h"

namespace NV::tool {

namespace {

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

}  // namespace

std::vector<OperationFigures> figuresOf(const std::vector<Operation>& operations)
{
    struct Sample {
        std::vector<double> times;
        size_t failures = 0;
    };
    std::map<std::string, Sample> samples;
    for (const Operation& operation : operations) {
        if (!operation.finished)
            continue;
        Sample& sample = samples[operation.name];
        sample.times.push_back(operation.elapsed);
        if (operation.failed())
            ++sample.failures;
    }
    std::vector<OperationFigures> figures;
    for (auto& [name, sample] : samples) {
        std::ranges::sort(sample.times);
        figures.push_back({name, sample.times.size(), sample.failures, median(sample.times),
                           percentile(sample.times, 0.95), sample.times.back()});
    }
    return figures;
}

std::vector<CallLine> describe(const std::vector<TokenCall>& calls)
{
    std::vector<CallLine> lines;
    for (size_t i = 0; i < calls.size();) {
        const TokenCall& first = calls[i];
        double elapsed = 0;
        const size_t begin = i;
        for (; i < calls.size() && calls[i].name == first.name && calls[i].result == first.result;
             ++i)
            elapsed += calls[i].elapsed;
        char time[32];
        std::snprintf(time, sizeof time, "%10.3f ms  ", elapsed);
        const size_t count = i - begin;
        lines.push_back({time + first.name +
                             (count > 1 ? " (" + std::to_string(count) + " calls)" : "") +
                             (first.result.empty() ? "" : "  " + first.result),
                         first.failed()});
    }
    return lines;
}

std::string statusOf(const Operation& operation)
{
    if (!operation.finished)
        return {};
    if (operation.status == 0)
        return "ok";
    return statusText(static_cast<SECURITY_STATUS>(operation.status)) +
           (operation.result.empty() ? "" : ", " + operation.result);
}

Json toJson(const OperationFigures& figures)
{
    return {{"name", figures.name},         {"count", figures.count},
            {"failures", figures.failures}, {"median", figures.median},
            {"p95", figures.percentile95},  {"max", figures.maximum}};
}

Json toJson(const Operation& operation, bool secrets)
{
    Json calls = Json::array();
    for (const TokenCall& call : operation.calls)
        calls.push_back({{"name", call.name}, {"result", call.result}, {"elapsed", call.elapsed}});
    Json errors = Json::array();
    for (const LogRecord& error : operation.errors)
        errors.push_back(secrets ? error.message : withoutSecrets(error.message));
    return {{"name", operation.name},
            {"time", operation.time},
            {"line", operation.line},
            {"process", operation.process},
            {"thread", operation.thread},
            {"finished", operation.finished},
            {"status", operation.finished
                           ? Json(hexText(static_cast<SECURITY_STATUS>(operation.status)))
                           : Json()},
            {"elapsed", operation.finished ? Json(operation.elapsed) : Json()},
            {"key", operation.key},
            {"result", operation.result},
            {"calls", calls},
            {"errors", errors}};
}

}  // namespace NV::tool
