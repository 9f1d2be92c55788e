// Scripted tokens that hold certificates, as many as are wanted, for the benchmarks that look at how
// costs grow with their number.

#pragma once

#include <filesystem>
#include <string>

#include "scripted_token.h"

namespace NV::bench {

// A token of its own: a copy of the library in the folder, with so many certificates, RSA-2048 and EC
// P-256 in turn. Each has a serial number, a subject key and a CKA_ID of its own; their signatures do
// not verify. Calls are not recorded.
class CertifiedToken {
public:
    CertifiedToken(const std::filesystem::path& folder, size_t certificates);

    // From now on providers open this one. The logger is off.
    void choose() const;

    size_t certificates() const { return certificates_; }
    test::ScriptedToken& scripted() { return token_; }
    const test::ScriptedToken& scripted() const { return token_; }

    // The name of a key: the hexadecimal text of its certificate's CKA_ID. 40 characters, in no
    // order.
    static std::wstring keyName(size_t number);

private:
    size_t certificates_;
    std::filesystem::path library_;
    test::ScriptedToken token_;
    std::filesystem::path configuration_;
};

}  // namespace NV::bench
