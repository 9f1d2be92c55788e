// Log folders that are missing, cannot be written, are removed meanwhile, or hold very many files.

#include "logger/logger.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "log_capture.h"

namespace NV::test {

namespace {

// Lists, but takes no new file, not even from the superuser, to whom permissions mean nothing.
constexpr wchar_t unwritableFolder[] = L"Z:\\proc\\sys\\kernel";

// The listing's error leaves both channels, nothing is counted, and afterwards both write again.
void expectListingError(LogCapture& capture, const std::string& store)
{
    const std::string before = loggerSettings().store;
    const uint32_t count = loggerRecordCount();
    loggerSettings().store = store;
    for (void (*const level)(const char*, ...) : {&TRC, &SEV}) {
        try {
            level("nowhere");
            ADD_FAILURE() << store << ": no exception";
        } catch (const std::filesystem::filesystem_error& error) {
            EXPECT_NE(nullptr, std::strstr(error.what(), "directory_iterator::directory_iterator"))
                << error.what();
        }
    }
    EXPECT_EQ(count, loggerRecordCount());
    loggerSettings().store = before;
    TRC("lock free");
    SEV("lock free");
    EXPECT_EQ("TRC lock free\nSEV lock free\n", render(capture.takeLines()));
}

std::string driveThatIsNotThere()
{
    const DWORD drives = GetLogicalDrives();
    for (char letter = 'D'; letter <= 'Y'; ++letter) {
        if ((drives >> (letter - 'A') & 1) == 0)
            return std::string(1, letter) + ":";
    }
    throw std::runtime_error("every drive letter is taken");
}

TEST(LogFolder, OnADriveThatIsNotThereRaisesTheListingsError)
{
    LogCapture capture;
    expectListingError(capture, driveThatIsNotThere() + "\\logs");
}

TEST(LogFolder, BelowOneThatTakesNothingRaisesTheListingsError)
{
    LogCapture capture;
    expectListingError(capture, narrowPath(unwritableFolder) + "\\logs");
}

TEST(LogFolder, WithANameThatCannotBeRaisesTheListingsError)
{
    LogCapture capture;
    expectListingError(capture, loggerSettings().store + "\\a|b\\logs\t");
}

TEST(LogFolder, ThatCannotBeWrittenDropsRecordsSilently)
{
    const LogCapture capture;
    ASSERT_TRUE(std::filesystem::is_directory(unwritableFolder));
    ASSERT_FALSE(std::ofstream(std::filesystem::path(unwritableFolder) / "odd").is_open());
    loggerSettings().store = narrowPath(unwritableFolder);
    const uint32_t count = loggerRecordCount();
    TRC("dropped");
    SEV("dropped");
    EXPECT_EQ(count + 2, loggerRecordCount());
}

// On Windows the attribute says nothing about the folder's content.
TEST(LogFolder, MayBearTheReadOnlyAttribute)
{
    LogCapture capture;
    const std::filesystem::path folder = capture.folder() / "logs";
    std::filesystem::create_directory(folder);
    ASSERT_NE(0, SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_READONLY));
    loggerSettings().store = narrowPath(folder);
    TRC("first");
    SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ("TRC first\n", render(readLog(folder)));
}

TEST(LogFolder, IsMadeAgainWhenItWasRemoved)
{
    LogCapture capture;
    capture.expectBanner();
    const std::filesystem::path folder = capture.folder() / "a" / "b";
    loggerSettings().store = narrowPath(folder);
    TRC("first");
    EXPECT_EQ(8u, readLog(folder).size());
    std::filesystem::remove_all(capture.folder() / "a");
    TRC("second");
    SEV("third");
    // The banner opened the first file of the process.
    EXPECT_EQ("TRC second\nSEV third\n", render(readLog(folder)));
}

// Every record is written, dropped, or ends in the listing's error; nothing hangs, and the logger
// goes on.
TEST(LogFolder, MayBeRemovedAgainAndAgainWhileThreadsWrite)
{
    LogCapture capture;
    const std::filesystem::path folder = capture.folder() / "a" / "b";
    loggerSettings().store = narrowPath(folder);
    const uint32_t before = loggerRecordCount();
    std::atomic<bool> done = false;
    std::atomic<uint32_t> returned = 0;
    std::atomic<uint32_t> raised = 0;
    const auto write = [&](void (*level)(const char*, ...)) {
        while (!done) {
            try {
                level("record");
                ++returned;
            } catch (const std::filesystem::filesystem_error&) {
                ++raised;
            }
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(write, &TRC);
    threads.emplace_back(write, &ERR);
    threads.emplace_back(write, &SEV);
    int removals = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < end) {
        std::error_code ignored;
        std::filesystem::remove_all(capture.folder() / "a", ignored);
        ++removals;
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
    std::cout << removals << " removals, " << returned << " records, " << raised << " errors\n";
    EXPECT_LT(0, removals);
    EXPECT_LT(0u, returned);
    EXPECT_EQ(before + returned, loggerRecordCount());

    std::error_code ignored;
    std::filesystem::remove_all(capture.folder() / "a", ignored);
    TRC("after all");
    EXPECT_EQ("TRC after all\n", render(readLog(folder)));
}

TEST(LogFolder, MayHoldTenThousandOtherFiles)
{
    LogCapture capture;
    capture.setTime(2026, 1, 9);
    constexpr int files = 10000;
    // By the host: under Wine each new name is compared with all that are there.
    ASSERT_EQ(0, host::run("cd " + host::quoted(host::unixPath(capture.folder())) +
                           " && seq -f other-%g.log " + std::to_string(files) + " | xargs touch"));
    writeFile(capture.folder() / "nvksprovider-20260101.log", "old");
    writeFile(capture.folder() / "nvksprovider-20260102.log", "old");

    constexpr int records = 5;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < records; ++i)
        TRC("record");
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    std::cout << "a record in a folder of " << files << " files: " << time.count() / records
              << " ms\n";

    EXPECT_EQ(static_cast<size_t>(records),
              readLog(capture.folder() / "nvksprovider-20260109.log").size());
    EXPECT_FALSE(std::filesystem::exists(capture.folder() / "nvksprovider-20260101.log"));
    EXPECT_EQ(static_cast<size_t>(files) + 2, entryNames(capture.folder()).size());
}

}  // namespace

}  // namespace NV::test
