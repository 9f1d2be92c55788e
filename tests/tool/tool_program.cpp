// Starting the program and reading its output.

#include "tool_program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

namespace NV::test {

ChildResult runTool(std::vector<std::string> arguments, ChildOptions options)
{
    options.arguments = std::move(arguments);
    ChildResult result = runProgram(programFolder() / L"keywarden.exe", options);
    EXPECT_FALSE(result.timedOut) << result.output;
    std::erase(result.output, '\r');
    return result;
}

ChildResult ToolProfile::run(std::vector<std::string> arguments, ChildOptions options) const
{
    arguments.insert(arguments.begin(), {"--profile", narrowPath(path())});
    return runTool(std::move(arguments), std::move(options));
}

void ToolProfile::expectRun(unsigned long exitCode, std::vector<std::string> arguments,
                            const std::vector<std::string>& parts, ChildOptions options) const
{
    const ChildResult result = run(std::move(arguments), std::move(options));
    EXPECT_EQ(result.exitCode, exitCode) << result.output;
    for (const std::string& part : parts)
        EXPECT_NE(result.output.find(part), std::string::npos) << part << " in " << result.output;
}

Json ToolProfile::json(std::vector<std::string> arguments, unsigned long exitCode,
                       ChildOptions options) const
{
    arguments.insert(arguments.begin(), "--json");
    const ChildResult result = run(std::move(arguments), std::move(options));
    EXPECT_EQ(result.exitCode, exitCode) << result.output;
    return parsed(result.output);
}

Json parsed(const std::string& text)
{
    Json document = Json::parse(text, nullptr, false);
    EXPECT_FALSE(document.is_discarded()) << text;
    return document.is_discarded() ? Json::object() : document;
}

std::string goodConfig(const std::filesystem::path& library)
{
    return "p11File=" + narrowPath(library) +
           "\n"
           "logLevel=INFO\n"
           "logTypes=FILE\n"
           "logStore=~\\.norvanta-keywarden\\logs\n"
           "logRotate=7\n";
}

std::filesystem::path oddLibrary(const std::wstring& name)
{
    std::filesystem::path path = std::filesystem::path(ODD_LIBRARIES) / name;
    return path.make_preferred();
}

Json stepOf(const Json& document, const std::string& name)
{
    for (const Json& step : document.value("steps", Json::array())) {
        if (step.value("name", "") == name)
            return step;
    }
    return {};
}

tool::Step stepOf(const tool::Findings& findings, const std::string& name)
{
    const auto step = std::ranges::find(findings.steps, name, &tool::Step::name);
    if (step != findings.steps.end())
        return *step;
    ADD_FAILURE() << "there is no step " << name;
    return {};
}

}  // namespace NV::test
