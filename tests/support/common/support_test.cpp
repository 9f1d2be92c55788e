// The tests' own reader of log lines and folders: what it lets pass or refuses.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "folder.h"
#include "trace_file.h"
#include "trace_log.h"

namespace NV::test {

namespace {

constexpr std::string_view line =
    "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] NV::Provider::init[nvvtoken.cpp:87]:ENTER";

std::string record(std::string_view message, std::string_view identity = "[00001,00000001]")
{
    return "2026-03-04 17:05:09.042 TRC " + std::string(identity) + " " + std::string(message) +
           "\r\n";
}

TEST(ParseLine, TakesARecordApart)
{
    const LogLine parsed = parseLine(line);
    EXPECT_EQ("2026-03-04 17:05:09.042", parsed.timestamp);
    EXPECT_EQ("TRC", parsed.level);
    EXPECT_EQ("[04312,1a2b3c4d]", parsed.identity);
    EXPECT_EQ("NV::Provider::init", parsed.function);
    EXPECT_EQ("nvvtoken.cpp", parsed.file);
    EXPECT_EQ(87, parsed.line);
    EXPECT_EQ("ENTER", parsed.message);
    EXPECT_EQ(line, parsed.raw);
    EXPECT_EQ("TRC NV::Provider::init:ENTER", render(parsed));
}

TEST(ParseLine, AMessageWithoutAPlaceIsAllMessage)
{
    for (const std::string message : {"LOGGER():STARTED", "", "[a:1]:x", "f[a:b]:x", "f[a:1]x",
                                      "f[:x", "LOGGER():LogStore = C:\\a[b:1]:c"}) {
        const LogLine parsed = parseLine("2026-03-04 17:05:09.042 INF [04312,1a2b3c4d] " + message);
        EXPECT_EQ("", parsed.function);
        EXPECT_EQ(message, parsed.message);
    }
}

TEST(ParseLine, RefusesWhatIsNoWholeRecord)
{
    for (size_t length = 0; length < 45; ++length)
        EXPECT_THROW(parseLine(line.substr(0, length)), std::runtime_error) << length;
    EXPECT_THROW(parseLine("2026-03-04 17:05:09,042 TRC [04312,1a2b3c4d] x"), std::runtime_error);
    EXPECT_THROW(parseLine("2026-03-04 17:05:09.042 trc [04312,1a2b3c4d] x"), std::runtime_error);
    EXPECT_THROW(parseLine("2026-03-04 17:05:09.042 TRC [04312,1A2B3C4D] x"), std::runtime_error);
    EXPECT_THROW(parseLine("2026-03-04 17:05:09.042 TRC [,1a2b3c4d] x"), std::runtime_error);
}

TEST(ParseLog, RefusesALastLineWithoutItsEnd)
{
    EXPECT_EQ(2U, parseLog(record("a") + record("b")).size());
    EXPECT_THROW(parseLog(record("a") + std::string(line)), std::runtime_error);
}

TEST(LastRun, GivesOneThreadsLinesFromEnterToLeave)
{
    const LogLines lines = parseLog(
        record("f[a.cpp:1]:ENTER") + record("f[a.cpp:2]:LEAVE") + record("f[a.cpp:1]:ENTER") +
        record("g[a.cpp:1]:ENTER") + record("h[a.cpp:1]:x", "[00001,00000002]") +
        record("g[a.cpp:1]:LEAVE") + record("f[a.cpp:1]:LEAVE(1)") + record("g[a.cpp:9]:x"));
    EXPECT_EQ("TRC f:ENTER\nTRC g:ENTER\nTRC g:LEAVE\nTRC f:LEAVE(1)\n",
              render(lastRun(lines, "f")));
    EXPECT_TRUE(lastRun(lines, "absent").empty());
}

TEST(Masked, HidesPointersAndTimes)
{
    EXPECT_EQ("p=PTR,q=NULL,flags=0x40d,Elapsed [#]END [#]ELAPSED:#(ms) 1.234",
              masked("p=000000000031F8A0,q=0000000000000000,flags=0x40d,"
                     "Elapsed [0.012]END [123.456]ELAPSED:0.001(ms) 1.234"));
}

void expectWrongBlock()
{
    expectBlock(parseLog(record("f[a.cpp:1]:ENTER")), "TRC f:LEAVE");
}

TEST(ExpectBlock, FailsOnAnyDifference)
{
    expectBlock(parseLog(record("f[a.cpp:1]:ENTER") + record("x")), R"(
TRC f:ENTER
TRC x
)");
    EXPECT_NONFATAL_FAILURE(expectWrongBlock(), "TRC f:LEAVE");
}

class TraceFileTest : public testing::Test {
protected:
    // The text of the lines, each with a line feed; or what the error says.
    std::string read(const TraceValues& values = {})
    {
        try {
            std::string text;
            for (const TraceLine& each : readTrace(folder.path(), "a", values))
                text += each.text + "\n";
            return text;
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }
    std::string reading(std::string_view content, const TraceValues& values = {})
    {
        writeFile(folder.path() / "a.trace", content);
        return read(values);
    }

    TemporaryFolder folder;
};

TEST_F(TraceFileTest, LeavesCommentsAndEmptyLinesOut)
{
    EXPECT_EQ("TRC f:ENTER\nTRC f:#2\n", reading("# why\n\nTRC f:ENTER\nTRC f:#2\n"));
    EXPECT_EQ("TRC f:ENTER\n", reading("TRC f:ENTER"));
    EXPECT_EQ("", reading(""));
}

TEST_F(TraceFileTest, ReplacesNamesByValues)
{
    EXPECT_EQ("TRC f:x, $ {}\n", reading("TRC f:${A}, $ {}\n", {{"A", "x"}}));
    EXPECT_EQ("TRC f:${B} \n", reading("TRC f:${A}${SPACE}\n", {{"A", "${B}"}}));
}

TEST_F(TraceFileTest, IncludesFilesWithValuesOfTheirOwnAndOfTheIncludingFile)
{
    writeFile(folder.path() / "b" / "c.trace", "TRC ${F}:${A}\nTRC ${F}:${B}\n");
    EXPECT_EQ("TRC g:one two\nTRC g:f\nTRC f:LEAVE\n",
              reading("@include b/c A=\"one two\" B=${F} F=g\nTRC ${F}:LEAVE\n", {{"F", "f"}}));
}

TEST_F(TraceFileTest, SaysWhereEachLineIsWritten)
{
    writeFile(folder.path() / "b.trace", "#\nTRC f:1\n");
    writeFile(folder.path() / "a.trace", "@include b\nTRC f:2\n");
    const std::vector<TraceLine> lines = readTrace(folder.path(), "a");
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("b.trace:2", lines[0].place);
    EXPECT_EQ("a.trace:2", lines[1].place);
}

TEST_F(TraceFileTest, RefusesWhatIsNotWellFormed)
{
    EXPECT_EQ("there is no file a.trace", read());
    EXPECT_EQ("a.trace:1: there is no file b.trace", reading("@include b\n"));
    EXPECT_EQ("a.trace:2: ${A} has no value", reading("TRC f:1\nTRC f:${A}\n"));
    EXPECT_EQ("a.trace:1: } is missing", reading("TRC f:${A\n"));
    EXPECT_EQ("a.trace:1: unknown directive: @use b", reading("@use b\n"));
    EXPECT_EQ("a.trace:1: not NAME=value: A", reading("@include b A\n"));
    EXPECT_EQ("a.trace:1: not NAME=value: =A", reading("@include b =A\n"));
    EXPECT_EQ("a.trace:1: a quotation mark is missing", reading("@include b A=\"x\n"));
    EXPECT_EQ("a.trace:1: the line ends with a blank; write ${SPACE}", reading("TRC f:1 \n"));
    EXPECT_EQ("a.trace:1: the line ends with a blank; write ${SPACE}", reading("TRC f:1\r\n"));
    EXPECT_EQ("no line uses ${A}", reading("TRC f:1\n", {{"A", "x"}}));
}

TEST_F(TraceFileTest, RefusesAFileThatIncludesItself)
{
    EXPECT_EQ("a.trace:1: the file includes itself: a.trace", reading("@include a\n"));
    writeFile(folder.path() / "b.trace", "TRC f:1\n@include a\n");
    EXPECT_EQ("b.trace:2: the file includes itself: a.trace", reading("@include b\n"));
    // Twice, but not within itself.
    writeFile(folder.path() / "b.trace", "TRC f:1\n");
    EXPECT_EQ("TRC f:1\nTRC f:1\n", reading("@include b\n@include b\n"));
}

TEST(TraceDifference, ShowsWhatIsMissingAndWhatIsNew)
{
    std::vector<TraceLine> expected;
    std::vector<std::string> logged;
    for (const std::string text : {"1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        expected.push_back({text, "a.trace:" + text});
        logged.push_back(text);
    }
    EXPECT_EQ("", traceDifference(expected, logged));
    logged[0] = "one";
    logged.erase(logged.begin() + 8);
    EXPECT_EQ("-1    <- a.trace:1\n+one\n 2\n 3\n 4\n@@ line 7 @@\n 6\n 7\n 8\n"
              "-9    <- a.trace:9\n",
              traceDifference(expected, logged));
    EXPECT_EQ("+x\n", traceDifference({}, {"x"}));
    EXPECT_EQ("-x    <- a.trace:1\n", traceDifference({{"x", "a.trace:1"}}, {}));
}

void expectWrongTrace()
{
    expectTrace(parseLog(record("f[a.cpp:1]:LEAVE")), "support/enter_and_leave");
}

void expectMissingTrace()
{
    expectTrace(LogLines{}, "support/no such file");
}

TEST(ExpectTrace, FailsOnAnyDifferenceAndWithoutTheFile)
{
    expectTrace(parseLog(record("f[a.cpp:1]:ENTER") + record("f[a.cpp:2]:LEAVE")),
                "support/enter_and_leave");
    EXPECT_NONFATAL_FAILURE(expectWrongTrace(),
                            "-TRC f:ENTER    <- support/enter_and_leave.trace:2");
    EXPECT_NONFATAL_FAILURE(expectMissingTrace(), "there is no file support/no such file.trace");
}

TEST(TemporaryFolders, AreNewAndVanish)
{
    std::filesystem::path path;
    {
        const TemporaryFolder one;
        const TemporaryFolder other(u8"caf\u00E9");
        path = one.path();
        EXPECT_NE(path, other.path());
        EXPECT_TRUE(std::filesystem::is_directory(path));
        EXPECT_TRUE(std::filesystem::is_directory(other.path()));
        EXPECT_EQ(std::filesystem::path(u8"caf\u00E9"), other.path().filename());
        writeFile(path / "a" / "b", "content");
        EXPECT_EQ("content", readFile(path / "a" / "b"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace

}  // namespace NV::test
