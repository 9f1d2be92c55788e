// The six level functions with their outputs: gate, counter, banner, files, console, threads.

#include "logger/logger.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child.h"
#include "local_time.h"
#include "log_capture.h"
#include "logger/logger_record.h"

namespace NV {

namespace {

using test::LogCapture;
using test::LogLines;

std::string thisThread()
{
    return identity(GetCurrentProcessId(), GetCurrentThreadId());
}

// The messages of all lines, each with its level.
std::string messages(const LogLines& lines)
{
    return test::render(lines);
}

void writeAllLevels()
{
    SEV("severe");
    ERR("error");
    WRN("warning");
    INF("information");
    DBG("debug");
    TRC("trace");
}

const std::string allLevels = "SEV severe\nERR error\nWRN warning\nINF information\nDBG debug\n"
                              "TRC trace\n";
const std::string allButSevere = "ERR error\nWRN warning\nINF information\nDBG debug\nTRC trace\n";

class LogTest : public testing::Test {
protected:
    std::string written() const { return messages(capture.lines()); }
    test::LogLines linesOf(const std::string& file) const
    {
        return test::readLog(capture.folder() / file);
    }
    std::string fileText(const std::string& name) const
    {
        return test::readFile(capture.folder() / name);
    }
    std::vector<std::string> fileNames() const { return test::entryNames(capture.folder()); }

