// The lines that the child process of "keywarden check" sends to its parent: one JSON document each.

#pragma once

#include <string>

#include "check/check.h"
#include "output.h"

namespace NV::tool {

// "ok", "warning", "failed" or "skipped".
const char* nameOf(Outcome outcome);

// A step as "keywarden check --json" shows it.
Json toJson(const Step& step);

// Each gives a line that ends in a line feed.
std::string beginMessage(const std::string& step);
std::string callMessage(const std::string& function);
std::string waitMessage(bool forUser);
std::string endMessage(const Step& step);
// An exception ended the process. The module's path is empty if it is not known.
std::string crashMessage(unsigned long code, const std::string& module);
std::string doneMessage();

// What a message without a listener says.
struct Farewell {
    bool done = false;
    unsigned long crashCode = 0;  // 0: no crash
    std::string crashModule;
};

// Passes the message on. Damaged lines are ignored: the child's process is not to be trusted any more
// after a crash.
void readMessage(const std::string& line, Progress& progress, Farewell& farewell);

}  // namespace NV::tool
