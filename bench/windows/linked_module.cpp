// Configures the module without its attach handler, and replaces the dialog.

#include "linked_module.h"

#include "config/config.h"
#include "logger/logger.h"
#include "pindialog/pindialog.h"

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**,
                                                  DWORD);

namespace {

std::string pinToEnter;

}  // namespace

namespace NV {

// Replaces the module's function, which would show the dialog.
SecretBytes requestPIN(const PINRequest*)
{
    return {pinToEnter.begin(), pinToEnter.end()};
}

namespace bench {

LinkedModule::LinkedModule(const std::filesystem::path& library, const std::string& pin)
{
    profile_.writeConfigFor(library);
    Config::instance().load(NV::test::narrowPath(profile_.configFile()));
    loggerSettings().types = 0;
    pinToEnter = pin;
    GetKeyStorageInterface(nullptr, &table_, 0);
}

void expectSuccess(SECURITY_STATUS status, const char* what)
{
    if (status != ERROR_SUCCESS)
        throw std::runtime_error(std::string(what) + " failed, status " +
                                 std::to_string(static_cast<unsigned>(status)));
}

OpenProvider::OpenProvider(const LinkedModule& module) : module_(module)
{
    expectSuccess(module_->OpenProvider(&handle_, L"Norvanta Software KeyStore Provider", 0),
                  "OpenProvider");
}

OpenProvider::~OpenProvider()
{
    module_->FreeProvider(handle_);
}

NCRYPT_KEY_HANDLE OpenProvider::openKey(const wchar_t* name) const
{
    NCRYPT_KEY_HANDLE key = 0;
    expectSuccess(module_->OpenKey(handle_, &key, name, 0, 0), "OpenKey");
    return key;
}

}  // namespace bench

}  // namespace NV
