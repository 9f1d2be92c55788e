// ECDSA signatures in their two forms: CNG's, r and s one behind the other, each as long as a
// coordinate; and the DER SEQUENCE of two INTEGERs (RFC 3279, 2.2.3) that OpenSSL and X.509 use.

#pragma once

#include <cstddef>

#include "base/encoding.h"

namespace NV::tool {

// `raw` has an even number of bytes.
Bytes ecdsaToDer(const Bytes& raw);

// `coordinateSize` in bytes: 32, 48 or 66. Throws Failure when the bytes are no such signature.
Bytes ecdsaFromDer(const Bytes& der, size_t coordinateSize);

}  // namespace NV::tool
