// The module's registration with CNG as a key storage provider: two entries of the machine, one that
// names the provider and its DLL, one that puts it among the key storage providers that are offered.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <string>

namespace NV::tool {

inline constexpr const wchar_t* registeredProvider = L"Norvanta Software KeyStore Provider";
// A bare file name: CNG looks for it in the system's folder.
inline constexpr const wchar_t* registeredImage = L"nvksprovider.dll";

// What registration needs of the system. Tests put their own functions here.
struct CngSystem {
    NTSTATUS(WINAPI* registerProvider)(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG reg);
    NTSTATUS(WINAPI* unregisterProvider)(LPCWSTR provider);
    NTSTATUS(WINAPI* addContextFunctionProvider)
    (ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider,
     ULONG position);
    NTSTATUS(WINAPI* removeContextFunctionProvider)
    (ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider);
    NTSTATUS(WINAPI* queryProviderRegistration)
    (LPCWSTR provider, ULONG mode, ULONG interfaceId, ULONG* size, PCRYPT_PROVIDER_REG* reg);
    NTSTATUS(WINAPI* enumContextFunctionProviders)
    (ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, ULONG* size,
     PCRYPT_CONTEXT_FUNCTION_PROVIDERS* providers);
    VOID(WINAPI* freeBuffer)(PVOID buffer);

    // Whether the two functions that read can be called. Wine has them by name alone: calling one
    // ends the process.
    bool answersQueries;
    // Whether this process has an administrator's rights.
    bool elevated;
    std::filesystem::path systemFolder;
};

// bcrypt.dll and this process.
CngSystem thisSystem();

// What is registered now.
struct Registration {
    bool known = false;          // false: the system cannot be asked, and nothing below is set
    bool present = false;        // CNG knows a key storage provider of the name
    bool asWritten = false;      // and everything about it is what registerModule writes
    bool listed = false;         // it is among the key storage providers that CNG offers
    std::wstring image;          // its DLL, as it is registered
    std::filesystem::path file;  // where CNG looks for that DLL; empty when nothing is registered

    bool complete() const { return present && asWritten && listed; }
    bool absent() const { return !present && !listed; }
};

// Throws Failure when CNG refuses to tell.
Registration readRegistration(const CngSystem& system);

enum class Change {
    none,        // it was so already
    made,        // and seen to be so now
    unconfirmed  // CNG took the calls, but cannot be asked what came of them
};

// Both need an administrator's rights, and throw Failure when they are missing or when CNG refuses.
// What a call had changed before a later one was refused is put back.
Change registerModule(const CngSystem& system);
Change unregisterModule(const CngSystem& system);

}  // namespace NV::tool
