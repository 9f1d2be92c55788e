// Which thread ends the process.

#include "base/process_end.h"

#include <windows.h>

#include <atomic>

namespace NV {

namespace {

std::atomic<DWORD> endingThread{0};  // an identifier of a thread is never 0

}  // namespace

bool beginProcessEnd()
{
    const DWORD self = GetCurrentThreadId();
    DWORD ending = 0;
    return endingThread.compare_exchange_strong(ending, self) || ending == self;
}

void finishProcessEnd()
{
    endingThread = GetCurrentThreadId();
}

bool processEnds()
{
    return endingThread != 0;
}

bool processEndsOnThisThread()
{
    return endingThread == GetCurrentThreadId();
}

}  // namespace NV
