// The scripted token with one RSA key that can sign. For the tests of this folder.

#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "folder.h"
#include "scripted_token.h"

namespace NV::test {

inline constexpr wchar_t signingPin[] = L"odd-PIN-7391";

class SigningToken {
public:
    SigningToken()
    {
        const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"rsa2048.der");
        const Bytes id = {0x73, 0x91};
        token_.addCertificate(id, Bytes(der.begin(), der.end()));
        token_.addRsaKeyPair(id, 2048);
    }

    ScriptedToken& token() { return token_; }

    // Under which the provider opens the key: its CKA_ID.
    static std::wstring keyName() { return L"7391"; }

private:
    ScriptedToken token_;
};

}  // namespace NV::test
