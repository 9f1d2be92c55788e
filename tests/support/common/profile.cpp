// Test profiles.

#include "profile.h"

#include <cstdlib>

namespace NV::test {

Profile::Profile(const std::filesystem::path& folderName) : folder_(folderName)
{
    if (const char* previous = std::getenv("USERPROFILE"))
        previous_ = previous;
    // Sets the C library's copy and the process's own.
    _putenv_s("USERPROFILE", narrow().c_str());
}

Profile::~Profile()
{
    // An empty value removes the variable.
    _putenv_s("USERPROFILE", previous_.value_or("").c_str());
}

void Profile::writeConfig(std::string_view content) const
{
    writeFile(configFile(), content);
}

void Profile::writeConfigFor(const std::filesystem::path& p11File) const
{
    const std::filesystem::path store = std::filesystem::path("~") / ".norvanta-keywarden" / "logs";
    writeConfig("logLevel=TRACE\n"
                "logTypes=FILE\n"
                "logStore=" +
                narrowPath(store) +
                "\n"
                "logRotate=7\n"
                "p11File=" +
                narrowPath(p11File) + "\n");
}

std::filesystem::path Profile::configFile() const
{
    return path() / L".norvanta-keywarden" / L"nvksprovider.conf";
}

std::filesystem::path Profile::logDirectory() const
{
    return path() / L".norvanta-keywarden" / L"logs";
}

}  // namespace NV::test
