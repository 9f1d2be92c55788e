// Figures, lines and JSON of operations.

#include "log/log_report.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "text.h"

namespace NV::tool {

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

Json toJson(const OperationFigures& figures)
{
    return {{"name", figures.name},         {"count", figures.count},
            {"failures", figures.failures}, {"sizeQueries", figures.sizeQueries},
            {"median", figures.median},     {"p95", figures.percentile95},
            {"max", figures.maximum}};
}

Json toJson(const FailureKind& kind)
{
    return {{"name", kind.name},   {"status", kind.status},    {"meaning", kind.reason},
            {"count", kind.count}, {"time", kind.latest.time}, {"line", kind.latest.line}};
}

Json toJson(const Operation& operation, bool secrets)
{
    Json calls = Json::array();
    for (const TokenCall& call : operation.calls)
        calls.push_back({{"name", call.name}, {"result", call.result}, {"elapsed", call.elapsed}});
    Json errors = Json::array();
    for (const std::string& error : operation.errors)
        errors.push_back(secrets ? error : withoutSecrets(error));
    return {{"name", operation.name},
            {"time", operation.time},
            {"line", operation.line},
            {"process", operation.process},
            {"thread", operation.thread},
            {"program", operation.program},
            {"finished", operation.finished},
            {"status", operation.finished
                           ? Json(hexText(static_cast<SECURITY_STATUS>(operation.status)))
                           : Json()},
            {"elapsed", operation.finished ? Json(operation.elapsed) : Json()},
            {"key", operation.key},
            {"result", operation.failed() ? operation.failedResult() : std::string()},
            {"meaning", meaningOf(operation)},
            {"pinEntered", !operation.withoutPin},
            {"calls", calls},
            {"errors", errors}};
}

std::vector<Bar> barsOf(const Operation& operation)
{
    std::vector<Bar> bars;
    double end = 0;
    for (const TokenCall& call : operation.calls) {
        const auto begun = static_cast<double>(call.begun - operation.begun);
        const double begin = std::max(begun, end);
        bars.push_back({begin, call.result == noReturn ? std::max(begin / 10, 1.0) : call.elapsed});
        end = begin + bars.back().width;
    }
    return bars;
}

double spanOf(const Operation& operation, const std::vector<Bar>& bars)
{
    const double end = bars.empty() ? 0 : bars.back().begin + bars.back().width;
    return std::max({operation.elapsed, end, 0.001});
}

int64_t toMicros(double milliseconds)
{
    return std::llround(std::min(milliseconds, 1e12) * 1000);
}

}  // namespace NV::tool
