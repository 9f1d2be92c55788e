// The text of a new configuration file, and the usual places of PKCS#11 libraries.

#include "system/configuration.h"

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <system_error>

#include "config/config.h"
#include "config/config_apply.h"
#include "failure.h"
#include "text.h"

namespace NV::tool {

namespace {

struct UsualPlace {
    const char* product;
    const wchar_t* root;  // an environment variable
    const wchar_t* file;
};

constexpr UsualPlace usualPlaces[] = {
    {"OpenSC", L"ProgramFiles", L"OpenSC Project\\OpenSC\\pkcs11\\opensc-pkcs11.dll"},
    {"OpenSC", L"SystemRoot", L"System32\\opensc-pkcs11.dll"},
    {"SoftHSM2", L"SystemDrive", L"\\SoftHSM2\\lib\\softhsm2-x64.dll"},
    {"SoftHSM2", L"ProgramFiles", L"SoftHSM2\\lib\\softhsm2-x64.dll"},
    {"Yubico PIV Tool", L"ProgramFiles", L"Yubico\\Yubico PIV Tool\\bin\\libykcs11.dll"},
    {"SafeNet Authentication Client", L"SystemRoot", L"System32\\eTPKCS11.dll"},
    {"Thales Luna", L"ProgramFiles", L"SafeNet\\LunaClient\\cryptoki.dll"},
    {"Entrust nShield", L"ProgramFiles", L"nCipher\\nfast\\toolkits\\pkcs11\\cknfast.dll"},
    {"AWS CloudHSM", L"ProgramFiles", L"Amazon\\CloudHSM\\bin\\cloudhsm_pkcs11.dll"},
    {"Bit4id", L"SystemRoot", L"System32\\bit4xpki.dll"},
    {"CryptoTech", L"SystemRoot", L"System32\\CCPkiP11.dll"},
    {"p11-kit", L"ProgramFiles", L"p11-kit\\bin\\p11-kit-client.dll"},
};

void checkValue(const std::string& key, const std::string& value)
{
    if (value.find_first_of("\r\n") != std::string::npos || value.starts_with(' ') ||
        value.ends_with(' '))
        throw Failure("the value of " + key +
                      " cannot be written: it has a line break in it or "
                      "a space at an end");
}

// The module takes each byte of the path for a character when it loads the library, and each "~" of
// the log's folder for the user's profile.
void checkPaths(const NewConfiguration& configuration)
{
    if (!isAscii(configuration.p11File))
        throw Failure("the library's path has characters outside ASCII, and the provider loads no "
                      "such library: " +
                          configuration.p11File,
                      "Copy the library to a folder with a plain name.");
    if (configuration.logStore.find('~', 1) != std::string::npos)
        throw Failure("the log's folder has a ~ in it, which stands for the user's profile: " +
                          configuration.logStore,
                      "Give the folder's long name.");
}

std::wstring fromAnsi(const std::string& text)
{
    const auto length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), size);
    return wide;
}

// The same text in the ANSI code page.
std::string toAnsi(const std::string& key, const std::string& value)
{
    const std::wstring wide = toUtf16(value);
    const auto length = static_cast<int>(wide.size());
    BOOL replaced = FALSE;
    const int size = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), length, nullptr,
                                         0, nullptr, &replaced);
    std::string ansi(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), length, ansi.data(), size,
                        nullptr, &replaced);
    if (replaced != FALSE)
        throw Failure("the value of " + key + " has characters that the system's code page lacks",
                      "Choose a folder with a plainer name.");
    return ansi;
}

// In the ANSI code page, as the module takes it.
std::string narrowProfile()
{
    const char* profile = std::getenv("USERPROFILE");
    return profile != nullptr ? profile : "";
}

}  // namespace

std::filesystem::path configurationFile()
{
    const wchar_t* profile = _wgetenv(L"USERPROFILE");
    if (profile == nullptr || *profile == L'\0')
        throw Failure("USERPROFILE is not set, so there is no place for the configuration");
    return std::filesystem::path(profile) / L".norvanta-keywarden" / L"nvksprovider.conf";
}

void loadConfiguration()
{
    configurationFile();  // says so when there is no USERPROFILE
    const std::string profile = narrowProfile();
    try {
        // The narrow path is in the ANSI code page, as the module takes it.
        Config::instance().load(profile + "\\.norvanta-keywarden\\nvksprovider.conf");
    } catch (const std::runtime_error& error) {
        throw Failure(error.what(), "\"keywarden check\" finds the reason.");
    }
}

std::filesystem::path configuredLogFolder()
{
    const std::string folder = expandLogStore(Config::instance().get("logStore"), narrowProfile());
    if (folder.empty())
        throw Failure("the configuration names no folder for the log (logStore)");
    return {fromAnsi(folder)};
}

std::string configurationText(const NewConfiguration& configuration)
{
    checkValue("p11File", configuration.p11File);
    checkValue("logStore", configuration.logStore);
    checkPaths(configuration);
    return "# Norvanta KeyWarden: read once, when the module is loaded into a process.\n"
           "# key=value, one a line. A line that begins with # is a comment; further on in a line\n"
           "# a # belongs to the value. Lines end in a line feed alone: a carriage return would\n"
           "# become part of the value.\n"
           "\n"
           "# The PKCS#11 library of the token, a 64-bit DLL. UTF-8.\n"
           "p11File=" +
           configuration.p11File +
           "\n"
           "\n"
           "# TRACE, DEBUG, INFO, WARN, ERROR or SEVERE. Only records marked SEV obey it; the log\n"
           "# is switched off by an empty logTypes, not by a level.\n"
           "logLevel=" +
           configuration.logLevel +
           "\n"
           "\n"
           "# FILE, CONSOLE, or both with a comma; empty for no log at all. The log holds agreed\n"
           "# secrets and what keys are derived from.\n"
           "logTypes=" +
           configuration.logTypes +
           "\n"
           "\n"
           "# The folder of the log files; ~ stands for the user's profile. ANSI code page.\n"
           "logStore=" +
           toAnsi("logStore", configuration.logStore) +
           "\n"
           "\n"
           "# How many days log files are kept: digits only. Without this key the module does not\n"
           "# load.\n"
           "logRotate=" +
           std::to_string(configuration.logRotate) + "\n";
}

void writeConfiguration(const std::filesystem::path& file, const std::string& text)
{
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    if (error)
        throw Failure("the folder " + toUtf8(file.parent_path()) +
                      " cannot be made: " + errorText(static_cast<DWORD>(error.value())));
    std::filesystem::path temporary = file;
    temporary += L".new";
    {
        std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
        stream << text;
        stream.close();
        if (!stream) {
            const DWORD reason = GetLastError();
            std::filesystem::remove(temporary, error);
            throw Failure(toUtf8(temporary) + " cannot be written: " + errorText(reason));
        }
    }
    if (!MoveFileExW(temporary.c_str(), file.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        const DWORD reason = GetLastError();
        std::filesystem::remove(temporary, error);
        throw Failure(toUtf8(file) + " cannot be replaced: " + errorText(reason));
    }
}

std::vector<FoundLibrary> findLibraries()
{
    std::vector<FoundLibrary> found;
    for (const UsualPlace& place : usualPlaces) {
        const wchar_t* root = _wgetenv(place.root);
        if (root == nullptr)
            continue;
        const std::filesystem::path file = std::filesystem::path(root) / place.file;
        std::error_code ignored;
        if (std::filesystem::is_regular_file(file, ignored))
            found.push_back({place.product, file});
    }
    return found;
}

}  // namespace NV::tool