    LogCapture capture;
};

using Names = std::vector<std::string>;
using LogLevels = LogTest;
using LogRecord = LogTest;
using LogCounter = LogTest;
using LogFile = LogTest;
using LogThreads = LogTest;

// The next record is the process's first.
class LogBanner : public LogTest {
protected:
    LogBanner() { capture.expectBanner(); }
};

// --- levels and the mask ---

TEST_F(LogLevels, OnlySevereAsksTheMask)
{
    const auto writtenWith = [this](uint32_t mask) {
        loggerSettings().levelMask = mask;
        writeAllLevels();
        return messages(capture.takeLines());
    };
    for (const uint32_t mask : {0x7FU, 0x7EU, 0x7CU, 0x70U, 0x60U, 0x40U, 0xFFFFFFFFU})
        EXPECT_EQ(allLevels, writtenWith(mask)) << mask;
    for (const uint32_t mask : {0x3FU, 0x00U, 0x01U, 0xFFFFFFBFU})
        EXPECT_EQ(allButSevere, writtenWith(mask)) << mask;
}

TEST_F(LogBanner, DoesNotComeWithASuppressedSevereRecordWhichIsNotCounted)
{
    loggerSettings().levelMask = 0x3F;
    SEV("suppressed");
    EXPECT_EQ(0U, loggerRecordCount());
    TRC("first");
    EXPECT_EQ(8U, capture.lines().size());
}

// --- record lines ---

TEST_F(LogRecord, CarriesTimeProcessAndThreadAndEndsInCarriageReturnAndLineFeed)
{
    capture.setTime(2026, 3, 4, 17, 5, 9, 42);
    TRC("NVKSPOpenKey[dll.cpp:%d]:ENTER", 139);
    TRC("second");
    const std::string begin = "2026-03-04 17:05:09.042 TRC " + thisThread();
    EXPECT_EQ(begin + " NVKSPOpenKey[dll.cpp:139]:ENTER\r\n" + begin + " second\r\n",
              fileText("nvksprovider-20260304.log"));
}

TEST_F(LogRecord, ShowsTheThreadThatWritesIt)
{
    DWORD otherThread = 0;
    TRC("here");
    std::thread([&] {
        otherThread = GetCurrentThreadId();
        TRC("there");
    }).join();
    const LogLines lines = capture.lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(thisThread(), lines[0].identity);
    EXPECT_EQ(identity(GetCurrentProcessId(), otherThread), lines[1].identity);
    EXPECT_NE(lines[0].identity, lines[1].identity);
}

TEST_F(LogRecord, ShowsTheCurrentTimeByDefault)
{
    const auto stamp = [] {
        const std::string line =
            recordLine(toLocalTime(std::chrono::system_clock::now()), "TRC", "", "");
        return line.substr(0, 23);
    };
    const std::string before = stamp();
    TRC("now");
    const std::string after = stamp();
    const LogLines lines = capture.lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_LE(before, lines[0].timestamp);
    EXPECT_GE(after, lines[0].timestamp);
}

TEST_F(LogRecord, LineFeedsInTheMessageAreRemoved)
{
    ERR("one\ntwo\n\nthree%s", "\nfour\n");
    SEV("a\nb");
    EXPECT_EQ("ERR onetwothreefour\nSEV ab\n", written());
}

TEST_F(LogRecord, ALongerMessageThan65535CharactersIsWrittenAsAnEmptyOne)
{
    const std::string longest(65535, 'x');
    TRC("%s", longest.c_str());
    SEV("%s", longest.c_str());
    EXPECT_EQ("TRC " + longest + "\nSEV " + longest + "\n", messages(capture.takeLines()));
    const std::string tooLong = longest + 'x';
    TRC("%s", tooLong.c_str());
    SEV("%s", tooLong.c_str());
    TRC("next");
    EXPECT_EQ("TRC \nSEV \nTRC next\n", messages(capture.takeLines()));
    EXPECT_EQ(6U, loggerRecordCount());
}

// --- banner and counter ---

TEST_F(LogBanner, OpensTheFirstRecord)
{
    capture.setTime(2026, 3, 4, 17, 5, 9, 42);
    TRC("first");
    TRC("second");
    const std::string row = "==========================================================="
                            "=================";
    const std::string begin = "2026-03-04 17:05:09.042 INF " + thisThread() + " ";
    std::string expected = begin + row + "\r\n" + begin + "LOGGER():STARTED\r\n" + begin +
                           "LOGGER():LogLevel = 0x7f\r\n" + begin + "LOGGER():LogTypes = 0x02\r\n" +
                           begin + "LOGGER():LogStore = " + loggerSettings().store + "\r\n" +
                           begin + "LOGGER():LogRotate = 7\r\n" + begin + row + "\r\n";
    std::string trace = begin;
    trace.replace(24, 3, "TRC");
    expected += trace + "first\r\n" + trace + "second\r\n";
    EXPECT_EQ(expected, fileText("nvksprovider-20260304.log"));
}

TEST_F(LogBanner, OpensASevereFirstRecordToo)
{
    SEV("first");
    const LogLines lines = capture.lines();
    ASSERT_EQ(8U, lines.size());
    EXPECT_EQ("INF LOGGER():STARTED", test::render(lines[1]));
    EXPECT_EQ("SEV first", test::render(lines[7]));
}

TEST_F(LogBanner, IsNotRepeatedInTheNextDaysFile)
{
    capture.setTime(2026, 3, 4);
    TRC("today");
    capture.setTime(2026, 3, 5);
    TRC("tomorrow");
    EXPECT_EQ(1U, linesOf("nvksprovider-20260305.log").size());
}

TEST_F(LogBanner, IsNotCounted)
{
    writeAllLevels();
    EXPECT_EQ(6U, loggerRecordCount());
}

TEST_F(LogBanner, DoesNotFollowRecordsThatNoOutputTakesBecauseTheyAreCounted)
{
    const LoggerSettings good = loggerSettings();
    LoggerSettings none = good;
    none.types = 0;
    LoggerSettings unknownBits = good;
    unknownBits.types = 0xFFFFFFFCU;
    LoggerSettings noFolder = good;
    noFolder.store.clear();
    for (const LoggerSettings& settings : {none, unknownBits, noFolder}) {
        capture.expectBanner();
        loggerSettings() = settings;
        TRC("nowhere");
        ERR("nowhere");
        EXPECT_EQ(2U, loggerRecordCount());
        EXPECT_EQ(Names{}, fileNames());
    }
    loggerSettings() = good;
    TRC("seen");
    EXPECT_EQ("TRC seen\n", written());
}

// Asked before its arguments are worked out, a record is counted there or where it is written.
TEST_F(LogCounter, ARecordThatIsBegunIsCountedOnce)
{
    EXPECT_TRUE(beginRecord(LogLevel::TRC));
    EXPECT_TRUE(beginRecord(LogLevel::SEV));
    EXPECT_EQ(1U, loggerRecordCount());
    TRC("seen");
    EXPECT_EQ(2U, loggerRecordCount());

    loggerSettings().types = 0;
    for (const LogLevel level :
         {LogLevel::SEV, LogLevel::ERR, LogLevel::WRN, LogLevel::INF, LogLevel::DBG, LogLevel::TRC})
        EXPECT_FALSE(beginRecord(level));
    EXPECT_EQ(8U, loggerRecordCount());
}

TEST_F(LogCounter, ASuppressedSevereRecordIsNotBegun)
{
    loggerSettings().levelMask = 0x3F;
    EXPECT_FALSE(beginRecord(LogLevel::SEV));
    loggerSettings().types = 0;
    EXPECT_FALSE(beginRecord(LogLevel::SEV));
    EXPECT_EQ(1U, loggerRecordCount());
}

TEST_F(LogCounter, OutputsAreTheConsoleAndANamedFolder)
{
    const auto has = [](uint32_t types, const std::string& store) {
        loggerSettings().types = types;
        loggerSettings().store = store;
        return loggerHasOutput();
    };
    EXPECT_TRUE(has(logToFile, "logs"));
    EXPECT_TRUE(has(logToConsole, ""));
    EXPECT_TRUE(has(logToConsole | logToFile, ""));
    EXPECT_FALSE(has(logToFile, ""));
    EXPECT_FALSE(has(0, "logs"));
    EXPECT_FALSE(has(0xFFFFFFFCU, "logs"));
}

// --- files ---

TEST_F(LogFile, TheConfiguredNameFramesTheLocalDate)
{
    capture.setTime(2026, 3, 4);
    TRC("a");
    loggerSettings().fileName = "other.name.txt";
    TRC("a");
    EXPECT_EQ((Names{"nvksprovider-20260304.log", "other.name-20260304.txt"}), fileNames());
}

TEST_F(LogFile, RecordsOnBothSidesOfMidnightGoToTwoFiles)
{
    capture.setTime(2026, 3, 4, 23, 59, 59, 999);
    TRC("before");
    capture.setTime(2026, 3, 5, 0, 0, 0, 0);
    TRC("after");
    EXPECT_TRUE(fileText("nvksprovider-20260304.log").ends_with(" before\r\n"));
    EXPECT_TRUE(fileText("nvksprovider-20260305.log").ends_with(" after\r\n"));
    EXPECT_EQ(1U, linesOf("nvksprovider-20260304.log").size());
    EXPECT_EQ(1U, linesOf("nvksprovider-20260305.log").size());
}

TEST_F(LogFile, IsAppendedTo)
{
    capture.setTime(2026, 3, 4);
    test::writeFile(capture.folder() / "nvksprovider-20260304.log", "what was there\r\n");
    TRC("a");
    const std::string text = fileText("nvksprovider-20260304.log");
    EXPECT_TRUE(text.starts_with("what was there\r\n2026-03-04 "));
    EXPECT_TRUE(text.ends_with(" a\r\n"));
}

TEST_F(LogFile, BothSlashesSeparateFolders)
{
    capture.setTime(2026, 3, 4);
    std::string store = loggerSettings().store + "\\logs";
    std::ranges::replace(store, '\\', '/');
    loggerSettings().store = store;
    TRC("a");
    EXPECT_EQ(Names{"nvksprovider-20260304.log"}, test::entryNames(capture.folder() / "logs"));
}

TEST_F(LogFile, SeparatorsAtTheFoldersEndMakeNoDifference)
{
    capture.setTime(2026, 3, 9);
    const std::string store = loggerSettings().store;
    test::writeFile(capture.folder() / "nvksprovider-20260301.log", "old");
    // Behind the first prefix the system takes the path as it is.
    for (const std::string& name :
         {"\\\\?\\" + store + "\\", store + "\\", store + "/", store + "\\/\\"}) {
        loggerSettings().store = name;
        TRC("record");
    }
    EXPECT_EQ("TRC record\nTRC record\nTRC record\nTRC record\n", written());
    EXPECT_EQ(Names{"nvksprovider-20260309.log"}, fileNames());
}

TEST_F(LogFile, AMissingFolderIsMadeWithThoseAboveIt)
{
    loggerSettings().store = test::narrowPath(capture.folder() / "a" / "b");
    TRC("first");
    EXPECT_EQ("TRC first\n", messages(test::readLog(capture.folder() / "a" / "b")));
}

TEST_F(LogFile, TheFolderMayHaveANameOutsideAscii)
{
    const std::filesystem::path folder = capture.folder() / L"J\u00FCrgen";
    loggerSettings().store = test::narrowPath(folder);
    TRC("first");
    EXPECT_EQ("TRC first\n", messages(test::readLog(folder)));
}

// The logger works again when the folder does.
TEST_F(LogFile, AFolderThatCannotBeMadeRaisesTheListingsError)
{
    const std::string store = loggerSettings().store;
    test::writeFile(capture.folder() / "logs", "in the way");
    loggerSettings().store += "\\logs";
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): read behind the catch
    const uint32_t count = loggerRecordCount();
    try {
        TRC("nowhere");
        FAIL() << "no exception";
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_NE(nullptr, std::strstr(error.what(), "directory_iterator::directory_iterator"))
            << error.what();
        EXPECT_TRUE(error.code());
    }
    EXPECT_EQ(count, loggerRecordCount());
    EXPECT_THROW(SEV("nowhere"), std::filesystem::filesystem_error);
    loggerSettings().store += "\\below";
    EXPECT_THROW(TRC("nowhere"), std::filesystem::filesystem_error);
    EXPECT_THROW(SEV("nowhere"), std::filesystem::filesystem_error);
    loggerSettings().store = store;
    TRC("lock free");
    SEV("lock free");
    EXPECT_EQ("TRC lock free\nSEV lock free\n", written());
}

TEST_F(LogFile, ARecordForAFileThatCannotBeOpenedIsDroppedSilently)
{
    capture.expectBanner();
    capture.setTime(2026, 3, 4);
    std::filesystem::create_directory(capture.folder() / "nvksprovider-20260304.log");
    TRC("dropped");
    EXPECT_EQ(1U, loggerRecordCount());
    // The banner went with it.
    capture.setTime(2026, 3, 5);
    TRC("kept");
    EXPECT_EQ("TRC kept\n", messages(linesOf("nvksprovider-20260305.log")));
}

TEST_F(LogFile, MayBeReadWhileItIsWritten)
{
    capture.setTime(2026, 3, 4);
    TRC("a");
    const std::ifstream reader(capture.folder() / "nvksprovider-20260304.log");
    ASSERT_TRUE(reader);
    TRC("b");
    EXPECT_EQ("TRC a\nTRC b\n", written());
}

// --- clean-up ---

class LogCleanUp : public LogTest {
protected:
    void put(const std::filesystem::path& name) { test::writeFile(capture.folder() / name, "old"); }

