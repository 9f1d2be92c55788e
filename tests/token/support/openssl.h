// OpenSSL's command line on the host: verifies what the provider did with the token, and is the
// other party of encryption, signatures and key agreement. For all tests with a real token.
//
// Private keys and certificates are those in the token's folder. Options are those of OpenSSL, such
// as "-pkeyopt rsa_padding_mode:pss". All functions throw std::runtime_error with OpenSSL's message
// when OpenSSL fails.

#pragma once

#include <optional>
#include <string>
#include <utility>

#include "base/encoding.h"
#include "folder.h"
#include "token_keys.h"

namespace NV::test {

class OpenSsl {
public:
    // `made`: the folder that make-token.sh made.
    explicit OpenSsl(std::string made) : made_(std::move(made)) {}

    // Verifies a signature of exactly this data by the certificate's key. False means that OpenSSL
    // rejects the signature; any other failure throws.
    bool verifies(const TokenKey& key, const Bytes& data, const Bytes& signature,
                  const std::string& options = "") const;

    // The data of a PKCS #1 v1.5 signature; nothing when the padding is wrong.
    std::optional<Bytes> recovered(const TokenKey& key, const Bytes& signature) const;

    Bytes sign(const TokenKey& key, const Bytes& data, const std::string& options = "") const;
    Bytes encrypt(const TokenKey& key, const Bytes& plain, const std::string& options) const;
    Bytes decrypt(const TokenKey& key, const Bytes& cipher, const std::string& options) const;

    Bytes digest(const HashName& hash, const Bytes& data) const;
    Bytes hmac(const HashName& hash, const Bytes& key, const Bytes& data) const;

    // The certificate's SubjectPublicKeyInfo, and the modulus of an RSA one.
    Bytes publicKeyInfo(const TokenKey& key) const;
    Bytes modulus(const TokenKey& key) const;

    // Makes the other party's key pair on this curve ("P-256") and returns its
    // SubjectPublicKeyInfo. The agreement is between the token's key, whose file OpenSSL reads, and
    // the latest such key pair.
    Bytes makePeer(const std::string& curve) const;
    Bytes agreedWithPeer(const TokenKey& key) const;
    // The same on the other party's side, which needs no file of the token's private key.
    Bytes agreedByPeer(const TokenKey& key) const;

private:
    // Runs openssl in the folder and returns its exit code, 0 or 1. Its output is in the file
    // "log".
    int start(const std::string& arguments) const;
    void run(const std::string& arguments) const;
    Bytes output(const std::string& arguments) const;  // the file "output" that it wrote
    void give(const char* file, const Bytes& content) const;
    std::string log() const;

    std::string keyFile(const TokenKey& key, const char* ending) const;
    std::string withPrivateKey(const TokenKey& key) const;
    std::string withCertificate(const TokenKey& key) const;

    std::string made_;
    TemporaryFolder folder_;
};

}  // namespace NV::test
