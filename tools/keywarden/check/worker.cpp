// The child's side: the steps, and their messages.

#include "check/worker.h"

#include <windows.h>

#include <exception>
#include <string>

#include "check/step_message.h"
#include "config/mode.h"
#include "system/crash.h"
#include "text.h"

namespace NV::tool {

namespace {

void send(HANDLE pipe, const std::string& message)
{
    DWORD written = 0;
    WriteFile(pipe, message.data(), static_cast<DWORD>(message.size()), &written, nullptr);
}

class Sender : public Progress {
public:
    explicit Sender(HANDLE pipe) : pipe_(pipe) {}

    void begun(const std::string& step) override
    {
        step_ = step;
        send(pipe_, beginMessage(step));
    }
    void calls(const std::string& function) override { send(pipe_, callMessage(function)); }
    void waits(bool forUser) override { send(pipe_, waitMessage(forUser)); }
    void ended(const Step& step) override
    {
        if (step.name == step_)
            step_.clear();
        send(pipe_, endMessage(step));
    }

    // The step under way, or the first one that uses the library.
    std::string failingStep() const { return step_.empty() ? "library-loads" : step_; }

private:
    HANDLE pipe_;
    std::string step_;
};

// The configuration sets the behaviour, the library and the log folder. The parent has reported it.
void configure(Findings& findings)
{
    Findings read;
    checkConfiguration(read);
    findings.configurationRead = read.configurationRead;
    findings.logFolder = read.logFolder;
    findings.library = read.library;
}

void runSteps(const WorkerTask& task, Sender& sender)
{
    Findings findings;
    findings.progress = &sender;
    if (!task.tested.empty()) {
        // "keywarden init" writes modern files.
        setMode(Mode(Behaviour::modern));
        findings.library = task.tested;
        checkLibrary(findings);
        checkAnswer(findings);
        checkUnloading(findings);
        findings.flush();
        return;
    }
    configure(findings);
    if (task.logFolder)
        checkLogFolder(findings);
    if (task.library) {
        checkLibrary(findings);
        checkTokens(findings);
        checkCertificates(findings);
        if (task.sign)
            checkSigning(findings);
        checkUnloading(findings);
    }
    findings.flush();
}

HANDLE resultsPipe = nullptr;

void reportCrash(const Crash& crash)
{
    send(resultsPipe, crashMessage(crash.code, toUtf8(crash.module)));
}

}  // namespace

void work(const WorkerTask& task, unsigned long long results)
{
    resultsPipe = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(results));
    // A service that the library starts must not keep the pipe open.
    SetHandleInformation(resultsPipe, HANDLE_FLAG_INHERIT, 0);
    // No box that waits for a click.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    onCrash(reportCrash);
    Sender sender(resultsPipe);
    const auto failed = [&](const std::string& reason) {
        sender.ended({sender.failingStep(),
                      Outcome::failed,
                      "the step was not completed: " + reason,
                      "See the library's log. If it has no reason, please report this.",
                      {}});
    };
    try {
        runSteps(task, sender);
    } catch (const std::exception& error) {
        failed(error.what());
    } catch (...) {
        failed("an exception of the library");
    }
    send(resultsPipe, doneMessage());
}

}  // namespace NV::tool
