// Writing to the console or to a file, in colour on terminals that support it.

#include "output.h"

#include <windows.h>

#include <io.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
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

struct CharacterRange {
    char32_t first;
    char32_t last;
    size_t columns;
};

// Characters that do not take one column on a terminal: marks on the one before, and those of East Asia and
// pictures.
constexpr CharacterRange characterRanges[] = {
    {0x0300, 0x036F, 0}, {0x1100, 0x115F, 2},   {0x2E80, 0x303E, 2},   {0x3041, 0x3098, 2},
    {0x3099, 0x309A, 0}, {0x309B, 0xA4CF, 2},   {0xA960, 0xA97F, 2},   {0xAC00, 0xD7A3, 2},
    {0xF900, 0xFAFF, 2}, {0xFE00, 0xFE0F, 0},   {0xFE30, 0xFE6F, 2},   {0xFF01, 0xFF60, 2},
    {0xFFE0, 0xFFE6, 2}, {0x1F300, 0x1F64F, 2}, {0x1F900, 0x1F9FF, 2}, {0x20000, 0x3FFFD, 2},
};

size_t columnsOf(char32_t character)
{
    const auto range = std::ranges::find_if(characterRanges, [&](const CharacterRange& one) {
        return character >= one.first && character <= one.last;
    });
    return range != std::end(characterRanges) ? range->columns : 1;
}

// In columns of a terminal. The text is valid UTF-8.
size_t width(std::string_view text)
{
    size_t columns = 0;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t length = lead < 0x80 ? 1U : lead < 0xE0 ? 2U : lead < 0xF0 ? 3U : 4U;
        char32_t character = length == 1 ? lead : lead & (0x7FU >> length);
        for (size_t next = i + 1; next < std::min(i + length, text.size()); ++next)
            character = (character << 6) | (static_cast<unsigned char>(text[next]) & 0x3FU);
        columns += columnsOf(character);
        i += length;
    }
    return columns;
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
