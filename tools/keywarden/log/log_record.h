// A line of the module's log, cut into its fields.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace NV::tool {

struct LogRecord {
    std::string time;          // "2026-03-04 17:05:09.042", local
    int64_t milliseconds = 0;  // the same as a number; only differences mean something
    std::string level;         // "TRC", "DBG", "INF", "WRN", "ERR" or "SEV"
    std::string process;       // decimal, as it stands
    std::string thread;        // 8 hexadecimal digits
    std::string function;      // "NV::Provider::SignHash"; empty in records without a place
    std::string place;         // "nvvtoken_keys.cpp:307"; the same
    std::string message;
};

// Nothing for a line that is not a record: broken, or somebody else's.
std::optional<LogRecord> parseRecord(std::string_view line);

// The message without what must not be shown: agreed secrets, what keys are derived from, derived
// keys, and a PIN.
std::string withoutSecrets(const std::string& message);

}  // namespace NV::tool
