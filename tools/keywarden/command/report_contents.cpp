// Each function adds one file, or a note that says why there is none.

#include "command/report_contents.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string_view>

#include "command/documents.h"
#include "command/stale_certificates.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "failure.h"
#include "files.h"
#include "formats/certificate.h"
#include "formats/hashing.h"
#include "formats/zip.h"
#include "log/redacted_logs.h"
#include "session.h"
#include "system/configuration.h"
#include "system/key_storage.h"
#include "system/log_folder.h"
#include "system/program.h"
#include "system/published.h"
#include "system/redacted_configuration.h"
#include "system/versions.h"
#include "text.h"
#include "version.h"

namespace NV::tool {

namespace {

// Of all logs together: more than a supporter reads, and less than an e-mail takes when it is packed.
constexpr uint64_t mostOfLogs = uint64_t{64} << 20;
// A configuration has some hundred lines.
constexpr size_t mostOfConfiguration = size_t{1} << 20;

class Collection {
public:
    Collection(Session& session, const SYSTEMTIME& now) : session_(session), archive_(now) {}

    void add(const std::string& name, std::string_view content, const std::string& what)
    {
        archive_.add(name, content);
        report_.files.push_back({name, content.size(), what});
    }
    void addDocument(const std::string& name, const Json& document, const std::string& what)
    {
        add(name, document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n", what);
    }
    void note(const std::string& text) { report_.notes.push_back(text); }

    void begin(const std::string& name) { archive_.begin(name); }
    void piece(std::string_view content) { archive_.add(content); }
    void end(const std::string& name, const std::string& what)
    {
        report_.files.push_back({name, archive_.end(), what});
    }

    Session& session() { return session_; }
    const SupportReport& report() const { return report_; }

    SupportReport finish()
    {
        report_.archive = archive_.finish();
        return std::move(report_);
    }

private:
    Session& session_;
    ZipArchive archive_;
    SupportReport report_;
};

// The document of a command, or the one that it prints when it fails.
Json documentOrError(const std::function<Json()>& make)
{
    try {
        return make();
    } catch (const Failure& failure) {
        return {{"error", failure.what()}, {"advice", failure.advice()}};
    }
}

// The steps on the configuration quote its lines.
void takeOutLines(Json& check)
{
    if (!check.contains("steps"))
        return;
    for (Json& step : check["steps"]) {
        if (step["name"] != "configuration-lines")
            continue;
        step["text"] = withoutQuotedLines(step["text"].get<std::string>());
        for (Json& detail : step["details"])
            detail = withoutQuotedLines(detail.get<std::string>());
    }
}

Json addCheck(Collection& to)
{
    Session quiet = to.session();
    quiet.out.setJson(true);
    Json check = documentOrError([&] { return checkDocument(quiet); });
    takeOutLines(check);
    to.addDocument("check.json", check, "what \"keywarden check --json\" prints");
    return check;
}

void addStatus(Collection& to)
{
    Session quiet = to.session();
    quiet.out.setJson(true);
    to.addDocument("status.json", documentOrError([&] { return statusDocument(quiet); }),
                   "what \"keywarden status --json\" prints: the registration with CNG");
}

void addCertificates(Collection& to)
{
    to.addDocument("certificates.json", documentOrError([] {
                       const std::vector<StoredCertificate> stored = certificatesInMy();
                       return Json{{"certificates", toJson(staleEntries(stored, {}))}};
                   }),
                   "the certificates in \"My\" that name this provider");
}

void addConfiguration(Collection& to, const std::string& name, const std::filesystem::path& file,
                      const std::string& whose)
{
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        to.note("There is no configuration of " + whose + ": " + toUtf8(file) + " does not exist.");
        return;
    }
    try {
        InputFile input(toUtf8(file));
        std::string text(mostOfConfiguration, '\0');
        size_t size = 0;
        while (const size_t count =
                   input.read(reinterpret_cast<unsigned char*>(&text[size]), text.size() - size))
            size += count;
        text.resize(size);
        to.add(name, redactedConfiguration(text),
               "the configuration of " + whose + ", " + toUtf8(file));
    } catch (const Failure& failure) {
        to.note("The configuration of " + whose + " is missing: " + failure.what());
    }
}

void addConfigurations(Collection& to)
{
    try {
        addConfiguration(to, "configuration-user.conf", configurationFile(), "the user");
    } catch (const Failure& failure) {
        to.note(std::string("The configuration of the user is missing: ") + failure.what());
    }
    addConfiguration(to, "configuration-all-users.conf", configurationOfAllUsers(), "all users");
}

// Path, version, length and hash of a file.
Json describe(const Output& out, const std::filesystem::path& file)
{
    Json description = {{"file", toUtf8(file)},
                        {"version", fileVersion(file)},
                        {"bytes", nullptr},
                        {"sha256", nullptr}};
    try {
        std::error_code error;
        const auto size = std::filesystem::file_size(file, error);
        const Bytes hash = hashInput(out, toUtf8(file), hashNamed("sha256"));
        if (!error)
            description["bytes"] = size;
        description["sha256"] = hexEncode(hash);
    } catch (const Failure& failure) {
        description["error"] = failure.what();
    }
    return description;
}

Json describeLibrary(const Output& out, bool configured)
{
    const std::string library = configured ? configuredLibrary(Config::instance()) : std::string();
    return library.empty() ? Json(nullptr) : describe(out, toPath(library));
}

void addVersions(Collection& to, bool configured)
{
    const Output& out = to.session().out;
    to.addDocument("versions.json",
                   Json{{"windows", {{"name", windowsName()}, {"version", windowsVersion()}}},
                        {"keywarden", NV_VERSION_TEXT},
                        {"tool", describe(out, ownProgram())},
                        {"module", describe(out, defaultModule())},
                        {"library", describeLibrary(out, configured)}},
                   "versions of Windows, module, tool and token library, with SHA-256");
}

// "2026-03-04": the first of the last days, today included.
std::string firstDayOf(unsigned days, const SYSTEMTIME& now)
{
    constexpr uint64_t ticksOfDay = uint64_t{24} * 60 * 60 * 10'000'000;
    FILETIME time;
    SystemTimeToFileTime(&now, &time);
    ULARGE_INTEGER ticks;
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    ticks.QuadPart -= (days - 1) * ticksOfDay;
    time.dwLowDateTime = ticks.LowPart;
    time.dwHighDateTime = ticks.HighPart;
    SYSTEMTIME first;
    FileTimeToSystemTime(&time, &first);
    return timeText(first).substr(0, 10);
}

std::string counted(size_t count, const std::string& one)
{
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

void addLog(Collection& to, const ChosenLog& log)
{
    const std::string name = "log/" + toUtf8(log.file.path.filename());
    std::string problem;
    try {
        const RedactionCounts counts = readRedacted(
            log, [&] { to.begin(name); }, [&](std::string_view text) { to.piece(text); }, problem);
        std::string what = "the log of " + log.file.day + ", with values taken out of " +
                           counted(counts.values, "line");
        if (counts.messages + counts.foreign > 0)
            what += ", and " + counted(counts.messages + counts.foreign, "line") + " whole";
        to.end(name, what);
    } catch (const Failure& failure) {
        problem = failure.what();
    }
    if (!problem.empty())
        to.note(name + " is missing or not whole: " + problem);
    if (log.begin > 0)
        to.note(name + " begins in the middle: the newest " +
                std::to_string((log.size - log.begin) >> 20) + " MiB of " +
                std::to_string(log.size >> 20) + " MiB.");
}

// Whether the step says that reading the folder can hang.
bool hangs(const Json& check)
{
    const Json steps = check.value("steps", Json::array());
    return std::ranges::any_of(steps, [](const Json& step) {
        return step["name"] == "log-folder" && step["outcome"] == "failed" &&
               step["text"].get<std::string>().find("did not answer") != std::string::npos;
    });
}

void addLogs(Collection& to, unsigned days, const SYSTEMTIME& now, const Json& check)
{
    if (days == 0) {
        to.note("The log was left out.");
        return;
    }
    if (hangs(check)) {
        to.note("The log is missing: its folder did not answer.");
        return;
    }
    const std::filesystem::path folder = configuredLogFolder();
    const LogChoice choice = chooseLogs(logFilesIn(folder), firstDayOf(days, now), mostOfLogs);
    if (choice.logs.empty())
        to.note("There is no log of the last " + counted(days, "day") + " in " + toUtf8(folder) +
                ".");
    for (const ChosenLog& log : choice.logs)
        addLog(to, log);
    if (choice.older > 0)
        to.note(counted(choice.older, "log") + " of earlier days left out; --days takes more.");
    if (choice.dropped > 0)
        to.note(counted(choice.dropped, "log") + " left out: the report takes the newest " +
                std::to_string(mostOfLogs >> 20) + " MiB.");
}

void addContents(Collection& to, const SYSTEMTIME& now)
{
    std::string text = "keywarden report, version " NV_VERSION_TEXT ", " +
                       timeText(now).substr(0, 19) + " local time\n\n";
    for (const ReportFile& file : to.report().files)
        text += file.name + " (" + std::to_string(file.bytes) + " bytes): " + file.what + "\n";
    text += "\n";
    for (const std::string& note : to.report().notes)
        text += note + "\n";
    text += "\n" + std::string(whatReportsShow) + "\n";
    to.add("contents.txt", text, "this list");
}

}  // namespace

const char* const whatReportsShow =
    "Secrets, PINs, their lengths, hashes, signatures, public keys and certificates were taken out of the "
    "log. Names are still there: of users, folders, programs, keys, and of the token with its serial "
    "number.";

SupportReport collectReport(Session& session, unsigned days, const SYSTEMTIME& now)
{
    Collection collection(session, now);
    const Json check = addCheck(collection);
    addStatus(collection);
    addConfigurations(collection);
    bool configured = false;
    try {
        loadConfiguration();
        configured = true;
    } catch (const Failure&) {
        // The reason can quote a line of the file.
        collection.note("No configuration could be read; check.json has the reason.");
    }
    addVersions(collection, configured);
    addCertificates(collection);
    if (configured) {
        try {
            addLogs(collection, days, now, check);
        } catch (const Failure& failure) {
            collection.note(std::string("The log is missing: ") + failure.what());
        }
    } else {
        collection.note("The log is missing: without a configuration, its folder is not known.");
    }
    addContents(collection, now);
    return collection.finish();
}

}  // namespace NV::tool
