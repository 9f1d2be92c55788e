// Options that several commands have. Each function adds one of them to a command.

#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace NV::tool {

struct Session;

// --cng and --module, for the commands that work with keys.
void addModuleOptions(CLI::App& command, Session& session);

// FILE, required; "-" is standard input.
void addFileArgument(CLI::App& command, std::string& file, const std::string& help);

// --key NAME, required; see chooseKey. `what` says which keys fit: "the key", "an RSA key".
void addKeyOption(CLI::App& command, std::string& name, const std::string& what);

// An option with hexadecimal bytes; no message repeats its value, which can be secret.
void addHexOption(CLI::App& command, const std::string& option, std::string& value,
                  const std::string& help);

// For CLI11: the error message for a text that is not a whole number of at most six digits.
std::string checkWholeNumber(const std::string& text);

// Throws unless there is a file or a digest in its place, but not both.
void requireFile(const std::string& file, const std::string& digest);

// --hash HASH: one of the names of hashNamed. `hash` contains the default.
void addHashOption(CLI::App& command, std::string& hash, const std::string& help);

// An option whose value is one of a few words. `value` contains the default.
void addChoiceOption(CLI::App& command, const std::string& option, std::string& value,
                     const std::vector<std::string>& choices, const std::string& help);

// -o, --output, required, and --force. `placeholder` is the name of the value in the help: "OUT".
// "-" is standard output.
void addOutputOption(CLI::App& command, std::string& file, bool& force,
                     const std::string& placeholder, const std::string& help);

// --force: replaces an existing file.
void addForceOption(CLI::App& command, bool& force);

// Whether the user gave the option, for an option that has a default.
bool isGiven(const CLI::App& command, const std::string& option);

// Throws CLI::ValidationError if the user gave the option. `reason` says when it applies: "applies only
// to --pad oaep".
void refuseIfGiven(const CLI::App& command, const std::string& option, const std::string& reason);

}  // namespace NV::tool
