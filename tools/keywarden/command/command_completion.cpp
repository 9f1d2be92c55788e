// keywarden completion: a script with which PowerShell completes commands, options and their values.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

#include "command/commands.h"
#include "command/options.h"
#include "session.h"

namespace NV::tool {

namespace {

// In PowerShell: an array of texts. None of ours has an apostrophe.
std::string arrayOf(const std::vector<std::string>& texts)
{
    std::string array;
    for (const std::string& text : texts)
        array += (array.empty() ? "'" : ", '") + text + "'";
    return "@(" + array + ")";
}

// The names of an option with their dashes; none for an argument without one.
std::vector<std::string> namesOf(const CLI::Option& option)
{
    std::vector<std::string> names;
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    return names;
}

// The values of an option that has few: its placeholder lists them, as in pkcs1|pss.
std::vector<std::string> valuesOf(const CLI::Option& option)
{
    const std::string& placeholder = option.get_option_text();
    if (placeholder == "HASH")
        return {"sha1", "sha256", "sha384", "sha512"};
    if (placeholder.find('|') == std::string::npos)
        return {};
    return CLI::detail::split(placeholder, '|');
}

// One row of the table of words: what can follow `before`.
std::string row(const std::string& before, const std::vector<std::string>& words)
{
    return "        '" + before + "' = " + arrayOf(words);
}

void addRows(const CLI::App& command, std::vector<std::string>& rows)
{
    std::vector<std::string> options;
    for (const CLI::Option* option :
         command.get_options([](const CLI::Option* one) { return !one->get_group().empty(); })) {
        const std::vector<std::string> names = namesOf(*option);
        options.insert(options.end(), names.begin(), names.end());
        const std::vector<std::string> values = valuesOf(*option);
        for (const std::string& name : names) {
            if (!values.empty())
                rows.push_back(row(command.get_name() + " " + name, values));
        }
    }
    rows.push_back(row(command.get_name(), options));
}

std::vector<std::string> script(const CLI::App& program)
{
    std::vector<std::string> commands = commandNames(program);
    std::vector<std::string> rows = {row("", commands)};
    for (const std::string& name : commands)
        addRows(*program.get_subcommand(name), rows);
    std::vector<std::string> lines = {
        "Register-ArgumentCompleter -Native -CommandName keywarden, keywarden.exe -ScriptBlock {",
        "    param($word, $line, $position)", "    $words = @{"};
    lines.insert(lines.end(), rows.begin(), rows.end());
    const std::vector<std::string> search = {
        "    }",
        "    $typed = @($line.CommandElements | Select-Object -Skip 1 | ForEach-Object { \"$_\" })",
        "    if ($word -and $typed.Count -gt 0) {",
        "        $typed = @($typed | Select-Object -First ($typed.Count - 1))",
        "    }",
        "    $command = @($typed | Where-Object { $words[''] -contains $_ } | Select-Object -First 1)",
        "    $found = $words[\"$command\"]",
        "    if ($typed.Count -gt 0 -and $words.ContainsKey(\"$command $($typed[-1])\")) {",
        "        $found = $words[\"$command $($typed[-1])\"]",
        "    }",
        "    $found | Where-Object { $_ -like \"$word*\" } | ForEach-Object {",
        "        [System.Management.Automation.CompletionResult]::new($_, $_, 'ParameterValue', $_)",
        "    }",
        "}"};
    lines.insert(lines.end(), search.begin(), search.end());
    return lines;
}

}  // namespace

void addCompletion(CLI::App& program, Session& session)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App& command = *program.add_subcommand(
        "completion", "Print a script with which a shell completes commands and options");
    command.add_option("SHELL", *shell, "Shell: powershell")
        ->required()
        ->check([](const std::string& name) {
            return name == "powershell" ? std::string() : "\"" + name + "\" is not powershell";
        });
    command.callback([&program, &session, shell] {  // the option writes into it
        std::string text;
        for (const std::string& line : script(program)) {
            session.out.line(line);
            text += line + "\n";
        }
        session.out.document({{"script", text}});
    });
}

}  // namespace NV::tool
