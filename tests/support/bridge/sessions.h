// Session handles of more than 32 bits. A library may use all bits of its CK_ULONG: tpm2-pkcs11 has the
// token in the highest ones. The caller gets a number of 32 bits in place of such a handle. For the
// bridge's own files.

#pragma once

#include "convert.h"

namespace NV::bridge {

// The handle itself if it fits. The number of a handle stays the same until the process ends.
CK_SESSION_HANDLE shortSession(native::CK_SESSION_HANDLE session);

// The library's handle; any other number is returned as it is.
native::CK_SESSION_HANDLE longSession(CK_SESSION_HANDLE session);

}  // namespace NV::bridge
