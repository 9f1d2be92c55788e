// The steps that are about the registration: making it, CNG's own lists, and removing it.

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "failure.h"
#include "nvvtoken/nvvtoken_name.h"
#include "prove/proving.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* cannotReport = "this system cannot report what is registered with CNG";
constexpr const char* notListed = "the provider is not in the list of ";
constexpr const char* howToRegister =
    "Run \"keywarden register\" in an administrator's terminal, or give --register there.";

// The providers that one of CNG's lists has. Throws Failure if the provider is not among them.
std::string found(const std::vector<std::wstring>& names, const char* function)
{
    if (std::ranges::find(names, std::wstring(providerName)) == names.end())
        throw Failure(notListed + std::string(function) + ", which has " +
                          std::to_string(names.size()),
                      howToRegister);
    return "in the list of " + std::string(function);
}

// Another's registration of the name stays as it is.
void registerForThisRun(Proving& proving, const Registration& before)
{
    if (before.known && !before.absent())
        throw Failure("something else is registered under the provider's name",
                      "Run \"keywarden status\" to see it. \"keywarden register\" replaces it.");
    const Change change = registerModule(proving.system);
    // If CNG cannot be queried, the registration may have been there before.
    proving.registeredHere = change == Change::made;
    if (change == Change::unconfirmed)
        throw NotPossible(std::string("the calls succeeded, but ") + cannotReport);
}

}  // namespace

std::string proveRegistration(Proving& proving)
{
    Registration now = readRegistration(proving.system);
    if (proving.options.registers && !now.complete()) {
        registerForThisRun(proving, now);
        now = readRegistration(proving.system);
    }
    if (!now.known)
        throw NotPossible(cannotReport);
    if (!now.complete())
        throw Failure(now.absent() ? "the provider is not registered"
                                   : "the provider is only partly registered",
                      howToRegister);
    std::error_code error;
    if (!std::filesystem::is_regular_file(now.file, error))
        throw Failure("registered is " + toUtf8(now.file) + ", which does not exist",
                      "Run the installer, which puts the module there.");
    return toUtf8(now.file) + (proving.registeredHere ? ", registered for this run" : "");
}

std::string proveBcryptProviders(Proving& proving)
{
    constexpr const char* name = "BCryptEnumRegisteredProviders";
    const auto enumerate = reinterpret_cast<decltype(&BCryptEnumRegisteredProviders)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"bcrypt.dll"), name)));
    if (enumerate == nullptr)
        throw NotPossible(std::string("bcrypt.dll has no ") + name);
    if (!proving.system.answersQueries)
        throw NotPossible(std::string("bcrypt.dll has only the name of ") + name);
    ULONG size = 0;
    PCRYPT_PROVIDERS providers = nullptr;
    requireOfSystem(enumerate(&size, &providers), name);
    const std::unique_ptr<CRYPT_PROVIDERS, VOID(WINAPI*)(PVOID)> owner(providers, BCryptFreeBuffer);
    std::vector<std::wstring> names;
    for (ULONG i = 0; owner != nullptr && i < owner->cProviders; ++i)
        names.emplace_back(owner->rgpszProviders[i]);
    return found(names, name);
}

std::string proveNcryptProviders(Proving&)
{
    constexpr const char* name = "NCryptEnumStorageProviders";
    DWORD count = 0;
    NCryptProviderName* providers = nullptr;
    requireOfSystem(NCryptEnumStorageProviders(&count, &providers, 0), name);
    const std::unique_ptr<NCryptProviderName, decltype(&NCryptFreeBuffer)> owner(providers,
                                                                                 NCryptFreeBuffer);
    std::vector<std::wstring> names;
    for (DWORD i = 0; i < count; ++i)
        names.emplace_back(owner.get()[i].pszName);
    return found(names, name);
}

std::string proveRemoval(Proving& proving)
{
    if (!proving.registeredHere && !proving.options.unregisters)
        throw NotTried("this run has not made the registration, so it stays as it is; --unregister "
                       "removes it");
    switch (unregisterModule(proving.system)) {
    case Change::none:
        throw NotTried("nothing is registered");
    case Change::unconfirmed:
        throw NotPossible(std::string("the calls succeeded, but ") + cannotReport);
    case Change::made:
        break;
    }
    proving.registeredHere = false;
    return "no longer registered";
}

}  // namespace NV::tool
