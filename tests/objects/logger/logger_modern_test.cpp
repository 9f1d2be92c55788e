// The logger's settings of the modern behaviour: the mask for all levels, and records that cannot be
// written.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "logger/logger.h"
#include "logger/trace.h"

namespace NV::test {

namespace {

void writeAllLevels()
{
    SEV("severe");
    ERR("error");
    WRN("warning");
    INF("information");
    DBG("debug");
    TRC("trace");
}

class GatedLevels : public testing::Test {
protected:
    GatedLevels() { loggerSettings().gatesAllLevels = true; }

    // The levels that are written with the mask, in the order of writeAllLevels.
    std::string writtenWith(uint32_t mask)
    {
        loggerSettings().levelMask = mask;
        writeAllLevels();
        std::string levels;
        for (const LogLine& line : capture.takeLines())
            levels += line.level + " ";
        return levels;
    }

    LogCapture capture;
};

TEST_F(GatedLevels, AreWhatTheirNameSays)
{
    EXPECT_EQ("SEV ERR WRN INF DBG TRC ", writtenWith(logMaskTrace));
    EXPECT_EQ("SEV ERR WRN INF DBG ", writtenWith(logMaskDebug));
    EXPECT_EQ("SEV ERR WRN INF ", writtenWith(logMaskInfo));
    EXPECT_EQ("SEV ERR WRN ", writtenWith(logMaskWarn));
    EXPECT_EQ("SEV ERR ", writtenWith(logMaskError));
    EXPECT_EQ("SEV ", writtenWith(logMaskSevere));
    EXPECT_EQ("", writtenWith(0));
    loggerSettings().gatesAllLevels = false;
    EXPECT_EQ("SEV ERR WRN INF DBG TRC ", writtenWith(logMaskSevere));
}

TEST_F(GatedLevels, ARecordThatIsNotWrittenIsNotBegun)
{
    loggerSettings().levelMask = logMaskInfo;
    int evaluated = 0;
    const auto argument = [&] { return ++evaluated; };
    NV_TRC("%d", argument());
    NV_DBG("%d", argument());
    EXPECT_EQ(0, evaluated);
    NV_INF("%d", argument());
    EXPECT_EQ(1, evaluated);
    EXPECT_EQ(2U, loggerRecordCount());
}

TEST_F(GatedLevels, TheBannerComesWithTheFirstRecordThatIsWritten)
{
    capture.expectBanner();
    loggerSettings().levelMask = logMaskError;
    INF("not written");
    EXPECT_TRUE(capture.lines().empty());
    ERR("first");
    EXPECT_EQ(8U, capture.lines().size());
}

TEST_F(GatedLevels, AWatchRunsOnlyForRecordsThatShowIt)
{
    loggerSettings().levelMask = logMaskDebug;
    const Stopwatch stopped;
    loggerSettings().levelMask = logMaskTrace;
    const Stopwatch runs;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(0, stopped.milliseconds());
    EXPECT_LT(1, runs.milliseconds());
}

TEST_F(GatedLevels, AreAskedWithoutBeginningARecord)
{
    loggerSettings().levelMask = logMaskInfo;
    EXPECT_TRUE(loggerTakes(LogLevel::INF));
    EXPECT_FALSE(loggerTakes(LogLevel::DBG));
    loggerSettings().types = 0;
    EXPECT_FALSE(loggerTakes(LogLevel::INF));
    EXPECT_EQ(1U, loggerRecordCount());
}

// A log whose folder can be taken away.
class SurvivingLog : public testing::Test {
protected:
    SurvivingLog() { loggerSettings().survivesFailures = true; }
    ~SurvivingLog() override { loggerLostRecords() = 0; }

    // The folder is a file.
    void breakFolder()
    {
        writeFile(capture.folder() / "logs", "in the way");
        store_ = loggerSettings().store;
        loggerSettings().store = narrowPath(capture.folder() / "logs");
    }
    void repairFolder() { loggerSettings().store = store_; }

