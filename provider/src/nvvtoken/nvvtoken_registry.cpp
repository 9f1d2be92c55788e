// The registry of opened providers.

#include "nvvtoken/nvvtoken.h"

#include <cwchar>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "base/process_end.h"
#include "base/scope_exit.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_failures.h"
#include "p11/library_life.h"

namespace NV {

namespace {

constexpr size_t maxProviderNameSize = 256;  // bytes, terminator included

NCRYPT_PROV_HANDLE handleOf(const Provider* provider)
{
    return reinterpret_cast<NCRYPT_PROV_HANDLE>(provider);
}

}  // namespace

ProviderManager& ProviderManager::instance()
{
    static NeverDestroyed<ProviderManager> manager;
    return *manager;
}

SECURITY_STATUS ProviderManager::OpenProvider(NCRYPT_PROV_HANDLE* phProvider,
                                              LPCWSTR pszProviderName, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("phProvider", phProvider), text("pszProviderName", pszProviderName),
                    flagBits("dwFlags", dwFlags));
    if (processEndsOnThisThread())
        return trace.end(NTE_INTERNAL_ERROR);
    const std::lock_guard guard(lock_);
    trace.startClock();

    SECURITY_STATUS status = ERROR_SUCCESS;
    if (phProvider == nullptr) {
        NV_ERR("Invalid Argument[0]:phProvider is null");
        status = NTE_INVALID_PARAMETER;
    }
    if (pszProviderName == nullptr) {
        NV_ERR("Invalid Argument[1]:pszProviderName is null");
        status = NTE_INVALID_PARAMETER;
    }
    const bool pointersValid = status == ERROR_SUCCESS;
    const size_t nameLength = pszProviderName != nullptr ? std::wcslen(pszProviderName) : 0;
    if ((nameLength + 1) * sizeof(wchar_t) > maxProviderNameSize) {
        // Compat: a name that is too long gives an error status, but the provider is opened.
        NV_ERR("Invalid Argument[1]:pszProviderName is too long");
        status = NTE_INVALID_PARAMETER;
    }
    if (pointersValid) {
        const SECURITY_STATUS opened = open(here, phProvider);
        if (opened != ERROR_SUCCESS)
            status = opened;
    }
    return trace.end(status);
}

bool ProviderManager::isOpen(NCRYPT_PROV_HANDLE hProvider)
{
    const std::lock_guard guard(mapLock_);
    return lookUp(hProvider, Unknown::isAdded) != nullptr;
}

SECURITY_STATUS ProviderManager::open(const Site& site, NCRYPT_PROV_HANDLE* phProvider)
{
    if (isOpen(*phProvider)) {
        NV_UNDER(ERR, site, "Failure: Provider[%p] is already opened", asPointer(*phProvider));
        return NTE_INVALID_PARAMETER;
    }
    std::unique_ptr<Provider> created(new (std::nothrow) Provider);
    if (created == nullptr) {
        NV_UNDER(ERR, site, "Failure: Failed to allocate memory");
        return NTE_NO_MEMORY;
    }
    Provider* provider = created.get();
    const auto owner = std::make_shared<Registered>(std::move(created));
    NV_UNDER(DBG, site, "Success: Provider[%p] Allocated", static_cast<const void*>(provider));
    if (!provider->init()) {
        // Compat: a provider that fails to open is never destroyed. Destroying it unloads the
        // library, and a library may not survive that after a failed start.
        owner->abandon();
        NV_UNDER(ERR, site, "Failure: Failed to Load PKCS#11");
        return NTE_INTERNAL_ERROR;
    }
    {
        const std::lock_guard guard(mapLock_);
        // An entry that a double free has left here has no provider.
        providers_[handleOf(provider)] = owner;
    }
    *phProvider = handleOf(provider);
    return ERROR_SUCCESS;
}

SECURITY_STATUS ProviderManager::FreeProvider(NCRYPT_PROV_HANDLE hProvider)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hProvider", hProvider));
    if (processEndsOnThisThread())
        return trace.end(ERROR_SUCCESS);
    const std::lock_guard guard(lock_);
    trace.startClock();
    if (hProvider == 0) {
        NV_ERR("Invalid Argument[0]:hProvider is null");
        return trace.end(NTE_INVALID_HANDLE);
    }
    return trace.end(free(here, hProvider));
}

SECURITY_STATUS ProviderManager::free(const Site& site, NCRYPT_PROV_HANDLE hProvider)
{
    Owner provider;
    {
        const std::lock_guard guard(mapLock_);
        provider = lookUp(hProvider, Unknown::isAdded);
        if (provider != nullptr)
            providers_.erase(hProvider);
    }
    if (provider == nullptr) {
        NV_UNDER(ERR, site, "Failure: Provider[%p] not found", asPointer(hProvider));
        return NTE_INVALID_HANDLE;
    }
    // The map no longer has the handle, so an error of the log must not stop the rest.
    quietly([&] { NV_UNDER(DBG, site, "Success: Provider[%p] is freed", asPointer(hProvider)); });
    return ERROR_SUCCESS;
}

ProviderManager::Owner ProviderManager::find(NCRYPT_PROV_HANDLE hProvider)
{
    if (processEndsOnThisThread())
        return nullptr;
    const std::lock_guard guard(mapLock_);
    return lookUp(hProvider, Unknown::throws);
}

ProviderManager::Owner ProviderManager::lookUp(NCRYPT_PROV_HANDLE hProvider, Unknown unknown)
{
    const auto entry = providers_.find(hProvider);
    if (entry != providers_.end())
        return entry->second;
    if (failureRules().unknownProviderIsNull)
        return nullptr;
    if (unknown == Unknown::throws)
        throw std::out_of_range("invalid map<K, T> key");
    // Compat: opening and freeing leave an entry without a provider, so that later calls answer the
    // handle as invalid and do not throw.
    return providers_[hProvider];
}

ProviderManager::Registered::~Registered()
{
    if (provider_ == nullptr)
        return;
    // Without the lock, the provider stays: a C_Finalize in another provider's sequence would do more
    // harm.
    quietly([this] {
        const std::lock_guard guard(sequenceLock());
        provider_.reset();
    });
    static_cast<void>(provider_.release());
}

void ProviderManager::clear()
{
    // In the order of the handles, as the log shows it.
    for (auto& [handle, provider] : providers_) {
        if (provider != nullptr)
            provider->destroy();
    }
    providers_.clear();
}

}  // namespace NV
