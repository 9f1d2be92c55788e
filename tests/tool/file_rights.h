// Access control lists of files, as text.

#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <sddl.h>

#include <filesystem>
#include <memory>
#include <string>

namespace NV::test {

// The owner, and everyone for reading or for all.
inline constexpr const wchar_t* readableByAll = L"D:P(A;;FA;;;OW)(A;;FR;;;WD)";
inline constexpr const wchar_t* writableByAll = L"D:P(A;;FA;;;OW)(A;;FA;;;WD)";

struct DescriptorFreer {
    void operator()(void* descriptor) const { LocalFree(descriptor); }
};
using Descriptor = std::unique_ptr<void, DescriptorFreer>;

inline Descriptor descriptorOf(const wchar_t* sddl)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1,
                                                                     &descriptor, nullptr));
    return Descriptor(descriptor);
}

inline void setRights(const std::filesystem::path& path, const wchar_t* sddl)
{
    EXPECT_TRUE(
        SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptorOf(sddl).get()));
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
