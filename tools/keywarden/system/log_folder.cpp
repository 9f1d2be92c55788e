// Finding log files by their names, and reading the end of one.

#include "system/log_folder.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "config/config.h"
#include "config/config_keys.h"
#include "config/config_values.h"
#include "failure.h"
#include "formats/log_record.h"
#include "text.h"
#include "whole_number.h"

namespace NV::tool {

namespace {

// A traced operation is far shorter.
constexpr std::streamoff endSize = std::streamoff{1024} * 1024;

// "2026-03-04" from "nvksprovider-20260304.log". Empty for any other name.
std::string dayOf(const std::wstring& name)
{
    constexpr std::wstring_view before = L"nvksprovider-";
    constexpr std::wstring_view form = L"nvksprovider-00000000.log";
    const bool fits =
        name.size() == form.size() && std::ranges::equal(name, form, [](wchar_t c, wchar_t wanted) {
            return wanted == L'0' ? c >= L'0' && c <= L'9' : c == wanted;
        });
    if (!fits)
        return {};
    const std::string digits = toUtf8(std::wstring_view(name).substr(before.size(), 8));
    return digits.substr(0, 4) + "-" + digits.substr(4, 2) + "-" + digits.substr(6);
}

std::string endOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary | std::ios::ate);
    const std::streamoff size = stream.tellg();
    if (!stream || size <= 0)
        return {};
    std::string text(static_cast<size_t>(std::min(size, endSize)), '\0');
    stream.seekg(size - static_cast<std::streamoff>(text.size()));
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(stream.gcount()));
    return text;
}

// The result of the operation that is under way, and of the latest one that has ended.
class Results {
public:
    void read(const LogRecord& record)
    {
        const auto end = parseEnd(record);
        // A process of the same number that has ended.
        if (record.function == "DllMain" && record.message.starts_with("Program="))
            *this = {};
        if (!operationOfTable(record.function).empty() && record.message == "ENTER") {
            current_.clear();
            delimited_ = true;
        }
        // At the level ERROR, the log does not say which errors are of one operation.
        if (const auto result = resultInError(record.message);
            record.isError() && !result.empty() && (current_.empty() || !delimited_))
            current_ = result;
        if (end) {
            latest_ = end->result.empty() ? current_ : std::string(end->result);
            current_.clear();
            delimited_ = true;
        }
    }

    const std::string& latest() const { return current_.empty() ? latest_ : current_; }

private:
    std::string current_;
    std::string latest_;
    // Whether there are records where operations begin or end.
    bool delimited_ = false;
};

}  // namespace

std::vector<LogFile> logFilesIn(const std::filesystem::path& folder)
{
    std::vector<LogFile> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        const std::string day = dayOf(entry->path().filename().wstring());
        if (!day.empty() && entry->is_regular_file(ignored))
            files.push_back({entry->path(), day, entry->last_write_time(ignored)});
    }
    // The module creates it with the first record.
    if (error == std::errc::no_such_file_or_directory)
        return files;
    if (error)
        throw Failure("the log folder " + toUtf8(folder) +
                          " cannot be read: " + errorText(static_cast<DWORD>(error.value())),
                      "Run \"keywarden check\" to find the reason.");
    // Two files can have the same time.
    std::ranges::sort(files, [](const LogFile& a, const LogFile& b) {
        return a.changed != b.changed ? a.changed < b.changed : a.day < b.day;
    });
    return files;
}

LogState configuredLog()
{
    Config& config = Config::instance();
    const bool modern = config.mode().behaviour() == Behaviour::modern;
    LogState state;
    state.written =
        (parseLogTypes(config.get("logTypes")) & logToFile) != 0 && !config.get("logStore").empty();
    state.everything = !modern || parseLogLevel(config.get("logLevel")) == logMaskTrace;
    return state;
}

std::string timeText(const SYSTEMTIME& local)
{
    char text[32];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", unsigned{local.wYear},
                  unsigned{local.wMonth}, unsigned{local.wDay}, unsigned{local.wHour},
                  unsigned{local.wMinute}, unsigned{local.wSecond}, unsigned{local.wMilliseconds});
    return text;
}

int64_t beginningOfProcess()
{
    FILETIME begun;
    FILETIME ignored;
    FILETIME local;
    SYSTEMTIME fields;
    if (!GetProcessTimes(GetCurrentProcess(), &begun, &ignored, &ignored, &ignored) ||
        !FileTimeToLocalFileTime(&begun, &local) || !FileTimeToSystemTime(&local, &fields))
        return 0;
    return parseTime(timeText(fields)).value_or(0);
}

std::string latestResult(const std::filesystem::path& folder, uint32_t process, int64_t since)
{
    const std::vector<LogFile> files = logFilesIn(folder);
    if (files.empty())
        return {};
    const std::string text = endOf(files.back().path);
    Results results;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const auto record = parseRecord(std::string_view(text).substr(begin, end - begin));
        if (record && record->milliseconds >= since &&
            wholeNumber<uint32_t>(record->process) == process)
            results.read(*record);
        begin = end + 1;
    }
    return results.latest();
}

}  // namespace NV::tool
