// The parent's side: starts the child, reads its messages, and ends it if it does not come back.

#include <windows.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "check/step_message.h"
#include "check/worker.h"
#include "failure.h"
#include "system/child_pipe.h"
#include "system/library_fault.h"
#include "system/program.h"
#include "text.h"

namespace NV::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD pollingMilliseconds = 5;
// Of what the library writes to standard output.
constexpr size_t keptOutput = 400;

[[noreturn]] void refuse(const char* what)
{
    throw Failure(std::string("the steps cannot be run in a process of their own: ") + what + ": " +
                  errorText(GetLastError()));
}

// One argument as the C runtime reads it back.
std::wstring quoted(const std::wstring& argument)
{
    std::wstring text = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'"')
            text.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        text += c;
    }
    return text.append(backslashes, L'\\') + L"\"";
}

std::wstring commandLine(const WorkerTask& task, HANDLE results)
{
    std::wstring line = quoted(ownProgram().wstring()) + L" " + fromUtf8(workerCommand) + L" " +
                        std::to_wstring(reinterpret_cast<uintptr_t>(results));
    if (task.logFolder)
        line += L" --log-folder";
    if (task.library)
        line += L" --library";
    if (task.sign)
        line += L" --sign";
    if (!task.tested.empty())
        line += L" --test " + quoted(fromUtf8(task.tested));
    return line;
}

// The handles that a child inherits, and no others: another thread's pipe would stay open in the child.
class InheritedHandles {
public:
    explicit InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles))
    {
        // A handle must not be listed twice, and none may be null.
        std::erase_if(handles_, [](HANDLE handle) {
            return handle == nullptr || handle == INVALID_HANDLE_VALUE;
        });
        std::ranges::sort(handles_);
        handles_.erase(std::unique(handles_.begin(), handles_.end()), handles_.end());
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        memory_.resize(size);
        if (!InitializeProcThreadAttributeList(get(), 1, 0, &size) ||
            !UpdateProcThreadAttribute(get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                       handles_.size() * sizeof(HANDLE), nullptr, nullptr))
            refuse("UpdateProcThreadAttribute");
    }
    ~InheritedHandles() { DeleteProcThreadAttributeList(get()); }
    InheritedHandles(const InheritedHandles&) = delete;
    InheritedHandles& operator=(const InheritedHandles&) = delete;

    LPPROC_THREAD_ATTRIBUTE_LIST get()
    {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
    }

private:
    std::vector<HANDLE> handles_;
    std::vector<unsigned char> memory_;
};

