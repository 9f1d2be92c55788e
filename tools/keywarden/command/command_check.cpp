// keywarden check: runs all steps, shows each when it is done, and sums them up.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "check/check.h"
#include "check/step_message.h"
#include "check/worker.h"
#include "command/commands.h"
#include "command/documents.h"
#include "config/mode.h"
#include "exit_code.h"
#include "session.h"
#include "text.h"

namespace NV::tool {

namespace {

// How long one call of the library may take.
constexpr std::chrono::seconds defaultLimit{20};

struct OutcomeText {
    const char* mark;
    Colour colour;
};

OutcomeText textOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::ok:
        return {"ok    ", Colour::green};
    case Outcome::warning:
        return {"note  ", Colour::yellow};
    case Outcome::failed:
        return {"FAILED", Colour::red};
    case Outcome::skipped:
        break;
    }
    return {"-     ", Colour::dim};
}

// Shows each step when it ends, and on a terminal what is under way.
class CheckReport : public Progress {
public:
    explicit CheckReport(Session& session) : out_(session.out) {}
    ~CheckReport() override { out_.progress({}); }
    CheckReport(const CheckReport&) = delete;
    CheckReport& operator=(const CheckReport&) = delete;

    void begun(const std::string& step) override
    {
        step_ = step;
        out_.progress(step_ + " ...");
    }
    void calls(const std::string& function) override
    {
        out_.progress(step_ + ": " + function + " ...");
    }
    void waits(bool forUser) override
    {
        if (forUser)
            out_.progress(step_ + ": waits for the PIN ...");
    }
    void ended(const Step& step) override
    {
        out_.progress({});
        show(step);
        steps_.push_back(step);
    }

    bool has(const std::string& name) const
    {
        return std::ranges::find(steps_, name, &Step::name) != steps_.end();
    }
    const std::vector<Step>& steps() const { return steps_; }
    size_t count(Outcome outcome) const
    {
        return static_cast<size_t>(std::ranges::count(steps_, outcome, &Step::outcome));
    }

private:
    void show(const Step& step)
    {
        const OutcomeText outcome = textOf(step.outcome);
        out_.line(out_.coloured(outcome.colour, outcome.mark) + "  " + step.name + ": " +
                  step.text);
        for (const std::string& detail : step.details)
            out_.line("          " + detail);
        if (!step.advice.empty())
            out_.line("        > " + step.advice);
    }

    Output& out_;
    std::string step_;
    std::vector<Step> steps_;
};

void skip(CheckReport& report, const char* name, const char* text)
{
    if (!report.has(name))
        report.ended({name, Outcome::skipped, text, {}, {}});
}

// Its standard output is that of every program that loads it.
void judgeOutput(CheckReport& report, const WorkerEnd& end)
{
    constexpr const char* name = "library-output";
    if (end.output.empty()) {
        report.ended({name, Outcome::ok, "the library writes nothing to standard output", {}, {}});
        return;
    }
    report.ended({name,
                  Outcome::failed,
                  "the library writes to standard output: \"" +
                      end.output.substr(0, end.output.find_first_of("\r\n")) + "\"",
                  "Its text gets into the output of every program that uses the provider. Turn off "
                  "the library's messages, or report this to its vendor.",
                  {}});
}

// The steps on the log folder and the library, in a process of their own. If it ends in the step of the
// folder, another one does the rest.
void checkInWorker(CheckReport& report, const Findings& configured, bool sign,
                   std::chrono::milliseconds limit)
{
    WorkerTask task{.logFolder = true, .library = true, .sign = sign};
    for (;;) {
        const WorkerEnd end = runWorker(task, limit, report);
        if (end.kind != WorkerEnd::Kind::done) {
            report.ended(failedStep(end, limit));
            if (end.step == "log-folder") {
                task.logFolder = false;
                continue;
            }
        }
        constexpr const char* lost = "the steps before did not end";
        skip(report, "slots", lost);
        skip(report, "certificates", lost);
        if (sign)
            skip(report, "signatures", lost);
        if (!configured.library.empty())
            judgeOutput(report, end);
        return;
    }
}

// Null if the configuration does not say.
Json behaviourOf(const Findings& findings)
{
    if (!findings.configurationRead)
        return nullptr;
    return mode().behaviour() == Behaviour::modern ? "modern" : "classic";
}

// "pin, published": the steps with that outcome.
std::string namesOf(const std::vector<Step>& steps, Outcome outcome)
{
    std::vector<std::string> names;
    for (const Step& step : steps) {
        if (step.outcome == outcome)
            names.push_back(step.name);
    }
    return joined(names);
}

std::string summaryOf(const CheckReport& report)
{
    const size_t failed = report.count(Outcome::failed);
    const size_t notes = report.count(Outcome::warning);
    if (failed > 0)
        return std::to_string(failed) + " of " + std::to_string(report.steps().size()) +
               " steps failed: " + namesOf(report.steps(), Outcome::failed) + ".";
    if (notes > 0)
        return "No step failed. Read the notes: " + namesOf(report.steps(), Outcome::warning) + ".";
    return "No problems found.";
}

// Runs the steps, and shows each when it is done.
Json documentOf(Session& session, bool sign, std::string& summary)
{
    CheckReport report(session);
    Findings findings;
    findings.progress = &report;
    checkConfiguration(findings);
    findings.flush();
    if (findings.configurationRead) {
        checkInWorker(report, findings, sign, session.limit(defaultLimit));
    } else {
        checkLogFolder(findings);
        checkLibrary(findings);
        checkTokens(findings);
        checkCertificates(findings);
    }
    checkSystem(findings);
    findings.flush();

    Json document = {{"steps", Json::array()},
                     {"failed", report.count(Outcome::failed)},
                     {"notes", report.count(Outcome::warning)},
                     {"behaviour", behaviourOf(findings)}};
    for (const Step& step : report.steps())
        document["steps"].push_back(toJson(step));
    summary = summaryOf(report);
    return document;
}

// A failed step is a result, not a Failure; the exit code reports it to scripts.
void check(Session& session, bool sign)
{
    std::string summary;
    const Json document = documentOf(session, sign, summary);
    session.out.line();
    session.out.line(summary);
    session.out.document(document);
    if (document["failed"] != 0)
        throw CLI::RuntimeError(static_cast<int>(ExitCode::failed));
}

}  // namespace

Json checkDocument(Session& session)
{
    std::string summary;
    return documentOf(session, false, summary);
}

void addCheck(CLI::App& program, Session& session)
{
    CLI::App& command =
        *program.add_subcommand("check", "Check configuration, library, token and registration");
    const auto sign = std::make_shared<bool>(false);
    command.add_flag(
        "--sign", *sign,
        "Also sign with each key and verify with its certificate; asks for the PIN once");
    command.callback([&session, sign] { check(session, *sign); });
}

// Not in the help: "keywarden check" starts it.
void addCheckSteps(CLI::App& program)
{
    CLI::App& command = *program.add_subcommand(workerCommand, "The child process of check");
    command.group("");
    const auto task = std::make_shared<WorkerTask>();
    const auto results = std::make_shared<unsigned long long>(0);
    command.add_option("RESULTS", *results)->required();
    command.add_flag("--log-folder", task->logFolder);
    command.add_flag("--library", task->library);
    command.add_flag("--sign", task->sign);
    command.add_option("--test", task->tested);
    command.callback([task, results] { work(*task, *results); });
}

}  // namespace NV::tool
