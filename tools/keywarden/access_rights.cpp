// Reading and writing discretionary access control lists.

#include "access_rights.h"

#include <windows.h>

#include <aclapi.h>

#include <algorithm>
#include <memory>

namespace NV::tool {

namespace {

struct LocalMemoryFreer {
    void operator()(void* memory) const { LocalFree(memory); }
};

// The list belongs to the descriptor. A null list lets everyone do everything.
struct AccessRights {
    std::unique_ptr<void, LocalMemoryFreer> descriptor;
    PACL list = nullptr;
    bool isProtected = false;
};

AccessRights rightsOf(const std::filesystem::path& path)
{
    AccessRights rights;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    std::wstring name = path.wstring();
    if (GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &rights.list, nullptr, &descriptor) != ERROR_SUCCESS)
        return rights;
    rights.descriptor.reset(descriptor);
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    rights.isProtected = GetSecurityDescriptorControl(descriptor, &control, &revision) != FALSE &&
                         (control & SE_DACL_PROTECTED) != 0;
    return rights;
}

bool isBroadGroup(PSID group)
{
    constexpr WELL_KNOWN_SID_TYPE groups[] = {WinWorldSid,         WinAuthenticatedUserSid,
                                              WinBuiltinUsersSid,  WinInteractiveSid,
                                              WinBuiltinGuestsSid, WinAnonymousSid};
    return std::ranges::any_of(
        groups, [&](WELL_KNOWN_SID_TYPE type) { return IsWellKnownSid(group, type) != FALSE; });
}

}  // namespace

bool othersMayWrite(const std::filesystem::path& path)
{
    // Of a folder, the same bits stand for adding files and folders.
    constexpr ACCESS_MASK writing = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD |
                                    WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
    const AccessRights rights = rightsOf(path);
    if (rights.descriptor == nullptr)
        return false;
    if (rights.list == nullptr)
        return true;
    for (DWORD i = 0; i < rights.list->AceCount; ++i) {
        void* entry = nullptr;
        if (!GetAce(rights.list, i, &entry))
            continue;
        auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (allowed.Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
            (allowed.Header.AceFlags & INHERIT_ONLY_ACE) == 0 && (allowed.Mask & writing) != 0 &&
            isBroadGroup(&allowed.SidStart))
            return true;
    }
    return false;
}

bool copyAccessRights(const std::filesystem::path& from, const std::filesystem::path& to)
{
    const AccessRights rights = rightsOf(from);
    if (rights.descriptor == nullptr)
        return false;
    const SECURITY_INFORMATION information =
        DACL_SECURITY_INFORMATION | (rights.isProtected ? PROTECTED_DACL_SECURITY_INFORMATION
                                                        : UNPROTECTED_DACL_SECURITY_INFORMATION);
    std::wstring name = to.wstring();
    return SetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, information, nullptr, nullptr,
                                 rights.list, nullptr) == ERROR_SUCCESS;
}

}  // namespace NV::tool
