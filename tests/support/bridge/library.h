// Finds, loads and calls the native library behind the bridge. Used by the exports.

#pragma once

#include "convert.h"

namespace NV::bridge {

// Loads the library that the Unix environment variable P11_BRIDGE_MODULE names (default: SoftHSM2)
// unless it is already loaded, and initializes it. A library that cannot be loaded is reported on
// stderr, the result is CKR_LIBRARY_LOAD_FAILED, and the next call tries again. While a library is
// initialized, a change of the variable has no effect.
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
