// OpenSSL's command line on the host: the judge of what the provider did with the token, and the
// other party of encryption, signatures and key agreement. For all tests on a real token.
//
// Private keys and certificates are those of the token's folder. Options are OpenSSL's own words,
// such as "-pkeyopt rsa_padding_mode:pss". Everything throws std::runtime_error with OpenSSL's
// words when OpenSSL cannot do what it is asked for.

#pragma once

#include <optional>
#include <string>

#include "base/encoding.h"
#include "folder.h"
#include "token_keys.h"

namespace NV::test {

class OpenSsl {
public:
    // A signature of this data, as it is, by the certificate's key. False is OpenSSL's own verdict;
    // any other failure throws.
    bool verifies(const TokenKey& key, const Bytes& data, const Bytes& signature,
                  const std::string& options = "") const;

    // What a PKCS #1 v1.5 signature was made of; nothing when the padding is wrong.
    std::optional<Bytes> recovered(const TokenKey& key, const Bytes& signature) const;

    Bytes sign(const TokenKey& key, const Bytes& data, const std::string& options = "") const;
    Bytes encrypt(const TokenKey& key, const Bytes& plain, const std::string& options) const;
    Bytes decrypt(const TokenKey& key, const Bytes& cipher, const std::string& options) const;

    Bytes digest(const HashName& hash, const Bytes& data) const;
    Bytes hmac(const HashName& hash, const Bytes& key, const Bytes& data) const;

    // The certificate's SubjectPublicKeyInfo, and the modulus of an RSA one.
    Bytes publicKeyInfo(const TokenKey& key) const;
    Bytes modulus(const TokenKey& key) const;

    // Makes the other party's key pair on this curve ("P-256"); gives its SubjectPublicKeyInfo. The
    // agreement is between the token's key, whose file OpenSSL reads, and the last one made.
    Bytes makePeer(const std::string& curve) const;
    Bytes agreedWithPeer(const TokenKey& key) const;

private:
    // Runs openssl in the folder; its exit code, 0 or 1. What it printed is in the file "log".
    int start(const std::string& arguments) const;
    void run(const std::string& arguments) const;
    Bytes output(const std::string& arguments) const;  // the file "output" that it wrote
    void give(const char* file, const Bytes& content) const;
    std::string log() const;

    TemporaryFolder folder_;
};

}  // namespace NV::test
