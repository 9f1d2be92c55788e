// A call that crashes inside the module: the process ends at once with the signal's number, whatever
// the program's exit code still does with the provider whose locks the call has taken with it, and
// whatever happens on other threads meanwhile.

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

#include "child.h"
#include "folder.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

namespace {

// What a program keeps for its whole life. The signal handler ends the process by exit, which
// destroys this, and so frees key and provider.
struct Kept {
    Kept()
    {
        const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"p256.der");
        token.addCertificate(Bytes{0x02, 0x56}, Bytes(der.begin(), der.end()));
        token.addEcKeyPair({0x02, 0x56}, 32);
        module = std::make_unique<ProviderModule>();
        provider = std::make_unique<OpenedProvider>(*module);
        openKey();
    }
    void openKey() { key = provider->openKey(L"0256"); }
    ~Kept()
    {
        if (atTheEnd != nullptr)
            atTheEnd();
        const auto show = [](const char* what, SECURITY_STATUS status) {
            std::cout << what << " 0x" << std::hex << static_cast<unsigned>(status) << std::endl;
        };
        NCRYPT_PROV_HANDLE opened = 0;
        show("opening", table().OpenProvider(&opened, L"Norvanta", 0));
        show("freeing the key", table().FreeKey(handle(), key));
        show("freeing the provider", table().FreeProvider(handle()));
        // Done; what the member's destructor says to a test in this process does not matter.
        static_cast<void>(provider.release());
    }
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table() const { return *module->operator->(); }
    NCRYPT_PROV_HANDLE handle() const { return provider->handle(); }

    ScriptedToken token;
    std::unique_ptr<ProviderModule> module;
    std::unique_ptr<OpenedProvider> provider;
    NCRYPT_KEY_HANDLE key = 0;
    // Comes first in the program's exit code.
    void (*atTheEnd)() = nullptr;
};

std::unique_ptr<Kept> kept;

// An aligned address that is not mapped.
template <typename T>
T* nowhere()
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<T*>(ULONG_PTR{0x7390});
}

void crashOutside()
{
    *nowhere<volatile int>() = 1;
}

void crashInOpening()
{
    kept->table().OpenProvider(nowhere<NCRYPT_PROV_HANDLE>(), L"Norvanta", 0);
}

void crashInTheProvider()
{
    kept->table().GetProviderProperty(kept->handle(), L"Name", nowhere<BYTE>(), 500,
                                      nowhere<DWORD>(), 0);
}

void crashInTheKeyStore()
{
    NCRYPT_KEY_HANDLE imported = 0;
    kept->table().ImportKey(kept->handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &imported,
                            nowhere<BYTE>(), 72, 0);
}

void crashInTheToken()
{
    kept->table().VerifySignature(kept->handle(), kept->key, nullptr, nowhere<BYTE>(), 32,
                                  nowhere<BYTE>(), 64, 0);
}

// The call hangs on another thread, as it does while the PIN dialog is open; the signal comes on
// this one, as Ctrl-C does.
void interruptedOnAnotherThread()
{
    kept->token.delay("C_Verify", std::chrono::minutes(2));
    std::thread([] {
        BYTE bytes[64] = {};
        kept->table().VerifySignature(kept->handle(), kept->key, nullptr, bytes, 32, bytes, 64, 0);
    }).detach();
    while (kept->token.calls("C_Verify").empty())
        std::this_thread::yield();
    std::raise(SIGINT);
}

// Lets another thread come to its end, and gives it time for whatever it does then.
void onAnotherThread(void (*end)())
{
    std::atomic<bool> begun = false;
    std::thread([&begun, end] {
        begun = true;
        end();
    }).detach();
    while (!begun)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

void crashOnTwoThreads()
{
    kept->atTheEnd = [] { onAnotherThread(crashOutside); };
    crashInTheProvider();
}

void crashOnTwoThreadsInDifferentWays()
{
    kept->atTheEnd = [] { onAnotherThread([] { std::raise(SIGABRT); }); };
    crashInTheProvider();
}

void crashOnThreeThreads()
{
    kept->atTheEnd = [] {
        onAnotherThread(crashInTheToken);
        onAnotherThread(crashOutside);
    };
    crashInTheKeyStore();
}

// Places of the end, each with other locks taken.
struct Case {
    const char* name;
    void (*end)();
    int signal;
};

std::ostream& operator<<(std::ostream& out, const Case& row)
{
    return out << row.name;
}

const Case cases[] = {
    {"Outside", crashOutside, SIGSEGV},
    {"InOpening", crashInOpening, SIGSEGV},
    {"InTheProvider", crashInTheProvider, SIGSEGV},
    {"InTheKeyStore", crashInTheKeyStore, SIGSEGV},
    {"InTheToken", crashInTheToken, SIGSEGV},
    {"OnAnotherThread", interruptedOnAnotherThread, SIGINT},
    {"OnTwoThreads", crashOnTwoThreads, SIGSEGV},
    {"OnTwoThreadsInDifferentWays", crashOnTwoThreadsInDifferentWays, SIGSEGV},
    {"OnThreeThreads", crashOnThreeThreads, SIGSEGV},
};

}  // namespace

NV_TEST_CHILD(crashInACall)
{
    kept = std::make_unique<Kept>();
    for (const Case& row : cases) {
        if (row.name == arguments.at(0))
            row.end();
    }
    std::cout << "came back" << std::endl;
    return 99;
}

namespace {

class Crash : public testing::TestWithParam<Case> {};

TEST_P(Crash, EndsTheProcessAtOnceWithItsSignal)
{
    const Profile profile;
    profile.writeConfigFor(ScriptedToken::widePath());
    const ChildResult result = runChild(
        "crashInACall", {.arguments = {GetParam().name}, .timeout = std::chrono::seconds(30)});
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, static_cast<unsigned long>(GetParam().signal));
    std::string output = result.output;
    std::erase(output, '\r');
    EXPECT_EQ(output, "Caught signal " + std::to_string(GetParam().signal) +
                          "\nopening 0x8009002d\nfreeing the key 0x80090026\n"
                          "freeing the provider 0x0\n");
    // The provider is still destroyed, together with the others that were not freed.
    const LogLines lines = profile.log();
    EXPECT_EQ(countLines(lines, "SEV SignalHandler:Caught Signal: " +
                                    std::to_string(GetParam().signal) + " , Terminate Process"),
              1u);
    EXPECT_EQ(countLines(lines, "TRC NV::Provider::~Provider:LEAVE"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Places, Crash, testing::ValuesIn(cases),
                         [](const auto& row) { return row.param.name; });

}  // namespace

}  // namespace NV::test
