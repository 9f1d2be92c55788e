// keywarden init: writes the configuration file of the user or of all users.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "check/check.h"
#include "check/worker.h"
#include "command/commands.h"
#include "config/config_expansion.h"
#include "config/config_path.h"
#include "config/config_values.h"
#include "failure.h"
#include "output_file.h"
#include "session.h"
#include "system/configuration.h"
#include "text.h"
#include "whole_number.h"

namespace NV::tool {

namespace {

struct InitOptions {
    Settings configuration = newConfiguration();
    bool allUsers = false;
    bool force = false;
    bool noTest = false;
    bool remove = false;

    ConfigurationOf whose() const
    {
        return allUsers ? ConfigurationOf::allUsers : ConfigurationOf::user;
    }
};

// Asks the user to choose one of the libraries that are installed.
std::string chooseLibrary(Session& session)
{
    std::vector<FoundLibrary> found = findLibraries();
    std::erase_if(found, [&](const FoundLibrary& library) {
        if (library.writableByOthers)
            session.out.line("Not offered, because other users may write to it: " +
                             toUtf8(library.file));
        return library.writableByOthers;
    });
    if (found.empty())
        throw Failure("no PKCS#11 library was found in the usual places",
                      "Specify it with --p11 PATH.");
    if (session.out.json())
        throw Failure("--json does not ask", "Specify the library with --p11 PATH.");
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
        throw Failure("\"" + answer + "\" is not one of them; nothing was written");
    return toUtf8(found[number - 1].file);
}

// Nobody follows: only the first failed step matters.
class FirstFailure : public Progress {
public:
    void begun(const std::string&) override {}
    void calls(const std::string&) override {}
    void waits(bool) override {}
    void ended(const Step& step) override
    {
        if (step.outcome == Outcome::failed && !failed_)
            failed_ = step;
    }

