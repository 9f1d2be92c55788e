// A line of the module's log, split into its fields. Portable.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace NV::tool {

// The fields are parts of the line, which must outlive them.
struct LogRecord {
    std::string_view time;      // "2026-03-04 17:05:09.042", local
    int64_t milliseconds = 0;   // the same as a number; only differences have a meaning
    std::string_view level;     // "TRC", "DBG", "INF", "WRN", "ERR" or "SEV"
    std::string_view process;   // decimal, as in the log
    std::string_view thread;    // 8 hexadecimal digits
    std::string_view function;  // "NV::Provider::SignHash"; empty in records without a place
    std::string_view place;     // "nvvtoken_keys.cpp:307"; likewise
    std::string_view message;

    bool isError() const { return level == "ERR" || level == "SEV"; }
};

// Empty for a line that is not a record of the module, or is damaged.
std::optional<LogRecord> parseRecord(std::string_view line);

// The milliseconds of LogRecord for a time in its form. Empty for any other text.
std::optional<int64_t> parseTime(std::string_view time);

// The message without its secret (Shown::secret of secret_lines.h): an agreed secret, the input of a key
// derivation, a derived key, or a PIN. Meant for a terminal; redaction.h takes out more.
std::string withoutSecrets(std::string_view message);

// The text between two marks. Empty if one is missing.
std::optional<std::string_view> between(std::string_view text, std::string_view before,
                                        std::string_view after);

// "CKR_PIN_INCORRECT" from "Failed to login the token (000000a0(CKR_PIN_INCORRECT))", the form in which
// the steps of a token operation report a failed call. Empty for any other text.
std::string_view resultInError(std::string_view message);

// "SignHash" from "NV::Provider::SignHash" or "NV::ProviderManager::OpenProvider", if it is a function
// of CNG's table: those begin with a capital letter, and their steps do not. Empty for any other.
std::string_view operationOfTable(std::string_view function);

// The record of an operation's end that an entry point writes in modern:
// "DONE, STATUS=0x8010006b, ELAPSED:0.012(ms), RESULT=CKR_PIN_INCORRECT, KEY=01AB".
struct EndRecord {
    std::string_view operation;  // "SignHash"
    std::string_view result;     // the first failed one; empty if there is none
    std::string_view key;        // empty if there is none
};
std::optional<EndRecord> parseEnd(const LogRecord& record);

}  // namespace NV::tool
