// The signal handlers that the module installs while it is loaded.

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "attach_child.h"
#include "folder.h"
#include "profile.h"
#include "provider_module.h"

namespace NV::test {

namespace {

using Handler = void (*)(int);

// MinGW-w64 takes the classic numbers for granted; the module's users know them from their logs.
static_assert(SIGINT == 2 && SIGABRT == 22 && SIGSEGV == 11 && SIGILL == 4 && SIGTERM == 15);

constexpr int handledSignals[] = {SIGINT, SIGABRT, SIGSEGV, SIGILL, SIGTERM};

void setHandler(int signal, Handler handler)
{
    ASSERT_NE(std::signal(signal, handler), SIG_ERR);
}

Handler currentHandler(int signal)
{
    const Handler handler = std::signal(signal, SIG_DFL);
    setHandler(signal, handler);
    return handler;
}

void firstHandler(int) {}
void secondHandler(int) {}

// Whether the module's handlers were in place when the first exception was thrown: they are
// installed before anything that can fail.
bool installedAtTheThrow = false;

LONG CALLBACK lookAtHandlers(EXCEPTION_POINTERS*)
{
    static bool first = true;
    if (first) {
        installedAtTheThrow = std::ranges::none_of(
            handledSignals, [](int signal) { return currentHandler(signal) == &firstHandler; });
    }
    first = false;
    return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

// Loads the module and raises the signal whose number is given; does not come back.
NV_TEST_CHILD(raiseSignal)
{
    const ProviderModule module;
    std::raise(std::stoi(arguments.at(0)));
    std::cout << "came back" << std::endl;
    return 99;
}

// The same with a log that no longer works by then.
NV_TEST_CHILD(raiseSignalWithABrokenLog)
{
    const ProviderModule module;
    const std::filesystem::path profile = std::getenv("USERPROFILE");
    std::filesystem::remove_all(profile / "logs");
    writeFile(profile / "logs", "in the way");
    std::raise(std::stoi(arguments.at(0)));
    return 99;
}

// Writes, for each signal: whether the module's handler is in place while it is loaded, and whose
// handler is there afterwards. SIGILL's is replaced in between.
NV_TEST_CHILD(watchHandlers)
{
    for (const int signal : handledSignals)
        setHandler(signal, &firstHandler);
    auto module = std::make_unique<ProviderModule>();
    const auto isStrange = [](Handler handler) {
        return handler != &firstHandler && handler != SIG_DFL && handler != SIG_IGN;
    };
    bool installed = true;
    for (const int signal : handledSignals)
        installed = installed && isStrange(currentHandler(signal));
    std::cout << "installed " << installed << std::endl;

    setHandler(SIGILL, &secondHandler);
    module.reset();
    for (const int signal : handledSignals) {
        const Handler handler = currentHandler(signal);
        std::cout << signal << " "
                  << (handler == &firstHandler    ? "first"
                      : handler == &secondHandler ? "second"
                                                  : "another")
                  << std::endl;
    }
    return 0;
}

// For a load that fails: whether the handlers were in place meanwhile, and are back afterwards.
NV_TEST_CHILD(watchHandlersOfAFailedLoad)
{
    for (const int signal : handledSignals)
        setHandler(signal, &firstHandler);
    AddVectoredExceptionHandler(1, &lookAtHandlers);
    try {
        const ProviderModule module;
        std::cout << "loaded" << std::endl;
    } catch (const std::exception&) {
        std::cout << "installed " << installedAtTheThrow << ", back ";
        for (const int signal : handledSignals)
            std::cout << (currentHandler(signal) == &firstHandler);
    }
    return 0;
}

namespace {

std::string linesOf(const ChildResult& result)
{
    std::string text = result.output;
    std::erase(text, '\r');
    return text;
}

class Signal : public testing::TestWithParam<int> {
protected:
    ChildResult raise(const char* types, const char* level = "SEVERE")
    {
        profile_.writeConfig(std::string("logLevel=") + level + "\nlogTypes=" + types +
                             "\nlogStore=~\\.norvanta-keywarden\\logs\nlogRotate=7\n");
        return runChild("raiseSignal", {.arguments = {std::to_string(GetParam())}});
    }

    std::string number() const { return std::to_string(GetParam()); }

    Profile profile_;
};

TEST_P(Signal, EndsTheProcessWithItsNumber)
{
    const ChildResult result = raise("FILE");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, static_cast<unsigned long>(GetParam()));
    EXPECT_EQ(linesOf(result), "Caught signal " + number() + "\n");
    expectBlock(withoutBanner(profile_.log()), "TRC DllMain:Received : DLL_PROCESS_ATTACH\n"
                                               "SEV SignalHandler:Caught Signal: " +
                                                   number() +
                                                   " , Terminate Process\n"
                                                   "TRC DllMain:Received : DLL_PROCESS_DETACH");
}

INSTANTIATE_TEST_SUITE_P(Numbers, Signal, testing::ValuesIn(handledSignals));

using SignalOutput = Signal;

TEST_P(SignalOutput, IsPrintedBeforeItIsLogged)
{
    const std::string output = linesOf(raise("CONSOLE", "TRACE"));
    const size_t told = output.find("Caught signal " + number() + "\n");
    const size_t logged = output.find("Caught Signal: " + number() + " , Terminate Process\n");
    ASSERT_NE(told, std::string::npos) << output;
    ASSERT_NE(logged, std::string::npos) << output;
    EXPECT_LT(told, logged);
}

TEST_P(SignalOutput, IsPrintedWithoutAnyLog)
{
    const ChildResult result = raise("");
    EXPECT_EQ(linesOf(result), "Caught signal " + number() + "\n");
    EXPECT_EQ(result.exitCode, static_cast<unsigned long>(GetParam()));
}

TEST_P(SignalOutput, EndsTheProcessWithItsNumberEvenWhenTheLogIsBroken)
{
    profile_.writeConfig("logTypes=FILE\nlogStore=~\\logs\nlogRotate=7\n");
    const ChildResult result = runChild("raiseSignalWithABrokenLog", {.arguments = {number()}});
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, static_cast<unsigned long>(GetParam()));
    EXPECT_EQ(linesOf(result), "Caught signal " + number() + "\n");
}

INSTANTIATE_TEST_SUITE_P(Numbers, SignalOutput, testing::Values(SIGTERM));

TEST(SignalHandlers, ArePutBackWhereTheyAreStillTheModules)
{
    const Profile profile;
    profile.writeConfig("logRotate=7\n");
    const ChildResult result = runChild("watchHandlers");
    EXPECT_EQ(linesOf(result), "installed 1\n2 first\n22 first\n11 first\n4 second\n15 first\n");
    EXPECT_EQ(result.exitCode, 0u);
}

TEST(SignalHandlers, ArePutBackAfterAFailedLoad)
{
    const Profile profile;
    profile.writeConfig("logRotate=\n");
    EXPECT_EQ(linesOf(runChild("watchHandlersOfAFailedLoad")), "installed 1, back 11111");
}

}  // namespace

}  // namespace NV::test
