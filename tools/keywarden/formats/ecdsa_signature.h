// Conversion between the two formats of ECDSA signatures: CNG's, r followed by s, each as long as a
// coordinate; and the DER SEQUENCE of two INTEGERs (RFC 3279, 2.2.3) that OpenSSL and X.509 use.

#pragma once

#include <cstddef>

#include "base/encoding.h"

namespace NV::tool {

// `raw` has an even number of bytes.
Bytes ecdsaToDer(const Bytes& raw);

// `coordinateSize` in bytes: 32, 48 or 66. Throws Failure for an invalid signature.
Bytes ecdsaFromDer(const Bytes& der, size_t coordinateSize);

}  // namespace NV::tool
