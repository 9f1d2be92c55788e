// keywarden as a program, each command against the least that the same calls cost in a program of their
// own: an empty one, one that reads the certificates, one that signs. The token is that of SOFTHSM2_CONF,
// the log is on, and the PIN dialog is answered as soon as it appears. Run by bench/tool.sh.

#include <windows.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "host.h"
#include "profile.h"
#include "results.h"

namespace {

using namespace NV::bench;
using Clock = std::chrono::steady_clock;

constexpr const wchar_t* pin = L"keywarden-pin-4711";

// A running program; its output is discarded.
class Process {
public:
    explicit Process(std::wstring commandLine)
    {
        SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
        HANDLE nowhere =
            CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        &inheritable, OPEN_EXISTING, 0, nullptr);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = startup.hStdOutput = startup.hStdError = nowhere;
        const BOOL started = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0,
                                            nullptr, nullptr, &startup, &information_);
        const auto error = static_cast<int>(GetLastError());
        CloseHandle(nowhere);
        if (!started)
            throw std::system_error(error, std::system_category(), "a program does not start");
        CloseHandle(information_.hThread);
    }
    ~Process() { CloseHandle(information_.hProcess); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    DWORD id() const { return information_.dwProcessId; }

    void expectSuccess() const
    {
        constexpr DWORD longest = 120000;
        DWORD exitCode = 0;
        if (WaitForSingleObject(information_.hProcess, longest) != WAIT_OBJECT_0)
            throw std::runtime_error("a program does not end");
        GetExitCodeProcess(information_.hProcess, &exitCode);
        if (exitCode != 0)
            throw std::runtime_error("a program ends with " + std::to_string(exitCode));
    }

private:
    PROCESS_INFORMATION information_{};
};

// Types the PIN into the dialog of a process.
class DialogAnswer {
public:
    explicit DialogAnswer(DWORD process) : process_(process), thread_([this] { run(); }) {}
    ~DialogAnswer()
    {
        ended_ = true;
        thread_.join();
    }
    DialogAnswer(const DialogAnswer&) = delete;
    DialogAnswer& operator=(const DialogAnswer&) = delete;

private:
    static constexpr int pinField = 1001;

    static BOOL CALLBACK answer(HWND window, LPARAM self)
    {
        auto& object = *reinterpret_cast<DialogAnswer*>(self);
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        HWND field = process == object.process_ ? GetDlgItem(window, pinField) : nullptr;
        if (field == nullptr || !IsWindowVisible(window))
            return TRUE;
        SendMessageW(field, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin));
        PostMessageW(window, WM_COMMAND, IDOK, 0);
        object.ended_ = true;
        return FALSE;
    }

    void run()
    {
        while (!ended_) {
            EnumWindows(answer, reinterpret_cast<LPARAM>(this));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    DWORD process_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

TimedRun timed(const std::wstring& commandLine, bool asksForPin = false)
{
    return [commandLine, asksForPin] {
        const auto start = Clock::now();
        const Process process(commandLine);
        if (asksForPin) {
            const DialogAnswer answer(process.id());
            process.expectSuccess();
        } else {
            process.expectSuccess();
        }
        return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
    };
}

std::wstring quoted(const std::filesystem::path& path)
{
    return L"\"" + path.wstring() + L"\"";
}

struct Row {
    const char* name;
    const char* against;
    TimedRun command;
    TimedRun least;
};

void benchmark(Results& results, const Plan& plan)
{
    const std::filesystem::path library = NV::test::host::winelibPath("p11bridge.dll");
    const NV::test::Profile profile;
    profile.writeModernConfigFor(library);
    const std::filesystem::path file = profile.path() / "document";
    NV::test::writeFile(file, "a document");
    const std::wstring keywarden = quoted(KEYWARDEN) + L" ";
    const std::wstring bare = quoted(BARE_PROGRAM) + L" " + quoted(library) + L" ";
    const std::wstring sign =
        L"sign " + quoted(file) + L" --key 01AB --force -o " + quoted(profile.path() / "result");
    const Row rows[] = {
        {"start", "an empty program", timed(keywarden + L"--version"),
         timed(quoted(EMPTY_PROGRAM))},
        {"check", "a bare open", timed(keywarden + L"check"), timed(bare + L"open")},
        {"keys", "a bare open", timed(keywarden + L"keys"), timed(bare + L"open")},
        {"sign", "a bare signature", timed(keywarden + sign, true), timed(bare + L"sign " + pin)},
    };
    for (const Row& row : rows) {
        const Comparison comparison = compareTimed(row.command, row.least, plan.pairs);
        const Measure measure{"keywarden, 35 certificates, log on", row.name, row.against};
        results.ratio(measure, comparison, report);
        results.added(measure, comparison, report);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
