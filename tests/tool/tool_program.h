// Runs keywarden.exe as a child process, with a user profile of its own.

#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "check/check.h"
#include "child.h"
#include "folder.h"
#include "output.h"

namespace NV::test {

using NV::tool::Json;

// Runs `keywarden ARGUMENTS`. Removes carriage returns, which the C library adds, from the output.
ChildResult runTool(std::vector<std::string> arguments, ChildOptions options = {});

// Runs the program with a temporary folder as the user's profile.
class ToolProfile {
public:
    // Runs `keywarden --profile FOLDER ARGUMENTS`.
    ChildResult run(std::vector<std::string> arguments, ChildOptions options = {}) const;
    // The same, with this exit code and these parts of the output, in any order.
    void expectRun(unsigned long exitCode, std::vector<std::string> arguments,
                   const std::vector<std::string>& parts, ChildOptions options = {}) const;
    // The same with --json. Fails the test if the output is not exactly one JSON document.
    Json json(std::vector<std::string> arguments, unsigned long exitCode,
              ChildOptions options = {}) const;

    void writeConfig(std::string_view content) const { writeFile(configFile(), content); }
    std::filesystem::path configFile() const { return folder() / "nvksprovider.conf"; }
    // The folder of the configuration. It exists only after something was written into it.
    std::filesystem::path folder() const { return path() / ".norvanta-keywarden"; }
    const std::filesystem::path& path() const { return folder_.path(); }

private:
    TemporaryFolder folder_;
};

// Fails the test if the text is not exactly one JSON document.
Json parsed(const std::string& text);

// A configuration without errors. The library may have some.
std::string goodConfig(const std::filesystem::path& library);

// The path of one of the faulty libraries of this folder.
std::filesystem::path oddLibrary(const std::wstring& name);

// The step of that name in a document of "keywarden check"; null if it has none.
Json stepOf(const Json& document, const std::string& name);

// The same for Findings. Fails the test and returns an empty step if there is none.
tool::Step stepOf(const tool::Findings& findings, const std::string& name);

}  // namespace NV::test
