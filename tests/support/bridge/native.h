// PKCS#11 as Linux libraries lay it out (64-bit CK_ULONG, natural alignment), in namespace native,
// beside the Windows layout of cryptoki.h. For the bridge's own files.
//
// The native header's constants are macros, and not all of its values are the standard's
// (CKR_LIBRARY_LOAD_FAILED): native_undef.h, which CMakeLists.txt makes, takes them away again, so
// that constants are always those of cryptoki.h. The header declares C_* functions with C linkage;
// the bridge's exports have another name in C++ for that reason (see exports.h).

#pragma once

#include <cstddef>

#include "p11/cryptoki.h"

namespace native {
#include <p11-kit/pkcs11.h>
}
#include "native_undef.h"

static_assert(sizeof(native::CK_ULONG) == 8 && sizeof(native::CK_ATTRIBUTE) == 24);
