// The certificates on a token and the public key objects that belong to them, read without a login.

#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "formats/certificate.h"
#include "p11/module.h"
#include "p11/p11.h"

namespace NV::tool {

class PublicSession;

// The public key object with the CKA_ID of a certificate, compared with the key in the certificate.
enum class PublicKeyObject : uint8_t {
    none,       // none is visible without a login
    unknown,    // its key cannot be read, or not be compared
    same,       // it is the certificate's key
    different,  // it is another key
};

struct TokenCertificate {
    std::wstring keyName = {};      // hexadecimal text of CKA_ID; empty without one
    std::string algorithmOid = {};  // of the public key; empty if the certificate cannot be read
    std::string curveOid = {};      // of a named curve; otherwise empty
    uint32_t bits = 0;              // of the modulus or of the curve; 0: not known
    bool authority = false;         // the certificate of an authority
    // The provider has a key of this certificate. In classic, that is any; in modern it leaves out those
    // of authorities without a key and those without a name. Of several with one name, the first counts.
    bool isKey = true;
    PublicKeyObject publicKey = PublicKeyObject::none;
    // CKA_LABEL of the certificate and of the public key objects with its CKA_ID, any bytes.
    std::vector<std::string> labels = {};
    Bytes der = {};

    bool isRsa() const;
    bool isEc() const;
    // "RSA", "ECDSA_P256", "ECDSA_P384", "ECDSA_P521", or "ECDSA" for another curve. Empty for a key
    // that the provider cannot use.
    std::string algorithm() const;
};

// In the order of the token. An attribute that cannot be read is empty.
std::vector<TokenCertificate> readCertificates(Pkcs11& p11, const P11Slot& slot,
                                               PublicSession& session);

// What the token of the configured library contains, or all of its tokens.
struct TokenContents {
    bool answers = false;   // the library listed its slots
    bool hasToken = false;  // there is an initialised token
    bool read = false;      // and its objects could be read; of several tokens, those of each
    std::vector<TokenCertificate> certificates;

    // The certificate of the provider's key with that name; null if there is none.
    const TokenCertificate* find(const std::wstring& keyName) const;
    // The same as a context of the system; null also if the system cannot read it.
    Certificate certificateOf(const std::wstring& keyName) const;
};

enum class Tokens : uint8_t {
    ofProvider,  // the one that the provider uses: the first initialised one
    all,         // each initialised one
};

// Loads the configuration and the library, and releases the library again. A provider may be open. Sets
// the behaviour of this program's parts of the module: in modern, they leave the library of an open
// provider initialized. Throws Failure only if the configuration cannot be read.
TokenContents readToken(Tokens which = Tokens::ofProvider);

}  // namespace NV::tool
