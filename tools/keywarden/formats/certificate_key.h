// The public key of a certificate as numbers and as a key of the system.

#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <optional>

#include "base/encoding.h"
#include "keystore/keystore_blob.h"

namespace NV::tool {

// A number, most significant byte first, without zeros before it.
Bytes withoutLeadingZeros(const Bytes& number);

// The numbers of an RSAPublicKey (RFC 8017, A.1.1), which is the content of an RSA certificate's public
// key. Nothing for anything else, and for an exponent of more than 32 bits.
std::optional<RsaNumbers> rsaNumbers(const Bytes& publicKey);

// A BCRYPT_PUBLIC_KEY_BLOB of the key: RSA, or an elliptic curve that CNG has blobs for. Empty for any
// other key.
Bytes cngPublicKey(const CERT_CONTEXT& certificate);

}  // namespace NV::tool
