// The module's core as a part of the test program, on this machine: "loading" applies the profile's
// configuration as the attach handler does, "unloading" frees the providers.

#include <algorithm>
#include <stdexcept>

#include "config/config.h"
#include "config/config_keys.h"
#include "config/config_path.h"
#include "config/mode.h"
#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"
#include "provider_module.h"

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                                  NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppTable,
                                                  DWORD dwFlags);

namespace NV::test {

namespace {

std::string withSlashes(std::string path)
{
    std::ranges::replace(path, '\\', '/');
    return path;
}

void applyConfiguration()
{
    const std::string profile = userProfile();
    Config& config = Config::instance();
    // A process reads one configuration. Here an earlier test may have read one with these keys.
    for (const char* key : {"mode", "silentPrompt"})
        const_cast<std::string&>(config.get(key)).clear();
    config.load(withSlashes(configurationFile(profile)));
    applyMode(config);
    LoggerSettings settings;
    applyLogSettings(config, profile, settings);
    settings.store = withSlashes(settings.store);
    loggerSettings() = settings;
    loggerRecordCount() = 0;
}

}  // namespace

std::filesystem::path ProviderModule::defaultPath()
{
    throw std::logic_error("the module has no file on this machine");
}

ProviderModule::ProviderModule() : getInterface_(GetKeyStorageInterface)
{
    applyConfiguration();
    getInterface_(L"Norvanta Software KeyStore Provider", &table_, 0);
}

ProviderModule::ProviderModule(const std::filesystem::path&) : ProviderModule() {}

ProviderModule::~ProviderModule()
{
    ProviderManager::instance().clear();
    setMode(Mode());
    loggerSettings() = LoggerSettings{.types = 0, .store = ""};
}

}  // namespace NV::test
