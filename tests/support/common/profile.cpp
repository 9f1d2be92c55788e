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

namespace {

std::string configFor(const std::string& p11File)
{
    const std::filesystem::path store = std::filesystem::path("~") / ".norvanta-keywarden" / "logs";
    return "logLevel=TRACE\n"
           "logTypes=FILE\n"
           "logStore=" +
           narrowPath(store) +
           "\n"
           "logRotate=7\n"
           "p11File=" +
           p11File + "\n";
}

}  // namespace

void Profile::writeConfigFor(const std::filesystem::path& p11File) const
{
    writeConfig(configFor(narrowPath(p11File)));
}

void Profile::writeModernConfigFor(const std::filesystem::path& p11File,
                                   std::string_view more) const
{
    const std::u8string path = p11File.u8string();
    writeConfig("mode=modern\n" + configFor(std::string(path.begin(), path.end())) +
                std::string(more));
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
