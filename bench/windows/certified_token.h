// Scripted tokens with any number of certificates, for benchmarks of how costs grow with that
// number.

#pragma once

#include <filesystem>
#include <string>

#include "scripted_token.h"

namespace NV::bench {

// A separate token: a copy of the library in the folder, with that many certificates, RSA-2048 and
// EC P-256 in turn. Each has its own serial number, subject key and CKA_ID; their signatures do not
// verify. Calls are not recorded.
class CertifiedToken {
public:
    CertifiedToken(const std::filesystem::path& folder, size_t certificates);

    // From now on, providers open this token. The logger is off.
    void choose() const;

    size_t certificates() const { return certificates_; }
    test::ScriptedToken& scripted() { return token_; }
    const test::ScriptedToken& scripted() const { return token_; }

    // The name of a key: the hexadecimal text of its certificate's CKA_ID, 40 characters. The names
    // are in no order.
    static std::wstring keyName(size_t number);

private:
    size_t certificates_;
    std::filesystem::path library_;
    test::ScriptedToken token_;
    std::filesystem::path configuration_;
};

}  // namespace NV::bench
