// The key objects' token operations and derivation, each behind the same call, on a scripted token
// that starts every case afresh.

#pragma once

#include <memory>
#include <optional>

#include "guarded_output.h"
#include "keystore/keystore.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_rsa.h"
#include "operation_oracle.h"
#include "p11/p11.h"

namespace NV::test {

// What *pcbResult and *phAgreedSecret hold before a run.
inline constexpr DWORD untouchedLength = 0x7391;
inline constexpr NCRYPT_SECRET_HANDLE untouchedHandle = 0x7391;

struct Attempt {
    explicit Attempt(size_t room) : output(room) {}

    SECURITY_STATUS status = 0;
    GuardedOutput output;
    DWORD length = untouchedLength;
    NCRYPT_SECRET_HANDLE handle = untouchedHandle;
    Bytes secret;            // behind the handle, when one was handed out; its record is freed
    long heapLeft = 0;       // blocks of the C heap that the run has left, but for the secret's two
    bool inputKept = false;  // no byte that the operation was given has changed
};

class TokenOperations {
public:
    // Throws std::runtime_error when the scripted token cannot be loaded.
    TokenOperations();

    // The token with an RSA key 01AB of 2048 bits and a P-256 key 0256, with no calls recorded and
    // no fault set, behind the list that the call layer holds.
    void reset();

    Attempt run(const OperationRow& row);
    // The output of a good run, or the agreed secret.
    Bytes output(TokenOperation operation) const;

    ScriptedToken token;
    // The library's list as the call layer calls it.
    CK_FUNCTION_LIST& list() { return *p11_.module()->functionList(); }

private:
    SECURITY_STATUS start(const OperationRow& row, Attempt& attempt);
    SECURITY_STATUS derive(const OperationRow& row, Attempt& attempt);

    Pkcs11 p11_;
    P11RSAKeyObject rsa_;
    P11ECKeyObject ec_;
    KeyStore store_;
    Bytes hash_;
    Bytes cipherText_;
    Bytes rsaSignature_;
    Bytes ecSignature_;
    Bytes peer_;
    SecretBytes pin_{kPin.begin(), kPin.end()};
    SecretBytes secret_{0x51, 0x52, 0x53};
    SecretBytes hmacKey_{0xA1, 0xA2};
    SecretBytes none_;
};

}  // namespace NV::test
