// The container; zlib deflates and computes the checksums.

#include "formats/zip.h"

#include <zlib.h>

#include <algorithm>
#include <array>

#include "failure.h"

namespace NV::tool {

namespace {

constexpr uint32_t localHeader = 0x04034B50;
constexpr uint32_t centralHeader = 0x02014B50;
constexpr uint32_t endOfCentral = 0x06054B50;
// 2.0: deflate, folders.
constexpr uint16_t version = 20;
constexpr uint16_t namesAreUtf8 = 1U << 11;
constexpr uint16_t deflated = 8;
// Of the local header's fixed part, whose checksum and lengths are known only at the end.
constexpr size_t commonOffset = 4;
constexpr size_t mostEntries = 0xFFFE;
constexpr size_t longestName = 0xFFFF;

void put16(Bytes& to, uint64_t value)
{
    to.push_back(static_cast<unsigned char>(value));
    to.push_back(static_cast<unsigned char>(value >> 8));
}

void put32(Bytes& to, uint64_t value)
{
    put16(to, value);
    put16(to, value >> 16);
}

void requireZlib(int result)
{
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
        throw Failure("compressing failed: zlib's error " + std::to_string(result));
}

}  // namespace

struct ZipArchive::Stream {
    z_stream z{};

    Stream()
    {
        // Negative: without the header and the trailer of zlib's own format.
        constexpr int rawWindow = -MAX_WBITS;
        constexpr int memoryLevel = 8;
        requireZlib(deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, rawWindow, memoryLevel,
                                 Z_DEFAULT_STRATEGY));
    }
    ~Stream() { deflateEnd(&z); }
    void reset() { requireZlib(deflateReset(&z)); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
};

namespace {

constexpr int firstYear = 1980;

uint16_t dosDate(const SYSTEMTIME& time)
{
    const int year = std::clamp<int>(time.wYear, firstYear, firstYear + 127) - firstYear;
    return static_cast<uint16_t>((year << 9) | (time.wMonth << 5) | time.wDay);
}

uint16_t dosTime(const SYSTEMTIME& time)
{
    return static_cast<uint16_t>((time.wHour << 11) | (time.wMinute << 5) | (time.wSecond / 2));
}

}  // namespace

ZipArchive::ZipArchive(const SYSTEMTIME& changed, uint64_t most)
    : most_(most), date_(dosDate(changed)), time_(dosTime(changed))
{
}

ZipArchive::~ZipArchive() = default;

void ZipArchive::limit(uint64_t size) const
{
    if (size > most_)
        throw Failure("the ZIP file would be larger than " + std::to_string(most_) + " bytes",
                      "Put less into it: for a report, fewer days of the log.");
}

void ZipArchive::writeCommon(const Entry& entry, Bytes& to) const
{
    put16(to, version);
    put16(to, namesAreUtf8);
    put16(to, deflated);
    put16(to, time_);
    put16(to, date_);
    put32(to, entry.checksum);
    put32(to, entry.packed);
    put32(to, entry.size);
    put16(to, entry.name.size());
    put16(to, 0);  // no extra field
}

void ZipArchive::begin(const std::string& name)
{
    if (entries_.size() >= mostEntries || name.size() > longestName)
        throw Failure("the ZIP file would have too many files, or too long a name");
    Entry entry{.name = name, .offset = archive_.size()};
    put32(archive_, localHeader);
    writeCommon(entry, archive_);
    archive_.insert(archive_.end(), name.begin(), name.end());
    limit(archive_.size());
    entries_.push_back(std::move(entry));
    if (stream_ == nullptr)
        stream_ = std::make_unique<Stream>();
    else
        stream_->reset();
}

void ZipArchive::deflate(std::string_view content, int flush)
{
    constexpr size_t pieceSize = size_t{16} * 1024;
    std::array<unsigned char, pieceSize> packed{};
    z_stream& z = stream_->z;
    // zlib does not write to it.
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
    z.avail_in = static_cast<uInt>(content.size());
    do {
        z.next_out = packed.data();
        z.avail_out = static_cast<uInt>(packed.size());
        requireZlib(::deflate(&z, flush));
        const size_t made = packed.size() - z.avail_out;
        entries_.back().packed += made;
        limit(archive_.size() + made);
        archive_.insert(archive_.end(), packed.begin(),
                        packed.begin() + static_cast<ptrdiff_t>(made));
    } while (z.avail_out == 0);
}

void ZipArchive::add(std::string_view content)
{
    constexpr size_t pieceSize = size_t{1} << 20;
    Entry& entry = entries_.back();
    limit(entry.size + content.size());
    entry.size += content.size();
    while (!content.empty()) {
        const std::string_view piece = content.substr(0, pieceSize);
        entry.checksum = static_cast<uint32_t>(crc32(entry.checksum,
                                                     reinterpret_cast<const Bytef*>(piece.data()),
                                                     static_cast<uInt>(piece.size())));
        deflate(piece, Z_NO_FLUSH);
        content.remove_prefix(piece.size());
    }
}

uint64_t ZipArchive::end()
{
    deflate({}, Z_FINISH);
    const Entry& entry = entries_.back();
    Bytes header;
    writeCommon(entry, header);
    std::ranges::copy(header,
                      archive_.begin() + static_cast<ptrdiff_t>(entry.offset + commonOffset));
    return entry.size;
}

void ZipArchive::add(const std::string& name, std::string_view content)
{
    begin(name);
    add(content);
    end();
}

Bytes ZipArchive::finish()
{
    const size_t directory = archive_.size();
    for (const Entry& entry : entries_) {
        put32(archive_, centralHeader);
        put16(archive_, version);
        writeCommon(entry, archive_);
        put16(archive_, 0);  // no comment
        put16(archive_, 0);  // on the first disk
        put16(archive_, 0);  // no attributes
        put32(archive_, 0);
        put32(archive_, entry.offset);
        archive_.insert(archive_.end(), entry.name.begin(), entry.name.end());
    }
    const size_t length = archive_.size() - directory;
    put32(archive_, endOfCentral);
    put16(archive_, 0);  // one disk
    put16(archive_, 0);
    put16(archive_, entries_.size());
    put16(archive_, entries_.size());
    put32(archive_, length);
    put32(archive_, directory);
    put16(archive_, 0);  // no comment
    limit(archive_.size());
    return std::move(archive_);
}

}  // namespace NV::tool
