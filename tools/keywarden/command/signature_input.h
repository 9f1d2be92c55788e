// What sign and verify have in common: their options, and the data that the provider signs or verifies.

#pragma once

#include "base/cng.h"

#include <cstddef>
#include <string>

#include "formats/hashing.h"
#include "system/key_storage.h"

namespace CLI {
class App;
}

namespace NV::tool {

struct Session;

struct SignatureOptions {
    std::string key;
    std::string hash = "sha256";
    std::string digest;  // hexadecimal; empty if a file is hashed
    std::string pad = "pkcs1";
    std::string salt;  // digits; empty for a salt as long as the hash
    std::string ecFormat = "der";
};

// --key, --hash, --digest, --pad, --salt, --ec-format, --cng and --module.
void addSignatureOptions(CLI::App& command, Session& session, SignatureOptions& options);

// Throws CLI::ValidationError for options that contradict each other: without a key, and with one.
void checkSignatureOptions(const CLI::App& command, const SignatureOptions& options);
void checkSignatureOptions(const CLI::App& command, const SignatureOptions& options,
                           const Key& key);

// The length of the salt of PSS, in bytes.
size_t saltSize(const SignatureOptions& options);

// The hash value of --digest, or of the file. Throws Failure.
Bytes digestOf(const Session& session, const SignatureOptions& options, const std::string& file);

// The data that the provider signs or verifies, and the padding.
//
// For PKCS #1 v1.5 the DigestInfo is built here and the padding names no hash algorithm. If it named
// one, the provider would omit the DigestInfo header for SHA-1, and the token would hash the data
// again when it verifies.
class SignatureInput {
public:
    SignatureInput(const SignatureOptions& options, const Bytes& digest, bool isRsa);

    // Null for an EC key.
    void* padding();
    DWORD flags() const { return flags_; }
    PBYTE data() { return data_.data(); }
    DWORD size() const { return static_cast<DWORD>(data_.size()); }

private:
    const HashAlgorithm& hash_;
    Bytes data_;
    DWORD flags_ = 0;
    BCRYPT_PKCS1_PADDING_INFO pkcs1_{nullptr};
    BCRYPT_PSS_PADDING_INFO pss_{};
};

}  // namespace NV::tool
