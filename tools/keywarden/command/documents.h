// The JSON documents of commands that a report contains.

#pragma once

#include "output.h"

namespace NV::tool {

struct Session;

// Runs the command, which shows its lines on the session's output, and returns its document.
// Without --sign. Throws Failure.
Json checkDocument(Session& session);
Json statusDocument(Session& session);

}  // namespace NV::tool
