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

// FILE, required.
void addFileArgument(CLI::App& command, std::string& file, const std::string& help);

// --key NAME, required. `what` says which keys fit: "the key", "an RSA key".
void addKeyOption(CLI::App& command, std::string& name, const std::string& what);

// --hash HASH: one of the names of hashNamed. `hash` contains the default.
void addHashOption(CLI::App& command, std::string& hash, const std::string& help);

// An option whose value is one of a few words. `value` contains the default.
void addChoiceOption(CLI::App& command, const std::string& option, std::string& value,
                     const std::vector<std::string>& choices, const std::string& help);

// -o, --output, required. `placeholder` is the name of the value in the help: "OUT".
void addOutputOption(CLI::App& command, std::string& file, const std::string& placeholder,
                     const std::string& help);

}  // namespace NV::tool
