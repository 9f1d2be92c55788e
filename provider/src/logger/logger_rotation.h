// The name of the file for a day, and the choice of the files to delete. Portable, without file
// access; used by the logger's file output.

#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace NV {

// A file name split at its last dot: "nvksprovider.log" is "nvksprovider" and ".log". A name
// without a dot, or whose only dot is the first character, has no extension.
struct FileName {
    std::wstring_view stem;
    std::wstring_view extension;
};

FileName splitFileName(std::wstring_view name);

// stem + "-" + "%Y%m%d" + extension.
std::wstring datedFileName(const FileName& configured, const std::tm& day);

// Whether `name` is a dated log file of `configured` whose date, at 00:00 local time, is more than
// `daysKept` whole days before `now`. A name without a full date is never outdated.
bool isOutdated(std::wstring_view name, const FileName& configured, std::time_t now,
                int32_t daysKept);

}  // namespace NV
