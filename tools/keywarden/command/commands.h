// The commands of the program. Each registers itself with the command line: its name, its options,
// its help, and the function that does it. Called once by main.

#pragma once

#include <filesystem>

#include "output.h"

namespace CLI {
class App;
}

namespace NV::tool {

// The program's exit codes besides 0, done.
inline constexpr int exitFailed = 1;
inline constexpr int exitUsage = 2;

// What all commands share.
struct Session {
    Output out;
    // Go through the system's ncrypt.dll instead of the module's own operation table.
    bool cng = false;
    // The module whose table is used; empty: nvksprovider.dll beside this program, or the installed
    // one when there is none.
    std::filesystem::path module;
};

// A command throws Failure when what was asked for could not be done (exit code 1), and
// CLI::ValidationError when its arguments do not fit together (exit code 2). One that has printed
// itself what is wrong throws CLI::RuntimeError with the exit code.
void addInit(CLI::App& program, Session& session);
void addCheck(CLI::App& program, Session& session);
void addKeys(CLI::App& program, Session& session);
void addSign(CLI::App& program, Session& session);
void addVerify(CLI::App& program, Session& session);
void addEncrypt(CLI::App& program, Session& session);
void addDecrypt(CLI::App& program, Session& session);
void addExport(CLI::App& program, Session& session);
void addDerive(CLI::App& program, Session& session);
void addRegister(CLI::App& program, Session& session);
void addUnregister(CLI::App& program, Session& session);
void addStatus(CLI::App& program, Session& session);
void addLog(CLI::App& program, Session& session);

// Adds --cng and --module, for the commands that work with keys.
void addModuleOptions(CLI::App& command, Session& session);

}  // namespace NV::tool
