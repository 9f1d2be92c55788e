// Reading of the configuration file.

#include "config/config_file.h"

#include <array>
#include <fstream>
#include <system_error>

#include "base/text.h"
#include "config/config_path.h"

namespace NV {

namespace {

template <typename Path>
ConfigFile readFile(const Path& path, std::string name)
{
    ConfigFile file{std::move(name), false, {}};
    // Binary, so that a carriage return reaches the readers on every system.
    std::ifstream stream(path, std::ios::binary);
    file.opened = stream.is_open();
    std::array<char, 4096> piece{};
    while (stream.read(piece.data(), piece.size()) || stream.gcount() > 0)
        file.text.append(piece.data(), static_cast<size_t>(stream.gcount()));
    return file;
}

// False if the file exists, or if the system does not tell.
bool isMissing(const std::string& path)
{
#if defined(_WIN32)
    const std::filesystem::path native = fromAnsi(path);
#else
    const std::filesystem::path native = path;
#endif
    std::error_code ignored;
    return std::filesystem::status(native, ignored).type() == std::filesystem::file_type::not_found;
}

}  // namespace

ConfigFile readConfigFile(const std::string& path)
{
    return readFile(path, path);
}

ConfigFile readConfigFile(const std::filesystem::path& path)
{
    const std::u8string name = path.u8string();
    return readFile(path, {name.begin(), name.end()});
}

ConfigFile readConfigFile(const std::string& userFile, const std::filesystem::path& module)
{
    ConfigFile user = readConfigFile(userFile);
    if (user.opened || !isMissing(userFile))
        return user;
    ConfigFile machine = readConfigFile(machineConfigurationFile(module));
    return machine.opened ? machine : user;
}

}  // namespace NV
