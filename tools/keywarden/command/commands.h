// The commands of the program. Each function registers one command with the command line: its name,
// its options, its help, and the function that runs it. Called once by main.

#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace NV::tool {

struct Session;

// A command throws Failure when it cannot do what was asked (exit code 1), and CLI::ValidationError
// when its arguments contradict each other (exit code 2). A command that has already printed what
// is wrong throws CLI::RuntimeError with the exit code.
void addInit(CLI::App& program, Session& session);
void addCheck(CLI::App& program, Session& session);
void addCheckSteps(CLI::App& program);
void addKeys(CLI::App& program, Session& session);
void addSign(CLI::App& program, Session& session);
void addVerify(CLI::App& program, Session& session);
void addEncrypt(CLI::App& program, Session& session);
void addDecrypt(CLI::App& program, Session& session);
void addExport(CLI::App& program, Session& session);
void addDerive(CLI::App& program, Session& session);
void addClean(CLI::App& program, Session& session);
void addProve(CLI::App& program, Session& session);
void addRegister(CLI::App& program, Session& session);
void addUnregister(CLI::App& program, Session& session);
void addStatus(CLI::App& program, Session& session);
void addLog(CLI::App& program, Session& session);
void addReport(CLI::App& program, Session& session);
void addExplain(CLI::App& program, Session& session);
void addHelp(CLI::App& program, Session& session);
void addVersion(CLI::App& program, Session& session);
void addCompletion(CLI::App& program, Session& session);

// Adds two examples to the help of each command, and the exit codes to the help of the program. Called
// after all commands were added.
void addFooters(CLI::App& program);

// The names of all commands that are not hidden, in their order.
std::vector<std::string> commandNames(const CLI::App& program);

// The message for a command that does not exist, with the one that was probably meant.
std::string unknownCommandText(const CLI::App& program, const std::string& name);

}  // namespace NV::tool
