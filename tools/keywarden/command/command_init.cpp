// keywarden init: writes the user's configuration file.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

#include "check/check.h"
#include "check/worker.h"
#include "command/commands.h"
#include "failure.h"
#include "output_file.h"
#include "session.h"
#include "system/configuration.h"
#include "text.h"

namespace NV::tool {

namespace {

struct InitOptions {
    Settings configuration = newConfiguration();
    bool force = false;
    bool noTest = false;
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

void init(Session& session, InitOptions& options)
{
    const std::filesystem::path file = configurationFile();
    makeFolderOf(file);
    const OutputFile output(session.out, toUtf8(file), {}, {.force = options.force, .text = true});
    std::error_code error;
    std::string& library = options.configuration["p11File"];
    std::string& logFolder = options.configuration["logStore"];
    if (library.empty())
        library = chooseLibrary(session);
    if (!std::filesystem::is_regular_file(toPath(library), error))
        throw Failure("there is no file " + library,
                      "Give --p11 the full path of the token's PKCS#11 library.");
    // Full paths, because the processes that load the module have working folders of their own.
    library = toUtf8(std::filesystem::absolute(toPath(library)));
    if (!options.noTest)
        testLibrary(session, library);
    if (!logFolder.empty() && !logFolder.starts_with('~'))
        logFolder = toUtf8(std::filesystem::absolute(toPath(logFolder)));
    const std::string text = configurationText(options.configuration);
    output.write(std::vector<unsigned char>(text.begin(), text.end()));
    session.out.line("Written: " + toUtf8(file));
    session.out.line("Next: run \"keywarden check\" to check it.");
    session.out.document({{"file", toUtf8(file)},
                          {"p11File", library},
                          {"logStore", logFolder},
                          {"logLevel", options.configuration["logLevel"]}});
}

}  // namespace

void addInit(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand("init", "Write this user's configuration file");
    const auto options = std::make_shared<InitOptions>();
    const std::vector<std::string> levels = levelNames();
    command
        .add_option("--p11", options->configuration["p11File"],
                    "The token's PKCS#11 library; without it, the command lists the ones it finds")
        ->option_text("PATH");
    command
        .add_option("--log-dir", options->configuration["logStore"],
                    "Folder of the log files; ~ is the user's profile folder")
        ->option_text("DIR");
    command.add_option("--log-level", options->configuration["logLevel"], choiceOf(levels))
        ->option_text("LEVEL")
        ->transform(CLI::IsMember(levels, CLI::ignore_case));
    command.add_flag("--force", options->force, "Replace an existing file");
    command.add_flag("--no-test", options->noTest, "Do not try to load the library");
    command.callback([&session, options] { init(session, *options); });
}

}  // namespace NV::tool
