// keywarden: configures and checks the provider, and works with its keys.
//
// It ends with one of the codes of exit_code.h.

#include <windows.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <exception>
#include <string>
#include <vector>

#include "command/commands.h"
#include "exit_code.h"
#include "failure.h"
#include "help_format.h"
#include "logger/logger.h"
#include "nearest.h"
#include "session.h"
#include "text.h"
#include "version.h"

namespace NV::tool {

namespace {

void addCommands(CLI::App& program, Session& session)
{
    addInit(program, session);
    addCheck(program, session);
    addCheckSteps(program);
    addKeys(program, session);
    addSign(program, session);
    addVerify(program, session);
    addEncrypt(program, session);
    addDecrypt(program, session);
    addExport(program, session);
    addDerive(program, session);
    addClean(program, session);
    addProve(program, session);
    addRegister(program, session);
    addUnregister(program, session);
    addStatus(program, session);
    addLog(program, session);
    addReport(program, session);
    addExplain(program, session);
    addHelp(program, session);
    addVersion(program, session);
    addCompletion(program, session);
    addFooters(program);
}

// The first argument that is neither an option nor its value, if it is no command. CLI11 would only
// report that a command is missing.
std::string unknownCommand(const CLI::App& program, const std::vector<std::string>& arguments)
{
    const auto takesValue = [&](const std::string& argument) {
        const CLI::Option* option = program.get_option_no_throw(argument);
        return option != nullptr && option->get_items_expected_max() > 0;
    };
    for (size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i].starts_with('-') || (i > 0 && takesValue(arguments[i - 1])))
            continue;
        const auto commands = program.get_subcommands(
            [&](const CLI::App* command) { return command->get_name() == arguments[i]; });
        return commands.empty() ? arguments[i] : std::string();
    }
    return {};
}

// The command that was given, or the program if there is none.
const CLI::App& givenCommand(const CLI::App& program)
{
    const auto commands = program.get_subcommands();
    return commands.empty() ? program : *commands.front();
}

std::vector<std::string> optionsOf(const CLI::App& program)
{
    std::vector<std::string> names;
    for (const CLI::App* app : {&program, &givenCommand(program)}) {
        for (const CLI::Option* option :
             app->get_options([](const CLI::Option* one) { return !one->get_group().empty(); })) {
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
        }
    }
    return names;
}

// Long hexadecimal text can be a key.
bool looksSecret(const std::string& argument)
{
    return argument.size() >= 16 &&
           std::ranges::all_of(argument, [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// The first argument that has no place, without a value behind it: values can be secret.
std::string extraArgumentText(const CLI::App& program)
{
    const std::vector<std::string> all = program.remaining(true);
    auto extra = std::ranges::find_if(all, [](const auto& one) { return one.starts_with('-'); });
    if (extra == all.end())
        extra = all.begin();
    if (extra == all.end() || looksSecret(*extra))
        return "an argument is not expected";
    const std::string name = extra->substr(0, extra->find('='));
    const std::string meant =
        name.starts_with("--") ? nearest(name, optionsOf(program)) : std::string();
    return "the argument is not expected: " + name +
           (meant.empty() ? "" : "; did you mean \"" + meant + "\"?");
}

int usageFailure(Session& session, const CLI::App& program, const std::string& reason)
{
    const CLI::App& command = givenCommand(program);
    const std::string name = &command == &program ? "" : " " + command.get_name();
    session.out.failure(reason, "\"keywarden" + name + " --help\" shows the " +
                                    (name.empty() ? "commands." : "options."));
    return static_cast<int>(ExitCode::usage);
}

int parseAndRun(CLI::App& program, Session& session, const std::vector<std::string>& arguments)
{
    try {
        // CLI11 expects them in reverse order.
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        return static_cast<int>(ExitCode::good);
    } catch (const CLI::RuntimeError& error) {
        // The command has already printed what is wrong.
        return error.get_exit_code();
    } catch (const CLI::Success& request) {
        return program.exit(request);  // --help and --version
    } catch (const CLI::ExtrasError&) {
        return usageFailure(session, program, extraArgumentText(program));
    } catch (const CLI::RequiredError& error) {
        const bool chosen = !program.get_subcommands().empty();
        return usageFailure(session, program, chosen ? error.what() : "a command is required");
    } catch (const CLI::ParseError& error) {
        return usageFailure(session, program, error.what());
    } catch (const Failure& failure) {
        session.out.failure(failure.what(), failure.advice());
        return static_cast<int>(failure.exitCode());
    } catch (const std::exception& error) {
        session.out.failure(error.what(), {});
    }
    return static_cast<int>(ExitCode::failed);
}

int run(const std::vector<std::string>& arguments)
{
    Session session;
    // Also for an error that is found before the option is read.
    session.out.setJson(std::ranges::find(arguments, "--json") != arguments.end());
    CLI::App program("Sets up, checks and uses the Norvanta KeyWarden key storage provider.",
                     "keywarden");
    program.formatter(helpFormatter());
    program.set_version_flag("--version", "keywarden " NV_VERSION_TEXT);
    program.add_flag_function(
        "--json", [&session](int64_t) { session.out.setJson(true); },
        "Print one JSON document instead of text");
    program
        .add_option_function<std::string>(
            "--profile",
            [](const std::string& path) { _wputenv((L"USERPROFILE=" + fromUtf8(path)).c_str()); },
            "User profile folder (default: that of the current user)")
        ->option_text("DIR")
        ->trigger_on_parse();
    program
        .add_option("--timeout", session.timeout,
                    "Seconds that the token's library may take (default: 20 for check, else 120)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1U, 3600U));
    program.require_subcommand(1);
    program.fallthrough();
    addCommands(program, session);
    if (const std::string name = unknownCommand(program, arguments); !name.empty())
        return usageFailure(session, program, unknownCommandText(program, name));
    const int exitCode = parseAndRun(program, session, arguments);
    if (lateFailure().empty())
        return exitCode;
    session.out.warning(lateFailure());
    return exitCode == 0 ? static_cast<int>(ExitCode::failed) : exitCode;
}

}  // namespace

}  // namespace NV::tool

int wmain(int argc, wchar_t** argv)
{
    // The DLLs of the import table come from the system's folder alone (load_config.cpp). This takes the
    // current folder out of the search for all others.
    SetDllDirectoryW(L"");
    SetConsoleOutputCP(CP_UTF8);
    // The module's sources that are linked into this program also write a trace. Keep it out of the
    // user's log.
    NV::loggerSettings().types = 0;
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(NV::tool::toUtf8(argv[i]));
    return NV::tool::run(arguments);
}
