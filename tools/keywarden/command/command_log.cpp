// keywarden log: what a log says of the operations of the provider.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command/commands.h"
#include "command/log_commands.h"
#include "command/options.h"
#include "failure.h"
#include "files.h"
#include "log/log_filter.h"
#include "log/log_page.h"
#include "log/log_reading.h"
#include "log/log_report.h"
#include "log/log_summary.h"
#include "log/log_trace.h"
#include "output_file.h"
#include "session.h"
#include "system/configuration.h"
#include "system/log_folder.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr size_t shownOperations = 5;
// Those that a document or a list has at most.
constexpr size_t listedOperations = 1000;

struct LogOptions {
    std::string file;
    bool all = false;
    LogFilter filter;
    std::optional<double> slow;
    bool follow = false;
    std::string format = "text";
    std::string output = "-";
    std::string html;
    bool force = false;
    bool secrets = false;
};

// The local time in the form of a record.
std::string localTime()
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    return timeText(now);
}

// The name as the log writes it. Throws CLI::ValidationError for a name that no operation has.
std::string operationNamed(const std::string& text)
{
    std::vector<std::string> similar;
    for (const std::string_view name : operationNames()) {
        const auto equal = [](char a, char b) {
            return std::tolower(static_cast<unsigned char>(a)) ==
                   std::tolower(static_cast<unsigned char>(b));
        };
        if (std::ranges::equal(name, text, equal))
            return std::string(name);
        if (std::search(name.begin(), name.end(), text.begin(), text.end(), equal) != name.end() ||
            std::ranges::equal(name.substr(0, 3), std::string_view(text).substr(0, 3), equal))
            similar.emplace_back(name);
    }
    throw CLI::ValidationError(
        "--op", "no operation has the name \"" + text + "\"" +
                    (similar.empty() ? "; SignHash is one" : "; similar: " + joined(similar)));
}

int64_t momentOf(const std::string& option, const std::string& text, bool last)
{
    if (const auto moment = parseMoment(text, localTime(), last))
        return *moment;
    throw CLI::ValidationError(option,
                               "\"" + text +
                                   "\" is no time such as 2026-03-04, \"2026-03-04 17:05\", "
                                   "17:05, 30m, 2h or 7d");
}

[[noreturn]] void reportNoLog(const std::filesystem::path& folder)
{
    throw Failure(
        "there is no log in " + toUtf8(folder),
        configuredLog().written
            ? "The provider writes one when a program loads it. A log file can also be "
              "named: keywarden log FILE"
            : "The log is off: run \"keywarden log on\", and repeat what failed. A log file "
              "can also be named: keywarden log FILE");
}

// The files to read, in the order of their days.
std::vector<std::string> chosenFiles(const LogOptions& options)
{
    if (!options.file.empty())
        return {options.file};
    loadConfiguration();
    const std::filesystem::path folder = configuredLogFolder();
    std::vector<LogFile> files = logFilesIn(folder);
    if (files.empty())
        reportNoLog(folder);
    if (!options.all && !options.filter.since && !options.filter.until)
        return {toUtf8(files.back().path)};
    std::ranges::sort(files, {}, &LogFile::day);
    const std::string days = files.front().day + " to " + files.back().day;
    std::erase_if(files, [&](const LogFile& file) { return !options.filter.takesDay(file.day); });
    if (files.empty())
        throw Failure("there is no log of that time in " + toUtf8(folder),
                      "There are logs of " + days + ".");
    std::vector<std::string> names;
    names.reserve(files.size());
    for (const LogFile& file : files)
        names.push_back(toUtf8(file.path));
    return names;
}

std::string formatTime(double milliseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", milliseconds);
    return text;
}

std::string placeOf(const Operation& operation)
{
    return "process " + operation.process +
           (operation.program.empty() ? "" : " " + operation.program) + ", line " +
           std::to_string(operation.line);
}

