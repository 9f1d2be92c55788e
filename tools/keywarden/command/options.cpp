// Options that several commands have.

#include "command/options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>

#include "formats/hashing.h"
#include "session.h"
#include "text.h"

namespace NV::tool {

void addModuleOptions(CLI::App& command, Session& session)
{
    auto* cng = command.add_flag(
        "--cng", session.cng, "Use the provider through CNG (ncrypt.dll); it must be registered");
    command
        .add_option_function<std::string>(
            "--module", [&session](const std::string& path) { session.module = toPath(path); },
            "Module to use (default: nvksprovider.dll beside this program, else the installed one)")
        ->option_text("DLL")
        ->excludes(cng);
}

void addFileArgument(CLI::App& command, std::string& file, const std::string& help)
{
    command.add_option("FILE", file, help + "; - is standard input")->required();
}

void addKeyOption(CLI::App& command, std::string& name, const std::string& what)
{
    command.add_option("--key", name, "Name, subject, thumbprint or label of " + what)
        ->required()
        ->option_text("NAME");
}

namespace {

// The decoder accepts any characters as digits, so the input is checked here.
std::string checkHex(const std::string& text)
{
    const bool good =
        !text.empty() && text.size() % 2 == 0 &&
        std::ranges::all_of(text, [](unsigned char c) { return std::isxdigit(c) != 0; });
    return good ? "" : "the value is not an even number of hexadecimal digits";
}

}  // namespace

void addHexOption(CLI::App& command, const std::string& option, std::string& value,
                  const std::string& help)
{
    command.add_option(option, value, help + ", hexadecimal")->option_text("HEX")->check(checkHex);
}

std::string checkWholeNumber(const std::string& text)
{
    constexpr size_t mostDigits = 6;
    const bool good =
        !text.empty() && text.size() <= mostDigits &&
        std::ranges::all_of(text, [](unsigned char c) { return std::isdigit(c) != 0; });
    return good ? "" : "\"" + text + "\" is not a whole number of at most six digits";
}

void requireFile(const std::string& file, const std::string& digest)
{
    if (file.empty() && digest.empty())
        throw CLI::RequiredError("FILE");
    if (!file.empty() && !digest.empty())
        throw CLI::ValidationError("--digest", "excludes FILE");
}

void addHashOption(CLI::App& command, std::string& hash, const std::string& help)
{
    command
        .add_option("--hash", hash,
                    help + ": sha1, sha256, sha384 or sha512 (default: " + hash + ")")
        ->option_text("HASH")
        ->check(checkHashName);
}

void addChoiceOption(CLI::App& command, const std::string& option, std::string& value,
                     const std::vector<std::string>& choices, const std::string& help)
{
    command.add_option(option, value, help + " (default: " + value + ")")
        ->option_text(CLI::detail::join(choices, "|"))
        ->check(CLI::IsMember(choices));
}

void addOutputOption(CLI::App& command, std::string& file, bool& force,
                     const std::string& placeholder, const std::string& help)
{
    command.add_option("-o,--output", file, help + "; - is standard output")
        ->required()
        ->option_text(placeholder);
    addForceOption(command, force);
}

void addForceOption(CLI::App& command, bool& force)
{
    command.add_flag("--force", force, "Replace an existing file");
}

bool isGiven(const CLI::App& command, const std::string& option)
{
    return command.get_option(option)->count() > 0;
}

void refuseIfGiven(const CLI::App& command, const std::string& option, const std::string& reason)
{
    if (isGiven(command, option))
        throw CLI::ValidationError(option, reason);
}

}  // namespace NV::tool