// If this program is ended, the child ends with it; a service that the library has started does not.
OwnedHandle makeJob()
{
    OwnedHandle job(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
    SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return job;
}

// The running child. Keeps what it says about the step under way.
class Worker : public Progress {
public:
    Worker(const WorkerTask& task, Progress& progress)
        : progress_(progress), job_(makeJob()), results_(makePipe()), output_(makePipe())
    {
        start(task);
        results_.write.reset();
        output_.write.reset();
    }

    WorkerEnd wait(std::chrono::milliseconds limit)
    {
        lastSign_ = Clock::now();
        bool running = true;
        while (running && !farewell_.done) {
            running = WaitForSingleObject(process_.get(), pollingMilliseconds) == WAIT_TIMEOUT;
            readMessages();
            keepOutput();
            if (running && !waitsForUser_ && Clock::now() - lastSign_ > limit)
                return end(WorkerEnd::Kind::hung);
        }
        // After its last message, the child only ends.
        if (WaitForSingleObject(process_.get(), 2000) == WAIT_TIMEOUT)
            TerminateProcess(process_.get(), 0);
        keepOutput();
        return end(farewell_.done             ? WorkerEnd::Kind::done
                   : farewell_.crashCode != 0 ? WorkerEnd::Kind::crashed
                                              : WorkerEnd::Kind::exited);
    }

    void begun(const std::string& step) override
    {
        step_ = step;
        call_.clear();
        progress_.begun(step);
    }
    void calls(const std::string& function) override
    {
        call_ = function;
        progress_.calls(function);
    }
    void waits(bool forUser) override
    {
        waitsForUser_ = forUser;
        progress_.waits(forUser);
    }
    void ended(const Step& step) override
    {
        if (step.name == step_)
            step_.clear();
        progress_.ended(step);
    }

private:
    void start(const WorkerTask& task)
    {
        const OwnedHandle input = openNull();
        HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
        SetHandleInformation(error, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
        InheritedHandles handles({input.get(), output_.write.get(), error, results_.write.get()});
        STARTUPINFOEXW startup{};
        startup.StartupInfo.cb = sizeof startup;
        startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup.StartupInfo.hStdInput = input.get();
        startup.StartupInfo.hStdOutput = output_.write.get();
        startup.StartupInfo.hStdError = error;
        startup.lpAttributeList = handles.get();
        std::wstring line = commandLine(task, results_.write.get());
        PROCESS_INFORMATION process{};
        if (!CreateProcessW(ownProgram().c_str(), line.data(), nullptr, nullptr, TRUE,
                            EXTENDED_STARTUPINFO_PRESENT | CREATE_SUSPENDED, nullptr, nullptr,
                            &startup.StartupInfo, &process))
            refuse("CreateProcess");
        process_.reset(process.hProcess);
        const OwnedHandle thread(process.hThread);
        AssignProcessToJobObject(job_.get(), process.hProcess);
        ResumeThread(thread.get());
    }

    void readMessages()
    {
        unread_ += readAvailable(results_.read);
        for (size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
            lastSign_ = Clock::now();
            readMessage(unread_.substr(0, end), *this, farewell_);
            unread_.erase(0, end + 1);
        }
    }

    void keepOutput()
    {
        const std::string text = readAvailable(output_.read);
        if (result_.output.size() < keptOutput)
            result_.output += text.substr(0, keptOutput - result_.output.size());
    }

    WorkerEnd end(WorkerEnd::Kind kind)
    {
        result_.kind = kind;
        result_.step = step_;
        result_.call = call_;
        result_.module = farewell_.crashModule;
        result_.code = farewell_.crashCode;
        if (kind == WorkerEnd::Kind::exited) {
            GetExitCodeProcess(process_.get(), &result_.code);
            // An exception whose filter could not run any more.
            if (result_.code >= 0xC0000000)
                result_.kind = WorkerEnd::Kind::crashed;
        }
        if (kind == WorkerEnd::Kind::hung) {
            TerminateProcess(process_.get(), 1);
            WaitForSingleObject(process_.get(), 2000);
        }
        return result_;
    }

    Progress& progress_;
    OwnedHandle job_;
    Pipe results_;
    Pipe output_;
    OwnedHandle process_;
    std::string unread_;
    Farewell farewell_;
    Clock::time_point lastSign_;
    bool waitsForUser_ = false;
    std::string step_;
    std::string call_;
    WorkerEnd result_;
};

std::string placeOf(const WorkerEnd& end)
{
    return end.call.empty() ? "" : " in " + end.call;
}

Step logFolderStep(const WorkerEnd& end, const std::string& seconds)
{
    return {end.step,
            Outcome::failed,
            "the folder did not answer within " + seconds + " s",
            "Every call of the provider waits for it, too. If it is on a network drive, choose a "
            "folder of this computer as logStore.",
            {}};
}

}  // namespace

WorkerEnd runWorker(const WorkerTask& task, std::chrono::milliseconds limit, Progress& progress)
{
    return Worker(task, progress).wait(limit);
}

Step failedStep(const WorkerEnd& end, std::chrono::milliseconds limit)
{
    const std::string seconds =
        std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count());
    if (end.kind == WorkerEnd::Kind::hung && end.step == "log-folder")
        return logFolderStep(end, seconds);
    const std::string step = end.step.empty() ? "library-loads" : end.step;
    const std::filesystem::path module = toPath(end.module);
    switch (end.kind) {
    case WorkerEnd::Kind::hung:
        return {step,
                Outcome::failed,
                hangText(end.call, limit),
                "Programs that use the provider hang in the same way. Start the library's service, "
                "check the reader, and see the library's log. --timeout waits longer.",
                {}};
    case WorkerEnd::Kind::crashed:
        return {step,
                Outcome::failed,
                crashText(end.code, module, placeOf(end)),
                isOurs(module)
                    ? "Please report this."
                    : "Programs that use the provider crash in the same way. Update the library, "
                      "or report this to its vendor.",
                {}};
    default:
        return {step,
                Outcome::failed,
                exitText(placeOf(end)) + " (exit code " + std::to_string(end.code) + ")",
                "Programs that use the provider end in the same way. See the library's log, or "
                "report this to its vendor.",
                {}};
    }
}

}  // namespace NV::tool
