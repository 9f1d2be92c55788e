// Finds, loads and calls the native library behind the bridge. Used by the exports.

#pragma once

#include <type_traits>

#include "convert.h"
#include "sessions.h"

namespace NV::bridge {

// Loads the library that the Unix environment variable P11_BRIDGE_MODULE names (default: SoftHSM2)
// unless it is already loaded, and initializes it. A library that cannot be loaded is reported on
// stderr, the result is CKR_LIBRARY_LOAD_FAILED, and the next call tries again. While a library is
// initialized, a change of the variable has no effect.
CK_RV initializeLibrary(native::CK_C_INITIALIZE_ARGS* arguments);

CK_RV finalizeLibrary(void* reserved);

// Function list of the loaded library; null before the first successful load.
const native::CK_FUNCTION_LIST* functionList();

// An argument as the native library takes it. The first number of a call may be a session; the numbers
// that stand for long handles are no slots.
template <typename Argument>
auto nativeArgument(Argument argument)
{
    if constexpr (std::is_same_v<Argument, CK_SESSION_HANDLE>)
        return longSession(argument);
    else
        return argument;
}

// Calls one function of the native library.
template <typename Member, typename First, typename... Arguments>
CK_RV callNative(Member native::CK_FUNCTION_LIST::*member, First first, Arguments... arguments)
{
    const native::CK_FUNCTION_LIST* list = functionList();
    if (list == nullptr)
        return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (list->*member == nullptr)
        return CKR_FUNCTION_NOT_SUPPORTED;
    return narrowResult((list->*member)(nativeArgument(first), arguments...));
}

}  // namespace NV::bridge
