// keywarden report: one ZIP file with what a supporter needs.

#include <windows.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command/commands.h"
#include "command/confirmed.h"
#include "command/options.h"
#include "command/report_contents.h"
#include "output_file.h"
#include "session.h"

namespace NV::tool {

namespace {

struct ReportOptions {
    unsigned days = 3;
    std::string output;
    bool force = false;
    bool yes = false;
};

SYSTEMTIME timeNow()
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    return now;
}

// In the current folder.
std::string reportName(const SYSTEMTIME& now)
{
    char name[64];
    std::snprintf(name, sizeof name, "keywarden-report-%04u%02u%02u-%02u%02u%02u.zip",
                  unsigned{now.wYear}, unsigned{now.wMonth}, unsigned{now.wDay},
                  unsigned{now.wHour}, unsigned{now.wMinute}, unsigned{now.wSecond});
    return name;
}

void showReport(const Output& out, const SupportReport& report)
{
    std::vector<std::vector<std::string>> rows;
    for (const ReportFile& file : report.files)
        rows.push_back({file.name, std::to_string(file.bytes), file.what});
    out.table({"FILE", "BYTES", "CONTENTS"}, rows);
    for (const std::string& note : report.notes)
        out.line(note);
    out.line(whatReportsShow);
}

Json reportDocument(const SupportReport& report, const std::string& output)
{
    Json files = Json::array();
    for (const ReportFile& file : report.files)
        files.push_back({{"name", file.name}, {"bytes", file.bytes}, {"contents", file.what}});
    return {{"output", output},
            {"bytes", report.archive.size()},
            {"files", files},
            {"notes", report.notes}};
}

void makeReport(Session& session, const ReportOptions& options)
{
    requireAnswered(session, options.yes, "Give --yes to write the report.");
    const SYSTEMTIME now = timeNow();
    const std::string name = options.output.empty() ? reportName(now) : options.output;
    const OutputFile file(session.out, name, {}, {.force = options.force});
    const SupportReport report = collectReport(session, options.days, now);
    showReport(session.out, report);
    if (!options.yes && !confirmed(session, "Write " + file.name())) {
        session.out.line("Nothing was written.");
        return;
    }
    file.write(report.archive);
    session.out.line("Report: " + file.name() + ", " + std::to_string(report.archive.size()) +
                     " bytes");
    session.out.document(reportDocument(report, name));
}

}  // namespace

void addReport(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand(
        "report", "Write a ZIP file for support: check, configuration, log without secrets");
    const auto options = std::make_shared<ReportOptions>();
    command
        .add_option("--days", options->days,
                    "Days of the log, with today; 0 leaves it out (default: 3)")
        ->option_text("N")
        ->check(CLI::Range(0U, 366U));
    command
        .add_option("-o,--output", options->output,
                    "File for the report; - is standard output (default: "
                    "keywarden-report-DATE-TIME.zip)")
        ->option_text("ZIP");
    addForceOption(command, options->force);
    command.add_flag("--yes", options->yes, "Do not ask");
    command.callback([&session, options] { makeReport(session, *options); });
}

}  // namespace NV::tool
