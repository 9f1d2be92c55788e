// The module's attach and detach handler, its signal handler, and the application of the
// configuration.

#include <windows.h>

#include <commctrl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "config/config.h"
#include "config/config_apply.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"

namespace {

using Handler = void (*)(int);

constexpr int handledSignals[] = {SIGINT, SIGABRT, SIGSEGV, SIGILL, SIGTERM};
Handler previousHandlers[std::size(handledSignals)];

bool attached = false;

// The handler's name in the log, for what it does through the functions here.
constexpr NV::Site dllMain = NV::makeSite("DllMain", __FILE__, __LINE__);

// The switch that DisableThreadLibraryCalls turns off has no effect on a module with thread-local
// storage, so that the lines are kept away here.
bool threadNotifications = true;

}  // namespace

// Ends the process with the signal's number, whatever the log says to it and whichever call of the
// module the signal came in: the program's exit code may still come back here with its handles.
extern "C" void SignalHandler(int signal)
{
    static constexpr NV::Site here = NV_HERE;
    NV::stopWaitingForLogger();
    NV::endProvidersOnThisThread();
    std::printf("Caught signal %d\n", signal);
    static_cast<void>(std::fflush(stdout));
    NV::quietly([signal] { NV_AT(SEV, here, "Caught Signal: %d , Terminate Process", signal); });
    std::exit(signal);
}

namespace {

void installSignalHandlers()
{
    for (size_t i = 0; i < std::size(handledSignals); ++i)
        previousHandlers[i] = std::signal(handledSignals[i], SignalHandler);
}

// Where they are still ours: after the module is unloaded nothing may jump into it.
void restoreSignalHandlers()
{
    for (size_t i = 0; i < std::size(handledSignals); ++i) {
        const Handler current = std::signal(handledSignals[i], previousHandlers[i]);
        if (current != SignalHandler)
            static_cast<void>(std::signal(handledSignals[i], current));
    }
}

std::string userProfile()
{
    const char* profile = std::getenv("USERPROFILE");
    return profile != nullptr ? profile : "";
}

void applyConfiguration(HINSTANCE instance)
{
    const std::string profile = userProfile();
    NV::Config& config = NV::Config::instance();
    config.load(profile + "\\.norvanta-keywarden\\nvksprovider.conf");
    config.setModuleInstance(instance);
    NV::applyLogSettings(config, profile, NV::loggerSettings());
}

void attach(HINSTANCE instance)
{
    installSignalHandlers();
    InitCommonControls();
    applyConfiguration(instance);
    DisableThreadLibraryCalls(instance);
    threadNotifications = false;
}

// The error that ended the attach, kept to be thrown again.
std::filesystem::filesystem_error* filesystemError = nullptr;
std::invalid_argument* invalidArgument = nullptr;
std::out_of_range* outOfRange = nullptr;
std::runtime_error* runtimeError = nullptr;

bool keepError()
{
    try {
        throw;
    } catch (const std::filesystem::filesystem_error& error) {
        filesystemError = std::make_unique<std::filesystem::filesystem_error>(error).release();
    } catch (const std::invalid_argument& error) {
        invalidArgument = std::make_unique<std::invalid_argument>(error).release();
    } catch (const std::out_of_range& error) {
        outOfRange = std::make_unique<std::out_of_range>(error).release();
    } catch (const std::exception& error) {
        runtimeError = std::make_unique<std::runtime_error>(error.what()).release();
    }
    return false;
}

// The loader reports an exception that leaves the handler as a failed load, but hangs when it
// passes a frame that has something to destroy. So the work throws in here, and the handler throws
// the same error again out of a frame that has nothing.
bool attachWithoutThrowing(HINSTANCE instance)
{
    try {
        attach(instance);
        NV_AS(TRC, dllMain, "Received : DLL_PROCESS_ATTACH");
        attached = true;
        return true;
    } catch (...) {
        // The module is about to be unloaded.
        restoreSignalHandlers();
        return keepError();
    }
}

void detach()
{
    NV::stopWaitingForLogger();
    NV::quietly([] { NV_AS(TRC, dllMain, "Received : DLL_PROCESS_DETACH"); });
    NV::quietly([] { NV::ProviderManager::instance().clear(); });
    restoreSignalHandlers();
}

void logThreadNotification(const char* name)
{
    if (attached && threadNotifications)
        NV_AS(TRC, dllMain, "Received : %s", name);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE hinstDLL, DWORD fdwReason, LPVOID)
{
    switch (fdwReason) {
    case DLL_PROCESS_ATTACH:
        if (!attachWithoutThrowing(hinstDLL)) {
            if (filesystemError != nullptr)
                throw *filesystemError;
            if (invalidArgument != nullptr)
                throw *invalidArgument;
            if (outOfRange != nullptr)
                throw *outOfRange;
            throw *runtimeError;
        }
        break;
    case DLL_THREAD_ATTACH:
        logThreadNotification("DLL_THREAD_ATTACH");
        break;
    case DLL_THREAD_DETACH:
        logThreadNotification("DLL_THREAD_DETACH");
        break;
    case DLL_PROCESS_DETACH:
        // After a failed attach there is nothing to end, and no log.
        if (attached)
            detach();
        break;
    default:
        break;
    }
    return TRUE;
}
