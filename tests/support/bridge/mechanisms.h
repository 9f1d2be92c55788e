// Mechanisms and their parameters on their way to the native library. Used by the exports that
// start an operation or make a key.

#pragma once

#include <memory>
#include <variant>

#include "convert.h"

namespace NV::bridge {

// A mechanism in the native layout. Byte strings that its parameter points to stay where the
// caller has them.
class Mechanism {
public:
    // Null stays null. Throws Failure: CKR_MECHANISM_PARAM_INVALID for a known parameter structure
    // of the wrong length, CKR_FUNCTION_NOT_SUPPORTED for a parameter whose shape is not known.
    explicit Mechanism(const CK_MECHANISM* mechanism);

    // The parameter is inside the object and pointed to.
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

// Keeps the mechanism of a session's operation alive: a native library may go on using the
// parameter until the operation's work is done, and the caller's own one does live as long.
// operation: any value that tells the kinds of operations apart.
void keepMechanism(CK_SESSION_HANDLE session, int operation, std::unique_ptr<Mechanism> mechanism);
void forgetMechanisms(CK_SESSION_HANDLE session);
void forgetAllMechanisms();

}  // namespace NV::bridge
