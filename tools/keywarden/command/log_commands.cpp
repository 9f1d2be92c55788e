// keywarden log on, keywarden log off: the level of the log, in the configuration file; keywarden log where: its
// files.

#include "command/log_commands.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "config/config.h"
#include "config/config_values.h"
#include "session.h"
#include "system/configuration.h"
#include "system/configuration_edit.h"
#include "system/log_folder.h"
#include "text.h"

namespace NV::tool {

namespace {

// What the list of outputs becomes, so that there is a file.
std::string withFile(const std::string& types)
{
    if ((parseLogTypes(types) & logToFile) != 0)
        return types;
    return types.empty() ? "FILE" : types + ",FILE";
}

void setLevel(Session& session, const std::string& level, bool mustWrite)
{
    loadConfiguration();
    Config& config = Config::instance();
    const std::filesystem::path file = configurationInUse();
    const std::string types = mustWrite ? withFile(config.get("logTypes")) : config.get("logTypes");
    Settings changes = {{"logLevel", level}};
    if (types != config.get("logTypes"))
        changes["logTypes"] = types;
    Output& out = session.out;
    const bool changed = editConfiguration(out, file, changes);
    const bool modern = config.mode().behaviour() == Behaviour::modern;

    out.line("logLevel=" + level + (changes.contains("logTypes") ? ", logTypes=" + types : "") +
             " in " + toUtf8(file) + (changed ? "" : ", as before"));
    out.line("Programs that run already keep their level until they are started again.");
    if (!modern)
        out.line(
            "In classic, the log is a full trace at every level, and contains agreed secrets.");
    if ((parseLogTypes(types) & logToFile) == 0)
        out.line("The log is not written to a file: logTypes does not contain FILE.");
    out.document({{"file", toUtf8(file)},
                  {"logLevel", level},
                  {"logTypes", types},
                  {"changed", changed},
                  {"behaviour", modern ? "modern" : "classic"}});
}

// Folder and files of the log.
void showPlace(Session& session)
{
    loadConfiguration();
    const std::filesystem::path folder = configuredLogFolder();
    const bool written = configuredLog().written;
    const std::vector<LogFile> files = logFilesIn(folder);
    Json document = {{"folder", toUtf8(folder)}, {"written", written}, {"files", Json::array()}};
    std::vector<std::vector<std::string>> rows;
    uintmax_t total = 0;
    for (const LogFile& file : files) {
        std::error_code gone;
        const uintmax_t size = std::filesystem::file_size(file.path, gone);
        if (gone)
            continue;
        total += size;
        rows.push_back({file.day, std::to_string(size), toUtf8(file.path.filename())});
        document["files"].push_back(
            {{"file", toUtf8(file.path)}, {"day", file.day}, {"bytes", size}});
    }
    document["bytes"] = total;
    Output& out = session.out;
    out.line("Log folder: " + toUtf8(folder));
    if (!written)
        out.line("The log is not written to a file: logTypes does not contain FILE.");
    if (rows.empty()) {
        out.line("There are no log files.");
    } else {
        out.table({"DAY", "BYTES", "FILE"}, rows);
        out.line(std::to_string(rows.size()) + (rows.size() == 1 ? " file, " : " files, ") +
                 std::to_string(total) + " bytes");
    }
    out.document(document);
}

}  // namespace

void addLogCommands(CLI::App& log, Session& session)
{
    log.add_subcommand("on", "Write a full trace: logLevel=TRACE in the file")
        ->callback([&session] { setLevel(session, "TRACE", true); });
    log.add_subcommand("off", "Write one record an operation: logLevel=INFO")->callback([&session] {
        setLevel(session, "INFO", false);
    });
    log.add_subcommand("where", "Show the folder and the files of the log")->callback([&session] {
        showPlace(session);
    });
}

}  // namespace NV::tool
