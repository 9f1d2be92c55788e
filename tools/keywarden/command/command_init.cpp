// keywarden init: writes the user's configuration file.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>

#include "command/commands.h"
#include "failure.h"
#include "session.h"
#include "system/configuration.h"
#include "text.h"

namespace NV::tool {

namespace {

struct InitOptions {
    NewConfiguration configuration;
    bool force = false;
};

// Asks which of the libraries that are there is to be used.
std::string chooseLibrary(Session& session)
{
    const std::vector<FoundLibrary> found = findLibraries();
    if (found.empty())
        throw Failure("no PKCS#11 library was found in the usual places",
                      "Name it with --p11 PATH.");
    if (session.out.json())
        throw Failure("--json does not ask", "Name the library with --p11 PATH.");
    session.out.line("PKCS#11 libraries on this machine:");
    for (size_t i = 0; i < found.size(); ++i)
        session.out.line("  " + std::to_string(i + 1) + "  " + found[i].product + "  " +
                         toUtf8(found[i].file));
    session.out.line("Which one (1 to " + std::to_string(found.size()) + ")?");
    std::string answer;
    std::getline(std::cin, answer);
    size_t number = 0;
    if (!CLI::detail::lexical_cast(CLI::detail::trim(answer), number) || number < 1 ||
        number > found.size())
        throw Failure("\"" + answer + "\" is none of them; nothing was written");
    return toUtf8(found[number - 1].file);
}

void init(Session& session, InitOptions& options)
{
    const std::filesystem::path file = configurationFile();
    std::error_code error;
    if (std::filesystem::exists(file, error) && !options.force)
        throw Failure(toUtf8(file) + " is there already", "--force replaces it.");
    NewConfiguration& configuration = options.configuration;
    if (configuration.p11File.empty())
        configuration.p11File = chooseLibrary(session);
    if (!std::filesystem::is_regular_file(toPath(configuration.p11File), error))
        throw Failure("there is no file " + configuration.p11File,
                      "--p11 wants the full path of the token's PKCS#11 library.");
    // Both are looked up in processes of any working folder.
    configuration.p11File = toUtf8(std::filesystem::absolute(toPath(configuration.p11File)));
    if (!configuration.logStore.empty() && !configuration.logStore.starts_with('~'))
        configuration.logStore = toUtf8(std::filesystem::absolute(toPath(configuration.logStore)));
    writeConfiguration(file, configurationText(configuration));
    session.out.line("Written: " + toUtf8(file));
    session.out.line("Next: \"keywarden check\" looks whether all is in order.");
    session.out.document({{"file", toUtf8(file)},
                          {"p11File", configuration.p11File},
                          {"logStore", configuration.logStore},
                          {"logLevel", configuration.logLevel}});
}

}  // namespace

void addInit(CLI::App& program, Session& session)
{
    CLI::App& command =
        *program.add_subcommand("init", "Write the configuration file of this user");
    const auto options = std::make_shared<InitOptions>();
    command
        .add_option("--p11", options->configuration.p11File,
                    "The token's PKCS#11 library; without it, those that are found are listed")
        ->option_text("PATH");
    command
        .add_option("--log-dir", options->configuration.logStore,
                    "Folder of the log files; ~ stands for the user's profile")
        ->option_text("DIR");
    command
        .add_option("--log-level", options->configuration.logLevel,
                    "TRACE, DEBUG, INFO, WARN, ERROR or SEVERE")
        ->option_text("LEVEL")
        ->transform(
            CLI::IsMember({"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "SEVERE"}, CLI::ignore_case));
    command.add_flag("--force", options->force, "Replace a file that is there");
    command.callback([&session, options] { init(session, *options); });
}

}  // namespace NV::tool
