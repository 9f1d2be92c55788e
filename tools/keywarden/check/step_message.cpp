// The messages as JSON.

#include "check/step_message.h"

#include <algorithm>
#include <iterator>

#include <nlohmann/json.hpp>

namespace NV::tool {

namespace {

constexpr const char* outcomeNames[] = {"ok", "warning", "failed", "skipped"};

std::string asLine(const Json& message)
{
    return message.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Step stepFrom(const Json& message)
{
    Step step;
    step.name = message.at("name").get<std::string>();
    const auto outcome = std::ranges::find(outcomeNames, message.at("outcome").get<std::string>());
    step.outcome = static_cast<Outcome>(outcome - std::begin(outcomeNames));
    step.text = message.at("text").get<std::string>();
    step.advice = message.at("advice").get<std::string>();
    for (const Json& detail : message.at("details"))
        step.details.push_back(detail.get<std::string>());
    return step;
}

void read(const Json& message, Progress& progress, Farewell& farewell)
{
    if (message.contains("begin"))
        progress.begun(message["begin"].get<std::string>());
    if (message.contains("call"))
        progress.calls(message["call"].get<std::string>());
    if (message.contains("wait"))
        progress.waits(message["wait"].get<bool>());
    if (message.contains("end"))
        progress.ended(stepFrom(message["end"]));
    if (message.contains("done"))
        farewell.done = true;
    if (message.contains("crash")) {
        farewell.crashCode = message["crash"].get<unsigned long>();
        farewell.crashModule = message.value("module", "");
    }
}

}  // namespace

const char* nameOf(Outcome outcome)
{
    return outcomeNames[static_cast<size_t>(outcome)];
}

Json toJson(const Step& step)
{
    return {{"name", step.name},
            {"outcome", nameOf(step.outcome)},
            {"text", step.text},
            {"details", step.details},
            {"advice", step.advice}};
}

std::string beginMessage(const std::string& step)
{
    return asLine({{"begin", step}});
}

std::string callMessage(const std::string& function)
{
    return asLine({{"call", function}});
}

std::string waitMessage(bool forUser)
{
    return asLine({{"wait", forUser}});
}

std::string endMessage(const Step& step)
{
    return asLine({{"end", toJson(step)}});
}

std::string crashMessage(unsigned long code, const std::string& module)
{
    return asLine({{"crash", code}, {"module", module}});
}

std::string doneMessage()
{
    return asLine({{"done", true}});
}

void readMessage(const std::string& line, Progress& progress, Farewell& farewell)
{
    const Json message = Json::parse(line, nullptr, false);
    if (!message.is_object())
        return;
    try {
        read(message, progress, farewell);
    } catch (const Json::exception&) {
        // A field is missing or of another type.
    }
}

}  // namespace NV::tool
