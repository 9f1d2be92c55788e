// The steps for the configuration file.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "check/check.h"
#include "config/config_keys.h"
#include "config/config_text.h"
#include "config/config_values.h"
#include "config/mode.h"
#include "failure.h"
#include "system/configuration.h"
#include "text.h"

namespace NV::tool {

namespace {

struct Line {
    size_t number;
    std::string text;
};

// The lines as the module sees them: cut at line feeds, read as bytes.
std::vector<Line> readLines(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::vector<Line> lines;
    std::string text;
    for (size_t number = 1; std::getline(stream, text); ++number)
        lines.push_back({number, text});
    return lines;
}

bool isComment(const Line& line)
{
    return line.text.empty() || line.text.front() == '#';
}

std::string keyOf(const Line& line)
{
    return trimSpaces(line.text.substr(0, line.text.find('=')));
}

// Shows control characters, carriage return and tab by the names that editors use: \r and \t. The output
// escapes the rest of what a terminal must not get (printable.h).
std::string withNamedControls(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02x", byte);
        if (c == '\r')
            result += "\\r";
        else if (c == '\t')
            result += "\\t";
        else if (byte < 0x20 || byte == 0x7F)
            result += code;
        else
            result += c;
    }
    return result;
}

std::string quoted(const Line& line)
{
    return "line " + std::to_string(line.number) + ": \"" + withNamedControls(line.text) + "\"";
}

// Some editors write the mark of UTF-8 or UTF-16 without asking.
bool hasByteOrderMark(const std::vector<Line>& lines)
{
    return !lines.empty() && (lines.front().text.starts_with("\xEF\xBB\xBF") ||
                              lines.front().text.starts_with("\xFF\xFE") ||
                              lines.front().text.starts_with("\xFE\xFF"));
}

// The first line that the module rejects. It does not read the lines after that.
const Line* firstBadLine(const std::vector<Line>& lines)
{
    const auto bad = std::ranges::find_if(lines, [](const Line& line) {
        return !isComment(line) && line.text.find('=') == std::string::npos;
    });
    return bad == lines.end() ? nullptr : &*bad;
}

// Reports why the module rejects the file.
void reportRefusal(Findings& findings, const std::vector<Line>& lines, const Failure& refusal)
{
    constexpr const char* name = "configuration-lines";
    const Line* bad = firstBadLine(lines);
    if (hasByteOrderMark(lines))
        findings.fail(name, "the file begins with a byte order mark",
                      "Save it as UTF-8 without a byte order mark.");
    else if (bad == nullptr)
        findings.fail(name, refusal.what(), "The module must be able to read the file.");
    else if (bad->text.ends_with('\r'))
        findings.fail(name, quoted(*bad) + " has no \"=\"; the carriage return is part of the line",
                      "Save the file with line feeds alone (LF, not CRLF). The module does not "
                      "load with this line.");
    else
        findings.fail(name, quoted(*bad) + " has no \"=\"",
                      "Fix or remove the line. A comment begins with # in the first column, and an "
                      "empty line has no spaces. The module does not load with this line.");
}

// Lines that the module reads, but probably not as the user means them.
struct OddLines {
    std::vector<Line> withReturn;
    std::vector<Line> unreadable;  // modern passes over them
    std::vector<Line> unknown;     // keys that the module does not know
    std::vector<Line> repeated;    // keys of an earlier line
};

bool isKnown(const std::string& name)
{
    return std::ranges::any_of(configKeys(),
                               [&](const ConfigKey& key) { return key.name == name; });
}

std::string knownKeys()
{
    std::string names;
    for (const ConfigKey& key : configKeys())
        names += (names.empty() ? "" : ", ") + std::string(key.name);
    return names;
}

OddLines findOddLines(const std::vector<Line>& lines)
{
    OddLines odd;
    std::set<std::string> keys;
    for (const Line& line : lines) {
        if (isComment(line))
            continue;
        if (line.text.ends_with('\r'))
            odd.withReturn.push_back(line);
        if (!isKnown(keyOf(line)))
            odd.unknown.push_back(line);
        if (!keys.insert(keyOf(line)).second)
            odd.repeated.push_back(line);
    }
    return odd;
}

// The same for a modern file, where line ends and marks are no matter.
OddLines findOddModernLines(const std::vector<Line>& lines)
{
    OddLines odd;
    std::set<std::string> keys;
    for (const Line& line : lines) {
        const std::string_view text = line.text;
        const bool marked = line.number == 1 && hasByteOrderMark(lines);
        const ConfigLine read = readConfigLine(marked ? text.substr(3) : text);
        if (read.kind == ConfigLine::Kind::unreadable)
            odd.unreadable.push_back(line);
        if (read.kind != ConfigLine::Kind::setting)
            continue;
        if (!isKnown(read.key))
            odd.unknown.push_back(line);
        if (!keys.insert(read.key).second)
            odd.repeated.push_back(line);
    }
    return odd;
}

bool isModern()
{
    return Config::instance().mode().behaviour() == Behaviour::modern;
}

void reportLines(Findings& findings, const std::vector<Line>& lines)
{
    constexpr const char* name = "configuration-lines";
    const OddLines odd = isModern() ? findOddModernLines(lines) : findOddLines(lines);
    if (!odd.unreadable.empty())
        findings.warn(name,
                      std::to_string(odd.unreadable.size()) +
                          " lines cannot be read and are passed over",
                      "Fix or remove them. A line is key=value, or a comment that begins with #.");
    else if (hasByteOrderMark(lines) && !isModern())
        findings.fail(
            name, "the file begins with a byte order mark, which becomes part of its first line",
            "Save it as UTF-8 without a byte order mark.");
    else if (!odd.withReturn.empty())
        findings.fail(name,
                      "a carriage return becomes part of the value of " +
                          std::to_string(odd.withReturn.size()) + " lines",
                      "Save the file with line feeds alone (LF, not CRLF).");
    else if (!odd.unknown.empty())
        findings.warn(name, "unknown keys", "Keys are case-sensitive: " + knownKeys() + ".");
    else if (!odd.repeated.empty())
        findings.warn(name, "duplicate keys; the last one is used", "Remove the others.");
    else
        findings.ok(name, std::to_string(lines.size()) + " lines, no problems found");
    for (const auto* group : {&odd.withReturn, &odd.unreadable, &odd.unknown, &odd.repeated}) {
        for (const Line& line : *group)
            findings.detail(quoted(line));
    }
}

struct ValueProblem {
    bool fatal;
    std::string text;
    std::string advice;
};

// The configuration has found out whether there is a value that nobody knows.
std::optional<ValueProblem> problemOfMode()
{
    const std::vector<std::string>& problems = Config::instance().problems();
    if (isModern() || problems.empty())
        return std::nullopt;
    return ValueProblem{true, problems.front() + "; the behaviour is classic",
                        "Specify modern or classic, in lower case."};
}

std::optional<ValueProblem> problemOfYesOrNo(const ConfigKey& key, const std::string& value)
{
    if (value.empty() || value == "yes" || value == "no")
        return std::nullopt;
    return ValueProblem{false,
                        std::string(key.name) + "=" + value + " is not known; " + key.initialValue +
                            " is used",
                        "Specify yes or no."};
}

std::optional<ValueProblem> problemOfLibrary(const std::string& name, const std::string& value)
{
    if (value.empty())
        return ValueProblem{true, name + " is missing or empty, so the provider does not open",
                            "Run \"keywarden init --p11 PATH\" to write it."};
    if (value.find('#') != std::string::npos)
        return ValueProblem{false, name + "=" + value + ": the # is part of the path",
                            "Put a comment on a line of its own."};
    return std::nullopt;
}

std::optional<ValueProblem> problemOfLevel(const std::string& name, const std::string& value)
{
    if (value.empty() || isLogLevel(value))
        return std::nullopt;
    return ValueProblem{false, name + "=" + value + " is not a level; INFO is used",
                        "Specify " + choiceOf(levelNames()) + "."};
}

std::optional<ValueProblem> problemOfTypes(const std::string& name, const std::string& value)
{
    const auto problem = [&](const std::string& text) {
        return ValueProblem{false, name + "=" + value + text,
                            "Specify FILE, CONSOLE, or both with a comma between them."};
    };
    if (!value.empty() && parseLogTypes(value) == 0)
        return problem(" does not name an output, so nothing is logged");
    std::istringstream outputs(value);
    for (std::string output; std::getline(outputs, output, ',');) {
        if (parseLogTypes(output) == 0)
            return problem(": \"" + output + "\" is not an output and is ignored");
    }
    return std::nullopt;
}

std::optional<ValueProblem> problemOfDays(const std::string& name, const std::string& value)
{
    const std::string days = std::to_string(LoggerSettings().rotate);
    try {
        parseLogRotate(value, LoggerSettings().rotate);
    } catch (const std::out_of_range&) {
        return ValueProblem{true, name + "=" + value + " is too large, so the module does not load",
                            "Specify a number of days, for example " + name + "=7."};
    } catch (const std::exception&) {
        return ValueProblem{true, name + " is missing or empty, so the module does not load",
                            "Add a line, for example " + name + "=7."};
    }
    if (!std::ranges::all_of(value, [](unsigned char c) { return std::isdigit(c) != 0; }))
        return ValueProblem{false,
                            name + "=" + value + " is not a number, so " + days + " days are used",
                            "Specify digits only."};
    return std::nullopt;
}

std::optional<ValueProblem> problemOfModernDays(const std::string& name, const std::string& value)
{
    const std::string days = logRotateOrDefault(value, {});
    if (value.empty() || days == value)
        return std::nullopt;
    return ValueProblem{false,
                        name + "=" + value + " is not a number of days, so " + days + " are used",
                        "Specify digits only."};
}

std::optional<ValueProblem> problemOf(const ConfigKey& key, const std::string& value)
{
    switch (key.kind) {
    case ConfigKind::mode:
        return problemOfMode();
    case ConfigKind::yesOrNo:
        return problemOfYesOrNo(key, value);
    case ConfigKind::library:
        return problemOfLibrary(key.name, value);
    case ConfigKind::logLevel:
        return problemOfLevel(key.name, value);
    case ConfigKind::logTypes:
        return problemOfTypes(key.name, value);
    case ConfigKind::days:
        return isModern() ? problemOfModernDays(key.name, value) : problemOfDays(key.name, value);
    case ConfigKind::folder:
        break;  // checkLogFolder
    }
    return std::nullopt;
}

void checkValues(Findings& findings)
{
    std::vector<ValueProblem> problems;
    for (const ConfigKey& key : configKeys()) {
        if (const auto problem = problemOf(key, Config::instance().get(key.name)))
            problems.push_back(*problem);
    }
    if (problems.empty()) {
        findings.ok("configuration-values", "no problems found");
        return;
    }
    // Problems that stop the module come first.
    std::stable_partition(problems.begin(), problems.end(),
                          [](const ValueProblem& problem) { return problem.fatal; });
    const ValueProblem& first = problems.front();
    if (first.fatal)
        findings.fail("configuration-values", first.text, first.advice);
    else
        findings.warn("configuration-values", first.text, first.advice);
    for (size_t i = 1; i < problems.size(); ++i)
        findings.detail(problems[i].text + ". " + problems[i].advice);
}

void reportBehaviour(Findings& findings)
{
    constexpr const char* name = "behaviour";
    if (isModern())
        findings.ok(name, "modern");
    else
        findings.warn(name,
                      "classic: .NET cannot use the keys (RSACng, ECDsaCng, X509Certificate2)",
                      "If no program depends on classic, add the line mode=modern to the "
                      "configuration. docs/modes.md compares the two behaviours.");
}

}  // namespace

void checkConfiguration(Findings& findings)
{
    const std::filesystem::path file = configurationInUse();
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) {
        findings.fail("configuration-file", toUtf8(file) + " does not exist",
                      "Run \"keywarden init\" to write it.");
        findings.skip("behaviour", "there is no configuration");
        return;
    }
    const std::vector<Line> lines = readLines(file);
    findings.ok("configuration-file", toUtf8(file));
    try {
        loadConfiguration();
    } catch (const Failure& refusal) {
        reportRefusal(findings, lines, refusal);
        findings.skip("behaviour", "the configuration could not be read");
        return;
    }
    findings.configurationRead = true;
    // From here on, the module's parts in this program do as the provider does.
    setMode(Config::instance().mode());
    reportLines(findings, lines);
    checkValues(findings);
    reportBehaviour(findings);
    Config& config = Config::instance();
    findings.library = configuredLibrary(config);
    const bool toFile = (parseLogTypes(config.get("logTypes")) & logToFile) != 0;
    if (toFile && !config.get("logStore").empty())
        findings.logFolder = configuredLogFolder();
}

}  // namespace NV::tool
