// The public key blobs that programs import.

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "key_facts.h"

namespace NV::fuzz {

// Mostly a good one: of an EC key, and where RSA keys are imported, also of one. Others are cut short, claim
// other lengths, or are of a kind that is not imported.
class ImportBlob {
public:
    ImportBlob(uint8_t form, uint8_t fill);

    const Bytes& bytes() const { return bytes_; }
    // What becomes of it; nothing: no key.
    const std::optional<KeyFacts>& key() const { return key_; }
    bool isRsa() const { return rsa_; }
    // What an import as this type answers if blobs are checked.
    SECURITY_STATUS statusAs(std::wstring_view type) const;

private:
    void makeEc(ULONG magic, uint8_t fault, uint8_t fill);
    void makeRsa(uint8_t fault, uint8_t fill);

    Bytes bytes_;
    std::optional<KeyFacts> key_;
    bool rsa_ = false;
    bool foreign_ = false;  // of a curve, or with a modulus, that is not imported
};

}  // namespace NV::fuzz
