// The constants as p11-kit's PKCS#11 header has them: an account of the standard that is not ours.
// In a source of its own, because that header and cryptoki.h declare the same names.

#pragma once

#include <cstdint>
#include <span>

namespace NV::test {

struct P11KitConstant {
    const char* name;  // CKR_, CKM_ or CKA_
    uint32_t value;
};

std::span<const P11KitConstant> p11kitConstants();

}  // namespace NV::test
