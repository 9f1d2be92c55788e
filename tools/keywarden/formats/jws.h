// JSON Web Signatures in the compact serialisation (RFC 7515).

#pragma once

#include <cstddef>
#include <string>

#include "base/encoding.h"

namespace NV::tool {

// The algorithm of a header (RFC 7518, 3.1): "RS256", "PS384", "ES512". `hashSize` in bytes.
std::string jwsAlgorithm(bool isRsa, bool isPss, size_t hashSize);

// The hash that an algorithm of an elliptic curve requires, in bytes; `bits` is the curve's length.
size_t jwsHashSize(size_t bits);

// What is signed: the header, a period, and the payload. The header names the algorithm and the key.
std::string jwsSigningInput(const std::string& algorithm, const std::string& keyName,
                            const Bytes& payload);

// The whole signature; without the payload if it is detached (RFC 7515, appendix F). An ECDSA
// signature is r followed by s.
std::string jwsCompact(const std::string& signingInput, const Bytes& signature, bool detached);

}  // namespace NV::tool
