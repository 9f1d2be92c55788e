// Parsing, choosing, rendering and comparing log lines.

#include "trace_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <stdexcept>

#include "folder.h"

namespace NV::test {

namespace {

// Takes a log line apart from left to right.
class Cutter {
public:
    explicit Cutter(std::string_view text) : all_(text), rest_(text) {}

    // The next characters, which must look like the pattern: '9' a digit, 'A' a capital letter, 'x'
    // a lower-case hexadecimal digit, everything else itself.
    std::string fixed(std::string_view pattern)
    {
        if (rest_.size() < pattern.size())
            fail();
        for (size_t i = 0; i < pattern.size(); ++i) {
            if (!matches(pattern[i], rest_[i]))
                fail();
        }
        return take(pattern.size());
    }

    std::string digits()
    {
        const size_t end = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
        if (end == 0)
            fail();
        return take(end);
    }

    std::string_view rest() const { return rest_; }

    [[noreturn]] void fail() const
    {
        throw std::runtime_error("not a log record: \"" + std::string(all_) + "\"");
    }

private:
    static bool matches(char pattern, char c)
    {
        const bool digit = c >= '0' && c <= '9';
        switch (pattern) {
        case '9':
            return digit;
        case 'A':
            return c >= 'A' && c <= 'Z';
        case 'x':
            return digit || (c >= 'a' && c <= 'f');
        default:
            return c == pattern;
        }
    }

    std::string take(size_t length)
    {
        std::string taken(rest_.substr(0, length));
        rest_.remove_prefix(length);
        return taken;
    }

    std::string_view all_;
    std::string_view rest_;
};

// Cuts "NV::Provider::init[nvvtoken.cpp:87]:" off the message, if it is there. By hand, because a
// regular expression would recurse through a message of 65,535 characters.
void cutPlace(LogLine& line)
{
    const std::string& text = line.message;
    const size_t open = text.find_first_of("[ =");
    if (open == std::string::npos || open == 0 || text[open] != '[')
        return;
    const size_t colon = text.find_first_of(":] ", open);
    if (colon == std::string::npos || text[colon] != ':')
        return;
    const size_t end = text.find_first_not_of("0123456789", colon + 1);
    if (end == std::string::npos || end == colon + 1 || text.compare(end, 2, "]:") != 0)
        return;
    line.function = text.substr(0, open);
    line.file = text.substr(open + 1, colon - open - 1);
    line.line = std::stoi(text.substr(colon + 1, end - colon - 1));
    line.message = text.substr(end + 2);
}

std::string withLineFeedAtEnd(std::string_view block)
{
    if (block.starts_with('\n'))
        block.remove_prefix(1);
    std::string text(block);
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return text;
}

}  // namespace

LogLine parseLine(std::string_view raw)
{
    Cutter cutter(raw);
    LogLine line;
    line.raw = raw;
    line.timestamp = cutter.fixed("9999-99-99 99:99:99.999");
    cutter.fixed(" ");
    line.level = cutter.fixed("AAA");
    cutter.fixed(" ");
    line.identity = cutter.fixed("[");
    line.identity += cutter.digits();
    line.identity += cutter.fixed(",xxxxxxxx]");
    cutter.fixed(" ");
    line.message = cutter.rest();
    cutPlace(line);
    return line;
}

LogLines parseLog(std::string_view text)
{
    LogLines lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos)
            throw std::runtime_error("no line feed after \"" + std::string(text) + "\"");
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        lines.push_back(parseLine(line));
    }
    return lines;
}

LogLines readLog(const std::filesystem::path& fileOrFolder)
{
    if (!std::filesystem::exists(fileOrFolder))
        return {};
    if (!std::filesystem::is_directory(fileOrFolder))
        return parseLog(readFile(fileOrFolder));
    LogLines lines;
    for (const std::string& name : entryNames(fileOrFolder)) {
        const std::filesystem::path file = fileOrFolder / name;
        if (file.extension() == ".log" && std::filesystem::is_regular_file(file))
            std::ranges::move(parseLog(readFile(file)), std::back_inserter(lines));
    }
    return lines;
}

LogLines selected(const LogLines& lines, const std::function<bool(const LogLine&)>& condition)
{
    LogLines result;
    std::ranges::copy_if(lines, std::back_inserter(result), condition);
    return result;
}

LogLines ofLevel(const LogLines& lines, std::string_view level)
{
    return selected(lines, [&](const LogLine& line) { return line.level == level; });
}

LogLines ofFunction(const LogLines& lines, std::string_view function)
{
    return selected(lines, [&](const LogLine& line) { return line.function == function; });
}

LogLines withoutBanner(const LogLines& lines)
{
    return selected(lines, [](const LogLine& line) {
        return !line.message.starts_with("LOGGER():") && line.message != std::string(76, '=');
    });
}

LogLines lastRun(const LogLines& lines, std::string_view function)
{
    const auto enter = std::find_if(lines.rbegin(), lines.rend(), [&](const LogLine& line) {
        return line.function == function && line.message == "ENTER";
    });
    if (enter == lines.rend())
        return {};
    LogLines run;
    for (auto line = std::prev(enter.base()); line != lines.end(); ++line) {
        if (line->identity != enter->identity)
            continue;
        run.push_back(*line);
        if (line->function == function && line->message.starts_with("LEAVE"))
            break;
    }
    return run;
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

std::string render(const LogLine& line)
{
    const std::string separator = line.function.empty() ? "" : ":";
    return line.level + " " + line.function + separator + line.message;
}

std::string render(const LogLines& lines)
{
    std::string text;
    for (const LogLine& line : lines)
        text += render(line) + "\n";
    return text;
}

std::string maskPointers(const std::string& text)
{
    static const std::regex null(R"(\b0{16}\b)");
    static const std::regex pointer(R"(\b[0-9A-Fa-f]{16}\b)");
    return std::regex_replace(std::regex_replace(text, null, "NULL"), pointer, "PTR");
}

std::string maskTimes(const std::string& text)
{
    static const std::regex time(R"((Elapsed \[|END \[|ELAPSED:)[0-9]+\.[0-9]{3})");
    return std::regex_replace(text, time, "$1#");
}

std::string masked(const std::string& text)
{
    return maskTimes(maskPointers(text));
}

void expectBlock(const LogLines& lines, std::string_view expected, const char* file, int line)
{
    const testing::ScopedTrace trace(file, line, "expected block");
    EXPECT_EQ(withLineFeedAtEnd(expected), masked(render(lines)));
}

size_t countLines(const LogLines& lines, std::string_view rendered)
{
    return static_cast<size_t>(std::ranges::count_if(
        lines, [&](const LogLine& line) { return masked(render(line)) == rendered; }));
}

bool hasLine(const LogLines& lines, std::string_view rendered)
{
    return countLines(lines, rendered) > 0;
}

}  // namespace NV::test
