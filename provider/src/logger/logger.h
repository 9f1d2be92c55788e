// The trace logger: six printf-like level functions that write one record line each to the console,
// to a dated file, or to both. The functions of the module use it mostly through trace.h.

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

// The level masks of the configuration. Each includes the more severe levels.
inline constexpr uint32_t logMaskTrace = 0x7F;
inline constexpr uint32_t logMaskDebug = 0x7E;
inline constexpr uint32_t logMaskInfo = 0x7C;
inline constexpr uint32_t logMaskWarn = 0x70;
inline constexpr uint32_t logMaskError = 0x60;
inline constexpr uint32_t logMaskSevere = 0x40;

inline constexpr uint32_t logToConsole = 0x01;
inline constexpr uint32_t logToFile = 0x02;

// Process-wide settings. The attach handler writes them once; every record reads them without a
// lock.
struct LoggerSettings {
    uint32_t levelMask = logMaskTrace;
    uint32_t types = logToFile;
    // The folder of the dated files, in the ANSI code page. Empty for no file. "~" is not expanded
    // here.
    std::string store = "~/.norvanta-keywarden/logs";
    // Days after which a dated file is deleted, counted from its date.
    int32_t rotate = 7;
    // Whether the mask gates all levels, and each operation has a record of its end (operation.h). Compat:
    // otherwise only SEV uses the mask.
    bool gatesAllLevels = false;
    // Whether the level functions drop and count what they cannot write, and the next record that is
    // written has one before it that says how many: "LOGGER: 3 records could not be written", WRN,
    // whatever the mask. Otherwise they throw, or drop the record unsaid.
    bool survivesFailures = false;
    // The date goes between the stem and the extension of this name: nvksprovider-20260304.log.
    std::string fileName = "nvksprovider.log";
    // The clock for the time stamps and for the files' dates and ages.
    std::chrono::system_clock::time_point (*now)() = &std::chrono::system_clock::now;
};

LoggerSettings& loggerSettings();

// Whether there is any output: the console, or files in a folder that has a name.
bool loggerHasOutput();

// The number of records that could not be written and that no record has told yet.
std::atomic<uint32_t>& loggerLostRecords();

// The number of records, including those without an output. The record that finds it 0 is written
// with the banner, so a process that starts without an output never writes a banner.
std::atomic<uint32_t>& loggerRecordCount();

// The levels. Each has a function of the same name below.
enum class LogLevel : uint8_t { SEV, ERR, WRN, INF, DBG, TRC };

// Whether a record of the level is written, as far as the settings decide it.
bool loggerTakes(LogLevel level);

// Whether to write a record. Counts a record that has no output. The level functions call it too; a
// caller that calls it first need not evaluate arguments for a record that is not written.
bool beginRecord(LogLevel level);

// Write one record of their level. A message of more than 65,535 bytes is written as an empty one.
// The caller converts wide texts (base/text.h). Throw std::filesystem::filesystem_error when the
// log folder can neither be listed nor created, and std::system_error when the platform refuses the
// lock. If the file cannot be opened, the record is dropped without an error; so is one that would have
// to wait for another while the process ends (base/process_end.h). With survivesFailures they throw
// nothing.
void SEV(const char* format, ...) NV_PRINTF(1, 2);
void ERR(const char* format, ...) NV_PRINTF(1, 2);
void WRN(const char* format, ...) NV_PRINTF(1, 2);
void INF(const char* format, ...) NV_PRINTF(1, 2);
void DBG(const char* format, ...) NV_PRINTF(1, 2);
void TRC(const char* format, ...) NV_PRINTF(1, 2);

}  // namespace NV
