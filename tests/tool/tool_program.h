// keywarden.exe as a child process, in a profile of the test's own.

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

// Runs `keywarden ARGUMENTS`. The output is without carriage returns, which the C library adds.
ChildResult runTool(std::vector<std::string> arguments, ChildOptions options = {});

// The program with a profile folder that it takes for the user's.
class ToolProfile {
public:
    // Runs `keywarden --profile FOLDER ARGUMENTS`.
    ChildResult run(std::vector<std::string> arguments, ChildOptions options = {}) const;
    // The same with --json; fails the test when the output is not one JSON document.
    Json json(std::vector<std::string> arguments, unsigned long exitCode,
              ChildOptions options = {}) const;

    void writeConfig(std::string_view content) const { writeFile(configFile(), content); }
    std::filesystem::path configFile() const { return folder() / "nvksprovider.conf"; }
    // That of the configuration; made by whoever writes into it first.
    std::filesystem::path folder() const { return path() / ".norvanta-keywarden"; }
    const std::filesystem::path& path() const { return folder_.path(); }

private:
    TemporaryFolder folder_;
};

// Fails the test for anything but one JSON document.
Json parsed(const std::string& text);

// A configuration in which nothing is wrong but what the library brings.
std::string goodConfig(const std::filesystem::path& library);

// One of the libraries that the build puts into a folder of their own.
std::filesystem::path oddLibrary(const std::wstring& name);

// The step of that name in a document of "keywarden check"; null when there is none.
Json stepOf(const Json& document, const std::string& name);

// The same in what the steps found; fails the test and gives an empty one when there is none.
tool::Step stepOf(const tool::Findings& findings, const std::string& name);

}  // namespace NV::test
