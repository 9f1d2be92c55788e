// What happens when an exception of the processor ends this program, for example in a vendor's library.

#pragma once

#include <filesystem>

namespace NV::tool {

struct Crash {
    unsigned long code;            // of the exception: 0xC0000005
    std::filesystem::path module;  // the DLL or program in whose code it was; empty if not known
};

// Calls the function when an exception that nobody handles is about to end the process, and then ends the
// process with exit code 1, without the dialog of the system. If the function crashes, too, a constant line on
// standard error says so. A crash of another thread meanwhile waits. Also reserves stack of this
// thread for the function. Replaces an earlier function.
// Call it again after a library was loaded that handles signals: it comes before such a handler.
void onCrash(void (*report)(const Crash& crash));

}  // namespace NV::tool
