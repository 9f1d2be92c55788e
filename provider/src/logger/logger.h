// The trace logger: six printf-like level functions that write one record line each to the
// console, to a dated file, or to both. Every function of the module traces itself through it,
// mostly by the macros and the scope of trace.h.

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#if defined(__clang__)
#define NV_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define NV_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#endif

namespace NV {

// Level masks as the configuration names them; each holds the more severe ones too.
inline constexpr uint32_t logMaskTrace = 0x7F;
inline constexpr uint32_t logMaskDebug = 0x7E;
inline constexpr uint32_t logMaskInfo = 0x7C;
inline constexpr uint32_t logMaskWarn = 0x70;
inline constexpr uint32_t logMaskError = 0x60;
inline constexpr uint32_t logMaskSevere = 0x40;

inline constexpr uint32_t logToConsole = 0x01;
inline constexpr uint32_t logToFile = 0x02;

// Process-wide settings. They are written once, when the module is attached, and read without a
// lock on every record.
struct LoggerSettings {
    uint32_t levelMask = logMaskTrace;
    uint32_t types = logToFile;
    // Folder of the dated files, in the ANSI code page; empty: no file. "~" is not expanded here.
    std::string store = "~/.norvanta-keywarden/logs";
    // Days that a dated file is kept after its date.
    int32_t rotate = 7;
    // Stem and extension of this name frame the date: nvksprovider-20260304.log.
    std::string fileName = "nvksprovider.log";
    // The clock of the time stamps, of the files' dates and of their ages.
    std::chrono::system_clock::time_point (*now)() = &std::chrono::system_clock::now;
};

LoggerSettings& loggerSettings();

// Whether records go anywhere: to the console, or to files in a folder that is named.
bool loggerHasOutput();

// Counts every record, those that no output takes included. The banner goes out with the record
// that finds it 0, so a process that begins without outputs never writes one.
std::atomic<uint32_t>& loggerRecordCount();

// From now on a record is dropped rather than waited for: the process is ending, and a thread that
// holds a lock of the logger may be gone, or be the one that crashed inside it.
void stopWaitingForLogger();

// The levels; each has its function below, of the same name.
enum class LogLevel : uint8_t { SEV, ERR, WRN, INF, DBG, TRC };

// Begins a record: whether it is to be written. One that no output takes is counted here and over.
// The level functions ask themselves; who asks before works out no arguments for nothing.
bool beginRecord(LogLevel level);

// Write one record of their level. Only SEV asks the level mask; the other five write whatever the
// mask holds. A message of more than 65,535 bytes is written as an empty one. Wide texts are converted
// by the caller (base/text.h). Throw std::filesystem::filesystem_error when the log folder can neither be listed nor
// made, and std::system_error when the lock is refused; a file that cannot be opened drops the
// record without a word.
void SEV(const char* format, ...) NV_PRINTF(1, 2);
void ERR(const char* format, ...) NV_PRINTF(1, 2);
void WRN(const char* format, ...) NV_PRINTF(1, 2);
void INF(const char* format, ...) NV_PRINTF(1, 2);
void DBG(const char* format, ...) NV_PRINTF(1, 2);
void TRC(const char* format, ...) NV_PRINTF(1, 2);

}  // namespace NV
