// Paths, and the table of status names.

#include "text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "keystore/token_status.h"

namespace NV::tool {

namespace {

struct StatusName {
    SECURITY_STATUS status;
    std::string_view name;
};

#define NV_STATUS(name)                                                                            \
    StatusName                                                                                     \
    {                                                                                              \
        static_cast<SECURITY_STATUS>(name), #name                                                  \
    }

// The statuses that no failed call of the token has: those are in tokenStatuses.
constexpr std::array statusNames = {
    NV_STATUS(NTE_BAD_DATA),
    NV_STATUS(NTE_BAD_FLAGS),
    NV_STATUS(NTE_BAD_KEYSET),
    NV_STATUS(NTE_FAIL),
    NV_STATUS(NTE_INVALID_HANDLE),
    NV_STATUS(NTE_INVALID_PARAMETER),
    NV_STATUS(NTE_NOT_FOUND),
    NV_STATUS(NTE_NO_MORE_ITEMS),
    NV_STATUS(NTE_PERM),
    NV_STATUS(NTE_PROVIDER_DLL_FAIL),
    NV_STATUS(NTE_PROV_DLL_NOT_FOUND),
    NV_STATUS(NTE_SILENT_CONTEXT),
    // The header of these values conflicts with windows.h.
    StatusName{static_cast<SECURITY_STATUS>(0xC0000002), "STATUS_NOT_IMPLEMENTED"},
    StatusName{static_cast<SECURITY_STATUS>(0xC0000022), "STATUS_ACCESS_DENIED"},
    StatusName{static_cast<SECURITY_STATUS>(0xC0000034), "STATUS_OBJECT_NAME_NOT_FOUND"},
    StatusName{static_cast<SECURITY_STATUS>(0xC0000035), "STATUS_OBJECT_NAME_COLLISION"},
    StatusName{static_cast<SECURITY_STATUS>(0xC0000225), "STATUS_NOT_FOUND"},
};

SECURITY_STATUS valueOf(const NamedStatus& status)
{
    return static_cast<SECURITY_STATUS>(status.value);
}

// Empty for a status without a name.
std::string_view nameOf(SECURITY_STATUS status)
{
    for (const NamedStatus& named : {noKeyFound, otherTokenFailure}) {
        if (valueOf(named) == status)
            return named.name;
    }
    const auto* token = std::ranges::find(
        tokenStatuses, status, [](const TokenStatus& row) { return valueOf(row.status); });
    if (token != std::end(tokenStatuses))
        return token->status.name;
    const auto* other = std::ranges::find(statusNames, status, &StatusName::status);
    return other != statusNames.end() ? other->name : std::string_view();
}

}  // namespace

std::filesystem::path toPath(std::string_view utf8)
{
    return {fromUtf8(utf8)};
}

bool isAscii(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

std::string hexText(SECURITY_STATUS status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(status));
    return number;
}

std::string statusText(SECURITY_STATUS status)
{
    const std::string_view name = nameOf(status);
    return name.empty() ? hexText(status) : std::string(name) + " (" + hexText(status) + ")";
}

std::string errorText(DWORD error)
{
    wchar_t text[512];
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                       0, text, static_cast<DWORD>(std::size(text)), nullptr);
    std::string result = toUtf8(std::wstring_view(text, length));
    result.erase(result.find_last_not_of(" .\r\n") + 1);
    const std::string number = "(" + std::to_string(error) + ")";
    return result.empty() ? "error " + number : result + " " + number;
}

}  // namespace NV::tool
