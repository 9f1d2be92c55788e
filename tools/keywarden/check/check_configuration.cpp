// Steps on the configuration file and on the log folder that it names.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "check/check.h"
#include "config/config.h"
#include "config/config_apply.h"
#include "failure.h"
#include "system/configuration.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* knownKeys[] = {"p11File", "logLevel", "logTypes", "logStore", "logRotate"};
constexpr const char* levelNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "SEVERE"};

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

// Control characters become visible, "\r" as \r.
std::string printable(const std::string& text)
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
    return "line " + std::to_string(line.number) + ": \"" + printable(line.text) + "\"";
}

// Of UTF-8 or UTF-16, as editors write it unasked.
bool hasByteOrderMark(const std::vector<Line>& lines)
{
    return !lines.empty() && (lines.front().text.starts_with("\xEF\xBB\xBF") ||
                              lines.front().text.starts_with("\xFF\xFE") ||
                              lines.front().text.starts_with("\xFE\xFF"));
}

// The first line that the module does not take; it reads no further.
const Line* firstBadLine(const std::vector<Line>& lines)
{
    const auto bad = std::ranges::find_if(lines, [](const Line& line) {
        return !isComment(line) && line.text.find('=') == std::string::npos;
    });
    return bad == lines.end() ? nullptr : &*bad;
}

// Why the module does not take the file.
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
        findings.fail(name, quoted(*bad) + " has no \"=\", since its carriage return counts",
                      "Save the file with line feeds alone (LF, not CRLF). The module does not "
                      "load with it.");
    else
        findings.fail(name, quoted(*bad) + " has no \"=\"",
                      "Mend or remove the line; # as its first character makes it a comment, and "
                      "an empty line has no spaces. The module does not load with it.");
}

// Lines that are read, but not as they were meant.
struct OddLines {
    std::vector<Line> withReturn;
    std::vector<Line> unknown;   // keys that nothing reads
    std::vector<Line> repeated;  // keys that an earlier line has
};

OddLines findOddLines(const std::vector<Line>& lines)
{
    OddLines odd;
    std::set<std::string> keys;
    for (const Line& line : lines) {
        if (isComment(line))
            continue;
        if (line.text.ends_with('\r'))
            odd.withReturn.push_back(line);
        if (std::ranges::find(knownKeys, keyOf(line)) == std::end(knownKeys))
            odd.unknown.push_back(line);
        if (!keys.insert(keyOf(line)).second)
            odd.repeated.push_back(line);
    }
    return odd;
}

void reportLines(Findings& findings, const std::vector<Line>& lines)
{
    constexpr const char* name = "configuration-lines";
    const OddLines odd = findOddLines(lines);
    if (hasByteOrderMark(lines))
        findings.fail(name, "the file begins with a byte order mark, which spoils its first line",
                      "Save it as UTF-8 without a byte order mark.");
    else if (!odd.withReturn.empty())
        findings.fail(name,
                      "a carriage return becomes part of the value of " +
                          std::to_string(odd.withReturn.size()) + " lines",
                      "Save the file with line feeds alone (LF, not CRLF).");
    else if (!odd.unknown.empty())
        findings.warn(name, "keys that nothing reads",
                      "Keys are case-sensitive: p11File, logLevel, logTypes, logStore, logRotate.");
    else if (!odd.repeated.empty())
        findings.warn(name, "keys that stand there twice; the last line holds",
                      "Remove the others.");
    else
        findings.ok(name, std::to_string(lines.size()) + " lines, all good");
    for (const auto* group : {&odd.withReturn, &odd.unknown, &odd.repeated}) {
        for (const Line& line : *group)
            findings.detail(quoted(line));
    }
}

struct ValueProblem {
    bool fatal;
    std::string text;
    std::string advice;
};

std::optional<ValueProblem> problemOfRotate(Config& config)
{
    const std::string& value = config.get("logRotate");
    try {
        parseLogRotate(value, 7);
    } catch (const std::out_of_range&) {
        return ValueProblem{true,
                            "logRotate=" + value + " is too large, so the module does not load",
                            "Give a number of days, like logRotate=7."};
    } catch (const std::exception&) {
        return ValueProblem{true, "logRotate is missing or empty, so the module does not load",
                            "Add a line like logRotate=7."};
    }
    if (!std::ranges::all_of(value, [](unsigned char c) { return std::isdigit(c) != 0; }))
        return ValueProblem{false, "logRotate=" + value + " is not a number, so 7 days hold",
                            "Give digits only."};
    return std::nullopt;
}

