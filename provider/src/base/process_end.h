// The end of the process, as the module knows it: from the first fatal signal, or from the process
// detach. The attach handler says so; whoever might wait for another thread asks.

#pragma once

namespace NV {

// For the signal handler: the process ends on the calling thread. The first thread stays the ending
// one. Returns whether that is the calling thread. Takes no lock and no memory.
bool beginProcessEnd();

// For the process detach: the calling thread is the only one that is left, whichever thread was the
// ending one before.
void finishProcessEnd();

// Whether the process is ending. Other threads may still run, or may be gone with the locks that
// they held.
bool processEnds();

// Whether the calling thread ends the process. It may itself hold any lock, in a call that never
// returns, and so must not wait for one.
bool processEndsOnThisThread();

}  // namespace NV
