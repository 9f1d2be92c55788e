// Opens the module on the token of kind.sh, and reads in its log why an operation failed.

#include "kind_test.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <string_view>

#include "base/text.h"
#include "host.h"
#include "system/explanation.h"

namespace NV::test {

namespace {

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr)
        throw std::runtime_error(std::string(name) + " is not set: run tests/token/kinds/kind.sh");
    return value;
}

// "@NAME" of a setting that is not the recommended one.
std::string setting()
{
    const char* value = std::getenv("KEYWARDEN_TOKEN_SETTING");
    return value != nullptr && *value != '\0' ? std::string("@") + value : "";
}

// The file's name is also the key's name for OpenSsl.
TokenKey keyOfFile(const char* file, const std::wstring& name, const char* bits)
{
    return {file, name.c_str(), static_cast<DWORD>(std::stoul(environment(bits)))};
}

std::wstring nameOf(const std::string& file)
{
    std::string id = readFile(host::windowsPath(tokenFolder() + "/keys/" + file + ".id"));
    id.erase(id.find_last_not_of("\r\n") + 1);
    return fromUtf8(id);
}

// All log files, one after another.
std::string logText(const Profile& profile)
{
    std::string text;
    if (std::filesystem::exists(profile.logDirectory())) {
        for (const std::string& name : entryNames(profile.logDirectory()))
            text += readFile(profile.logDirectory() / name);
    }
    return text;
}

struct FailedCall {
    std::string function;  // "C_Login"
    std::string result;    // "CKR_PIN_INCORRECT", or the words of the log
};

// The first error, with its result or that of the latest call before it.
FailedCall firstFailure(const LogLines& lines)
{
    static const std::regex call(R"(C(?:ALL|all) (C_\w+)\(\):(?:.*\((CKR_\w+)\))?.*)");
    static const std::regex error(R"(.*\((CKR_\w+)\).*)");
    FailedCall latest;
    std::smatch match;
    for (const LogLine& line : lines) {
        if (std::regex_match(line.message, match, call))
            latest = {match[1], match[2]};
        if (line.level != "ERR")
            continue;
        if (std::regex_match(line.message, match, error))
            return {latest.function, match[1]};
        if (latest.result.empty() || latest.result == "CKR_OK")
            return {"", line.message};
        return latest;
    }
    return {};
}

}  // namespace

struct KindTest::Opened {
    Opened() : behaviour(environment("KEYWARDEN_TOKEN_BEHAVIOUR"))
    {
        const std::filesystem::path library = host::winelibPath("p11bridge.dll");
        if (behaviour == "modern")
            profile.writeModernConfigFor(library);
        else
            profile.writeConfigFor(library);
        module = std::make_unique<ProviderModule>();
        status = (*module)->OpenProvider(&provider, L"Norvanta Software KeyStore Provider", 0);
    }
    ~Opened()
    {
        if (status == ERROR_SUCCESS) {
            EXPECT_EQ((*module)->FreeProvider(provider), ERROR_SUCCESS);
        }
        keepLog();
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    // For whoever looks for the reason of a record.
    void keepLog() const
    {
        writeFile(host::windowsPath(tokenFolder() + "/" + behaviour + setting() + ".log"),
                  logText(profile));
    }

    std::string behaviour;
    Profile profile;
    std::unique_ptr<ProviderModule> module;
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = 0;
    OpenSsl openSsl{tokenFolder()};
    size_t logSeen = 0;  // bytes
};

std::unique_ptr<KindTest::Opened> KindTest::current_;

void KindTest::SetUpTestSuite()
{
    current_ = std::make_unique<Opened>();
}

void KindTest::TearDownTestSuite()
{
    current_.reset();
}

KindTest::Opened& KindTest::opened()
{
    if (current_ == nullptr)
        throw std::logic_error("the suite could not be set up");
    return *current_;
}

const ProviderModule& KindTest::module()
{
    return *opened().module;
}

NCRYPT_PROV_HANDLE KindTest::provider()
{
    return opened().provider;
}

SECURITY_STATUS KindTest::openingStatus()
{
    return opened().status;
}

const OpenSsl& KindTest::openSsl()
{
    return opened().openSsl;
}

TokenKey KindTest::rsa()
{
    static const std::wstring name = nameOf("rsa");
    return keyOfFile("rsa", name, "KEYWARDEN_TOKEN_RSA_BITS");
}

TokenKey KindTest::ec()
{
    static const std::wstring name = nameOf("ec");
    return keyOfFile("ec", name, "KEYWARDEN_TOKEN_EC_BITS");
}

TokenKey KindTest::lone()
{
    static const std::wstring name = nameOf("lone");
    return keyOfFile("lone", name, "KEYWARDEN_TOKEN_EC_BITS");
}

bool KindTest::hasPrivateKeyFile(const TokenKey& key)
{
    return std::filesystem::exists(
        host::windowsPath(tokenFolder() + "/keys/" + key.file + ".key.pem"));
}

std::vector<std::wstring> KindTest::listed()
{
    std::vector<std::wstring> names;
    if (openingStatus() != ERROR_SUCCESS)
        return names;
    void* state = nullptr;
    NCryptKeyName* key = nullptr;
    while (module()->EnumKeys(provider(), nullptr, &key, &state, 0) == ERROR_SUCCESS) {
        names.emplace_back(key->pszName);
        module()->FreeBuffer(key);
    }
    if (state != nullptr)
        module()->FreeBuffer(state);
    return names;
}

void KindTest::record(const std::string& operation, SECURITY_STATUS status)
{
    std::string answer = status == ERROR_SUCCESS ? "works" : tool::statusText(status);
    answer.erase(std::min(answer.find(' '), answer.size()));
    record(operation, answer);
}

void KindTest::record(const std::string& operation, const std::string& answer)
{
    FailedCall failed;
    if (answer != "works")
        failed = firstFailure(parseLog(logText(opened().profile).substr(opened().logSeen)));
    std::ofstream file(host::windowsPath(tokenFolder() + "/results.tsv"),
                       std::ios::app | std::ios::binary);
    file << operation << setting() << '\t' << opened().behaviour << '\t' << answer << '\t'
         << failed.function << '\t' << failed.result << '\n';
    file.flush();
    ASSERT_TRUE(file.good());
}

void KindTest::forgetLog()
{
    opened().logSeen = logText(opened().profile).size();
}

void KindTest::lookAtWholeLog()
{
    opened().logSeen = 0;
}

}  // namespace NV::test
