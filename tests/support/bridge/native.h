// PKCS#11 in the layout of Linux libraries (64-bit CK_ULONG, natural alignment), in namespace
// native, in addition to the Windows layout of cryptoki.h. For the bridge's own files.
//
// The constants of the native header are macros, and not all of its values are those of the
// standard (CKR_LIBRARY_LOAD_FAILED). native_undef.h, which CMakeLists.txt makes, undefines them,
// so that constants are always those of cryptoki.h. The header declares C_* functions with C
// linkage; therefore the bridge's exports have another name in C++ (see exports.h).

#pragma once

#include <cstddef>

#include "p11/cryptoki.h"

namespace native {
#include <p11-kit/pkcs11.h>
}
#include "native_undef.h"

static_assert(sizeof(native::CK_ULONG) == 8 && sizeof(native::CK_ATTRIBUTE) == 24);
