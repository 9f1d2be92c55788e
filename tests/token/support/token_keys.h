// The keys that make-token.sh creates on the token, and the hashes that operations with them
// support. For all tests with a real token.

#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace NV::test {

struct TokenKey {
    const char* file;     // keys/FILE.key.pem, keys/FILE.crt.pem and keys/FILE.crt.der
    const wchar_t* name;  // for OpenKey: the CKA_ID
    DWORD bits;

    // Of the modulus or of a coordinate.
    DWORD bytes() const { return (bits + 7) / 8; }
};

inline constexpr TokenKey rsaKeys[] = {
    {"rsa2048", L"01AB", 2048}, {"rsa3072", L"03A1", 3072}, {"rsa4096", L"04C2", 4096}};
inline constexpr TokenKey ecKeys[] = {
    {"p256", L"0256", 256}, {"p384", L"0384", 384}, {"p521", L"0521", 521}};

inline constexpr TokenKey rsa2048 = rsaKeys[0];
inline constexpr TokenKey p256 = ecKeys[0];
inline constexpr TokenKey p384 = ecKeys[1];

struct HashName {
    const wchar_t* cng;
    const char* openSsl;
    DWORD size;  // of its value, in bytes
};

inline constexpr HashName sha1 = {L"SHA1", "sha1", 20};
inline constexpr HashName sha256 = {L"SHA256", "sha256", 32};
inline constexpr HashName sha384 = {L"SHA384", "sha384", 48};
inline constexpr HashName sha512 = {L"SHA512", "sha512", 64};
inline constexpr HashName hashNames[] = {sha1, sha256, sha384, sha512};

// Names of parameterised tests.
inline std::string keyOf(const testing::TestParamInfo<TokenKey>& info)
{
    return info.param.file;
}

// GoogleTest finds it by its name.
inline void PrintTo(const TokenKey& key, std::ostream* stream)
{
    *stream << key.file;
}

}  // namespace NV::test
