// A user profile for one test: its own folder, its configuration file, its log. Used by every test
// that loads the module, which reads all three by way of the USERPROFILE variable.

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "folder.h"
#include "trace_log.h"

namespace NV::test {

// While it lives, USERPROFILE names its folder, for this process's C library (which the module
// shares) and for children. At the end the variable is put back and the folder is removed.
class Profile {
public:
    // The folder's name may hold characters outside ASCII that the ANSI code page has.
    explicit Profile(const std::filesystem::path& folderName = L"user");
    Profile(const Profile&) = delete;
    Profile& operator=(const Profile&) = delete;
    ~Profile();

    // Writes .norvanta-keywarden/nvksprovider.conf, byte for byte.
    void writeConfig(std::string_view content) const;

    // Writes the configuration that most tests need: all levels, to files in logDirectory(), kept
    // for 7 days, and this PKCS#11 library.
    void writeConfigFor(const std::filesystem::path& p11File) const;
    // The same for the modern behaviour; `more` has further lines.
    void writeModernConfigFor(const std::filesystem::path& p11File,
                              std::string_view more = {}) const;

    const std::filesystem::path& path() const { return folder_.path(); }
    std::filesystem::path configFile() const;
    std::filesystem::path logDirectory() const;

    // The path in the ANSI code page, which is the value of USERPROFILE.
    std::string narrow() const { return narrowPath(path()); }

    // All lines in logDirectory() so far, banner included; none while the folder is missing.
    LogLines log() const { return readLog(logDirectory()); }

private:
    TemporaryFolder folder_;
    std::optional<std::string> previous_;
};

}  // namespace NV::test
