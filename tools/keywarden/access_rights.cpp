// Reading and writing discretionary access control lists.

#include "access_rights.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <memory>
#include <string_view>

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

// The system's installer, "NT SERVICE\\TrustedInstaller".
constexpr const wchar_t* trustedInstaller =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

bool isCurrentUser(PSID one)
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return false;
    alignas(TOKEN_USER) unsigned char buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    const BOOL known = GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size);
    CloseHandle(token);
    return known && EqualSid(one, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
}

bool isTrustedInstaller(PSID one)
{
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(one, &text))
        return false;
    const std::unique_ptr<void, LocalMemoryFreer> owner(text);
    return std::wstring_view(text) == trustedInstaller;
}

// Who may replace a file without being one of the others.
bool isTrusted(PSID one)
{
    constexpr WELL_KNOWN_SID_TYPE administrators[] = {
        WinLocalSystemSid, WinBuiltinAdministratorsSid, WinAccountDomainAdminsSid,
        WinCreatorOwnerSid, WinCreatorOwnerRightsSid};
    return std::ranges::any_of(
               administrators,
               [&](WELL_KNOWN_SID_TYPE type) { return IsWellKnownSid(one, type) != FALSE; }) ||
           isTrustedInstaller(one) || isCurrentUser(one);
}

}  // namespace

bool othersMayWrite(PACL list)
{
    // Of a folder, the same bits stand for adding files and folders.
    constexpr ACCESS_MASK writing = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD |
                                    WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
    if (list == nullptr)
        return true;
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* entry = nullptr;
        if (!GetAce(list, i, &entry))
            continue;
        auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (allowed.Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
            (allowed.Header.AceFlags & INHERIT_ONLY_ACE) == 0 && (allowed.Mask & writing) != 0 &&
            !isTrusted(&allowed.SidStart))
            return true;
    }
    return false;
}

bool othersMayWrite(const std::filesystem::path& path)
{
    // A null list, too, if the system does not say.
    const AccessRights rights = rightsOf(path);
    return othersMayWrite(rights.list);
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
