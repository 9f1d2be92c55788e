// Converts ECDSA signatures between CNG's form, r || s, and OpenSSL's form, the DER of
// Ecdsa-Sig-Value (RFC 3279, 2.2.3). For the tests of EC keys.

#pragma once

#include "base/encoding.h"

namespace NV::test {

Bytes derFromRaw(const Bytes& raw);

// Each number in that many bytes. Throws std::runtime_error for anything that is not such a DER.
Bytes rawFromDer(const Bytes& der, size_t coordinateSize);

}  // namespace NV::test
