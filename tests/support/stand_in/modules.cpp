// Shared libraries, by dlopen and its kin.

#include <dlfcn.h>
#include <unistd.h>
#include <windows.h>

#include <climits>
#include <string>

#include "last_error.h"
#include "paths.h"

namespace {

using NV::stand_in::failed;
using NV::stand_in::nativePath;

void* handleOf(HMODULE module)
{
    return module;
}

HMODULE open(LPCWSTR name, int flags)
{
    void* const library = dlopen(nativePath(name).c_str(), flags | RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        failed(ERROR_MOD_NOT_FOUND);
    return static_cast<HMODULE>(library);
}

}  // namespace

HMODULE LoadLibraryW(LPCWSTR name)
{
    return open(name, 0);
}

HMODULE LoadLibraryExW(LPCWSTR name, HANDLE, DWORD)
{
    return open(name, 0);
}

HMODULE GetModuleHandleW(LPCWSTR name)
{
    const HMODULE module = open(name, RTLD_NOLOAD);
    if (module != nullptr)
        dlclose(handleOf(module));  // which the look-up counted as a use
    return module;
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name)
{
    void* const address = dlsym(handleOf(module), name);
    if (address == nullptr)
        failed(ERROR_PROC_NOT_FOUND);
    return reinterpret_cast<FARPROC>(address);
}

BOOL FreeLibrary(HMODULE module)
{
    return dlclose(handleOf(module)) == 0 ? TRUE : failed(ERROR_INVALID_HANDLE);
}

DWORD GetModuleFileNameW(HMODULE, LPWSTR path, DWORD capacity)
{
    char native[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", native, sizeof native);
    return static_cast<DWORD>(MultiByteToWideChar(CP_UTF8, 0, native, static_cast<int>(size), path,
                                                  static_cast<int>(capacity)));
}
