// The tests' own helpers that exist under Windows only: profiles, child processes, log capture.

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "child.h"
#include "log_capture.h"
#include "profile.h"

namespace NV::test {

namespace {

NV_TEST_CHILD(printsArguments)
{
    for (const std::string& argument : arguments)
        std::printf("<%s>", argument.c_str());
    return static_cast<int>(arguments.size());
}

NV_TEST_CHILD(printsVariable)
{
    const char* value = std::getenv(arguments.at(0).c_str());
    std::printf("%s", value != nullptr ? value : "(none)");
    return 0;
}

NV_TEST_CHILD(throwsException)
{
    throw std::runtime_error("as asked");
}

NV_TEST_CHILD(sleepsLong)
{
    Sleep(30000);
    return 0;
}

NV_TEST_CHILD(printsMuch)
{
    std::printf("%s", std::string(300000, 'x').c_str());
    return 0;
}

TEST(Child, GetsItsArgumentsUnchanged)
{
    const ChildResult result =
        runChild("printsArguments", {.arguments = {"a b", "", "\"q\"", "c:\\d\\", "e\\\"f"}});
    EXPECT_EQ("<a b><><\"q\"><c:\\d\\><e\\\"f>", result.output);
    EXPECT_EQ(5U, result.exitCode);
    EXPECT_FALSE(result.timedOut);
}

TEST(Child, GetsTheChangedEnvironment)
{
    EXPECT_EQ("value", runChild("printsVariable",
                                {.arguments = {"KW_TEST"}, .environment = {{L"kw_test", L"value"}}})
                           .output);
    EXPECT_EQ("(none)", runChild("printsVariable", {.arguments = {"KW_TEST"}}).output);
    EXPECT_EQ("(none)", runChild("printsVariable", {.arguments = {"USERPROFILE"},
                                                    .environment = {{L"USERPROFILE", {}}}})
                            .output);
}

TEST(Child, ReportsUnknownWorkAndExceptions)
{
    EXPECT_EQ(125U, runChild("nobody").exitCode);
    const ChildResult result = runChild("throwsException");
    EXPECT_EQ(126U, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("as asked"));
}

TEST(Child, IsEndedAfterItsTime)
{
    const ChildResult result = runChild("sleepsLong", {.timeout = std::chrono::milliseconds(500)});
    EXPECT_TRUE(result.timedOut);
}

TEST(Child, MayPrintMoreThanAPipeHolds)
{
    EXPECT_EQ(std::string(300000, 'x'), runChild("printsMuch").output);
}

TEST(Child, AProgramThatIsNotThereIsAnError)
{
    EXPECT_THROW(runProgram(programFolder() / "no such program.exe"), std::system_error);
}

TEST(Profiles, SetTheVariableWhileTheyLive)
{
    const char* before = std::getenv("USERPROFILE");
    ASSERT_NE(nullptr, before);
    const std::string previous = before;
    std::filesystem::path path;
    {
        const Profile profile;
        path = profile.path();
        EXPECT_EQ(profile.narrow(), std::getenv("USERPROFILE"));
        EXPECT_EQ(profile.narrow(),
                  runChild("printsVariable", {.arguments = {"USERPROFILE"}}).output);
    }
    EXPECT_EQ(previous, std::getenv("USERPROFILE"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Profiles, MayHaveANameOutsideAscii)
{
    const Profile profile(L"Zo\u00EB");
    EXPECT_TRUE(profile.narrow().ends_with("\\Zo\xEB"));
    EXPECT_EQ(profile.narrow(), std::getenv("USERPROFILE"));
    EXPECT_EQ(profile.narrow(), runChild("printsVariable", {.arguments = {"USERPROFILE"}}).output);
}

TEST(Profiles, HoldTheConfigurationAndTheLog)
{
    const Profile profile;
    profile.writeConfigFor("C:\\token.dll");
    EXPECT_EQ("logLevel=TRACE\nlogTypes=FILE\nlogStore=~\\.norvanta-keywarden\\logs\n"
              "logRotate=7\np11File=C:\\token.dll\n",
              readFile(profile.path() / ".norvanta-keywarden" / "nvksprovider.conf"));
    EXPECT_TRUE(profile.log().empty());
    writeFile(profile.logDirectory() / "nvksprovider-20260304.log",
              "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] x\r\n");
    EXPECT_EQ("TRC x\n", render(profile.log()));
}

TEST(Captures, BeginEmptyAndPutTheSettingsBack)
{
    const std::string store = loggerSettings().store;
    const uint32_t count = loggerRecordCount();
    {
        LogCapture capture;
        capture.setTime(2026, 3, 4);
        TRC("a");
        EXPECT_EQ("TRC a\n", render(capture.takeLines()));
        EXPECT_EQ("", render(capture.takeLines()));
        TRC("b");
        EXPECT_EQ("TRC b\n", render(capture.takeLines()));
    }
    EXPECT_EQ(store, loggerSettings().store);
    EXPECT_EQ(count, loggerRecordCount());
    EXPECT_EQ(&std::chrono::system_clock::now, loggerSettings().now);
}

}  // namespace

}  // namespace NV::test
