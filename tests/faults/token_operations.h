// The token operations and derivation, each behind the same call, on a scripted token that starts every
// case afresh: in classic those of the key objects, in modern those of a provider, which begins an
// operation again.

#pragma once

#include <memory>
#include <optional>

#include "base/secret.h"
#include "behaviours.h"
#include "guarded_output.h"
#include "operation_oracle.h"

namespace NV::test {

// What *pcbResult and *phAgreedSecret hold before a run.
inline constexpr DWORD untouchedLength = 0x7391;
inline constexpr NCRYPT_SECRET_HANDLE untouchedHandle = 0x7391;

struct Attempt {
    explicit Attempt(size_t room) : output(room) { secret.reserve(64); }

    SECURITY_STATUS status = 0;
    GuardedOutput output;
    DWORD length = untouchedLength;
    NCRYPT_SECRET_HANDLE handle = untouchedHandle;
    Bytes secret;            // behind the handle, when one was handed out; its record is freed
    long heapLeft = 0;       // blocks of the C heap that the run has left
    bool inputKept = false;  // no byte that the operation was given has changed
};

// What the operations are given.
struct OperationInputs {
    Bytes hash;
    Bytes cipherText;
    Bytes rsaSignature;
    Bytes ecSignature;
    Bytes peer;  // the point of a P-256 key
    SecretBytes pin{kPin.begin(), kPin.end()};
    SecretBytes secret{0x51, 0x52, 0x53};
    SecretBytes hmacKey{0xA1, 0xA2};

    bool operator==(const OperationInputs&) const = default;
};

// Where the operations are called.
class OperationDoor {
public:
    OperationDoor() = default;
    OperationDoor(const OperationDoor&) = delete;
    OperationDoor& operator=(const OperationDoor&) = delete;
    virtual ~OperationDoor() = default;

    virtual SECURITY_STATUS start(const OperationRow& row, OperationInputs& in,
                                  Attempt& attempt) = 0;
    // Takes the agreed secret out of its record and frees that.
    virtual void takeSecret(Attempt& attempt) = 0;
};

// They throw std::runtime_error when the scripted token cannot be loaded.
std::unique_ptr<OperationDoor> keyObjects();
std::unique_ptr<OperationDoor> openedProvider(ScriptedToken& token, const OperationInputs& in);

class TokenOperations {
public:
    // Sets the behaviour of the process. Throws as the doors do.
    explicit TokenOperations(Behaviour behaviour);

    // The token with an RSA key 01AB of 2048 bits and a P-256 key 0256, with no calls recorded and
    // no fault set, behind the list that the call layer holds. In modern, the library is initialized.
    void reset();

    Attempt run(const OperationRow& row);
    // The output of a good run, or the agreed secret.
    Bytes output(TokenOperation operation) const;

    ScriptedToken token;
    // The library's list as the call layer calls it.
    CK_FUNCTION_LIST& list() { return *list_; }

private:
    ModeOf mode_;
    Behaviour behaviour_;
    OperationInputs in_;
    CK_FUNCTION_LIST* list_ = nullptr;
    std::unique_ptr<OperationDoor> door_;
};

}  // namespace NV::test