    const std::optional<Step>& failed() const { return failed_; }

private:
    std::optional<Step> failed_;
};

// Loads the library in a process of its own. Throws Failure if the provider could not open with it.
void testLibrary(const Session& session, const std::string& library)
{
    constexpr std::chrono::seconds standard{20};
    const std::chrono::milliseconds limit = session.limit(standard);
    FirstFailure progress;
    const WorkerEnd end = runWorker({.tested = library}, limit, progress);
    if (end.kind != WorkerEnd::Kind::done)
        progress.ended(failedStep(end, limit));
    if (progress.failed())
        throw Failure(library + " cannot be used: " + progress.failed()->text,
                      progress.failed()->advice + " --no-test writes the file without trying the "
                                                  "library.");
}

// The path with the values of the variables that only a file of all users may name.
std::filesystem::path expanded(const std::string& path, const InitOptions& options)
{
    return toPath(options.allUsers ? expandLibraryPath(path, userProfile()) : path);
}

// Full paths, because the processes that load the module have working folders of their own. What differs
// from user to user stays as it is.
std::string fullPath(const std::string& path, const InitOptions& options)
{
    const bool differs = path.starts_with('~') || (options.allUsers && path.starts_with('%'));
    return path.empty() || differs ? path : toUtf8(std::filesystem::absolute(toPath(path)));
}

// Completes library and log folder, and tries the library.
void settle(Session& session, InitOptions& options)
{
    std::error_code error;
    std::string& library = options.configuration["p11File"];
    std::string& logFolder = options.configuration["logStore"];
    // The module takes away blanks at the ends, too.
    library = CLI::detail::trim_copy(library);
    logFolder = CLI::detail::trim_copy(logFolder);
    if (library.empty())
        library = chooseLibrary(session);
    if (!options.noTest && !std::filesystem::is_regular_file(expanded(library, options), error))
        throw Failure("there is no file " + toUtf8(expanded(library, options)),
                      "Give --p11 the full path of the token's PKCS#11 library.");
    library = fullPath(library, options);
    if (!options.noTest)
        testLibrary(session, toUtf8(expanded(library, options)));
    logFolder = fullPath(logFolder, options);
}

void removeFileOfAllUsers(Session& session)
{
    const std::filesystem::path file = configurationOfAllUsers();
    std::error_code error;
    const bool removed = std::filesystem::remove(file, error);
    if (error)
        throw Failure(toUtf8(file) +
                      " cannot be removed: " + errorText(static_cast<DWORD>(error.value())));
    session.out.line(removed ? "Removed: " + toUtf8(file) : "There is no " + toUtf8(file) + ".");
    session.out.document({{"file", toUtf8(file)}, {"removed", removed}});
}

void init(Session& session, InitOptions& options)
{
    if (options.remove && !options.allUsers)
        throw CLI::RequiresError("--remove", "--all-users");
    if (options.remove)
        return removeFileOfAllUsers(session);
    const std::filesystem::path file =
        options.allUsers ? configurationOfAllUsers() : configurationFile();
    makeFolderOf(file);
    const OutputFile output(session.out, toUtf8(file), {}, {.force = options.force, .text = true});
    settle(session, options);
    const std::string text = configurationText(options.configuration, options.whose());
    output.write(std::vector<unsigned char>(text.begin(), text.end()));
    session.out.line("Written: " + toUtf8(file));
    if (options.allUsers && configurationThatHolds() == ConfigurationOf::user)
        session.out.line("Note: you have a file of your own, which holds for you: " +
                         toUtf8(configurationFile()));
    session.out.line("Next: run \"keywarden check\" to check it.");
    Json document = {{"file", toUtf8(file)}};
    for (const auto& [key, value] : options.configuration)
        document[key] = value;
    session.out.document(document);
}

}  // namespace

namespace {

// "FILE", "CONSOLE" or both with a comma, in any case; "NONE" becomes empty.
std::string checkedLogTypes(std::string& value)
{
    if (CLI::detail::to_lower(value) == "none") {
        value.clear();
        return {};
    }
    for (const std::string& name : CLI::detail::split(value, ',')) {
        if (parseLogTypes(name) == 0)
            return "\"" + value + "\" is not FILE, CONSOLE, both with a comma, or NONE";
    }
    return {};
}

std::string checkedLogRotate(const std::string& value)
{
    const auto days = wholeNumber<uint32_t>(value);
    const bool isNumber = days && *days <= std::numeric_limits<int32_t>::max();
    return isNumber ? std::string() : "\"" + value + "\" is not a number of days";
}

void addValues(CLI::App& command, Settings& configuration)
{
    const std::vector<std::string> levels = levelNames();
    command
        .add_option("--p11", configuration["p11File"],
                    "The token's PKCS#11 library; without it, the command lists the ones it finds")
        ->option_text("PATH");
    command.add_option("--mode", configuration["mode"], "modern or classic")
        ->option_text("MODE")
        ->check(CLI::IsMember({"modern", "classic"}));
    command
        .add_option("--log-dir", configuration["logStore"],
                    "Folder of the log files; ~ is the user's profile folder")
        ->option_text("DIR");
    command.add_option("--log-level", configuration["logLevel"], choiceOf(levels))
        ->option_text("LEVEL")
        ->transform(CLI::IsMember(levels, CLI::ignore_case));
    command
        .add_option("--log-types", configuration["logTypes"],
                    "FILE, CONSOLE, both with a comma, or NONE")
        ->option_text("TYPES")
        ->transform(CLI::Validator(checkedLogTypes, "TYPES"));
    command.add_option("--log-rotate", configuration["logRotate"], "Days to keep log files")
        ->option_text("DAYS")
        ->check(checkedLogRotate);
}

}  // namespace

void addInit(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand(
        "init", "Write the configuration file of this user or of all users");
    const auto options = std::make_shared<InitOptions>();
    addValues(command, options->configuration);
    command.add_flag("--all-users", options->allUsers,
                     "Write the file of all users, beside the module (as an administrator)");
    command.add_flag("--force", options->force, "Replace an existing file");
    command.add_flag("--no-test", options->noTest,
                     "Do not look for the library, and do not try to load it");
    command.add_flag("--remove", options->remove, "With --all-users: remove that file instead");
    command.callback([&session, options] { init(session, *options); });
}

}  // namespace NV::tool
