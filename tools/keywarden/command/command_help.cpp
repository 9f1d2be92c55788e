// keywarden help and version, and what the help says besides options: examples and exit codes.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command/commands.h"
#include "exit_code.h"
#include "failure.h"
#include "nearest.h"
#include "session.h"

namespace NV::tool {

namespace {

struct Examples {
    const char* command;
    std::array<const char*, 2> lines;
};

constexpr std::array examples = {
    Examples{"init", {"init", R"(init --p11 "C:\Program Files\Token\token.dll")"}},
    Examples{"check", {"check", "check --json"}},
    Examples{"keys", {"keys", "keys --cng"}},
    Examples{"sign",
             {"sign letter.txt --key 01AB -o letter.sig",
              R"(sign letter.txt --key "Erika Mustermann" --format cms)"}},
    Examples{"verify",
             {"verify letter.txt --key 01AB --signature letter.sig",
              "verify letter.txt --key 01AB --signature letter.sig --json"}},
    Examples{"encrypt",
             {"encrypt key.bin --key 01AB -o key.enc",
              "encrypt key.bin --key 01AB --pad oaep -o key.enc"}},
    Examples{"decrypt",
             {"decrypt key.enc --key 01AB -o key.bin",
              "decrypt - --key 01AB --pad oaep -o - <key.enc >key.bin"}},
    Examples{"export",
             {"export --key 01AB -o key.pem", "export --key 01AB --format cert -o cert.pem"}},
    Examples{"derive",
             {"derive --key 0256 --peer peer.pem -o secret.bin",
              "derive --key 0256 --peer b.pem --kdf hash --hash sha512 -o key.bin"}},
    Examples{"clean", {"clean --dry-run", "clean --yes"}},
    Examples{"prove", {"prove", "prove --pin-dialog --page prove.html"}},
    Examples{"register", {"register", "register --json"}},
    Examples{"unregister", {"unregister", "unregister --json"}},
    Examples{"status", {"status", "status --json"}},
    Examples{"log", {"log --failed", "log --op SignHash --html signatures.html"}},
    Examples{"report", {"report", "report --days 1 -o report.zip"}},
    Examples{"explain", {"explain CKR_PIN_LOCKED", "explain 0x8009002D"}},
    Examples{"help", {"help", "help sign"}},
    Examples{"version", {"version", "version --json"}},
    Examples{"completion",
             {"completion powershell", "completion powershell | Out-String | Invoke-Expression"}},
};

struct CodeText {
    ExitCode code;
    const char* meaning;
};

constexpr std::array codeTexts = {
    CodeText{ExitCode::good, "good"},
    CodeText{ExitCode::failed, "failed"},
    CodeText{ExitCode::usage, "wrong use"},
    CodeText{ExitCode::badSignature, "signature bad"},
    CodeText{ExitCode::pinCancelled, "PIN cancelled"},
    CodeText{ExitCode::pinWrong, "PIN wrong"},
    CodeText{ExitCode::pinLocked, "PIN locked"},
    CodeText{ExitCode::noTokenOrKey, "no token or key"},
    CodeText{ExitCode::noDesktop, "no desktop for the PIN dialog"},
};

std::string exitCodes()
{
    std::string text = "Exit codes:\n";
    for (const CodeText& row : codeTexts)
        text += "  " + std::to_string(static_cast<int>(row.code)) + "  " + row.meaning + "\n";
    return text;
}

// Help and scripts for shells, which are printed as they are.
void printLines(Session& session, const std::string& text)
{
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        session.out.line(text.substr(begin, end - begin));
        begin = end + 1;
    }
}

void help(Session& session, CLI::App& program, const std::string& name)
{
    CLI::App* command = name.empty() ? &program : nullptr;
    for (CLI::App* one : program.get_subcommands([](CLI::App*) { return true; })) {
        if (one->get_name() == name)
            command = one;
    }
    if (command == nullptr)
        throw CLI::ValidationError("COMMAND", unknownCommandText(program, name));
    // Not CLI::App::help, which would give the help of "help": that is the command being run.
    const std::string text = command->get_formatter()->make_help(
        command, name.empty() ? program.get_name() : program.get_name() + " " + name,
        CLI::AppFormatMode::Normal);
    printLines(session, text);
    session.out.document({{"help", text}});
}

}  // namespace

std::vector<std::string> commandNames(const CLI::App& program)
{
    std::vector<std::string> names;
    for (const CLI::App* command : program.get_subcommands([](const CLI::App*) { return true; })) {
        if (!command->get_group().empty())
            names.push_back(command->get_name());
    }
    return names;
}

std::string unknownCommandText(const CLI::App& program, const std::string& name)
{
    const std::string meant = nearest(name, commandNames(program));
    return "unknown command \"" + name + "\"" +
           (meant.empty() ? "" : "; did you mean \"" + meant + "\"?");
}

void addHelp(CLI::App& program, Session& session)
{
    const auto name = std::make_shared<std::string>();
    CLI::App& command = *program.add_subcommand("help", "Print the help of a command");
    command.add_option("COMMAND", *name, "Command (default: the list of commands)")->type_name("");
    command.callback([&program, &session, name] { help(session, program, *name); });
}

void addVersion(CLI::App& program, Session& session)
{
    program.add_subcommand("version", "Print the version")->callback([&program, &session] {
        const std::string text = program.version();
        session.out.line(text);
        session.out.document({{"version", text.substr(text.rfind(' ') + 1)}});
    });
}

void addFooters(CLI::App& program)
{
    for (const Examples& row : examples) {
        std::string footer = "Examples:";
        for (const char* line : row.lines)
            footer += std::string("\n  keywarden ") + line;
        if (std::string_view(row.command) == "verify")
            footer += "\n\n" + exitCodes();
        program.get_subcommand(row.command)->footer(footer);
    }
    program.footer(exitCodes() + "\n\"keywarden help COMMAND\" prints the options of a command.");
}

}  // namespace NV::tool
