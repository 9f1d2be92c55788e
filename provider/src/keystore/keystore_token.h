// The sequence of every token operation: initialize, open a session, log in, find the key, work, log
// out, close, finalize. Used by the key objects and by derivation.

#pragma once

#include "base/cng.h"

#include <mutex>
#include <string_view>

#include "base/encoding.h"
#include "base/mutex.h"
#include "base/secret.h"
#include "keystore/token_status.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"
#include "p11/p11.h"

namespace NV {

// The status of a sequence that somebody else's C_Finalize has interrupted. It never leaves the
// provider, which begins the operation again. A value of our own (the customer bit is set).
inline constexpr SECURITY_STATUS libraryLost = static_cast<SECURITY_STATUS>(0xA0110190);

// One run of the sequence. Its lines appear under the operation's name. A failed step logs an error
// with the PKCS#11 result's name and sets the status. The operation then calls finish, which undoes
// the steps so far.
//
// A step returns true when the operation can go on, so that steps chain with &&.
//
// In the classic behaviour, the caller holds the process-wide sequence lock. In the modern one, the
// library is initialized all the time: that step and the last one are left out, and the sequence takes
// the lock itself, from login to logout.
class TokenSequence {
public:
    // The numbers in the headings of the clean-up steps.
    struct CleanUp {
        int logout;
        int close;
        int finalize;
    };

    TokenSequence(Pkcs11& p11, CK_SLOT_ID slotId, const Site& operation);
    // Undoes the steps if an exception prevented the call of finish, or the end of it.
    ~TokenSequence();
    TokenSequence(const TokenSequence&) = delete;
    TokenSequence& operator=(const TokenSequence&) = delete;

    // "0) Try to initialize". If another part of the process has initialized the library, the step
    // succeeds and the library stays initialized at the end.
    bool initialize();
    // A serial session, read-only, without callback.
    bool openSession(const char* heading = "1) Try to open a new session ");
    // As the user. The PIN's bytes are passed unchanged. In the modern behaviour, a login that the
    // token has already is used and left.
    bool login(const SecretBytes& pin);
    // The first key object of a class (CKO_PRIVATE_KEY or CKO_PUBLIC_KEY), type and CKA_ID.
    bool findKey(int step, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, const Bytes& id);

    // True for CKR_OK. Otherwise logs `failure`, followed by the result's name in parentheses.
    bool check(CK_RV rv, std::string_view failure);

    // For a step that found no key object and has logged that.
    void fail() { failure_.noteNoKey(); }

    // Logs out, closes and finalizes, as far as the steps were done. ERROR_SUCCESS when every step of
    // the whole sequence succeeded, otherwise NTE_INTERNAL_ERROR; in modern the status of the first
    // failure (token_status.h).
    SECURITY_STATUS finish(const CleanUp& steps);

    // What decides the status.
    const TokenFailure& failure() const { return failure_; }

    Pkcs11& p11() const { return p11_; }
    CK_SESSION_HANDLE session() const { return session_; }
    CK_OBJECT_HANDLE key() const { return key_; }

private:
    struct KeyTexts;

    bool findFirst(const KeyTexts& texts);
    SECURITY_STATUS status() const;

    Pkcs11& p11_;
    CK_SLOT_ID slotId_;
    Site operation_;
    CK_SESSION_HANDLE session_ = 0;
    CK_OBJECT_HANDLE key_ = 0;
    std::unique_lock<Mutex> login_;  // of the sequence lock
    bool initialized_ = false;
    bool opened_ = false;
    bool loggedIn_ = false;
    TokenFailure failure_;
};

// The length that a token reported for an output, limited to the buffer's capacity. Not limited when
// the buffer is null, because the call then asked for the length.
CK_ULONG lengthWithin(const void* buffer, CK_ULONG capacity, CK_ULONG reported);

}  // namespace NV
