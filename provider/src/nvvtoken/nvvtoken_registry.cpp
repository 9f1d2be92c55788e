// The registry of opened providers.

#include "nvvtoken/nvvtoken.h"

#include <atomic>
#include <cwchar>
#include <new>
#include <stdexcept>
#include <utility>

#include "logger/trace.h"

namespace NV {

namespace {

constexpr size_t maxProviderNameSize = 256;  // bytes, terminator included

NCRYPT_PROV_HANDLE handleOf(const Provider* provider)
{
    return reinterpret_cast<NCRYPT_PROV_HANDLE>(provider);
}

// The thread that ends the process; 0: none does.
std::atomic<DWORD> endingThread{0};

bool processEndsOnThisThread()
{
    return endingThread == GetCurrentThreadId();
}

}  // namespace

void endProvidersOnThisThread()
{
    endingThread = GetCurrentThreadId();
}

Mutex& sequenceLock()
{
    // Never destroyed: a provider may be freed by another module's exit code.
    static Mutex* const lock = new Mutex(LockRank::sequence);
    return *lock;
}

ProviderManager& ProviderManager::instance()
{
    // Never destroyed: other modules' exit code may still call in.
    static ProviderManager* const manager = new ProviderManager;
    return *manager;
}

SECURITY_STATUS ProviderManager::OpenProvider(NCRYPT_PROV_HANDLE* phProvider,
                                              LPCWSTR pszProviderName, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    NV_ARG(trace, "phProvider=%p", static_cast<const void*>(phProvider));
    NV_ARG(trace, "pszProviderName=%ls", pszProviderName);
    NV_ARG(trace, "dwFlags=0x%x", static_cast<unsigned>(dwFlags));
    if (processEndsOnThisThread())
        return trace.end(SECURITY_STATUS{NTE_INTERNAL_ERROR});
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
    const bool goOn = status == ERROR_SUCCESS;
    const size_t nameLength = pszProviderName != nullptr ? std::wcslen(pszProviderName) : 0;
    if ((nameLength + 1) * sizeof(wchar_t) > maxProviderNameSize) {
        // Only reported: the provider is opened all the same. Kept.
        NV_ERR("Invalid Argument[1]:pszProviderName is too long");
        status = NTE_INVALID_PARAMETER;
    }
    if (goOn) {
        const SECURITY_STATUS opened = open(here, phProvider);
        if (opened != ERROR_SUCCESS)
            status = opened;
    }
    return trace.end(status);
}

// A value that is not known yet gets an entry without a provider and is known from then on.
bool ProviderManager::isOpen(NCRYPT_PROV_HANDLE hProvider)
{
    const std::lock_guard guard(mapLock_);
    return providers_[hProvider] != nullptr;
}

SECURITY_STATUS ProviderManager::open(const Site& site, NCRYPT_PROV_HANDLE* phProvider)
{
    if (isOpen(*phProvider)) {
        NV_AS(ERR, site, "Failure: Provider[%p] is already opened", asPointer(*phProvider));
        return NTE_INVALID_PARAMETER;
    }
    auto* provider = new (std::nothrow) Provider;
    if (provider == nullptr) {
        NV_AS(ERR, site, "Failure: Failed to allocate memory");
        return NTE_NO_MEMORY;
    }
    NV_AS(DBG, site, "Success: Provider[%p] Allocated", static_cast<const void*>(provider));
    if (!provider->init()) {
        // The object stays as it is, for good: what a library does when it is unloaded after a
        // failed start is not to be found out in somebody else's process.
        NV_AS(ERR, site, "Failure: Failed to Load PKCS#11");
        return NTE_INTERNAL_ERROR;
    }
    const std::lock_guard guard(mapLock_);
    // An entry without a provider that an earlier free of this address has left stays: the handle
    // then answers as invalid. Kept.
    providers_.try_emplace(handleOf(provider), provider);
    *phProvider = handleOf(provider);
    return ERROR_SUCCESS;
}

SECURITY_STATUS ProviderManager::FreeProvider(NCRYPT_PROV_HANDLE hProvider)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    NV_ARG(trace, "hProvider=%p", asPointer(hProvider));
    if (processEndsOnThisThread())
        return trace.end(SECURITY_STATUS{ERROR_SUCCESS});
    const std::lock_guard guard(lock_);
    trace.startClock();
    if (hProvider == 0) {
        NV_ERR("Invalid Argument[0]:hProvider is null");
        return trace.end(SECURITY_STATUS{NTE_INVALID_HANDLE});
    }
    return trace.end(free(here, hProvider));
}

SECURITY_STATUS ProviderManager::free(const Site& site, NCRYPT_PROV_HANDLE hProvider)
{
    Provider* provider = nullptr;
    {
        const std::lock_guard guard(mapLock_);
        provider = providers_[hProvider];
        if (provider != nullptr)
            providers_.erase(hProvider);
    }
    if (provider == nullptr) {
        NV_AS(ERR, site, "Failure: Provider[%p] not found", asPointer(hProvider));
        return NTE_INVALID_HANDLE;
    }
    // The handle is gone: from here on nothing may keep the provider from being destroyed.
    quietly([&] { NV_AT(DBG, site, "Success: Provider[%p] is freed", asPointer(hProvider)); });
    {
        const std::lock_guard guard(mapLock_);
        mapLock_.wait(visitEnded_,
                      [&]() NV_REQUIRES(mapLock_) { return !visits_.contains(provider); });
    }
    // Its library is finalised once more: not inside another provider's sequence.
    const std::lock_guard guard(sequenceLock());
    const std::unique_ptr<Provider> owned(provider);
    return ERROR_SUCCESS;
}

ProviderManager::Visit ProviderManager::visit(NCRYPT_PROV_HANDLE hProvider)
{
    if (processEndsOnThisThread())
        return {*this, nullptr};
    const std::lock_guard guard(mapLock_);
    const auto entry = providers_.find(hProvider);
    if (entry == providers_.end())
        throw std::out_of_range("invalid map<K, T> key");
    if (entry->second != nullptr)
        ++visits_[entry->second];
    return {*this, entry->second};
}

ProviderManager::Visit::~Visit()
{
    if (provider_ == nullptr)
        return;
    const std::lock_guard guard(manager_.mapLock_);
    if (const auto visits = manager_.visits_.find(provider_); --visits->second == 0) {
        manager_.visits_.erase(visits);
        manager_.visitEnded_.notify_all();
    }
}

void ProviderManager::clear()
{
    for (const auto& [handle, provider] : providers_)
        delete provider;
    providers_.clear();
}

}  // namespace NV
