// keywarden log on, keywarden log off: the level of the log, in the configuration file.

#include "command/log_commands.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <string>

#include "config/config.h"
#include "config/config_values.h"
#include "session.h"
#include "system/configuration.h"
#include "system/configuration_edit.h"
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

}  // namespace

void addLogLevels(CLI::App& log, Session& session)
{
    log.add_subcommand("on", "Write a full trace: logLevel=TRACE in the file")
        ->callback([&session] { setLevel(session, "TRACE", true); });
    log.add_subcommand("off", "Write one record an operation: logLevel=INFO")->callback([&session] {
        setLevel(session, "INFO", false);
    });
}

}  // namespace NV::tool
