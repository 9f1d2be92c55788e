// Choosing logs, and reading them line by line.

#include "log/redacted_logs.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "failure.h"
#include "files.h"
#include "formats/redaction.h"
#include "log/line_reader.h"
#include "text.h"

namespace NV::tool {

namespace {

// Collects lines, so that the taker is not called for each one.
class Collector {
public:
    explicit Collector(const std::function<void(std::string_view)>& take) : take_(take) {}

    void add(std::string_view line)
    {
        text_.append(line).append("\n");
        if (text_.size() >= pieceSize)
            flush();
    }

    void flush()
    {
        take_(text_);
        text_.clear();
    }

private:
    static constexpr size_t pieceSize = 256 * 1024;

    const std::function<void(std::string_view)>& take_;
    std::string text_;
};

void addLine(std::string_view line, RedactionCounts& counts, Collector& to)
{
    const RedactedLine result = redacted(line);
    ++counts.lines;
    switch (result.change) {
    case RedactedLine::Change::values:
        ++counts.values;
        break;
    case RedactedLine::Change::message:
        ++counts.messages;
        break;
    case RedactedLine::Change::line:
        ++counts.foreign;
        break;
    case RedactedLine::Change::none:
        break;
    }
    to.add(result.text);
}

}  // namespace

LogChoice chooseLogs(const std::vector<LogFile>& files, const std::string& firstDay, uint64_t room)
{
    LogChoice choice;
    std::vector<LogFile> newestFirst = files;
    std::ranges::stable_sort(newestFirst, std::ranges::greater(), &LogFile::day);
    for (const LogFile& file : newestFirst) {
        if (file.day < firstDay) {
            ++choice.older;
            continue;
        }
        std::error_code gone;
        const uint64_t size = std::filesystem::file_size(file.path, gone);
        if (gone)
            continue;
        if (room == 0 && size > 0) {
            ++choice.dropped;
            continue;
        }
        const uint64_t taken = std::min(size, room);
        choice.logs.push_back({file, size, size - taken});
        room -= taken;
    }
    return choice;
}

RedactionCounts readRedacted(const ChosenLog& log, const std::function<void()>& begun,
                             const std::function<void(std::string_view)>& take,
                             std::string& problem)
{
    InputFile file(toUtf8(log.file.path));
    // One byte earlier: a line that begins exactly there is whole.
    const uint64_t begin = log.begin > 0 ? log.begin - 1 : 0;
    file.skipTo(begin);
    begun();
    // A program may go on writing.
    uint64_t left = log.size - begin;
    LineReader lines([&](char* buffer, size_t room) {
        const size_t most = static_cast<size_t>(std::min<uint64_t>(room, left));
        const size_t count =
            most == 0 ? 0 : file.read(reinterpret_cast<unsigned char*>(buffer), most);
        left -= count;
        return count;
    });
    RedactionCounts counts;
    Collector collector(take);
    try {
        bool partial = log.begin > 0;
        while (const auto line = lines.next()) {
            if (!partial)
                addLine(*line, counts, collector);
            partial = false;
        }
        if (!lines.rest().empty() && !partial)
            addLine(lines.rest(), counts, collector);
    } catch (const Failure& failure) {
        problem = failure.what();
    }
    collector.flush();
    return counts;
}

}  // namespace NV::tool
