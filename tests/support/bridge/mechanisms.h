// Converts mechanisms and their parameters for the native library. Used by the exports that start
// an operation or create a key.

#pragma once

#include <memory>
#include <variant>

#include "convert.h"

namespace NV::bridge {

// A mechanism in the native layout. Byte strings that its parameter points to stay in the caller's
// memory.
class Mechanism {
public:
    // Null stays null. Throws Failure: CKR_MECHANISM_PARAM_INVALID for a known parameter structure
    // of the wrong length, CKR_FUNCTION_NOT_SUPPORTED for a parameter of unknown shape.
    explicit Mechanism(const CK_MECHANISM* mechanism);

    // Not movable: the mechanism points to the parameter inside the object.
    Mechanism(const Mechanism&) = delete;
    Mechanism& operator=(const Mechanism&) = delete;
    ~Mechanism() = default;

    native::CK_MECHANISM* get();

private:
    template <typename Parameter>
    void setParameter(const Parameter& parameter);

    bool null_;
    native::CK_MECHANISM mechanism_{};
    std::variant<std::monostate, native::CK_RSA_PKCS_PSS_PARAMS, native::CK_RSA_PKCS_OAEP_PARAMS,
                 native::CK_ECDH1_DERIVE_PARAMS>
        parameter_;
};

// Keeps the mechanism of a session's operation alive, because a native library may use the
// parameter until the operation is complete; the caller's own parameter lives as long. operation:
// any value that distinguishes the kinds of operations.
void keepMechanism(CK_SESSION_HANDLE session, int operation, std::unique_ptr<Mechanism> mechanism);
void forgetMechanisms(CK_SESSION_HANDLE session);
void forgetAllMechanisms();

}  // namespace NV::bridge
