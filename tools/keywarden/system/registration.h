// The module's registration with CNG as a key storage provider. It has two machine-wide entries: one
// names the provider and its DLL, the other adds it to the list of key storage providers.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <string>

namespace NV::tool {

// A file name without a path: CNG looks for it in the system's folder.
inline constexpr const wchar_t* registeredImage = L"nvksprovider.dll";

// The functions and facts of the system that registration needs. Tests replace them.
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

    // Whether the two functions that read can be called. Wine only exports their names: a call ends
    // the process.
    bool answersQueries;
    // Whether this process has administrator rights.
    bool elevated;
    std::filesystem::path systemFolder;
};

// bcrypt.dll and this process.
CngSystem thisSystem();

// The current registration.
struct Registration {
    bool known = false;          // false: the system cannot be queried, and nothing below is set
    bool present = false;        // CNG knows a key storage provider of the name
    bool asWritten = false;      // and its entry is exactly what registerModule writes
    bool listed = false;         // it is in CNG's list of key storage providers
    std::wstring image;          // its DLL, as registered
    std::filesystem::path file;  // where CNG looks for that DLL; empty if nothing is registered

    bool complete() const { return present && asWritten && listed; }
    bool absent() const { return !present && !listed; }
};

// Throws Failure when CNG refuses a query.
Registration readRegistration(const CngSystem& system);

enum class Change {
    none,        // nothing had to be changed
    made,        // changed, and confirmed by a query
    unconfirmed  // the calls succeeded, but CNG cannot be queried
};

// Both throw Failure without administrator rights, or when CNG refuses a call. Before that they undo
// the changes of the calls that succeeded.
Change registerModule(const CngSystem& system);
Change unregisterModule(const CngSystem& system);

}  // namespace NV::tool
