// The question before a command does what cannot be undone, or writes what leaves the machine.

#pragma once

#include <string>

namespace NV::tool {

struct Session;

// Asks the question on the terminal. True for "yes" and "y" in either case; false for any other answer,
// and when there is none.
bool confirmed(const Session& session, const std::string& question);

// Throws Failure with --json, which does not ask: `answered` says whether options have answered already.
void requireAnswered(const Session& session, bool answered, const std::string& advice);

}  // namespace NV::tool
