// Which files of a folder are logs, and what the latest one says of a process.

#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "folder.h"
#include "formats/log_record.h"
#include "log_text.h"
#include "system/log_folder.h"

namespace NV::test {

namespace {

class LogFolder : public testing::Test {
protected:
    // A file that was changed so many hours ago.
    void put(const std::string& name, const std::string& text, int hoursAgo)
    {
        writeFile(folder.path() / name, text);
        std::filesystem::last_write_time(folder.path() / name,
                                         std::filesystem::file_time_type::clock::now() -
                                             std::chrono::hours(hoursAgo));
    }

    std::vector<std::string> days() const
    {
        std::vector<std::string> found;
        for (const tool::LogFile& file : tool::logFilesIn(folder.path()))
            found.push_back(file.day);
        return found;
    }

    std::string latest(const LogText& log, uint32_t process = 4312, int64_t since = 0)
    {
        put("nvksprovider-20260304.log", log.text(), 0);
        return tool::latestResult(folder.path(), process, since);
    }

    TemporaryFolder folder;
};

// A file from the future would be the newest one for years.
TEST_F(LogFolder, ListsLogsInTheOrderInWhichTheyWereChanged)
{
    put("nvksprovider-20300101.log", "", 50);
    put("nvksprovider-20260303.log", "", 30);
    put("nvksprovider-20260304.log", "", 1);
    for (const char* name : {"nvksprovider.log", "nvksprovider-2026030.log", "other-20260304.log",
                             "nvksprovider-20260304.log.old", "nvksprovider-2026030x.log"})
        put(name, "", 0);
    std::filesystem::create_directory(folder.path() / "nvksprovider-20260305.log");
    EXPECT_EQ(days(), (std::vector<std::string>{"2030-01-01", "2026-03-03", "2026-03-04"}));
    EXPECT_TRUE(tool::logFilesIn(folder.path() / "none").empty());
}

TEST_F(LogFolder, HasTheResultOfTheRecordOfTheEnd)
{
    const char* error = "Failed to login the token (000000a0(CKR_PIN_INCORRECT))";
    const char* end = "DONE, STATUS=0x8009002d, ELAPSED:1(ms), RESULT=CKR_DEVICE_ERROR, KEY=01";
    EXPECT_EQ(latest(LogText()
                         .record("ERR", "NV::P11RSAKeyObject::sign", error)
                         .record("INF", "NVKSPSignHash", end)),
              "CKR_DEVICE_ERROR");
    // One that succeeded since then.
    EXPECT_EQ(latest(LogText()
                         .record("INF", "NVKSPSignHash", end)
                         .record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:1(ms)")),
              "");
    EXPECT_EQ(latest(LogText().record("INF", "NVKSPSignHash", end), 4313), "");
}

// Classic has no such record.
TEST_F(LogFolder, HasTheFirstResultOfTheLatestOperation)
{
    const char* error = "Failed to login the token (000000a0(CKR_PIN_INCORRECT))";
    const char* later = "Failed to close the session (000000b3(CKR_SESSION_HANDLE_INVALID))";
    EXPECT_EQ(latest(LogText()
                         .enter("SignHash")
                         .record("ERR", "NV::P11RSAKeyObject::sign", error)
                         .record("ERR", "NV::P11RSAKeyObject::sign", later)
                         .leave("SignHash", "1", "0x8009002d")),
              "CKR_PIN_INCORRECT");
    EXPECT_EQ(latest(LogText()
                         .enter("SignHash")
                         .record("ERR", "NV::P11RSAKeyObject::sign", error)
                         .leave("SignHash", "1", "0x8009002d")
                         .enter("SignHash")),
              "");
    // Another process may write at the same time.
    EXPECT_EQ(latest(LogText()
                         .enter("SignHash")
                         .record("ERR", "NV::P11RSAKeyObject::sign", error)
                         .as("00007", "0000000a")
                         .enter("SignHash")
                         .record("ERR", "NV::P11RSAKeyObject::sign", later)),
              "CKR_PIN_INCORRECT");
}

// The number of a process is soon used again.
TEST_F(LogFolder, HasNoResultOfAnEarlierProcess)
{
    LogText log;
    log.record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a4(CKR_PIN_LOCKED))");
    EXPECT_EQ(latest(log, 4312, *tool::parseTime("2026-03-04 17:00:00.000")), "CKR_PIN_LOCKED");
    EXPECT_EQ(latest(log, 4312, *tool::parseTime("2026-03-04 17:00:00.001")), "");
    log.record("INF", "DllMain", "Program=C:\\odd.exe, USER=a, VERSION=1");
    EXPECT_EQ(latest(log), "");
}

TEST_F(LogFolder, KnowsWhenThisProcessBegan)
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    const int64_t age = *tool::parseTime(tool::timeText(now)) - tool::beginningOfProcess();
    EXPECT_GE(age, 0);
    EXPECT_LT(age, 600'000);
}

// At the level ERROR, there is nothing but errors.
TEST_F(LogFolder, HasTheLastResultIfOperationsAreNotShown)
{
    EXPECT_EQ(latest(LogText()
                         .record("ERR", "NV::P11Token::login",
                                 "Failed to login the token (000000a0(CKR_PIN_INCORRECT))")
                         .record("ERR", "NV::P11RSAKeyObject::sign",
                                 "Failed to sign (00000030(CKR_DEVICE_ERROR))")
                         .record("ERR", "NV::P11RSAKeyObject::sign", "Caught an error")),
              "CKR_DEVICE_ERROR");
}

TEST_F(LogFolder, ReadsTheEndOfALargeLog)
{
    LogText log;
    log.enter("SignHash");
    std::string text = std::string(3 << 20, 'x') + "\n" + log.text();
    LogText end;
    end.record("ERR", "NV::P11RSAKeyObject::sign", "Failed (000000a4(CKR_PIN_LOCKED))");
    put("nvksprovider-20260304.log", text + end.text(), 0);
    EXPECT_EQ(tool::latestResult(folder.path(), 4312, 0), "CKR_PIN_LOCKED");
}

}  // namespace

}  // namespace NV::test
