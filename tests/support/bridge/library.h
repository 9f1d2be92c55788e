// The native library behind the bridge: finding, loading and calling it. Used by the exports.

#pragma once

#include "convert.h"

namespace NV::bridge {

// Loads the library that the Unix environment variable P11_BRIDGE_MODULE names (default: SoftHSM2)
// unless it is loaded already, and initialises it. What cannot be loaded is reported on stderr and
// answered with CKR_LIBRARY_LOAD_FAILED; the next call tries again. While a library is initialised,
// a change of the variable has no effect.
CK_RV initializeLibrary(native::CK_C_INITIALIZE_ARGS* arguments);

CK_RV finalizeLibrary(void* reserved);

// Function list of the loaded library; null before the first successful load.
const native::CK_FUNCTION_LIST* functionList();

// Calls one function of the native library.
template <typename Member, typename... Arguments>
CK_RV callNative(Member native::CK_FUNCTION_LIST::*member, Arguments... arguments)
{
    const native::CK_FUNCTION_LIST* list = functionList();
    if (list == nullptr)
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (list->*member == nullptr)
        return CKR_FUNCTION_NOT_SUPPORTED;
    return narrowResult((list->*member)(arguments...));
}

}  // namespace NV::bridge
