// The kernel's own version, the registry, and version resources.

#include "system/versions.h"

#include <windows.h>

#include <winternl.h>

#include <cstring>
#include <memory>

#include "text.h"

namespace NV::tool {

namespace {

constexpr const wchar_t* versionKey = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

// 0 if there is none.
DWORD updateNumber()
{
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, versionKey, L"UBR", RRF_RT_REG_DWORD,
                                        nullptr, &value, &size);
    return status == ERROR_SUCCESS ? value : 0;
}

struct LibraryReleaser {
    void operator()(HMODULE module) const { FreeLibrary(module); }
};

std::string dotted(DWORD high, DWORD low)
{
    return std::to_string(HIWORD(high)) + "." + std::to_string(LOWORD(high)) + "." +
           std::to_string(HIWORD(low)) + "." + std::to_string(LOWORD(low));
}

}  // namespace

std::string windowsVersion()
{
    // GetVersionEx answers as if a program without a manifest ran on Windows 8.
    using GetVersion = NTSTATUS(WINAPI*)(OSVERSIONINFOW*);
    const auto get = reinterpret_cast<GetVersion>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (get == nullptr || get(&info) != 0)
        return {};
    const DWORD update = updateNumber();
    return std::to_string(info.dwMajorVersion) + "." + std::to_string(info.dwMinorVersion) + "." +
           std::to_string(info.dwBuildNumber) + (update != 0 ? "." + std::to_string(update) : "");
}

std::string windowsName()
{
    wchar_t name[128];
    DWORD size = sizeof name;
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, versionKey, L"ProductName",
                                        RRF_RT_REG_SZ, nullptr, name, &size);
    return status == ERROR_SUCCESS ? toUtf8(name) : std::string();
}

std::string fileVersion(const std::filesystem::path& file)
{
    const std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryReleaser> image(LoadLibraryExW(
        file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    if (image == nullptr)
        return {};
    HRSRC resource = FindResourceW(image.get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(16));
    const DWORD size = resource != nullptr ? SizeofResource(image.get(), resource) : 0;
    HGLOBAL loaded = size != 0 ? LoadResource(image.get(), resource) : nullptr;
    const auto* bytes =
        loaded != nullptr ? static_cast<const unsigned char*>(LockResource(loaded)) : nullptr;
    // The fixed part begins with its signature, at a multiple of four bytes.
    VS_FIXEDFILEINFO info{};
    for (DWORD at = 0; bytes != nullptr && at + sizeof info <= size; at += sizeof(DWORD)) {
        std::memcpy(&info, bytes + at, sizeof info);
        if (info.dwSignature == VS_FFI_SIGNATURE)
            return dotted(info.dwFileVersionMS, info.dwFileVersionLS);
    }
    return {};
}

}  // namespace NV::tool
