// A thread that ends the process, and a record that would have to wait at the end of the process.

#include <chrono>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include "child.h"
#include "log_capture.h"
#include "logger/trace.h"
#include "provider_fixture.h"

namespace NV::test {

namespace {

using EndingThreadTest = ProviderTest;

}  // namespace

TEST_F(EndingThreadTest, findsNoProviderAndOpensNoneWhileOthersDo)
{
    ProviderManager& manager = ProviderManager::instance();
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(ERROR_SUCCESS, manager.OpenProvider(&handle, L"name", 0));
    std::thread([&] {
        endProvidersOnThisThread();
        NCRYPT_PROV_HANDLE other = 0;
        EXPECT_EQ(NTE_INTERNAL_ERROR, manager.OpenProvider(&other, L"name", 0));
        EXPECT_EQ(0U, other);
        EXPECT_EQ(nullptr, manager.visit(handle).provider());
        EXPECT_EQ(ERROR_SUCCESS, manager.FreeProvider(handle));
    }).join();
    EXPECT_NE(nullptr, manager.visit(handle).provider());
    EXPECT_EQ(ERROR_SUCCESS, manager.FreeProvider(handle));
}

namespace {

std::promise<void> inRecord;
std::promise<void> mayGoOn;

// The clock of a record that is being written, under the logger's lock.
std::chrono::system_clock::time_point waitingClock()
{
    inRecord.set_value();
    mayGoOn.get_future().wait();
    return std::chrono::system_clock::now();
}

}  // namespace

// In a process of its own, because the logger does not wait again.
NV_TEST_CHILD(logsWhileAnotherRecordIsWritten)
{
    LogCapture capture;
    loggerSettings().now = waitingClock;
    std::thread writer([] { NV_TRC("kept"); });
    inRecord.get_future().wait();
    stopWaitingForLogger();
    NV_TRC("dropped");
    mayGoOn.set_value();
    writer.join();
    loggerSettings().now = &std::chrono::system_clock::now;
    NV_TRC("after");
    std::string messages;
    for (const LogLine& line : capture.lines())
        messages += line.message + " ";
    std::cout << messages;
    return 0;
}

TEST(EndingProcess, DropsARecordThatWouldHaveToWait)
{
    const ChildResult result = runChild("logsWhileAnotherRecordIsWritten");
    EXPECT_EQ(0U, result.exitCode);
    EXPECT_EQ("kept after ", result.output);
}

}  // namespace NV::test
