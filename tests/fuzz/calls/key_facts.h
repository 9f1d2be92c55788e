// What the model knows of a key, and the values and blobs that the module must make of it.

#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include <bcrypt.h>

#include "base/encoding.h"

namespace NV::fuzz {

// A key of a certificate, or one that was imported.
struct KeyFacts {
    std::wstring name;  // empty: the certificate has no CKA_ID, or the key was imported
    bool rsa = false;
    uint32_t bits = 0;
    Bytes publicKey = {};    // as in the certificate; of an imported key the uncompressed point
    bool onToken = false;    // the private and the public key object are on the token
    Bytes certificate = {};  // empty: the key was imported

    // Bytes of a modulus or of a coordinate.
    uint32_t size() const { return (bits + 7) / 8; }
    uint32_t signatureSize() const { return rsa ? size() : 2 * size(); }
};

// The values of properties; empty: the key does not have it. Texts have their terminating zero.
Bytes nameOf(const KeyFacts& key);
Bytes algorithmOf(const KeyFacts& key);
Bytes algorithmGroupOf(const KeyFacts& key);
Bytes bitsOf(const KeyFacts& key);
Bytes lengthsOf(const KeyFacts& key);
Bytes signatureLengthOf(const KeyFacts& key);
Bytes blockLengthOf(const KeyFacts& key);
Bytes curveNameOf(const KeyFacts& key);
Bytes certificateOf(const KeyFacts& key);
template <DWORD value>
Bytes numberOf(const KeyFacts&);

Bytes bytesOf(const std::wstring& text);
Bytes bytesOf(DWORD number);

// Public key blobs. CNG's of an RSA key, with the usual exponent and with its own; of an EC key; and
// CryptoAPI's of an RSA key.
Bytes rsaBlobWithUsualExponent(const KeyFacts& key);
Bytes rsaBlob(const KeyFacts& key);
Bytes eccBlob(const KeyFacts& key);
Bytes legacyBlob(const KeyFacts& key);

// Whether the data, which is not longer than the modulus, is a number below it.
bool isBelowModulus(const KeyFacts& key, const Bytes& data);

template <DWORD value>
Bytes numberOf(const KeyFacts&)
{
    return bytesOf(value);
}

}  // namespace NV::fuzz