void show(Session& session, const Operation& operation, bool secrets)
{
    Output& out = session.out;
    out.line(operation.time + "  " + operation.name + "  " +
             (operation.finished ? formatTime(operation.elapsed) + " ms  " : "") +
             statusOf(operation) + (operation.key.empty() ? "" : "  key " + operation.key) + "  (" +
             placeOf(operation) + ")");
    for (const CallLine& call : describe(operation.calls))
        out.line("  " + out.coloured(call.failed ? Colour::red : Colour::none, call.text));
    for (const std::string& error : operation.errors)
        out.line("  " + out.coloured(Colour::red, secrets ? error : withoutSecrets(error)));
}

void showFailures(Session& session, const LogSummary& summary, const LogOptions& options)
{
    Output& out = session.out;
    out.line();
    if (summary.failures() == 0) {
        out.line("Failed or not finished: none");
        return;
    }
    out.line(out.coloured(Colour::red,
                          "Failed or not finished: " + std::to_string(summary.failures()) + " of " +
                              std::to_string(summary.operations()) + " operations"));
    for (const FailureKind& kind : summary.failureKinds()) {
        out.line("  " + std::to_string(kind.count) + "x " + kind.name + ": " + kind.status);
        if (!kind.reason.empty())
            out.line("     " + kind.reason);
        out.line("     last: " + kind.latest.time + ", " + placeOf(kind.latest));
    }
    const std::vector<Operation> failed = summary.failed();
    const size_t shown =
        options.filter.failed ? failed.size() : std::min(failed.size(), shownOperations);
    out.line();
    out.line(shown == summary.failures() ? "These operations:"
                                         : "The last " + std::to_string(shown) + " of them:");
    for (size_t i = failed.size() - shown; i < failed.size(); ++i)
        show(session, failed[i], options.secrets);
    if (shown < failed.size())
        out.line("\"keywarden log --failed\" lists more.");
}

void showFigures(Session& session, const LogSummary& summary, const LogOptions& options)
{
    std::vector<std::vector<std::string>> rows;
    for (const OperationFigures& row : summary.figures())
        rows.push_back({row.name, std::to_string(row.count), std::to_string(row.failures),
                        std::to_string(row.sizeQueries), formatTime(row.median),
                        formatTime(row.percentile95), formatTime(row.maximum)});
    session.out.line();
    if (rows.empty()) {
        session.out.line("There are no operations, or the options choose none.");
        return;
    }
    session.out.table(
        {"OPERATION", "COUNT", "FAILED", "LENGTH ONLY", "MEDIAN ms", "95 % ms", "MAX ms"}, rows);
    session.out.line();
    session.out.line((options.slow ? "Slower than " + formatTime(*options.slow) + " ms:"
                                   : "The slowest operations:") +
                     std::string(summary.slowest().empty() ? " none" : ""));
    for (const Operation& operation : summary.slowest())
        show(session, operation, options.secrets);
}

struct Log {
    std::vector<std::string> files;
    size_t records = 0;
    size_t foreignLines = 0;
};

std::string nameOf(const Log& log)
{
    return log.files.size() == 1
               ? inputName(log.files.front())
               : log.files.front() + " and " + std::to_string(log.files.size() - 1) + " more";
}

void showText(Session& session, const Log& log, const LogSummary& summary,
              const LogOptions& options)
{
    session.out.line(nameOf(log) + ": " + std::to_string(log.records) + " records" +
                     (log.foreignLines > 0
                          ? ", " + std::to_string(log.foreignLines) + " other lines"
                          : std::string()));
    showFailures(session, summary, options);
    if (!options.filter.failed)
        showFigures(session, summary, options);
    if (summary.untraced() > 0) {
        session.out.line();
        session.out.line("Only the record of the end: " + std::to_string(summary.untraced()) +
                         " of these operations. A full trace shows their PKCS#11 calls, too: run "
                         "\"keywarden log on\".");
    }
}

