// Detached CMS signatures (RFC 5652): a SignedData with one signer, his certificate, and signed
// attributes, but without the content.

#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <string>

#include "base/encoding.h"
#include "keystore/keystore_hash.h"

namespace NV::tool {

enum class SignatureAlgorithm { rsaPkcs1, rsaPss, ecdsa };

// How the signer signs.
struct CmsSigner {
    const CERT_CONTEXT& certificate;
    const HashAlgorithm& hash;
    SignatureAlgorithm algorithm;
    size_t saltSize;  // in bytes; only for rsaPss
};

// The signed attributes (content type, digest of the content, time of signing) as the SET whose hash is
// signed. `time` is UTC.
Bytes cmsAttributes(const Bytes& digest, const SYSTEMTIME& time);

// The ContentInfo as DER. `signature` is of the attributes; an ECDSA signature is DER, too. Throws Failure
// if the certificate is damaged.
Bytes cmsSignature(const CmsSigner& signer, const Bytes& attributes, const Bytes& signature);

}  // namespace NV::tool
