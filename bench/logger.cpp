// Compares a record of the logger with the bare system calls of a file record and, without an
// output, with formatting its message.

#include "logger/logger.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/encoding.h"
#include "folder.h"
#include "logger/logger_record.h"
#include "logger/logger_rotation.h"
#include "logger/trace.h"
#include "measure.h"
#include "results.h"

namespace NV::bench {

namespace {

constexpr unsigned flags = 0x40;
constexpr int size = 256;

// A message like most of the module's: a place, a number or two, a pointer.
void logRecord()
{
    NV_TRC("ARG[%d]:pbSignature=%p, cbSignature=%d, dwFlags=0x%x", 4,
           static_cast<const void*>(&size), size, flags);
}

// Only formats the same message.
void formatText(char* buffer, size_t capacity, const char* format, ...) NV_PRINTF(3, 4);

void formatText(char* buffer, size_t capacity, const char* format, ...)
{
    va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
    va_start(arguments, format);
    std::vsnprintf(buffer, capacity, format, arguments);
    va_end(arguments);
}

void formatMessageOfRecord()
{
    static char buffer[65536];
    constexpr Site site = NV_HERE;
    formatText(buffer, sizeof buffer,
               "%.*s[%s:%d]:ARG[%d]:pbSignature=%p, cbSignature=%d, dwFlags=0x%x",
               site.functionLength, site.function, site.file, site.line, 4,
               static_cast<const void*>(&size), size, flags);
    keep(buffer);
}

// Restores the settings. The first record of the process, with its banner, was written before.
class Settings {
public:
    Settings(uint32_t types, const std::string& store) : before_(loggerSettings())
    {
        loggerSettings().types = types;
        loggerSettings().store = store;
        loggerSettings().rotate = daysKept;
        loggerRecordCount() = 1;
    }
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;
    ~Settings() { loggerSettings() = before_; }

    static constexpr int32_t daysKept = 4000;

private:
    LoggerSettings before_;
};

// --- a file record ---

// The system calls of a file record, with paths and text ready in advance.
class BareRecord {
public:
    BareRecord(const std::filesystem::path& folder, const std::filesystem::path& file)
        : pattern_((folder / L"*").wstring()), file_(file.wstring())
    {
    }

    void setText(std::string text) { text_ = std::move(text); }

    void operator()() const
    {
        WIN32_FIND_DATAW entry;
        HANDLE listing =
            FindFirstFileExW(pattern_.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch,
                             nullptr, FIND_FIRST_EX_LARGE_FETCH);
        while (FindNextFileW(listing, &entry) != 0) {}
        FindClose(listing);
        HANDLE file =
            CreateFileW(file_.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD written = 0;
        WriteFile(file, text_.data(), static_cast<DWORD>(text_.size()), &written, nullptr);
        CloseHandle(file);
    }

private:
    std::wstring pattern_;
    std::wstring file_;
    std::string text_;
};

constexpr std::time_t secondsOfADay = std::time_t{24} * 60 * 60;

std::filesystem::path datedFile(std::time_t day)
{
    const LocalTime time = toLocalTime(std::chrono::system_clock::from_time_t(day));
    return datedFileName(splitFileName(L"nvksprovider.log"), time.calendar);
}

// Names the entries; today's file is the last one.
using NameOf = std::filesystem::path (*)(int index);

// One file for each day, all within the days to keep.
std::filesystem::path datedName(int index)
{
    return datedFile(std::time(nullptr) - (index + 1) * secondsOfADay);
}

std::filesystem::path otherName(int index)
{
    return "report-of-work-" + std::to_string(index + 1) + ".txt";
}

// Every other file is a dated one.
std::filesystem::path mixedName(int index)
{
    return index % 2 == 0 ? datedName(index / 2) : otherName(index);
}

void measureFileRecord(Results& results, const Plan& plan, const std::string& name, int entries,
                       NameOf nameOf)
{
    const test::TemporaryFolder folder;
    for (int i = 0; i < entries - 1; ++i)
        test::writeFile(folder.path() / nameOf(i), "what an earlier day has left\r\n");
    const std::filesystem::path today = folder.path() / datedFile(std::time(nullptr));
    const Settings settings(logToFile, test::narrowPath(folder.path()));
    logRecord();
    BareRecord bare(folder.path(), today);
    bare.setText(test::readFile(today));
    // A run in a large folder takes milliseconds, and a batch needs more than a few runs. In a
    // small folder, other file system load has an effect, which more pairs reduce.
    const Plan batches =
        entries >= 1000 ? Plan{plan.pairs, 5 * plan.batch} : Plan{3 * plan.pairs, plan.batch};
    results.ratio(
        {"logger, one file record", name, "the bare system calls", static_cast<double>(entries)},
        compare(repeated(&logRecord), repeated(std::cref(bare)), batches), atMost(1.15));
    if (test::entryNames(folder.path()).size() != static_cast<size_t>(entries))
        throw std::runtime_error("the log folder has changed its entries");
}

// --- no output ---

void measureNoOutput(Results& results, const Plan& plan, const std::string& name, uint32_t types,
                     const std::string& store)
{
    const Settings settings(types, store);
    const uint32_t before = loggerRecordCount();
    const Comparison comparison =
        compare(repeated(&logRecord), repeated(&formatMessageOfRecord), plan);
    if (loggerRecordCount() == before)
        throw std::runtime_error("records were not counted");
    results.ratio({"logger, no output", name, "one vsnprintf of the message"}, comparison,
                  atMost(0.2));
    results.value({"logger, no output", name + ", time", ""}, comparison.subject, "ns", report);
}

// The arguments of a message may cost more than the record.
void logBytes(const Bytes& bytes)
{
    NV_TRC("pbSignature = %s", hexEncode(bytes).c_str());
}

// All lines of a traced function with two arguments.
void traceFunction()
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("hKey", &size), flagBits("dwFlags", flags));
    trace.startClock();
    trace.end(0);
}

void measureAround(Results& results, const Plan& plan)
{
    const Settings settings(0, "");
    const Bytes bytes(size, 0xA5);
    results.value({"logger, no output", "a record with 256 bytes as text, time", ""},
                  measure(repeated([&bytes] { logBytes(bytes); }), plan), "ns", report);
    results.value({"logger, no output", "a function's whole trace, time", ""},
                  measure(repeated(&traceFunction), plan), "ns", report);
}

void run(Results& results, const Plan& plan)
{
    measureFileRecord(results, plan, "today's file alone", 1, &datedName);
    measureFileRecord(results, plan, "a file a day", 8, &datedName);
    measureFileRecord(results, plan, "a file a day", 1000, &datedName);
    measureFileRecord(results, plan, "other names", 1000, &otherName);
    measureFileRecord(results, plan, "a file a day and other names in halves", 1000, &mixedName);
    measureNoOutput(results, plan, "types 0", 0, "C:\\logs");
    measureNoOutput(results, plan, "no folder", logToFile, "");
    measureAround(results, plan);
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, &NV::bench::run);
}
