// Events of the kind "X" (complete) with their begin and length, and "M" (metadata) with names.

#include "log/log_trace.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <vector>

#include "log/log_report.h"
#include "output.h"

namespace NV::tool {

namespace {

// The threads of processes that ended long ago need no order any more.
constexpr size_t mostIdentities = 100'000;
// A name of colour that the format has.
constexpr const char* colourOfFailures = "terrible";

int64_t numberOf(std::string_view text, int base)
{
    int64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, base);
    return number;
}

std::string dumped(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json slice(const std::string& name, const char* category, int64_t begin, int64_t length,
           const std::pair<int64_t, int64_t>& identity, bool failed, Json arguments)
{
    Json event = {{"name", name},
                  {"cat", category},
                  {"ph", "X"},
                  {"ts", begin},
                  {"dur", length},
                  {"pid", identity.first},
                  {"tid", identity.second},
                  {"args", std::move(arguments)}};
    if (failed)
        event["cname"] = colourOfFailures;
    return event;
}

Json named(const char* what, const std::pair<int64_t, int64_t>& identity, const std::string& name)
{
    return {{"name", what},
            {"ph", "M"},
            {"pid", identity.first},
            {"tid", identity.second},
            {"args", {{"name", name}}}};
}

}  // namespace

void ChromeTrace::add(const Operation& operation)
{
    const Identity identity(numberOf(operation.process, 10), numberOf(operation.thread, 16));
    const std::vector<Bar> bars = barsOf(operation);
    // Without its beginning, an operation ends at the time of its record.
    const int64_t recorded =
        operation.begun * 1000 - (operation.traced ? 0 : toMicros(operation.elapsed));
    // The records have whole milliseconds, and slices of one thread must not overlap.
    if (ends_.size() > mostIdentities)
        ends_.clear();
    const auto previous = ends_.find(identity);
    const int64_t begin = previous != ends_.end() ? std::max(recorded, previous->second) : recorded;
    const int64_t length = toMicros(spanOf(operation, bars));
    ends_.insert_or_assign(identity, begin + length);
    if (!operation.program.empty() &&
        (names_.size() < mostIdentities || names_.contains(identity.first)))
        names_.insert_or_assign(identity.first, operation.program);

    Json errors = Json::array();
    for (const std::string& error : operation.errors)
        errors.push_back(secrets_ ? error : withoutSecrets(error));
    std::string events = dumped(slice(operation.name, "operation", begin, length, identity,
                                      operation.failed() || !operation.finished,
                                      {{"status", statusOf(operation)},
                                       {"key", operation.key},
                                       {"line", operation.line},
                                       {"errors", errors}}));
    for (size_t i = 0; i < bars.size(); ++i) {
        const TokenCall& call = operation.calls[i];
        const int64_t from = toMicros(bars[i].begin);
        const int64_t to = std::min(toMicros(bars[i].begin + bars[i].width), length);
        events += ",\n" + dumped(slice(call.name, call.name == "PIN dialog" ? "dialog" : "PKCS#11",
                                       begin + std::min(from, to), to - std::min(from, to),
                                       identity, call.failed(), {{"result", call.result}}));
    }
    events_.push_back(std::move(events));
    if (events_.size() > most_) {
        events_.pop_front();
        ++leftOut_;
    }
}

std::string ChromeTrace::text() const
{
    std::string text = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
    const char* separator = "";
    const auto append = [&](const std::string& events) {
        text += separator + events;
        separator = ",\n";
    };
    for (const auto& [process, name] : names_)
        append(dumped(named("process_name", {process, 0}, name)));
    for (const auto& [identity, end] : ends_) {
        char thread[16];
        std::snprintf(thread, sizeof thread, "%08llx",
                      static_cast<long long unsigned>(identity.second));
        append(dumped(named("thread_name", identity, thread)));
    }
    for (const std::string& events : events_)
        append(events);
    return text + "\n]}\n";
}

}  // namespace NV::tool
