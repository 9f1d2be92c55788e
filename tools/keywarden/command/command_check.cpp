// keywarden check: runs all steps and prints their outcomes.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>

#include "check/check.h"
#include "command/commands.h"
#include "config/mode.h"
#include "exit_code.h"
#include "session.h"

namespace NV::tool {

namespace {

struct OutcomeText {
    const char* json;
    const char* mark;
    Colour colour;
};

OutcomeText textOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::ok:
        return {"ok", "ok    ", Colour::green};
    case Outcome::warning:
        return {"warning", "note  ", Colour::yellow};
    case Outcome::failed:
        return {"failed", "FAILED", Colour::red};
    case Outcome::skipped:
        break;
    }
    return {"skipped", "-     ", Colour::dim};
}

void show(Output& out, const Step& step)
{
    const OutcomeText outcome = textOf(step.outcome);
    out.line(out.coloured(outcome.colour, outcome.mark) + "  " + step.name + ": " + step.text);
    for (const std::string& detail : step.details)
        out.line("          " + detail);
    if (!step.advice.empty())
        out.line("        > " + step.advice);
}

Json toJson(const Step& step)
{
    return {{"name", step.name},
            {"outcome", textOf(step.outcome).json},
            {"text", step.text},
            {"details", step.details},
            {"advice", step.advice}};
}

size_t count(const Findings& findings, Outcome outcome)
{
    return static_cast<size_t>(std::ranges::count(findings.steps, outcome, &Step::outcome));
}

// Null if the configuration does not say.
Json behaviourOf(const Findings& findings)
{
    if (!findings.configurationRead)
        return nullptr;
    return mode().behaviour() == Behaviour::modern ? "modern" : "classic";
}

// A failed step is a result, not a Failure; the exit code reports it to scripts.
void check(Session& session)
{
    Findings findings;
    checkConfiguration(findings);
    checkLogFolder(findings);
    checkLibrary(findings);
    checkTokens(findings);
    checkCertificates(findings);
    checkSystem(findings);

    Json document = {{"steps", Json::array()},
                     {"failed", count(findings, Outcome::failed)},
                     {"behaviour", behaviourOf(findings)}};
    for (const Step& step : findings.steps) {
        show(session.out, step);
        document["steps"].push_back(toJson(step));
    }
    const size_t failed = count(findings, Outcome::failed);
    session.out.line();
    session.out.line(failed == 0 ? "No problems found."
                                 : std::to_string(failed) + " of " +
                                       std::to_string(findings.steps.size()) + " steps failed.");
    session.out.document(document);
    if (failed > 0)
        throw CLI::RuntimeError(static_cast<int>(ExitCode::failed));
}

}  // namespace

void addCheck(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand(
        "check", "Check configuration, library, token and registration; never asks for a PIN");
    command.callback([&session] { check(session); });
}

}  // namespace NV::tool
