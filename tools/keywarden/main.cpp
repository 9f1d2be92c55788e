// keywarden: configures and checks the provider, and works with its keys.
//
// It ends with one of the codes of exit_code.h.

#include <windows.h>

#include <CLI/CLI.hpp>

#include <exception>
#include <string>
#include <vector>

#include "command/commands.h"
#include "exit_code.h"
#include "failure.h"
#include "logger/logger.h"
#include "session.h"
#include "text.h"
#include "version.h"

namespace NV::tool {

namespace {

void addCommands(CLI::App& program, Session& session)
{
    addInit(program, session);
    addCheck(program, session);
    addKeys(program, session);
    addSign(program, session);
    addVerify(program, session);
    addEncrypt(program, session);
    addDecrypt(program, session);
    addExport(program, session);
    addDerive(program, session);
    addRegister(program, session);
    addUnregister(program, session);
    addStatus(program, session);
    addLog(program, session);
}

// The first argument if it looks like a command but is none. CLI11 would only report that a command
// is missing.
std::string unknownCommand(const CLI::App& program, const std::vector<std::string>& arguments)
{
    if (arguments.empty() || arguments.front().starts_with('-'))
        return {};
    const auto commands = program.get_subcommands(
        [&](const CLI::App* command) { return command->get_name() == arguments.front(); });
    return commands.empty() ? arguments.front() : std::string();
}

int run(const std::vector<std::string>& arguments)
{
    Session session;
    CLI::App program("Sets up, checks and uses the Norvanta KeyWarden key storage provider.",
                     "keywarden");
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
    program.require_subcommand(1);
    program.fallthrough();
    addCommands(program, session);
    if (const std::string name = unknownCommand(program, arguments); !name.empty()) {
        session.out.failure("unknown command \"" + name + "\"",
                            "\"keywarden --help\" lists the commands.");
        return static_cast<int>(ExitCode::usage);
    }
    try {
        // CLI11 expects them in reverse order.
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        return 0;
    } catch (const CLI::RuntimeError& error) {
        // The command has already printed what is wrong.
        return error.get_exit_code();
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::usage);
    } catch (const Failure& failure) {
        session.out.failure(failure.what(), failure.advice());
        return static_cast<int>(failure.exitCode());
    } catch (const std::exception& error) {
        session.out.failure(error.what(), {});
    }
    return static_cast<int>(ExitCode::failed);
}

}  // namespace

}  // namespace NV::tool

int wmain(int argc, wchar_t** argv)
{
    SetConsoleOutputCP(CP_UTF8);
    // The module's sources that are linked into this program also write a trace. Keep it out of the
    // user's log.
    NV::loggerSettings().types = 0;
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(NV::tool::toUtf8(argv[i]));
    return NV::tool::run(arguments);
}
