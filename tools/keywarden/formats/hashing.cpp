// Hashing through bcrypt.dll.

#include "formats/hashing.h"

#include <windows.h>

#include <bcrypt.h>

#include <CLI/Error.hpp>

#include <algorithm>
#include <cwctype>
#include <memory>

#include "failure.h"
#include "files.h"
#include "output.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr size_t pieceSize = size_t{1} << 20;
constexpr uintmax_t largeFile = uintmax_t{64} << 20;

// The DigestInfo header of SHA-1, which the provider's table does not have.
constexpr std::string_view sha1Header = "3021300906052B0E03021A05000414";

struct AlgorithmCloser {
    void operator()(void* algorithm) const { BCryptCloseAlgorithmProvider(algorithm, 0); }
};
struct HashDestroyer {
    void operator()(void* hash) const { BCryptDestroyHash(hash); }
};

void requireHash(NTSTATUS status)
{
    if (status != 0)
        throw Failure("the system's hash function failed: " + hexText(status));
}

// One computation of a hash.
class Hasher {
public:
    explicit Hasher(const HashAlgorithm& hash)
    {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        requireHash(BCryptOpenAlgorithmProvider(&algorithm, hash.name.data(), nullptr, 0));
        algorithm_.reset(algorithm);
        BCRYPT_HASH_HANDLE handle = nullptr;
        requireHash(BCryptCreateHash(algorithm, &handle, nullptr, 0, nullptr, 0, 0));
        hash_.reset(handle);
    }

    void add(unsigned char* data, size_t size)
    {
        requireHash(BCryptHashData(hash_.get(), data, static_cast<ULONG>(size), 0));
    }

    Bytes finish()
    {
        DWORD size = 0;
        DWORD written = 0;
        requireHash(BCryptGetProperty(algorithm_.get(), BCRYPT_HASH_LENGTH,
                                      reinterpret_cast<PUCHAR>(&size), sizeof size, &written, 0));
        Bytes digest(size);
        requireHash(BCryptFinishHash(hash_.get(), digest.data(), size, 0));
        return digest;
    }

private:
    std::unique_ptr<void, AlgorithmCloser> algorithm_;
    std::unique_ptr<void, HashDestroyer> hash_;
};

// A bar of 40 characters on standard error, redrawn as the work advances and erased at the end.
class ProgressBar {
public:
    ProgressBar(const Output& out, uintmax_t total)
        : total_(total), shown_(out.errorIsTerminal() && total >= largeFile)
    {
    }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar()
    {
        if (shown_)
            write("\r" + std::string(60, ' ') + "\r");
    }

    void show(uintmax_t done)
    {
        // A file can grow while it is read.
        const auto percent = shown_ ? static_cast<int>(std::min(done, total_) * 100 / total_) : -1;
        if (percent == percent_)
            return;
        percent_ = percent;
        const auto filled = static_cast<size_t>(percent * 40 / 100);
        write("\rhashing [" + std::string(filled, '#') + std::string(40 - filled, '.') + "] " +
              std::to_string(percent) + " %");
    }

private:
    // One call for the whole text. The C library would write each character separately, which takes
    // longer on a console than hashing does.
    static void write(const std::string& text)
    {
        DWORD written = 0;
        WriteFile(GetStdHandle(STD_ERROR_HANDLE), text.data(), static_cast<DWORD>(text.size()),
                  &written, nullptr);
    }

    uintmax_t total_;
    bool shown_;
    int percent_ = -1;
};

std::wstring upperCase(const std::string& name)
{
    std::wstring upper = fromUtf8(name);
    for (wchar_t& c : upper)
        c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
    return upper;
}

}  // namespace

std::string checkHashName(const std::string& name)
{
    return findHashAlgorithm(upperCase(name).c_str()) != nullptr
               ? ""
               : "\"" + name + "\" is not one of sha1, sha256, sha384, sha512";
}

const HashAlgorithm& hashNamed(const std::string& name)
{
    const HashAlgorithm* hash = findHashAlgorithm(upperCase(name).c_str());
    if (hash == nullptr)
        throw CLI::ValidationError("--hash", checkHashName(name));
    return *hash;
}

// The last byte of the header is the length of the hash value that follows.
size_t hashSize(const HashAlgorithm& hash)
{
    const Bytes header = hexDecode(hash.digestInfo.empty() ? sha1Header : hash.digestInfo);
    return header.at(header.size() - 1);
}

Bytes hashInput(const Output& out, const std::string& name, const HashAlgorithm& hash)
{
    InputFile input(name);
    ProgressBar bar(out, input.size());
    Hasher hasher(hash);
    Bytes piece(pieceSize);
    uintmax_t done = 0;
    while (const size_t size = input.read(piece.data(), piece.size())) {
        hasher.add(piece.data(), size);
        done += size;
        bar.show(done);
    }
    return hasher.finish();
}

Bytes hashBytes(Bytes data, const HashAlgorithm& hash)
{
    Hasher hasher(hash);
    hasher.add(data.data(), data.size());
    return hasher.finish();
}

Bytes digestInfo(const HashAlgorithm& hash, const Bytes& digest)
{
    Bytes data = hexDecode(hash.digestInfo.empty() ? sha1Header : hash.digestInfo);
    data.insert(data.end(), digest.begin(), digest.end());
    return data;
}

}  // namespace NV::tool
