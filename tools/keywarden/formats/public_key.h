// Public keys in the formats of other programs: SubjectPublicKeyInfo (RFC 5280) as DER and PEM, and
// CNG's blob of an elliptic curve key.

#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <string>

#include "base/encoding.h"

namespace NV::tool {

// The SubjectPublicKeyInfo of a certificate as DER. Throws Failure.
Bytes publicKeyOf(const CERT_CONTEXT& certificate);

// "-----BEGIN PUBLIC KEY-----" and so on, in lines of 64 characters that end in line feeds. `kind` is what
// stands behind BEGIN.
std::string toPem(const Bytes& der, const std::string& kind);

// The DER of a public key, from the content of a PEM or DER file. Throws Failure.
Bytes publicKeyFromFile(const Bytes& content);

// A BCRYPT_ECCPUBLIC_BLOB with an ECDH magic, from a SubjectPublicKeyInfo with one of the curves
// P-256, P-384 and P-521. Throws Failure for any other key.
Bytes ecdhBlob(const Bytes& publicKey);

}  // namespace NV::tool
