// The module's attach and detach handler and its signal handler. Attaching applies the
// configuration, which decides the behaviour first.

#include <windows.h>

#include <commctrl.h>
#include <lmcons.h>

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

#include "base/process_end.h"
#include "base/scope_exit.h"
#include "base/text.h"
#include "config/config.h"
#include "config/config_file.h"
#include "config/config_keys.h"
#include "config/config_path.h"
#include "config/mode.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"
#include "version.h"

namespace {

using Handler = void (*)(int);

constexpr int handledSignals[] = {SIGINT, SIGABRT, SIGSEGV, SIGILL, SIGTERM};
Handler previousHandlers[std::size(handledSignals)];

bool signalHandlersInstalled = false;

bool attached = false;

// For the lines that the functions below write under the handler's name.
constexpr NV::Site dllMain = NV::makeSite("DllMain", __FILE__, __LINE__);

// Whether to log thread notifications. DisableThreadLibraryCalls has no effect on a module with
// thread-local storage, so the notifications still arrive after it.
bool threadNotifications = true;

}  // namespace

// Ends the process with the signal's number, even if the log fails or the signal interrupts a call
// of this module. The program's exit code may still call the module with its handles.
//
// The first thread ends the process. A signal on another thread meanwhile must not disturb it: the
// thread cannot go on, and a second exit would replace the first one's exit code.
extern "C" void SignalHandler(int signal)
{
    static constexpr NV::Site here = NV_HERE;
    // The C runtime has removed the handler. Only another thread's signal comes here again, so that a
    // crash in the code that ends the process cannot repeat without end.
    if (!NV::processEndsOnThisThread())
        static_cast<void>(std::signal(signal, SignalHandler));
    while (!NV::beginProcessEnd())
        Sleep(INFINITE);
    std::printf("Caught signal %d\n", signal);
    static_cast<void>(std::fflush(stdout));
    NV::quietly([signal] { NV_UNDER(SEV, here, "Caught Signal: %d , Terminate Process", signal); });
    std::exit(signal);
}

namespace {

void installSignalHandlers()
{
    for (size_t i = 0; i < std::size(handledSignals); ++i)
        previousHandlers[i] = std::signal(handledSignals[i], SignalHandler);
    signalHandlersInstalled = true;
}

// Restores the handlers that are still the module's: after it is unloaded, nothing may call it.
void restoreSignalHandlers()
{
    if (!signalHandlersInstalled)
        return;
    for (size_t i = 0; i < std::size(handledSignals); ++i) {
        const Handler current = std::signal(handledSignals[i], previousHandlers[i]);
        if (current != SignalHandler)
            static_cast<void>(std::signal(handledSignals[i], current));
    }
}

std::filesystem::path fileOf(HINSTANCE module)
{
    std::wstring path(MAX_PATH, L'\0');
    DWORD length = 0;
    while ((length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()))) ==
           path.size())
        path.resize(path.size() * 2);
    path.resize(length);
    return path;
}

void logProblems(const NV::Config& config)
{
    for (const std::string& problem : config.problems())
        NV_UNDER(ERR, dllMain, "%s", problem.c_str());
}

// The file is read first, because it decides what else attaching does. Compat: a classic file that cannot
// be read ends the attach only after the other steps.
void attach(HINSTANCE instance)
{
    const std::string profile = NV::userProfile();
    NV::Config& config = NV::Config::instance();
    const NV::ConfigFile file =
        NV::readConfigFile(NV::configurationFile(profile), fileOf(instance));
    const bool modern = config.loadIfModern(file);
    NV::setMode(config.mode());
    if (NV::mode().handlesSignals())
        installSignalHandlers();
    if (!NV::mode().initializesControlsLate())
        InitCommonControls();
    if (!modern)
        config.loadClassic(file);
    config.setModuleInstance(instance);
    NV::applyLogSettings(config, profile, NV::loggerSettings());
    logProblems(config);
    DisableThreadLibraryCalls(instance);
    threadNotifications = false;
}

// Empty if the system does not tell it.
std::string userName()
{
    wchar_t name[UNLEN + 1];
    DWORD length = static_cast<DWORD>(std::size(name));
    return GetUserNameW(name, &length) != FALSE ? NV::toUtf8(name) : std::string();
}

// Whose the records of this process are.
void introduceProcess()
{
    NV_UNDER(INF, dllMain, "Program=%s, USER=%s, VERSION=%s",
             NV::toUtf8(fileOf(nullptr).native()).c_str(), userName().c_str(), NV_VERSION_TEXT);
}

// The error that ended the attach, for DllMain to throw again.
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

// The loader reports an exception that leaves the handler as a failed load, but hangs if the
// exception passes a frame with objects to destroy. So this function catches the error, and the
// handler throws the same error again from a frame without such objects.
bool attachWithoutThrowing(HINSTANCE instance)
{
    try {
        attach(instance);
        NV_UNDER(TRC, dllMain, "Received : DLL_PROCESS_ATTACH");
        if (NV::mode().introducesProcess())
            introduceProcess();
        attached = true;
        return true;
    } catch (...) {
        // The loader unloads the module after a failed attach.
        restoreSignalHandlers();
        return keepError();
    }
}

void detach()
{
    NV::finishProcessEnd();
    NV::quietly([] { NV_UNDER(TRC, dllMain, "Received : DLL_PROCESS_DETACH"); });
    NV::quietly([] { NV::ProviderManager::instance().clear(); });
    restoreSignalHandlers();
}

void logThreadNotification(const char* name)
{
    if (attached && threadNotifications)
        NV_UNDER(TRC, dllMain, "Received : %s", name);
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
        // After a failed attach there is no provider and no log.
        if (attached)
            detach();
        break;
    default:
        break;
    }
    return TRUE;
}
