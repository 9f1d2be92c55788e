// The process ends, in each way that it can, while a call is inside a token that holds a mutex which
// the module made for it. The process's end calls that token's C_Finalize, under the loader's lock.

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <thread>

#include "child.h"
#include "folder.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"
#include "together.h"

namespace NV::test {

namespace {

struct LockingToken : ScriptedToken {
    LockingToken()
    {
        const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"p256.der");
        addCertificate(Bytes{0x02, 0x56}, Bytes(der.begin(), der.end()));
        addEcKeyPair({0x02, 0x56}, 32);
        setHoldsMutex(true);
    }
};

// What the child keeps until its process is gone.
struct Served {
    void verify() const
    {
        BYTE bytes[64] = {};
        module->VerifySignature(provider.handle(), key, nullptr, bytes, 32, bytes, 64, 0);
    }

    LockingToken token;
    ProviderModule module;
    OpenedProvider provider{module};
    NCRYPT_KEY_HANDLE key = provider.openKey(L"0256");
};

// Returns when another thread is inside the token, where it stays as long as the process runs.
void workInside(Served& served)
{
    served.token.delay("C_Verify", std::chrono::minutes(2));
    std::thread([&served] { served.verify(); }).detach();
    while (served.token.calls("C_Verify").empty())
        std::this_thread::yield();
}

// Does not return.
void sleepForever()
{
    Sleep(INFINITE);
}

void endByExit(Served& served)
{
    workInside(served);
    std::exit(71);
}

void endByExitProcess(Served& served)
{
    workInside(served);
    ExitProcess(72);
}

void endAfterAnEndedThread(Served& served)
{
    workInside(served);
    HANDLE worker = OpenThread(THREAD_TERMINATE, FALSE, served.token.callThreads().back());
    if (TerminateThread(worker, 1) == FALSE)
        std::exit(1);
    std::exit(73);
}

void endByAThreadThatCalledExitProcess(Served& served)
{
    workInside(served);
    std::thread([] { ExitProcess(74); }).detach();
    sleepForever();
}

void crashInTheToken(Served& served)
{
    served.token.crashIn("C_Verify");
    served.verify();
}

void crashOnAnotherThread(Served& served)
{
    served.token.crashIn("C_Verify");
    std::thread([&served] { served.verify(); }).detach();
    sleepForever();
}

// Another thread ends the process than the one whose crash has begun to.
void endByExitProcessAfterACrash(Served& served)
{
    static std::atomic<bool> exiting = false;
    static_cast<void>(std::atexit([] {
        exiting = true;
        sleepForever();
    }));
    served.token.crashIn("C_Verify");
    std::thread([&served] { served.verify(); }).detach();
    while (!exiting)
        std::this_thread::yield();
    ExitProcess(75);
}

struct Way {
    const char* name;
    void (*end)(Served&);
    unsigned long exitCode;
};

std::ostream& operator<<(std::ostream& out, const Way& way)
{
    return out << way.name;
}

const Way ways[] = {
    {"ByExit", endByExit, 71},
    {"ByExitProcess", endByExitProcess, 72},
    {"AfterAnEndedThread", endAfterAnEndedThread, 73},
    {"ByExitProcessOfAThread", endByAThreadThatCalledExitProcess, 74},
    {"ByACrash", crashInTheToken, SIGSEGV},
    {"ByACrashOfAThread", crashOnAnotherThread, SIGSEGV},
    {"ByExitProcessAfterACrash", endByExitProcessAfterACrash, 75},
};

}  // namespace

NV_TEST_CHILD(endsInsideTheToken)
{
    // Not destroyed: freeing the provider would be another end.
    auto* const served = new Served;
    for (const Way& way : ways) {
        if (way.name == arguments.at(0))
            way.end(*served);
    }
    return 99;
}

namespace {

class ProcessEnd : public testing::TestWithParam<Way> {};

TEST_P(ProcessEnd, WaitsForNoMutexOfTheToken)
{
    const Profile profile;
    profile.writeConfigFor(ScriptedToken::widePath());
    const int count = rounds(3);
    for (int round = 0; round < count; ++round) {
        const ChildResult result =
            runChild("endsInsideTheToken",
                     {.arguments = {GetParam().name}, .timeout = std::chrono::seconds(10)});
        ASSERT_FALSE(result.timedOut) << "round " << round << ": " << result.output;
        ASSERT_EQ(result.exitCode, GetParam().exitCode) << "round " << round;
    }
    // The token was finalized each time.
    EXPECT_EQ(countLines(profile.log(), "TRC NV::P11Module::clean:Call C_Finalize(): END"),
              static_cast<size_t>(count));
}

INSTANTIATE_TEST_SUITE_P(Ways, ProcessEnd, testing::ValuesIn(ways),
                         [](const auto& row) { return row.param.name; });

}  // namespace

}  // namespace NV::test