Json toDocument(const Log& log, const LogSummary& summary, const LogOptions& options)
{
    Json document = {{"file", log.files.back()},       {"files", log.files},
                     {"records", log.records},         {"otherLines", log.foreignLines},
                     {"failures", Json::array()},      {"failedCount", summary.failures()},
                     {"untraced", summary.untraced()}, {"operations", Json::array()},
                     {"slow", Json::array()},          {"failed", Json::array()}};
    for (const FailureKind& kind : summary.failureKinds())
        document["failures"].push_back(toJson(kind));
    for (const OperationFigures& row : summary.figures())
        document["operations"].push_back(toJson(row));
    for (const Operation& operation : summary.slowest())
        document["slow"].push_back(toJson(operation, options.secrets));
    for (const Operation& operation : summary.failed())
        document["failed"].push_back(toJson(operation, options.secrets));
    return document;
}

void write(Session& session, const OutputFile& file, const std::string& text, size_t leftOut)
{
    file.write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    session.out.line();
    session.out.line("Written: " + file.name());
    if (leftOut > 0)
        session.out.line(
            "It has the latest operations alone; " + std::to_string(leftOut) +
            " earlier ones are left out. Choose them with --since, --until, --pid or --op.");
}

void readAndShow(Session& session, const LogOptions& options)
{
    Log log{chosenFiles(options)};
    const bool traces = options.format == "chrome-trace";
    std::optional<OutputFile> pageFile;
    std::optional<OutputFile> traceFile;
    if (!options.html.empty())
        pageFile.emplace(session.out, options.html, log.files,
                         OutputRules{.force = options.force, .text = true});
    if (traces)
        traceFile.emplace(session.out, options.output, log.files,
                          OutputRules{.force = options.force, .text = true});
    LogSummary summary(options.slow ? listedOperations : shownOperations, options.slow.value_or(0),
                       listedOperations);
    LogPage page(options.secrets);
    ChromeTrace trace(options.secrets);
    OperationReader reader([&](const Operation& operation) {
        if (!options.filter.takes(operation))
            return;
        summary.add(operation);
        if (pageFile)
            page.add(operation);
        if (traceFile)
            trace.add(operation);
    });
    readLogs(log.files, reader);
    reader.finish();
    log.records = reader.records();
    log.foreignLines = reader.foreignLines();
    if (!traces)
        showText(session, log, summary, options);
    Json document = toDocument(log, summary, options);
    if (pageFile) {
        const std::string title = toUtf8(toPath(log.files.back()).filename());
        write(session, *pageFile, page.text(title, summary), page.leftOut());
        document["html"] = options.html;
    }
    if (traceFile) {
        write(session, *traceFile, trace.text(), trace.leftOut());
        document["output"] = options.output;
    }
    session.out.document(document);
}

// Shows each operation that ends from now on, until the program is ended or its output is closed. What the
// log has already is read, too: an operation may have begun in it. A pipe has an end, and nothing before
// now: all of it is shown.
void follow(Session& session, const LogOptions& options)
{
    constexpr DWORD pause = 250;       // milliseconds
    constexpr int pausesForADay = 20;  // a folder can have many files
    const bool pipe = isStandardStream(options.file) &&
                      GetFileType(GetStdHandle(STD_INPUT_HANDLE)) != FILE_TYPE_DISK;
    bool begun = pipe;
    OperationReader reader([&](const Operation& operation) {
        if (!begun || !options.filter.takes(operation))
            return;
        show(session, operation, options.secrets);
        session.out.document(toJson(operation, options.secrets));
    });
    std::string name = chosenFiles(options).back();
    auto log = std::make_unique<OpenLog>(name);
    if (pipe) {
        log->readAllTo(reader);
        reader.finish();
        return;
    }
    log->readTo(reader);
    // Twice: whatever waits has been there before.
    reader.settle();
    reader.settle();
    begun = true;
    session.out.line("Waiting for operations in " + name + "; Ctrl+C ends it.");
    for (int pauses = 1; std::ferror(stdout) == 0; ++pauses) {
        Sleep(pause);
        log->readTo(reader);
        reader.settle();
        if (pauses % pausesForADay != 0)
            continue;
        if (std::string newest = chosenFiles(options).back(); newest != name) {
            // A new day. What was written meanwhile belongs to it, too.
            log->readTo(reader);
            reader.beginFile();
            name = std::move(newest);
            log = std::make_unique<OpenLog>(name);
        }
    }
}

