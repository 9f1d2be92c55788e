// Reading whole files, with errors that name the file.

#include "files.h"

#include <windows.h>

#include <CLI/Error.hpp>

#include <algorithm>
#include <iterator>

#include "failure.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr size_t firstRoom = size_t{64} << 10;

[[noreturn]] void refuse(const std::string& name, DWORD error)
{
    throw Failure(inputName(name) + " cannot be read: " + errorText(error));
}

HANDLE openInput(const std::string& name)
{
    if (isStandardStream(name))
        return GetStdHandle(STD_INPUT_HANDLE);
    HANDLE handle = CreateFileW(toPath(name).c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        refuse(name, GetLastError());
    return handle;
}

// Reads piece by piece into a buffer that has the whole size from the beginning if that is known, so
// that the content is copied as rarely as possible.
template <typename Content>
Content readWhole(const std::string& name)
{
    InputFile input(name);
    Content content(static_cast<size_t>(input.size()) + firstRoom);
    size_t used = 0;
    while (const size_t size = input.read(content.data() + used, content.size() - used)) {
        used += size;
        if (used == content.size())
            content.resize(2 * content.size());
    }
    content.resize(used);
    return content;
}

}  // namespace

bool isStandardStream(std::string_view name)
{
    return name == "-";
}

std::string inputName(const std::string& name)
{
    return isStandardStream(name) ? "standard input" : name;
}

InputFile::InputFile(const std::string& name) : name_(name), handle_(openInput(name))
{
    LARGE_INTEGER size{};
    if (!isStandardStream(name_) && GetFileSizeEx(handle_, &size))
        size_ = static_cast<uintmax_t>(size.QuadPart);
}

InputFile::~InputFile()
{
    if (!isStandardStream(name_))
        CloseHandle(handle_);
}

void InputFile::skipTo(uint64_t position)
{
    LARGE_INTEGER distance{};
    distance.QuadPart = static_cast<LONGLONG>(position);
    if (SetFilePointerEx(handle_, distance, nullptr, FILE_BEGIN) == FALSE)
        refuse(name_, GetLastError());
}

size_t InputFile::read(unsigned char* buffer, size_t room)
{
    DWORD size = 0;
    if (ReadFile(handle_, buffer, static_cast<DWORD>(std::min(room, size_t{1} << 20)), &size,
                 nullptr))
        return size;
    const DWORD error = GetLastError();
    // The other end of a pipe was closed: the end of the input.
    if (error != ERROR_BROKEN_PIPE && error != ERROR_HANDLE_EOF)
        refuse(name_, error);
    return 0;
}

Bytes readInput(const std::string& name)
{
    return readWhole<Bytes>(name);
}

SecretBytes readSecretInput(const std::string& name)
{
    return readWhole<SecretBytes>(name);
}

void requireOneStandardInput(const std::string& option, const std::vector<std::string>& names)
{
    if (std::ranges::count_if(names, isStandardStream) > 1)
        throw CLI::ValidationError(option, "standard input (-) can be read only once");
}

std::ifstream openFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw Failure(toUtf8(file) + " cannot be read: " + errorText(GetLastError()));
    return stream;
}

Bytes readFile(const std::filesystem::path& file)
{
    std::ifstream stream = openFile(file);
    Bytes data{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (stream.bad())
        throw Failure(toUtf8(file) + " cannot be read completely");
    return data;
}

}  // namespace NV::tool
