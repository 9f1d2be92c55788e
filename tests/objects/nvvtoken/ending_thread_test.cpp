// A thread that ends the process, and a record that would have to wait at the end of the process.

#include <chrono>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include "base/process_end.h"
#include "child.h"
#include "log_capture.h"
#include "logger/trace.h"
#include "provider_fixture.h"

namespace NV::test {

// In a process of its own, because a process has one ending thread for as long as it lives.
NV_TEST_CHILD(endsOnAnotherThread)
{
    ScriptedToken token;
    LogCapture capture;
    ProviderManager& manager = ProviderManager::instance();
    NCRYPT_PROV_HANDLE handle = 0;
    const auto tell = [](const char* what, long number) {
        std::cout << what << ' ' << std::hex << static_cast<unsigned>(number) << "; ";
    };
    {
        const TemporaryFolder folder;
        const std::filesystem::path file = folder.path() / "provider.conf";
        writeFile(file, "p11File=" + ScriptedToken::path() + "\n");
        Config::instance().load(narrowPath(file));
    }
    tell("open", manager.OpenProvider(&handle, L"name", 0));
    std::thread([&] {
        beginProcessEnd();
        NCRYPT_PROV_HANDLE other = 0;
        tell("there: open", manager.OpenProvider(&other, L"name", 0));
        tell("there: opened", other != 0);
        tell("there: found", manager.find(handle) != nullptr);
        tell("there: free", manager.FreeProvider(handle));
    }).join();
    tell("found", manager.find(handle) != nullptr);
    tell("free", manager.FreeProvider(handle));
    return 0;
}

TEST(EndingThread, FindsNoProviderAndOpensNoneWhileOthersDo)
{
    const ChildResult result = runChild("endsOnAnotherThread");
    EXPECT_EQ(0U, result.exitCode);
    EXPECT_EQ("open 0; there: open 8009002d; there: opened 0; there: found 0; there: free 0; "
              "found 1; free 0; ",
              result.output);
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
    // Of this thread, which is not the one that writes.
    beginProcessEnd();
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