std::optional<ValueProblem> problemOfLevel(Config& config)
{
    std::string value = config.get("logLevel");
    std::ranges::transform(value, value.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (value.empty() || std::ranges::find(levelNames, value) != std::end(levelNames))
        return std::nullopt;
    return ValueProblem{false, "logLevel=" + config.get("logLevel") + " is no level; INFO holds",
                        "Give TRACE, DEBUG, INFO, WARN, ERROR or SEVERE."};
}

std::optional<ValueProblem> problemOfTypes(Config& config)
{
    const std::string& value = config.get("logTypes");
    constexpr const char* advice = "Give FILE, CONSOLE, or both with a comma between them.";
    const auto problem = [&](const std::string& text) {
        return ValueProblem{false, "logTypes=" + value + text, advice};
    };
    if (!value.empty() && parseLogTypes(value) == 0)
        return problem(" names no output, so nothing is logged");
    std::istringstream names(value);
    for (std::string name; std::getline(names, name, ',');) {
        if (parseLogTypes(name) == 0)
            return problem(": \"" + name + "\" is no output and counts for nothing");
    }
    return std::nullopt;
}

std::optional<ValueProblem> problemOfLibrary(Config& config)
{
    const std::string& value = config.get("p11File");
    if (value.empty())
        return ValueProblem{true, "p11File is missing or empty, so the provider does not open",
                            "\"keywarden init --p11 PATH\" writes it."};
    if (value.find('#') != std::string::npos)
        return ValueProblem{false, "p11File=" + value + ": the # belongs to the path",
                            "A comment needs a line of its own."};
    return std::nullopt;
}

void checkValues(Findings& findings)
{
    Config& config = Config::instance();
    std::vector<ValueProblem> problems;
    for (const auto& problem : {problemOfLibrary(config), problemOfRotate(config),
                                problemOfLevel(config), problemOfTypes(config)}) {
        if (problem)
            problems.push_back(*problem);
    }
    if (problems.empty()) {
        findings.ok("configuration-values", "every value is good");
        return;
    }
    // What keeps the module from working comes first.
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

// ERROR_SUCCESS if a file can be made there, otherwise the system's error. Leaves nothing behind.
DWORD tryToWriteInto(const std::filesystem::path& folder)
{
    const std::filesystem::path probe =
        folder / (L"keywarden-check-" + std::to_wstring(GetCurrentProcessId()) + L".tmp");
    HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return GetLastError();
    CloseHandle(file);
    return ERROR_SUCCESS;
}

}  // namespace

void checkConfiguration(Findings& findings)
{
    const std::filesystem::path file = configurationFile();
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) {
        findings.fail("configuration-file", "there is no " + toUtf8(file),
                      "\"keywarden init\" writes one.");
        return;
    }
    const std::vector<Line> lines = readLines(file);
    findings.ok("configuration-file", toUtf8(file));
    try {
        loadConfiguration();
    } catch (const Failure& refusal) {
        reportRefusal(findings, lines, refusal);
        return;
    }
    findings.configurationRead = true;
    reportLines(findings, lines);
    checkValues(findings);
    Config& config = Config::instance();
    findings.library = config.get("p11File");
    const bool toFile = (parseLogTypes(config.get("logTypes")) & 2U) != 0;
    if (toFile && !config.get("logStore").empty())
        findings.logFolder = configuredLogFolder();
}

void checkLogFolder(Findings& findings)
{
    constexpr const char* name = "log-folder";
    if (!findings.configurationRead) {
        findings.skip(name, "the configuration could not be read");
        return;
    }
    const std::filesystem::path& folder = findings.logFolder;
    if (folder.empty()) {
        findings.ok(name, "no log files are written (logTypes without FILE, or no logStore)");
        return;
    }
    std::error_code error;
    const bool made = std::filesystem::create_directories(folder, error);
    if (!std::filesystem::is_directory(folder, error))
        findings.fail(name, toUtf8(folder) + " is not there and cannot be made",
                      "Without it every call of the provider fails. Choose another logStore, or "
                      "empty logTypes.");
    else if (const DWORD refusal = tryToWriteInto(folder); refusal != ERROR_SUCCESS)
        findings.warn(name, "no file can be made in " + toUtf8(folder) + ": " + errorText(refusal),
                      "Records are dropped. Grant the user write access, or choose another "
                      "logStore.");
    else if (!folder.is_absolute())
        findings.warn(name,
                      toUtf8(folder) + " is no full path, so each program logs somewhere else",
                      "Begin logStore with a drive, or with ~ for the user's profile.");
    else
        findings.ok(name, toUtf8(folder) + " can be written to");
    if (made)
        std::filesystem::remove(folder, error);
}

}  // namespace NV::tool
