// A ZIP archive in memory: deflated entries (RFC 1951) with names in UTF-8, in the container of PKWARE's
// APPNOTE 6.3. No ZIP64: an entry, its offset and the archive stay below 4 GiB.

#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/encoding.h"

namespace NV::tool {

class ZipArchive {
public:
    // `changed`: the local time of all entries; an archive has no times before 1980, and none in odd
    // seconds. `most`: of an entry and of the archive, in bytes; tests use less.
    explicit ZipArchive(const SYSTEMTIME& changed, uint64_t most = 0xFFFFFFFE);
    ~ZipArchive();
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;

    // One entry after the other: begin, any number of add, end. The name is UTF-8 with "/" between
    // folders. Each throws Failure when the archive would get too large.
    void begin(const std::string& name);
    void add(std::string_view content);
    // Returns the length of the content, in bytes.
    uint64_t end();

    // A whole entry.
    void add(const std::string& name, std::string_view content);

    // The archive, once, after the last entry.
    Bytes finish();

private:
    struct Entry {
        std::string name;
        uint32_t checksum = 0;
        uint64_t packed = 0;  // bytes
        uint64_t size = 0;    // bytes
        uint64_t offset = 0;  // of its header
    };
    struct Stream;

    void deflate(std::string_view content, int flush);
    void limit(uint64_t size) const;
    // The fields that both headers of an entry have.
    void writeCommon(const Entry& entry, Bytes& to) const;

    uint64_t most_;
    uint16_t date_;
    uint16_t time_;
    Bytes archive_;
    std::vector<Entry> entries_;
    std::unique_ptr<Stream> stream_;  // null before the first entry
};

}  // namespace NV::tool
