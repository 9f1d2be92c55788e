// Finding log files by their names, and reading the end of one.

#include "system/log_folder.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <system_error>

#include "config/config.h"
#include "config/config_keys.h"
#include "config/config_values.h"
#include "failure.h"
#include "formats/log_record.h"
#include "text.h"

namespace NV::tool {

namespace {

// A traced operation is far shorter.
constexpr std::streamoff endSize = 1024 * 1024;

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

bool isProcess(std::string_view number, uint32_t process)
{
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    return error == std::errc() && value == process;
}

// The result of the operation that is under way, and of the latest one that has ended.
struct Results {
    std::string current;
    std::string latest;

    void read(const LogRecord& record)
    {
        if (record.message == "ENTER" && !operationOfTable(record.function).empty())
            current.clear();
        if (record.isError() && current.empty())
            current = resultInError(record.message);
        if (const auto end = parseEnd(record)) {
            latest = end->result.empty() ? current : std::string(end->result);
            current.clear();
        }
    }
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

std::string latestResult(const std::filesystem::path& folder, uint32_t process)
{
    const std::vector<LogFile> files = logFilesIn(folder);
    if (files.empty())
        return {};
    const std::string text = endOf(files.back().path);
    Results results;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const auto record = parseRecord(std::string_view(text).substr(begin, end - begin));
        if (record && isProcess(record->process, process))
            results.read(*record);
        begin = end + 1;
    }
    return results.current.empty() ? results.latest : results.current;
}

}  // namespace NV::tool
