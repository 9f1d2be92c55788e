// The sequence that every token operation runs: initialise, open a session, log in, find the key,
// work, log out, close, finalise. Used by the key objects and by derivation.

#pragma once

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "base/encoding.h"
#include "base/secret.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"
#include "p11/p11.h"

namespace NV {

// One run of the sequence. Its lines appear under the operation's name. A failed step logs an error
// with the PKCS#11 result's name and settles the status; the operation then goes straight to
// finish, which undoes what was done.
//
// The steps answer true when the operation may go on, so that they chain with &&. The caller holds
// the process-wide sequence lock.
class TokenSequence {
public:
    // The numbers that the clean-up steps carry in their headings.
    struct CleanUp {
        int logout;
        int close;
        int finalize;
    };

    TokenSequence(Pkcs11& p11, CK_SLOT_ID slotId, const Site& operation);
    // Undoes what an exception kept finish from undoing.
    ~TokenSequence();
    TokenSequence(const TokenSequence&) = delete;
    TokenSequence& operator=(const TokenSequence&) = delete;

    // "0) Try to initialize". A library that another part of the process has initialised already
    // will do, and is then left initialised.
    bool initialize();
    // A serial session, read-only, without callback.
    bool openSession(const char* heading = "1) Try to open a new session ");
    // As user; the PIN is passed as it is.
    bool login(const SecretBytes& pin);
    // The first key object of a class (CKO_PRIVATE_KEY or CKO_PUBLIC_KEY), type and CKA_ID.
    bool findKey(int step, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, const Bytes& id);

    // True for CKR_OK; otherwise logs `failure` with the result's name in parentheses behind it.
    bool check(CK_RV rv, std::string_view failure);

    // A step of the operation's own that failed without a token call, already logged.
    void fail() { status_ = NTE_INTERNAL_ERROR; }

    // Logs out, closes and finalises as far as that applies. ERROR_SUCCESS when every step of the
    // whole sequence went well, otherwise NTE_INTERNAL_ERROR.
    SECURITY_STATUS finish(const CleanUp& steps);

    Pkcs11& p11() const { return p11_; }
    CK_SESSION_HANDLE session() const { return session_; }
    CK_OBJECT_HANDLE key() const { return key_; }

private:
    bool findFirst(const char* kind);

    Pkcs11& p11_;
    CK_SLOT_ID slotId_;
    Site operation_;
    CK_SESSION_HANDLE session_ = 0;
    CK_OBJECT_HANDLE key_ = 0;
    bool initialized_ = false;
    bool opened_ = false;
    bool loggedIn_ = false;
    SECURITY_STATUS status_ = ERROR_SUCCESS;
};

// A mechanism whose parameter block lies on the C heap and is freed with this object: after the
// work call, because a token may keep the pointer from the init call.
class OwnedMechanism {
public:
    explicit OwnedMechanism(const CK_MECHANISM& mechanism) : mechanism_(mechanism) {}
    ~OwnedMechanism();
    OwnedMechanism(const OwnedMechanism&) = delete;
    OwnedMechanism& operator=(const OwnedMechanism&) = delete;

    CK_MECHANISM* get() { return &mechanism_; }
    CK_MECHANISM_TYPE type() const { return mechanism_.mechanism; }

    // Frees the parameter block and takes another mechanism.
    void replace(const CK_MECHANISM& mechanism);
    // Gives mechanism and parameter block away.
    CK_MECHANISM release();

private:
    CK_MECHANISM mechanism_;
};

// A mechanism with a copy of its parameters on the C heap. Throws std::bad_alloc.
template <typename Parameters>
CK_MECHANISM withParameters(CK_MECHANISM_TYPE type, const Parameters& parameters)
{
    void* block = std::malloc(sizeof parameters);
    if (block == nullptr)
        throw std::bad_alloc();
    std::memcpy(block, &parameters, sizeof parameters);
    return {type, block, sizeof parameters};
}

// The length that a token reported for an output, but never more than the buffer holds. A null
// buffer was a question for the length and has no bound.
CK_ULONG lengthWithin(const void* buffer, CK_ULONG capacity, CK_ULONG reported);

}  // namespace NV
