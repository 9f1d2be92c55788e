// Reading trace files and comparing them with a log.

#include "trace_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "folder.h"

namespace NV::test {

namespace {

constexpr std::string_view kSpace = "${SPACE}";

std::vector<std::string> linesOf(std::string_view text)
{
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

class TraceReader {
public:
    explicit TraceReader(const std::filesystem::path& folder) : folder_(folder) {}

    void read(const std::string& name, const TraceValues& values)
    {
        const std::string file = name + ".trace";
        if (std::ranges::find(open_, name) != open_.end())
            fail("the file includes itself: " + file);
        if (!std::filesystem::is_regular_file(folder_ / file))
            fail("there is no file " + file);
        open_.push_back(name);
        const std::string outer = place_;
        size_t number = 0;
        for (const std::string& line : linesOf(readFile(folder_ / file))) {
            place_ = file + ":" + std::to_string(++number);
            readLine(line, values);
        }
        place_ = outer;
        open_.pop_back();
    }

    void expectUsed(const TraceValues& values) const
    {
        for (const auto& [name, value] : values) {
            if (!used_.contains(name))
                fail("no line uses ${" + name + "}");
        }
    }

    std::vector<TraceLine> take() { return std::move(lines_); }

private:
    [[noreturn]] void fail(const std::string& what) const
    {
        throw std::runtime_error((place_.empty() ? "" : place_ + ": ") + what);
    }

    void readLine(const std::string& line, const TraceValues& values)
    {
        constexpr std::string_view include = "@include ";
        if (line.empty() || line.front() == '#')
            return;
        if (line.back() == ' ' || line.back() == '\r')
            fail("the line ends with a blank; write " + std::string(kSpace));
        if (line.starts_with(include))
            readInclude(line.substr(include.size()), values);
        else if (line.front() == '@')
            fail("unknown directive: " + line);
        else
            lines_.push_back({replaced(line, values), place_});
    }

    // "common/login PIN=12 TEXT="two words""
    void readInclude(std::string_view rest, const TraceValues& outer)
    {
        const std::string name = word(rest);
        TraceValues values = outer;
        while (!rest.empty()) {
            const std::string assignment = word(rest);
            const size_t equals = assignment.find('=');
            if (equals == std::string::npos || equals == 0)
                fail("not NAME=value: " + assignment);
            values[assignment.substr(0, equals)] = replaced(assignment.substr(equals + 1), outer);
        }
        read(name, values);
    }

    // Takes the next word off; quotation marks keep blanks in it and are left out.
    std::string word(std::string_view& rest) const
    {
        std::string taken;
        bool quoted = false;
        size_t i = 0;
        for (; i < rest.size() && (quoted || rest[i] != ' '); ++i) {
            if (rest[i] == '"')
                quoted = !quoted;
            else
                taken += rest[i];
        }
        if (quoted)
            fail("a quotation mark is missing");
        rest.remove_prefix(std::min(rest.find_first_not_of(' ', i), rest.size()));
        return taken;
    }

    std::string replaced(std::string_view text, const TraceValues& values)
    {
        std::string result;
        for (;;) {
            const size_t begin = std::min(text.find("${"), text.size());
            result += text.substr(0, begin);
            text.remove_prefix(begin);
            if (text.empty())
                return result;
            const size_t end = text.find('}');
            if (end == std::string_view::npos)
                fail("} is missing");
            const std::string name(text.substr(2, end - 2));
            const auto value = values.find(name);
            if (value != values.end())
                result += value->second;
            else if (name == "SPACE")
                result += ' ';
            else
                fail("${" + name + "} has no value");
            used_.insert(name);
            text.remove_prefix(end + 1);
        }
    }

    std::filesystem::path folder_;
    std::vector<std::string> open_;  // the file that is read, behind those that include it
    std::string place_;
    std::set<std::string> used_;
    std::vector<TraceLine> lines_;
};

// For each pair of beginnings left out, the length of the longest common subsequence of the rest.
class CommonLengths {
public:
    CommonLengths(const std::vector<TraceLine>& expected, const std::vector<std::string>& logged)
        : width_(logged.size() + 1), lengths_((expected.size() + 1) * width_)
    {
        for (size_t i = expected.size(); i-- > 0;) {
            for (size_t j = logged.size(); j-- > 0;) {
                lengths_[i * width_ + j] = expected[i].text == logged[j]
                                               ? at(i + 1, j + 1) + 1
                                               : std::max(at(i + 1, j), at(i, j + 1));
            }
        }
    }

    size_t at(size_t expected, size_t logged) const { return lengths_[expected * width_ + logged]; }

private:
    size_t width_;
    std::vector<size_t> lengths_;
};

// The lines of a diff with all that is equal, of which only what is near a difference stays.
std::string withContext(const std::vector<std::string>& lines)
{
    constexpr size_t context = 3;
    std::string text;
    bool left = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const size_t from = i - std::min(i, context);
        const size_t to = std::min(i + context + 1, lines.size());
        const bool shown = std::any_of(lines.begin() + static_cast<std::ptrdiff_t>(from),
                                       lines.begin() + static_cast<std::ptrdiff_t>(to),
                                       [](const std::string& line) { return line[0] != ' '; });
        if (shown)
            text += (left ? "@@ line " + std::to_string(i + 1) + " @@\n" : "") + lines[i] + "\n";
        left = !shown;
    }
    return text;
}

// A log as a trace file has it.
std::string asFile(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text +=
            (line.ends_with(' ') ? line.substr(0, line.size() - 1) + std::string(kSpace) : line) +
            "\n";
    return text;
}

// The pair of files that scripts/update-traces.sh compares.
std::filesystem::path seenFile(const std::string& name, const char* extension)
{
    return std::filesystem::path(KEYWARDEN_SEEN_TRACES) / (name + extension);
}

void writeSeen(const std::string& name, const std::vector<TraceLine>& expected,
               const std::vector<std::string>& logged)
{
    std::vector<std::string> lines;
    lines.reserve(expected.size());
    for (const TraceLine& line : expected)
        lines.push_back(line.text);
    writeFile(seenFile(name, ".expected"), asFile(lines));
    writeFile(seenFile(name, ".trace"), asFile(logged));
}

// What an earlier run wrote no longer differs.
void forgetSeen(const std::string& name)
{
    std::filesystem::remove(seenFile(name, ".expected"));
    std::filesystem::remove(seenFile(name, ".trace"));
}

bool writesSeen()
{
    const char* value = std::getenv("KEYWARDEN_WRITE_TRACES");
    return value != nullptr && std::string_view(value) == "1";
}

}  // namespace

std::vector<TraceLine> readTrace(const std::filesystem::path& folder, const std::string& name,
                                 const TraceValues& values)
{
    TraceReader reader(folder);
    reader.read(name, values);
    reader.expectUsed(values);
    return reader.take();
}

std::string traceDifference(const std::vector<TraceLine>& expected,
                            const std::vector<std::string>& logged)
{
    const CommonLengths common(expected, logged);
    std::vector<std::string> lines;
    bool differs = false;
    for (size_t i = 0, j = 0; i < expected.size() || j < logged.size();) {
        const bool atEnd = i == expected.size() || j == logged.size();
        if (!atEnd && expected[i].text == logged[j]) {
            lines.push_back(" " + logged[j]);
            ++i, ++j;
            continue;
        }
        differs = true;
        if (j == logged.size() || (!atEnd && common.at(i + 1, j) >= common.at(i, j + 1))) {
            lines.push_back("-" + expected[i].text + "    <- " + expected[i].place);
            ++i;
        } else {
            lines.push_back("+" + logged[j]);
            ++j;
        }
    }
    return differs ? withContext(lines) : "";
}

void expectTrace(const LogLines& lines, const std::string& name, const TraceValues& values,
                 const char* file, int line)
{
    expectTrace(masked(render(lines)), name, values, file, line);
}

void expectTrace(const std::string& text, const std::string& name, const TraceValues& values,
                 const char* file, int line)
{
    const testing::ScopedTrace trace(file, line, "tests/traces/" + name + ".trace");
    const std::vector<std::string> logged = linesOf(text);
    std::vector<TraceLine> expected;
    std::string problem;
    try {
        expected = readTrace(KEYWARDEN_TRACES, name, values);
        problem = traceDifference(expected, logged);
    } catch (const std::runtime_error& error) {
        problem = error.what();
    }
    if (!problem.empty())
        ADD_FAILURE() << "The log (+) differs from the trace file (-):\n" << problem;
    if (!writesSeen())
        return;
    if (problem.empty())
        forgetSeen(name);
    else
        writeSeen(name, expected, logged);
}

}  // namespace NV::test
