// keywarden log: summarises a trace log.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>

#include "command/commands.h"
#include "command/options.h"
#include "failure.h"
#include "files.h"
#include "log/log_report.h"
#include "output_file.h"
#include "session.h"
#include "system/configuration.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr size_t shownOperations = 5;

struct LogOptions {
    std::string file;
    std::string operation;
    std::optional<double> slow;
    std::string html;
    bool force = false;
    bool secrets = false;
};

struct Log {
    std::filesystem::path file;
    size_t records = 0;
    size_t foreignLines = 0;
    std::vector<Operation> operations;
};

std::filesystem::path newestLog()
{
    loadConfiguration();
    const std::filesystem::path folder = configuredLogFolder();
    std::filesystem::path newest;
    std::error_code error;
    // The name contains the date, so the last name is the newest.
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const std::wstring name = entry.path().filename().wstring();
        if (name.starts_with(L"nvksprovider-") && name.ends_with(L".log") &&
            (newest.empty() || name > newest.filename().wstring()))
            newest = entry.path();
    }
    if (newest.empty())
        throw Failure("there is no log in " + toUtf8(folder),
                      "Set logTypes=FILE in the configuration to write one, or name a log file: "
                      "keywarden log FILE");
    return newest;
}

Log readLog(const LogOptions& options)
{
    Log log;
    log.file = options.file.empty() ? newestLog() : toPath(options.file);
    std::ifstream stream = openFile(log.file);
    OperationReader reader;
    std::string line;
    while (std::getline(stream, line))
        reader.addLine(line);
    log.records = reader.records();
    log.foreignLines = reader.foreignLines();
    log.operations = reader.finish();
    if (!options.operation.empty())
        std::erase_if(log.operations, [&](const Operation& operation) {
            return operation.name != options.operation;
        });
    return log;
}

// The slowest first: all that reach the limit, or the first few if there is no limit.
std::vector<const Operation*> slowest(const std::vector<Operation>& operations,
                                      const LogOptions& options)
{
    std::vector<const Operation*> found;
    for (const Operation& operation : operations) {
        if (operation.finished && operation.elapsed >= options.slow.value_or(0))
            found.push_back(&operation);
    }
    std::ranges::stable_sort(found, std::ranges::greater(), &Operation::elapsed);
    if (!options.slow && found.size() > shownOperations)
        found.resize(shownOperations);
    return found;
}

std::vector<const Operation*> failedOrOpen(const std::vector<Operation>& operations)
{
    std::vector<const Operation*> found;
    for (const Operation& operation : operations) {
        if (operation.failed() || !operation.finished)
            found.push_back(&operation);
    }
    return found;
}

std::string formatTime(double milliseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", milliseconds);
    return text;
}

void show(Session& session, const Operation& operation, bool secrets)
{
    session.out.line(operation.time + "  " + operation.name + "  " +
                     (operation.finished
                          ? formatTime(operation.elapsed) + " ms  " + statusOf(operation)
                          : "not finished") +
                     (operation.key.empty() ? "" : "  key " + operation.key) + "  (line " +
                     std::to_string(operation.line) + ")");
    for (const CallLine& call : describe(operation.calls))
        session.out.line("  " +
                         session.out.coloured(call.failed ? Colour::red : Colour::none, call.text));
    for (const LogRecord& error : operation.errors)
        session.out.line(
            "  " + session.out.coloured(Colour::red,
                                        secrets ? error.message : withoutSecrets(error.message)));
}

void showText(Session& session, const Log& log, const LogOptions& options)
{
    session.out.line(toUtf8(log.file) + ": " + std::to_string(log.records) + " records" +
                     (log.foreignLines > 0
                          ? ", " + std::to_string(log.foreignLines) + " other lines"
                          : std::string()));
    std::vector<std::vector<std::string>> rows;
    for (const OperationFigures& row : figuresOf(log.operations))
        rows.push_back({row.name, std::to_string(row.count), std::to_string(row.failures),
                        formatTime(row.median), formatTime(row.percentile95),
                        formatTime(row.maximum)});
    session.out.line();
    session.out.table({"OPERATION", "COUNT", "FAILED", "MEDIAN ms", "95 % ms", "MAX ms"}, rows);
    session.out.line();
    session.out.line(options.slow ? "Slower than " + formatTime(*options.slow) + " ms:"
                                  : "The slowest operations:");
    for (const Operation* operation : slowest(log.operations, options))
        show(session, *operation, options.secrets);
    session.out.line();
    session.out.line("Failed or not finished:");
    const std::vector<const Operation*> failures = failedOrOpen(log.operations);
    for (const Operation* operation : failures)
        show(session, *operation, options.secrets);
    if (failures.empty())
        session.out.line("  none");
}

Json toDocument(const Log& log, const LogOptions& options)
{
    Json document = {{"file", toUtf8(log.file)},       {"records", log.records},
                     {"otherLines", log.foreignLines}, {"operations", Json::array()},
                     {"slow", Json::array()},          {"failed", Json::array()}};
    for (const OperationFigures& row : figuresOf(log.operations))
        document["operations"].push_back(toJson(row));
    for (const Operation* operation : slowest(log.operations, options))
        document["slow"].push_back(toJson(*operation, options.secrets));
    for (const Operation* operation : failedOrOpen(log.operations))
        document["failed"].push_back(toJson(*operation, options.secrets));
    return document;
}

void readAndShow(Session& session, const LogOptions& options)
{
    std::optional<OutputFile> page;
    if (!options.html.empty())
        page.emplace(session.out, options.html, std::vector{options.file},
                     OutputRules{.force = options.force, .text = true});
    const Log log = readLog(options);
    showText(session, log, options);
    Json document = toDocument(log, options);
    if (!options.html.empty()) {
        const std::string text =
            toHtml(log.operations, toUtf8(log.file.filename()), options.secrets);
        page->write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
        session.out.line();
        session.out.line("Written: " + options.html);
        document["html"] = options.html;
    }
    session.out.document(document);
}

}  // namespace

void addLog(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<LogOptions>();
    CLI::App& command = *program.add_subcommand("log", "Summarise a trace log");
    command
        .add_option("FILE", options->file,
                    "Log file (default: the newest one in the configured folder)")
        ->type_name("");
    command
        .add_option("--op", options->operation,
                    "Show only operations of this name, such as SignHash")
        ->option_text("NAME");
    command
        .add_option("--slow", options->slow,
                    "List all operations that took at least this many milliseconds")
        ->option_text("MS")
        ->check(CLI::NonNegativeNumber);
    command.add_option("--html", options->html, "Write the time lines to an HTML page")
        ->option_text("OUT");
    addForceOption(command, options->force);
    command.add_flag("--show-secrets", options->secrets,
                     "Show the secrets that error messages contain");
    command.callback([&session, options] { readAndShow(session, *options); });
}

}  // namespace NV::tool