    // The day's file is a folder.
    void breakFile()
    {
        capture.setTime(2026, 3, 4);
        std::filesystem::create_directory(file());
    }
    void repairFile() const { std::filesystem::remove(file()); }

    std::string written() { return render(capture.takeLines()); }

    LogCapture capture;

private:
    std::filesystem::path file() const { return capture.folder() / "nvksprovider-20260304.log"; }

    std::string store_;
};

TEST_F(SurvivingLog, SaysHowManyRecordsAreMissing)
{
    TRC("before");
    breakFolder();
    writeAllLevels();
    repairFolder();
    TRC("after");
    TRC("later");
    EXPECT_EQ("TRC before\nWRN LOGGER: 6 records could not be written\nTRC after\nTRC later\n",
              written());
}

TEST_F(SurvivingLog, CountsRecordsWhoseFileCannotBeOpened)
{
    breakFile();
    TRC("lost");
    SEV("lost");
    EXPECT_EQ(2U, loggerLostRecords());
    repairFile();
    SEV("after");
    EXPECT_EQ("WRN LOGGER: 2 records could not be written\nSEV after\n", written());
    EXPECT_EQ(0U, loggerLostRecords());
}

TEST_F(SurvivingLog, SaysItAtEveryLevel)
{
    loggerSettings().gatesAllLevels = true;
    loggerSettings().levelMask = logMaskError;
    breakFolder();
    writeAllLevels();  // two are below the mask's level
    repairFolder();
    INF("below");
    EXPECT_EQ("", written());
    ERR("after");
    EXPECT_EQ("WRN LOGGER: 2 records could not be written\nERR after\n", written());
}

TEST_F(SurvivingLog, GoesOnCountingWhenTheNextRecordIsLostToo)
{
    breakFolder();
    TRC("lost");
    repairFolder();
    breakFile();
    TRC("lost");
    TRC("lost");
    repairFile();
    TRC("after");
    EXPECT_EQ("WRN LOGGER: 3 records could not be written\nTRC after\n", written());
}

TEST_F(SurvivingLog, WritesTheBannerThatWasLost)
{
    capture.expectBanner();
    breakFile();
    TRC("lost");
    EXPECT_EQ(0U, loggerRecordCount());
    repairFile();
    TRC("after");
    const LogLines lines = capture.lines();
    ASSERT_EQ(9U, lines.size());
    EXPECT_EQ("LOGGER():STARTED", lines[1].message);
    EXPECT_EQ("WRN LOGGER: 1 records could not be written", render(lines[7]));
}

[[noreturn]] std::chrono::system_clock::time_point noTime()
{
    throw std::bad_alloc();
}

TEST_F(SurvivingLog, SurvivesEveryException)
{
    const auto now = loggerSettings().now;
    loggerSettings().now = &noTime;
    EXPECT_NO_THROW(writeAllLevels());
    loggerSettings().now = now;
    EXPECT_EQ(6U, loggerLostRecords());
}

TEST_F(SurvivingLog, LosesNoCountOnManyThreads)
{
    constexpr uint32_t records = 100;
    breakFolder();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (uint32_t n = 0; n < records; ++n) {
                TRC("lost");
                SEV("lost");
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    repairFolder();
    TRC("after");
    EXPECT_EQ("WRN LOGGER: 800 records could not be written\nTRC after\n", written());
}

// Classic.
TEST_F(SurvivingLog, WithoutTheSettingNothingIsCounted)
{
    loggerSettings().survivesFailures = false;
    breakFolder();
    EXPECT_THROW(TRC("lost"), std::filesystem::filesystem_error);
    repairFolder();
    breakFile();
    TRC("dropped");
    EXPECT_EQ(2U, loggerRecordCount());
    repairFile();
    TRC("after");
    EXPECT_EQ("TRC after\n", written());
}

}  // namespace

}  // namespace NV::test