void addChoices(CLI::App& command, LogOptions& options)
{
    command.add_flag("--all", options.all, "Read the logs of all days in the configured folder");
    command
        .add_option_function<std::string>(
            "--since",
            [&options](const std::string& text) {
                options.filter.since = momentOf("--since", text, false);
            },
            "Only operations from this time on: a day, a time, or an age such as 2h")
        ->option_text("TIME");
    command
        .add_option_function<std::string>(
            "--until",
            [&options](const std::string& text) {
                options.filter.until = momentOf("--until", text, true);
            },
            "Only operations up to this time")
        ->option_text("TIME");
    command
        .add_option_function<uint32_t>(
            "--pid", [&options](uint32_t process) { options.filter.process = process; },
            "Only operations of this process")
        ->option_text("PID");
    command
        .add_option_function<std::string>(
            "--op",
            [&options](const std::string& text) {
                options.filter.operation = operationNamed(text);
            },
            "Only operations of this name, such as SignHash")
        ->option_text("NAME");
    command.add_flag("--failed", options.filter.failed,
                     "Only operations that failed or did not finish, each with its calls");
    command
        .add_option("--slow", options.slow,
                    "List all operations that took at least this many milliseconds")
        ->option_text("MS")
        ->check(CLI::Range(0.0, std::numeric_limits<double>::max()))
        ->check([](const std::string& text) {
            // Which no range excludes.
            const bool number = text.find_first_of("nN") == std::string::npos;
            return number ? std::string() : text + " is not a number";
        });
}

// Throws CLI::ValidationError for options that do not apply.
void checkOptions(const CLI::App& command, const LogOptions& options)
{
    if (options.format == "text")
        refuseIfGiven(command, "--output", "applies only to --format chrome-trace");
    if (options.format == "text" && options.html.empty())
        refuseIfGiven(command, "--force", "applies only to --html and --format chrome-trace");
    if (!options.file.empty())
        refuseIfGiven(command, "--all", "applies only without FILE");
    if (!options.follow)
        return;
    for (const char* option : {"--html", "--format", "--slow", "--all", "--since", "--until"})
        refuseIfGiven(command, option, "does not apply to --follow");
}

}  // namespace

void addLog(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<LogOptions>();
    CLI::App& command =
        *program.add_subcommand("log", "Show what a log says; switch the full trace on and off");
    command.require_subcommand(0, 1);
    command
        .add_option("FILE", options->file,
                    "Log file (default: the one in the configured folder that was changed last)")
        ->type_name("");
    addChoices(command, *options);
    command.add_flag("--follow", options->follow, "Show new operations as they end");
    command.add_option("--html", options->html, "Also write the time lines to an HTML page")
        ->option_text("OUT");
    addChoiceOption(command, "--format", options->format, {"text", "chrome-trace"},
                    "What to write; chrome-trace is for Perfetto and chrome://tracing");
    command
        .add_option("-o,--output", options->output,
                    "File for --format chrome-trace (default: standard output)")
        ->option_text("OUT");
    addForceOption(command, options->force);
    command.add_flag("--show-secrets", options->secrets,
                     "Show the secrets that error messages contain");
    addLogCommands(command, session);
    command.callback([&command, &session, options] {
        if (!command.get_subcommands().empty())
            return;
        checkOptions(command, *options);
        if (options->follow)
            follow(session, *options);
        else
            readAndShow(session, *options);
    });
}

}  // namespace NV::tool
