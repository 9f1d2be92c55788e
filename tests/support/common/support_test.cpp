// The tests' own reader of log lines and folders: what it lets pass or refuses.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "folder.h"
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
