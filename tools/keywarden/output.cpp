// Writing to the console or to a file, in colour on terminals that support it.

#include "output.h"

#include <windows.h>

#include <io.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include <nlohmann/json.hpp>

#include "failure.h"
#include "printable.h"

namespace NV::tool {

namespace {

bool isTerminal(DWORD which)
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(which), &mode) != 0;
}

// Consoles before Windows 10 print escape sequences instead of interpreting them.
bool understandsColours()
{
    HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(console, &mode) != 0 &&
           SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

const char* sequence(Colour colour)
{
    switch (colour) {
    case Colour::green:
        return "\x1b[32m";
    case Colour::red:
        return "\x1b[31m";
    case Colour::yellow:
        return "\x1b[33m";
    case Colour::dim:
        return "\x1b[2m";
    case Colour::bold:
        return "\x1b[1m";
    case Colour::none:
        break;
    }
    return "";
}

// Characters that a text from outside cannot guess.
std::string randomMark()
{
    std::random_device source;
    std::string mark = "\x1b";
    for (int i = 0; i < 4; ++i)
        mark += std::to_string(source());
    return mark;
}

// In characters: the continuation bytes of UTF-8 do not count.
size_t width(std::string_view text)
{
    return static_cast<size_t>(
        std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

// A reader that has gone away, such as a pager that ended, is not a failure of the command. A file that takes
// no more is.
void write(std::FILE* file, std::string_view text)
{
    const bool written =
        std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0;
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    if (!written && GetFileType(handle) == FILE_TYPE_DISK)
        lateFailure() = "the output could not be written whole: is the disk full?";
}

}  // namespace

Output::Output()
    : colours_(std::getenv("NO_COLOR") == nullptr && understandsColours()),
      errorIsTerminal_(isTerminal(STD_ERROR_HANDLE)), mark_(randomMark())
{
}

void Output::keepStandardOutputFree()
{
    toError_ = true;
    colours_ = false;
}

void Output::print(std::string_view text) const
{
    write(toError_ ? stderr : stdout, text);
}

std::string Output::rendered(std::string_view text) const
{
    std::string result;
    for (size_t mark = text.find(mark_); mark != std::string_view::npos; mark = text.find(mark_)) {
        result += printable(text.substr(0, mark));
        text.remove_prefix(mark + mark_.size());
        const auto colour = static_cast<Colour>(text.at(0) - 'a');
        result += colour == Colour::none ? "\x1b[0m" : sequence(colour);
        text.remove_prefix(1);
    }
    return result + printable(text);
}

void Output::line(std::string_view text) const
{
    if (!json_)
        print(rendered(text) + "\n");
}

void Output::table(const std::vector<std::string>& heading,
                   const std::vector<std::vector<std::string>>& texts) const
{
    // Escapes take more room than what they stand for.
    auto rows = texts;
    for (auto& row : rows)
        std::ranges::transform(row, row.begin(), [](const auto& cell) { return printable(cell); });
    std::vector<size_t> widths;
    for (size_t i = 0; i < heading.size(); ++i) {
        size_t widest = width(heading[i]);
        for (const auto& row : rows)
            widest = std::max(widest, width(row.at(i)));
        widths.push_back(widest);
    }
    const auto format = [&widths](const std::vector<std::string>& cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i)
            text += cells[i] + std::string(widths[i] - width(cells[i]) + 2, ' ');
        text.erase(text.find_last_not_of(' ') + 1);
        return text;
    };
    line(coloured(Colour::bold, format(heading)));
    for (const auto& row : rows)
        line(format(row));
}

std::string Output::coloured(Colour colour, std::string_view text) const
{
    if (!colours_ || colour == Colour::none)
        return std::string(text);
    const auto begin = [this](Colour which) {
        return mark_ + static_cast<char>('a' + static_cast<int>(which));
    };
    return begin(colour) + std::string(text) + begin(Colour::none);
}

void Output::progress(std::string_view text)
{
    if (!errorIsTerminal_)
        return;
    // One call: on a console, the C library would write each character separately.
    const std::string shown = printable(text).substr(0, 78);
    const std::string line = "\r" + std::string(progressWidth_, ' ') + "\r" + shown;
    progressWidth_ = shown.size();
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()),
              &written, nullptr);
}

void Output::document(const Json& document) const
{
    if (json_)
        print(printableJson(document.dump(2, ' ', false, Json::error_handler_t::replace)) + "\n");
}

void Output::failure(std::string_view reason, std::string_view advice) const
{
    if (json_) {
        document({{"error", reason}, {"advice", advice}});
        return;
    }
    write(stderr, "keywarden: " + printable(reason) + "\n");
    if (!advice.empty())
        write(stderr, "  " + printable(advice) + "\n");
}

void Output::warning(std::string_view text) const
{
    write(stderr, "keywarden: " + printable(text) + "\n");
}

}  // namespace NV::tool
