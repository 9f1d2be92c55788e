// Lines from a source that gives any pieces.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "log/line_reader.h"

namespace NV::test {

namespace {

// Gives a text in pieces of this size.
struct Source {
    std::string text;
    size_t piece = 3;
    size_t at = 0;

    size_t read(char* buffer, size_t room)
    {
        const size_t count = std::min({piece, room, text.size() - at});
        std::copy_n(text.data() + at, count, buffer);
        at += count;
        return count;
    }
    tool::LineReader reader()
    {
        return tool::LineReader([this](char* buffer, size_t room) { return read(buffer, room); });
    }
};

std::vector<std::string> linesOf(tool::LineReader& reader)
{
    std::vector<std::string> lines;
    while (const auto line = reader.next())
        lines.emplace_back(*line);
    return lines;
}

using Lines = std::vector<std::string>;

TEST(LineReader, GivesWholeLinesAndTheRest)
{
    for (const size_t piece : {size_t{1}, size_t{3}, size_t{1000}}) {
        Source source{"one\n\nthree\r\nfour", piece};
        tool::LineReader reader = source.reader();
        EXPECT_EQ(linesOf(reader), (Lines{"one", "", "three\r"})) << piece;
        EXPECT_EQ(reader.rest(), "four");
    }
}

TEST(LineReader, GoesOnWhenTheSourceHasGrown)
{
    Source source{"one\ntw"};
    tool::LineReader reader = source.reader();
    EXPECT_EQ(linesOf(reader), Lines{"one"});
    source.text += "o\nthree";
    EXPECT_EQ(linesOf(reader), Lines{"two"});
    EXPECT_EQ(linesOf(reader), Lines{});
    source.text += "\n";
    EXPECT_EQ(linesOf(reader), Lines{"three"});
    EXPECT_EQ(reader.rest(), "");
}

// A file that is no text must not fill the memory.
TEST(LineReader, CutsALineThatIsNoRecord)
{
    constexpr size_t megabyte = size_t{1024} * 1024;
    Source source{std::string(40 * megabyte, 'x') + "\nnext\n" + std::string(megabyte, 'y'),
                  megabyte};
    tool::LineReader reader = source.reader();
    const Lines lines = linesOf(reader);
    constexpr size_t longest = size_t{128} * 1024;
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], std::string(longest, 'x'));
    EXPECT_EQ(lines[1], "next");
    EXPECT_EQ(lines[2], std::string(longest, 'y'));
    EXPECT_EQ(reader.rest(), "");
}

TEST(LineReader, HasNothingInAnEmptySource)
{
    Source source;
    tool::LineReader reader = source.reader();
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.rest(), "");
}

}  // namespace

}  // namespace NV::test
