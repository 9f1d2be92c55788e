// Crashes that leave little for the report to work with. The ordinary ones are in library_guard_test.cpp.

#include "system/crash.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <thread>

#include "child.h"

namespace NV::test {

namespace {

void crash()
{
    *reinterpret_cast<volatile int*>(ULONG_PTR{0x7390}) = 1;
}

void print(const char* line)
{
    static_cast<void>(std::fputs(line, stdout));
    static_cast<void>(std::fflush(stdout));
}

NV_TEST_CHILD(crashTwice)
{
    tool::onCrash([](const tool::Crash&) { crash(); });
    crash();
    return 0;
}

NV_TEST_CHILD(crashInTwoThreads)
{
    tool::onCrash([](const tool::Crash&) {
        std::thread(crash).detach();
        Sleep(1000);
        print("reported\n");
    });
    crash();
    return 0;
}

void expectEnd(const char* work, const std::string& output)
{
    ChildResult result = runChild(work);
    std::erase(result.output, '\r');
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_EQ(result.output, output);
}

TEST(Crash, InTheReportOfACrashIsSaid)
{
    expectEnd("crashTwice", "keywarden: a crash, and a second one while it was reported.\n");
}

TEST(Crash, InAnotherThreadDoesNotCutTheReportOff)
{
    expectEnd("crashInTwoThreads", "reported\n");
}

}  // namespace

}  // namespace NV::test
