// Wraps the functions of the system's store, and redirects the registry in which Wine keeps it.

#include "system_store.h"

#include <stdexcept>

#include <windows.h>

#include <wincrypt.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const wchar_t* treeName = L"Software\\KeyWarden benchmark";

bool publishing = false;
Clock::duration inside{};

// The call's result, its time counted.
template <typename Call>
auto timed(const Call& call)
{
    const Clock::time_point start = Clock::now();
    const auto result = call();
    inside += Clock::now() - start;
    return result;
}

}  // namespace

// The linker's names for the pointers through which the imported functions are called.
extern "C" {
using OpenStore = HCERTSTORE(WINAPI*)(HCRYPTPROV_LEGACY, LPCWSTR);
using AddToStore = BOOL(WINAPI*)(HCERTSTORE, PCCERT_CONTEXT, DWORD, PCCERT_CONTEXT*);
using SetProperty = BOOL(WINAPI*)(PCCERT_CONTEXT, DWORD, DWORD, const void*);
using CloseStore = BOOL(WINAPI*)(HCERTSTORE, DWORD);

extern OpenStore __real___imp_CertOpenSystemStoreW;
extern AddToStore __real___imp_CertAddCertificateContextToStore;
extern SetProperty __real___imp_CertSetCertificateContextProperty;
extern CloseStore __real___imp_CertCloseStore;
extern OpenStore __wrap___imp_CertOpenSystemStoreW;
extern AddToStore __wrap___imp_CertAddCertificateContextToStore;
extern SetProperty __wrap___imp_CertSetCertificateContextProperty;
extern CloseStore __wrap___imp_CertCloseStore;

static HCERTSTORE WINAPI openStore(HCRYPTPROV_LEGACY provider, LPCWSTR name)
{
    if (!publishing)
        return nullptr;
    return timed([&] { return __real___imp_CertOpenSystemStoreW(provider, name); });
}

static BOOL WINAPI addToStore(HCERTSTORE store, PCCERT_CONTEXT context, DWORD disposition,
                              PCCERT_CONTEXT* stored)
{
    return timed([&] {
        return __real___imp_CertAddCertificateContextToStore(store, context, disposition, stored);
    });
}

static BOOL WINAPI setProperty(PCCERT_CONTEXT context, DWORD property, DWORD flags,
                               const void* data)
{
    return timed([&] {
        return __real___imp_CertSetCertificateContextProperty(context, property, flags, data);
    });
}

static BOOL WINAPI closeStore(HCERTSTORE store, DWORD flags)
{
    return timed([&] { return __real___imp_CertCloseStore(store, flags); });
}

OpenStore __wrap___imp_CertOpenSystemStoreW = &openStore;
AddToStore __wrap___imp_CertAddCertificateContextToStore = &addToStore;
SetProperty __wrap___imp_CertSetCertificateContextProperty = &setProperty;
CloseStore __wrap___imp_CertCloseStore = &closeStore;
}

namespace NV::bench {

void setPublishing(bool on)
{
    publishing = on;
}

std::chrono::nanoseconds timeInsideStore()
{
    return inside;
}

EmptyUserRegistry::EmptyUserRegistry()
{
    RegDeleteTreeW(HKEY_CURRENT_USER, treeName);
    HKEY tree = nullptr;
    // Not a volatile key: the system's store would create non-volatile keys below it, which fails.
    if (RegCreateKeyExW(HKEY_CURRENT_USER, treeName, 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_ALL_ACCESS, nullptr, &tree, nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("cannot make a registry tree");
    const LSTATUS status = RegOverridePredefKey(HKEY_CURRENT_USER, tree);
    RegCloseKey(tree);
    if (status != ERROR_SUCCESS)
        throw std::runtime_error("cannot put a registry tree in the user's place");
}

EmptyUserRegistry::~EmptyUserRegistry()
{
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, treeName);
}

bool runsUnderWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

}  // namespace NV::bench
