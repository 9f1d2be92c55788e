// The bridge's exported functions and their shared parts. In C++ the export C_X has the name
// p11bridge_C_X, because the native header declares the plain names. The export list, which
// CMakeLists.txt makes from NV_CK_FUNCTIONS, gives them their public names.

#pragma once

#include <new>

#include "library.h"

extern "C" {
#define NV_DECLARE(name, parameters) CK_RV NV_CK_CALL p11bridge_##name parameters;
NV_CK_FUNCTIONS(NV_DECLARE)
#undef NV_DECLARE
}

namespace NV::bridge {

// Runs the work of an export; no exception leaves the bridge.
template <typename Work>
CK_RV guarded(Work work)
{
    try {
        return work();
    } catch (const Failure& failure) {
        return failure.value;
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    } catch (...) {
        return CKR_GENERAL_ERROR;
    }
}

// A number of the caller that the native library reads, writes, or both (lengths, handles). It is
// written back only if the native call changed it; a null pointer stays null.
class InOut {
public:
    explicit InOut(CK_ULONG* caller)
        : caller_{caller}, before_{caller != nullptr ? *caller : 0}, native_{before_}
    {
    }

    native::CK_ULONG* get() { return caller_ != nullptr ? &native_ : nullptr; }

    // Returns result, or CKR_GENERAL_ERROR if the call succeeded with a number that does not fit.
    CK_RV finish(CK_RV result) const
    {
        if (caller_ == nullptr || native_ == before_)
            return result;
        try {
            *caller_ = narrowAmount(native_);
        } catch (const Failure& failure) {
            return result == CKR_OK ? failure.value : result;
        }
        return result;
    }

private:
    CK_ULONG* caller_;
    native::CK_ULONG before_;
    native::CK_ULONG native_;
};

// A handle that the native library returns: written on success only, and then always.
class NewHandle {
public:
    explicit NewHandle(CK_ULONG* caller) : caller_{caller} {}

    native::CK_ULONG* get() { return caller_ != nullptr ? &native_ : nullptr; }

    // Throws Failure when the handle does not fit.
    CK_RV finish(CK_RV result) const
    {
        if (result == CKR_OK && caller_ != nullptr)
            *caller_ = narrow(native_);
        return result;
    }

private:
    CK_ULONG* caller_;
    native::CK_ULONG native_ = 0;
};

}  // namespace NV::bridge

// Defines one export. work is the body of a lambda that returns a CK_RV.
#define NV_EXPORT(name, parameters, ...)                                                           \
    CK_RV NV_CK_CALL p11bridge_##name parameters                                                   \
    {                                                                                              \
        return NV::bridge::guarded([&]() -> CK_RV __VA_ARGS__);                                    \
    }

// The native function of that name as a member of the function list.
#define NV_NATIVE(name) &native::CK_FUNCTION_LIST::name

// Defines one export that passes its arguments on as they are.
#define NV_FORWARD(name, parameters, ...)                                                          \
    NV_EXPORT(name, parameters, { return callNative(NV_NATIVE(name), __VA_ARGS__); })
