// Temporary folders and file contents.

#include "folder.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace NV::test {

namespace {

unsigned long processId()
{
#if defined(_WIN32)
    return GetCurrentProcessId();
#else
    return static_cast<unsigned long>(getpid());
#endif
}

// A folder that did not exist before. Process numbers come again, so the clock is part of the name.
std::filesystem::path makeFolder()
{
    static std::atomic<int> count{0};
    const auto ticks = std::chrono::system_clock::now().time_since_epoch().count();
    const std::filesystem::path base = std::filesystem::temp_directory_path();
    while (true) {
        const std::string name = "keywarden-" + std::to_string(processId()) + "-" +
                                 std::to_string(ticks) + "-" + std::to_string(++count);
        if (std::filesystem::create_directories(base / name))
            return base / name;
    }
}

}  // namespace

TemporaryFolder::TemporaryFolder() : root_(makeFolder()), path_(root_) {}

TemporaryFolder::TemporaryFolder(const std::filesystem::path& name)
    : root_(makeFolder()), path_(root_ / name)
{
    std::filesystem::create_directories(path_);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string readFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw std::runtime_error("cannot read " + file.string());
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

void writeFile(const std::filesystem::path& file, std::string_view content)
{
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write " + file.string());
}

std::vector<std::string> entryNames(const std::filesystem::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::ranges::sort(names);
    return names;
}

std::string narrowPath(const std::filesystem::path& path)
{
#if defined(_WIN32)
    const std::wstring& wide = path.native();
    const int size = static_cast<int>(wide.size());
    BOOL lost = FALSE;
    const int length =
        WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), size, narrow.data(), length, nullptr, &lost);
    if (lost)
        throw std::runtime_error("no ANSI form of " + path.string());
    return narrow;
#else
    return path.string();
#endif
}

}  // namespace NV::test
