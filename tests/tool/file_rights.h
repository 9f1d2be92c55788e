// Access control lists of files, as text.

#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <sddl.h>

#include <filesystem>
#include <string>

namespace NV::test {

// The owner, and everyone for reading or for all.
inline constexpr const wchar_t* readableByAll = L"D:P(A;;FA;;;OW)(A;;FR;;;WD)";
inline constexpr const wchar_t* writableByAll = L"D:P(A;;FA;;;OW)(A;;FA;;;WD)";

inline void setRights(const std::filesystem::path& path, const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1,
                                                                     &descriptor, nullptr));
    EXPECT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
}

// "D:P(A;;FA;;;S-1-5-...)".
inline std::string rightsOf(const std::filesystem::path& path)
{
    unsigned char buffer[4096];
    DWORD size = sizeof buffer;
    EXPECT_TRUE(
        GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, buffer, sizeof buffer, &size));
    char* text = nullptr;
    EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorA(
        buffer, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
    std::string result = text;
    LocalFree(text);
    return result;
}

}  // namespace NV::test
