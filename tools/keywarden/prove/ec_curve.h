// The curves of CNG's elliptic curve keys, as BCrypt knows them.

#pragma once

#include <windows.h>

#include <string_view>

#include "base/encoding.h"

namespace NV::tool {

struct EcCurve {
    DWORD bits;
    const wchar_t* ecdsaAlgorithm;
    const wchar_t* ecdhAlgorithm;
    ULONG ecdhMagic;  // of a BCRYPT_ECCPUBLIC_BLOB
    // The coordinates of the generator (SEC 2), hexadecimal: the public key to the private key 1.
    std::string_view generatorX;
    std::string_view generatorY;
};

// The curve of a BCRYPT_ECCPUBLIC_BLOB. Throws NotPossible for one that is not P-256, P-384 or P-521.
const EcCurve& curveOfKey(const Bytes& publicKey);

}  // namespace NV::tool
