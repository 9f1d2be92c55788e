// Reading and writing whole files, with errors that name the file.

#include "files.h"

#include <windows.h>

#include <iterator>
#include <system_error>

#include "failure.h"
#include "text.h"

namespace NV::tool {

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

void writeFile(const std::filesystem::path& file, const Bytes& data)
{
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    if (!stream)
        throw Failure(toUtf8(file) + " cannot be written: " + errorText(GetLastError()));
    stream.write(reinterpret_cast<const char*>(data.data()),
                 static_cast<std::streamsize>(data.size()));
    stream.close();
    if (!stream) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
        throw Failure(toUtf8(file) + " cannot be written completely");
    }
}

}  // namespace NV::tool
