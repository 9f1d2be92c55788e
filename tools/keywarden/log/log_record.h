// A line of the module's log, split into its fields.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace NV::tool {

struct LogRecord {
    std::string time;          // "2026-03-04 17:05:09.042", local
    int64_t milliseconds = 0;  // the same as a number; only differences have a meaning
    std::string level;         // "TRC", "DBG", "INF", "WRN", "ERR" or "SEV"
    std::string process;       // decimal, as in the log
    std::string thread;        // 8 hexadecimal digits
    std::string function;      // "NV::Provider::SignHash"; empty in records without a place
    std::string place;         // "nvvtoken_keys.cpp:307"; likewise
    std::string message;
};

// Empty for a line that is not a record of the module, or is damaged.
std::optional<LogRecord> parseRecord(std::string_view line);

// The message without its secret: an agreed secret, the input of a key derivation, a derived key, or a
// PIN.
std::string withoutSecrets(const std::string& message);

}  // namespace NV::tool
