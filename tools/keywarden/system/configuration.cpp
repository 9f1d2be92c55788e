// The text of a new configuration file, and the usual locations of PKCS#11 libraries.

#include "system/configuration.h"

#include <windows.h>

#include <cstdlib>
#include <system_error>

#include "access_rights.h"
#include "config/config_expansion.h"
#include "config/config_file.h"
#include "config/config_keys.h"
#include "config/config_path.h"
#include "config/config_values.h"
#include "failure.h"
#include "system/key_storage.h"
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

// Throws Failure for a value that the module would not read back as it is: in classic, it takes each
// byte of the library's path for a character, in modern %NAME% for a variable, and in both each "~" of
// a folder for the user's profile.
void checkValue(const ConfigKey& key, const std::string& value, bool modern, bool variables)
{
    if (value.find_first_of("\r\n") != std::string::npos || value.starts_with(' ') ||
        value.ends_with(' '))
        throw Failure(std::string("the value of ") + key.name +
                      " cannot be written: it contains a line break, or a space at one end");
    if (key.kind == ConfigKind::library && !modern && !isAscii(value))
        throw Failure(
            "the library's path has characters outside ASCII, and in classic the provider "
            "does not load such a library: " +
                value,
            "Copy the library to a folder with a plain name.");
    if (key.kind == ConfigKind::library && !variables && expandLibraryPath(value, {}) != value)
        throw Failure("the library's path contains the name of an environment variable: " + value,
                      "Copy the library to a folder with a plain name.");
    if (key.kind == ConfigKind::folder && value.find('~', 1) != std::string::npos)
        throw Failure("the log folder contains a ~, which stands for the user's profile: " + value,
                      "Specify the folder's long name.");
}

std::wstring fromAnsi(const std::string& text)
{
    const auto length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), size);
    return wide;
}

// The value, which is UTF-8, in the ANSI code page. Throws Failure for a character that it lacks.
std::string toAnsi(const ConfigKey& key, const std::string& value)
{
    const std::wstring wide = fromUtf8(value);
    const auto length = static_cast<int>(wide.size());
    BOOL replaced = FALSE;
    const int size = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), length, nullptr,
                                         0, nullptr, &replaced);
    std::string ansi(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, wide.data(), length, ansi.data(), size,
                        nullptr, &replaced);
    if (replaced != FALSE)
        throw Failure(std::string("the value of ") + key.name +
                          " has characters that the system's code page lacks",
                      "Choose a folder with a plain name.");
    return ansi;
}

// The lines of the text, each as a comment.
std::string asComment(const std::string& text)
{
    std::string comment = "# ";
    for (const char c : text) {
        comment += c;
        if (c == '\n')
            comment += "# ";
    }
    return comment + "\n";
}

constexpr const char* fileComment =
    "Norvanta KeyWarden reads this file once, when a process loads the module.\n"
    "Each line is key=value. A line that begins with # is a comment; elsewhere in a line,\n"
    "a # is part of the value. %NAME% in a path is the environment variable of that name.";

}  // namespace

std::filesystem::path configurationFile()
{
    const wchar_t* profile = _wgetenv(L"USERPROFILE");
    if (profile == nullptr || *profile == L'\0')
        throw Failure("USERPROFILE is not set, so there is no folder for the configuration");
    return NV::configurationFile(std::filesystem::path(profile));
}

std::filesystem::path configurationOfAllUsers()
{
    return machineConfigurationFile(defaultModule());
}

ConfigurationOf configurationThatHolds()
{
    std::error_code error;
    const auto missing = std::filesystem::file_type::not_found;
    // One that cannot be read is not missing: the module fails, as it does for a damaged one.
    if (std::filesystem::status(configurationFile(), error).type() != missing)
        return ConfigurationOf::user;
    return std::filesystem::exists(configurationOfAllUsers(), error) ? ConfigurationOf::allUsers
                                                                     : ConfigurationOf::nobody;
}

std::filesystem::path configurationInUse()
{
    return configurationThatHolds() == ConfigurationOf::allUsers ? configurationOfAllUsers()
                                                                 : configurationFile();
}

void loadConfiguration()
{
    configurationFile();  // reports a missing USERPROFILE
    try {
        Config::instance().load(
            readConfigFile(NV::configurationFile(userProfile()), defaultModule()));
    } catch (const std::runtime_error& error) {
        throw Failure(error.what(), "Run \"keywarden check\" to find the reason.");
    }
}

std::filesystem::path configuredLogFolder()
{
    const std::string folder = configuredLogStore(Config::instance(), userProfile());
    if (folder.empty())
        throw Failure("the configuration does not specify a log folder (logStore)");
    return {fromAnsi(folder)};
}

std::vector<std::string> levelNames()
{
    std::vector<std::string> names;
    for (const NamedBits& level : logLevelNames)
        names.emplace_back(level.name);
    return names;
}

std::string choiceOf(const std::vector<std::string>& names)
{
    std::string text;
    for (size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 < names.size() ? ", " : ", or ") + names[i];
    return text;
}

Settings newConfiguration()
{
    Settings values;
    for (const ConfigKey& key : configKeys())
        values[key.name] = key.initialValue;
    return values;
}

std::string configurationText(const Settings& values, ConfigurationOf whose)
{
    const bool modern = values.at("mode") == "modern";
    const bool variables = modern && whose == ConfigurationOf::allUsers;
    std::string text = asComment(fileComment);
    for (const ConfigKey& key : configKeys()) {
        const std::string& value = values.at(key.name);
        checkValue(key, value, modern, variables);
        text += "\n" + asComment(key.help) + key.name + "=" +
                (key.kind == ConfigKind::folder ? toAnsi(key, value) : value) + "\n";
    }
    return text;
}

void makeFolderOf(const std::filesystem::path& configuration)
{
    std::error_code error;
    std::filesystem::create_directories(configuration.parent_path(), error);
    if (error)
        throw Failure("the folder " + toUtf8(configuration.parent_path()) +
                      " cannot be created: " + errorText(static_cast<DWORD>(error.value())));
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
            found.push_back(
                {place.product, file, othersMayWrite(file) || othersMayWrite(file.parent_path())});
    }
    return found;
}

}  // namespace NV::tool
