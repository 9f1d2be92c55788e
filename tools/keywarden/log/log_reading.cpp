// From files to lines, and what is said of files that are no logs.

#include "log/log_reading.h"

#include "failure.h"

namespace NV::tool {

OpenLog::OpenLog(const std::string& name)
    : file_(name), lines_([this](char* buffer, size_t room) {
          const size_t count = file_.read(reinterpret_cast<unsigned char*>(buffer), room);
          size_ += count;
          return count;
      })
{
}

void OpenLog::readTo(OperationReader& reader)
{
    while (const auto line = lines_.next())
        reader.addLine(*line);
}

void OpenLog::readAllTo(OperationReader& reader)
{
    readTo(reader);
    if (!lines_.rest().empty())
        reader.addLine(lines_.rest());
}

void readLogs(const std::vector<std::string>& names, OperationReader& reader)
{
    uint64_t size = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0)
            reader.beginFile();
        OpenLog log(names[i]);
        log.readAllTo(reader);
        size += log.size();
    }
    if (reader.records() > 0)
        return;
    const std::string what =
        names.size() == 1 ? inputName(names.front()) : std::to_string(names.size()) + " logs";
    if (size == 0)
        throw Failure(what + (names.size() == 1 ? " is empty" : " are empty"),
                      "The provider writes a record when a program loads it.");
    throw Failure(
        what + " contains no record of the provider, so it is no log of it",
        "A log is named nvksprovider-YYYYMMDD.log. Its lines begin with date, time, level, "
        "process and thread.");
}

}  // namespace NV::tool
