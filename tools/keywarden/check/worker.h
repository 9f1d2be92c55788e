// The child process in which the steps run that load the vendor's library: a library that hangs, crashes
// or ends the process takes only the child with it.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "check/check.h"

namespace NV::tool {

// The hidden command of the child.
inline constexpr const char* workerCommand = "check-steps";

// What the child is to do; also its command line.
struct WorkerTask {
    bool logFolder = false;
    bool library = false;
    bool sign = false;        // with the library's steps
    std::string tested = {};  // instead of the above: only whether this library loads and answers
};

// How the child ended.
struct WorkerEnd {
    enum class Kind { done, hung, crashed, exited };
    Kind kind = Kind::done;
    std::string step = {};    // the step that did not end; empty if none was under way
    std::string call = {};    // the latest call in it; empty if there was none
    std::string module = {};  // crashed: the path of the DLL or program; empty if it is not known
    unsigned long code = 0;   // of the crash or of the exit
    std::string output = {};  // what the child wrote to its standard output; cut if it is long
};

// Starts a second process of this program, reports its steps, and returns when it has ended or was
// ended because one call took longer than the limit. Throws Failure if it cannot be started.
WorkerEnd runWorker(const WorkerTask& task, std::chrono::milliseconds limit, Progress& progress);

// The failed step for an end of another kind than done.
Step failedStep(const WorkerEnd& end, std::chrono::milliseconds limit);

// The work of the child. `results` is the number of the handle to which it writes its messages.
void work(const WorkerTask& task, unsigned long long results);

}  // namespace NV::tool