    // The names in the folder after a record of the 9th of January 2026, without that day's file.
    std::vector<std::string> namesAfterRecord()
    {
        capture.setTime(2026, 1, 9);
        TRC("record");
        std::vector<std::string> names = fileNames();
        EXPECT_EQ(1, std::erase(names, "nvksprovider-20260109.log"));
        return names;
    }
};

TEST_F(LogCleanUp, RemovesAFileOfEightDaysAndKeepsOneOfSeven)
{
    put("nvksprovider-20260101.log");
    put("nvksprovider-20260102.log");
    EXPECT_EQ(Names{"nvksprovider-20260102.log"}, namesAfterRecord());
}

TEST_F(LogCleanUp, KeepsAFileUntilItsEighthDayBegins)
{
    put("nvksprovider-20260101.log");
    capture.setTime(2026, 1, 8, 23, 59, 59, 999);
    TRC("record");
    EXPECT_TRUE(std::filesystem::exists(capture.folder() / "nvksprovider-20260101.log"));
    capture.setTime(2026, 1, 9, 0, 0, 0, 0);
    TRC("record");
    EXPECT_FALSE(std::filesystem::exists(capture.folder() / "nvksprovider-20260101.log"));
}

TEST_F(LogCleanUp, KeepsAsManyDaysAsConfigured)
{
    loggerSettings().rotate = 30;
    put("nvksprovider-20251209.log");  // 31 days
    put("nvksprovider-20251210.log");  // 30 days
    EXPECT_EQ(Names{"nvksprovider-20251210.log"}, namesAfterRecord());
}

TEST_F(LogCleanUp, LeavesOtherFilesAlone)
{
    const Names others{"NVKSPROVIDER-20200103.log", "nvksprovider-.log",
                       "nvksprovider-2020.log",     "nvksprovider-20200101.txt",
                       "nvksprovider-20200102",     "nvksprovider-202001a1.log",
                       "nvksprovider.log",          "other-20200101.log"};
    for (const std::string& name : others)
        put(name);
    EXPECT_EQ(others, namesAfterRecord());
}

TEST_F(LogCleanUp, LeavesFoldersOfAnyNameAlone)
{
    std::filesystem::create_directory(capture.folder() / "nvksprovider-20200101.log");
    put(std::filesystem::path("nvksprovider-20200102.log") / "nvksprovider-20200103.log");
    EXPECT_EQ((Names{"nvksprovider-20200101.log", "nvksprovider-20200102.log"}),
              namesAfterRecord());
    EXPECT_TRUE(std::filesystem::exists(capture.folder() / "nvksprovider-20200102.log" /
                                        "nvksprovider-20200103.log"));
}

TEST_F(LogCleanUp, RemovesOddButFullDates)
{
    put("nvksprovider_20200101.log");
    put("nvksprovider-20251232.log");
    put("nvksprovider-202001010000.log");
    EXPECT_EQ(Names{}, namesAfterRecord());
}

TEST_F(LogCleanUp, HappensWithEveryRecord)
{
    EXPECT_EQ(Names{}, namesAfterRecord());
    put("nvksprovider-20200101.log");
    EXPECT_EQ(Names{}, namesAfterRecord());
}

TEST_F(LogCleanUp, PassesOverAFileThatCannotBeRemoved)
{
    put("nvksprovider-20200101.log");
    put("nvksprovider-20200102.log");
    HANDLE held = CreateFileW((capture.folder() / "nvksprovider-20200101.log").wstring().c_str(),
                              GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, held);
    EXPECT_EQ(Names{"nvksprovider-20200101.log"}, namesAfterRecord());
    CloseHandle(held);
}

TEST_F(LogCleanUp, DoesNotHappenWithoutFileOutput)
{
    put("nvksprovider-20200101.log");
    loggerSettings().types = 0;
    capture.setTime(2026, 1, 9);
    TRC("record");
    EXPECT_EQ(Names{"nvksprovider-20200101.log"}, fileNames());
}

// --- console ---

// arguments: output types, folder.
NV_TEST_CHILD(writesToConsole)
{
    loggerSettings().types = static_cast<uint32_t>(std::stoul(arguments.at(0)));
    loggerSettings().store = arguments.at(1);
    TRC("to the console: 100%% %s", "%d");
    SEV("second\nline");
    return 0;
}

test::ChildResult console(uint32_t types, const std::string& store)
{
    return test::runChild("writesToConsole", {.arguments = {std::to_string(types), store}});
}

TEST(LogConsole, PrintsBannerAndRecordsToStandardOutput)
{
    const test::ChildResult result = console(1, "");
    EXPECT_EQ(0U, result.exitCode);
    const std::string row = "INF " + std::string(76, '=') + "\n";
    EXPECT_EQ(row +
                  "INF LOGGER():STARTED\nINF LOGGER():LogLevel = 0x7f\n"
                  "INF LOGGER():LogTypes = 0x01\nINF LOGGER():LogStore = \n"
                  "INF LOGGER():LogRotate = 7\n" +
                  row + "TRC to the console: 100% %d\nSEV secondline\n",
              messages(test::parseLog(result.output)));
}

TEST(LogConsole, WithFileOutputBothGetTheSame)
{
    const test::TemporaryFolder folder;
    const test::ChildResult result = console(3, test::narrowPath(folder.path()));
    EXPECT_EQ(0U, result.exitCode);
    const LogLines printed = test::parseLog(result.output);
    EXPECT_EQ(9U, printed.size());
    const LogLines written = test::readLog(folder.path());
    ASSERT_EQ(printed.size(), written.size());
    for (size_t i = 0; i < printed.size(); ++i)
        EXPECT_EQ(printed[i].raw, written[i].raw);
}

TEST(LogConsole, IsSilentWithoutItsBit)
{
    const test::TemporaryFolder folder;
    EXPECT_EQ("", console(2, test::narrowPath(folder.path())).output);
    EXPECT_EQ(9U, test::readLog(folder.path()).size());
    EXPECT_EQ("", console(0, test::narrowPath(folder.path())).output);
    EXPECT_EQ(9U, test::readLog(folder.path()).size());
}

TEST(LogConsole, PrintsNoFileWhenOnlyTheConsoleIsOn)
{
    const test::TemporaryFolder folder;
    EXPECT_EQ(9U, test::parseLog(console(1, test::narrowPath(folder.path())).output).size());
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

// --- threads ---

// Every thread writes its numbers at a level of its own choice.
LogLines writtenByThreads(LogCapture& capture, const std::vector<void (*)(int, int)>& writers,
                          int count)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < static_cast<int>(writers.size()); ++thread) {
        const auto writer = writers[static_cast<size_t>(thread)];
        threads.emplace_back([writer, thread, count] {
            for (int i = 0; i < count; ++i)
                writer(thread, i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    return capture.lines();
}

const std::string padding(300, '.');

#define NV_WRITER(name, LEVEL)                                                                     \
    void name(int thread, int number)                                                              \
    {                                                                                              \
        LEVEL("%d:%d:%s", thread, number, padding.c_str());                                        \
    }
NV_WRITER(writeTrace, TRC)
NV_WRITER(writeError, ERR)
NV_WRITER(writeSevere, SEV)
#undef NV_WRITER

// Every record is there once, whole, and those of a thread are in its order.
void expectAllWhole(const LogLines& lines, const std::vector<std::string>& levels, int count)
{
    std::vector<int> next(levels.size(), 0);
    for (const test::LogLine& line : lines) {
        const size_t thread = std::stoul(line.message);
        ASSERT_LT(thread, levels.size()) << line.raw;
        EXPECT_EQ(std::to_string(thread) + ":" + std::to_string(next[thread]++) + ":" + padding,
                  line.message);
        EXPECT_EQ(levels[thread], line.level);
    }
    EXPECT_EQ(std::vector<int>(levels.size(), count), next);
}

TEST_F(LogThreads, OrdinaryRecordsOfManyThreadsAreSerialised)
{
    const LogLines lines =
        writtenByThreads(capture, {writeTrace, writeError, writeTrace, writeError}, 50);
    expectAllWhole(lines, {"TRC", "ERR", "TRC", "ERR"}, 50);
    EXPECT_EQ(201U, loggerRecordCount());
}

thread_local int dayOfThread = 4;

std::chrono::system_clock::time_point nowOfThread()
{
    return test::localTime(2026, 3, dayOfThread);
}

// The two channels write into files of different days, because Wine's appending is not one step:
// of two writers that append to one file at the same moment, one may overwrite the other there.
TEST_F(LogThreads, SevereRecordsBesideOrdinaryOnesAreWhole)
{
    loggerSettings().now = &nowOfThread;
    const auto severe = [](int thread, int number) {
        dayOfThread = 5;
        writeSevere(thread, number);
    };
    const LogLines lines = writtenByThreads(capture, {writeTrace, severe}, 200);
    expectAllWhole(lines, {"TRC", "SEV"}, 200);
    EXPECT_EQ(401U, loggerRecordCount());
}

NV_TEST_CHILD(printsFromThreads)
{
    loggerSettings().types = logToConsole;
    loggerRecordCount() = 1;
    std::thread severe([] {
        for (int i = 0; i < 200; ++i)
            writeSevere(1, i);
    });
    for (int i = 0; i < 200; ++i)
        writeTrace(0, i);
    severe.join();
    return 0;
}

TEST_F(LogThreads, SevereRecordsBesideOrdinaryOnesAreWholeOnTheConsole)
{
    const test::ChildResult result = test::runChild("printsFromThreads");
    EXPECT_EQ(0U, result.exitCode);
    expectAllWhole(test::parseLog(result.output), {"TRC", "SEV"}, 200);
}

std::promise<void>* holdEntered = nullptr;
std::shared_future<void> holdEnd;

// A clock that stops the record under way, once.
std::chrono::system_clock::time_point holdingNow()
{
    if (std::promise<void>* const entered = std::exchange(holdEntered, nullptr)) {
        entered->set_value();
        holdEnd.wait();
    }
    return std::chrono::system_clock::now();
}

// An ordinary record of another thread is under way from the fixture's construction to release().
class LogHeld : public LogTest {
protected:
    LogHeld()
    {
        holdEntered = &entered_;
        holdEnd = end_.get_future().share();
        loggerSettings().now = &holdingNow;
        held_ = std::async(std::launch::async, [] { TRC("held"); });
        entered_.get_future().wait();
    }

    void release()
    {
        end_.set_value();
        held_.get();
    }

    static void expectDone(const std::future<void>& record)
    {
        EXPECT_EQ(std::future_status::ready, record.wait_for(std::chrono::seconds(20)));
    }

private:
    std::promise<void> entered_;
    std::promise<void> end_;
    std::future<void> held_;
};

TEST_F(LogHeld, SevereDoesNotWait)
{
    auto severe = std::async(std::launch::async, [] { SEV("passes"); });
    auto waiting = std::async(std::launch::async, [] { ERR("waits"); });
    expectDone(severe);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(300)));
    EXPECT_EQ("SEV passes\n", written());
    release();
    severe.get();
    waiting.get();
    EXPECT_EQ("SEV passes\nTRC held\nERR waits\n", written());
}

TEST_F(LogHeld, ARecordThatNoOutputTakesDoesNotWait)
{
    loggerSettings().types = 0;
    auto counted = std::async(std::launch::async, [] { ERR("nowhere"); });
    expectDone(counted);
    EXPECT_EQ(2U, loggerRecordCount());
    loggerSettings().types = logToFile;
    release();
    counted.get();
    EXPECT_EQ("TRC held\n", written());
    EXPECT_EQ(3U, loggerRecordCount());
}

TEST_F(LogThreads, FirstRecordsAtOnceGiveOneBanner)
{
    capture.expectBanner();
    const LogLines lines = writtenByThreads(capture, {writeTrace, writeError, writeTrace}, 5);
    EXPECT_EQ(1U, test::countLines(lines, "INF LOGGER():STARTED"));
    EXPECT_EQ(22U, lines.size());
}

}  // namespace

}  // namespace NV
