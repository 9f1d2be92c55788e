// The tests' side of the scripted token: loads scripted_token.dll from beside the test program,
// the same instance that the code under test loads by path(), and scripts and questions it.
// README.md in this folder describes the token, the forms of recorded calls and the faults.

#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scripted_token_control.h"
#include "scripted_token_values.h"

namespace NV::test {

// What the token answers to these; see pattern().
Bytes signatureOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data, size_t length);
Bytes hmacOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> key,
             std::span<const CK_BYTE> data);
Bytes digestOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data);

// The full path of a file beside the running test program.
std::wstring widePathBesideTest(const std::wstring& fileName);
std::string pathBesideTest(const std::string& fileName);  // UTF-8

struct Attribute {
    CK_ATTRIBUTE_TYPE type;
    Bytes value;
};

Attribute numberAttribute(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
Attribute flagAttribute(CK_ATTRIBUTE_TYPE type, bool value);

struct KeyPair {
    CK_OBJECT_HANDLE publicKey;
    CK_OBJECT_HANDLE privateKey;
};

class ScriptedToken {
public:
    // Loads the library and resets it; throws std::runtime_error when it cannot be loaded.
    ScriptedToken();
    // A copy of the library under another name: a token of its own.
    explicit ScriptedToken(const std::wstring& copy);
    // Resets it and gives it back.
    ~ScriptedToken();
    ScriptedToken(const ScriptedToken&) = delete;
    ScriptedToken& operator=(const ScriptedToken&) = delete;

    // The library as the code under test is to load it.
    static std::string path();  // UTF-8
    static std::wstring widePath();

    // Everything as it was when the library was loaded, calls and faults included.
    void reset();

    // The calls since the last reset or clearing, in order of arrival.
    std::vector<std::string> calls() const;                         // "C_Finalize(reserved=null)"
    std::vector<std::string> callNames() const;                     // "C_Finalize"
    std::vector<std::string> calls(const std::string& name) const;  // only those of this name
    std::vector<uint32_t> callThreads() const;                      // the threads' identifiers
    void clearCalls();
    // Off: calls are neither recorded nor put into words, so that each costs next to nothing. Faults
    // strike and orders of calls are judged all the same.
    void setRecording(bool on);

    // Faults: on the nth call from now, counted from 1, or on every call (0). They add up; a
    // fault for a single call is used up by it. An unknown name throws std::invalid_argument.
    void fail(const std::string& function, CK_RV rv, uint32_t nth = 0);
    // As fail, but the call has done its work before it answers so.
    void failAfterWork(const std::string& function, CK_RV rv, uint32_t nth = 0);
    void throwFrom(const std::string& function, uint32_t nth = 0);
    // Of C_GetAttributeValue: it succeeds, but reports every value as unavailable.
    void valueUnavailable(uint32_t nth = 0);
    void delay(const std::string& function, std::chrono::milliseconds time, uint32_t nth = 0);
    // These three act on, and count, only calls that give an output buffer.
    void bufferTooSmall(const std::string& function, uint32_t nth = 0);
    void secondCountLarger(const std::string& function, uint32_t nth = 0);
    void lengthPastBuffer(const std::string& function, uint32_t nth = 0);
    void clearFaults();

    // What C_GetFunctionList hands out from its next call on.
    void setListMode(ListMode mode);
    void setListEntryNull(const std::string& function);

    // Slots: addSlot of a known identifier changes that slot.
    void clearSlots();
    void addSlot(CK_SLOT_ID slot, CK_FLAGS flags = kSlotFlags, CK_FLAGS tokenFlags = kTokenFlags);

    // Objects that live on the token, with handles from kFirstObject on.
    void clearObjects();
    CK_OBJECT_HANDLE addObject(const std::vector<Attribute>& attributes, CK_SLOT_ID slot = kSlot);
    CK_OBJECT_HANDLE addCertificate(const std::optional<Bytes>& id, const Bytes& der,
                                    CK_SLOT_ID slot = kSlot);
    // First the public key, then the private one. An empty modulus means a pattern.
    KeyPair addRsaKeyPair(const Bytes& id, CK_ULONG modulusBits, CK_SLOT_ID slot = kSlot,
                          const Bytes& modulus = {});
    // Coordinates of 32, 48 or 66 bytes: P-256, P-384, P-521; others throw std::invalid_argument.
    KeyPair addEcKeyPair(const Bytes& id, CK_ULONG coordinateSize, CK_SLOT_ID slot = kSlot);

    // The bytes that the agreed secrets of C_DeriveKey repeat (kSecretPattern).
    void setSecretPattern(const Bytes& bytes);
    // The token reads a mechanism's parameter block again when the work is done, and answers
    // CKR_MECHANISM_PARAM_INVALID when it is no longer what it was.
    void setParametersReread(bool on);

    TokenState state() const;
    bool initialised() const { return state().initialised != 0; }
    uint32_t openSessions() const { return state().openSessions; }
    bool userLoggedIn() const { return state().userLoggedIn != 0; }
    // What C_Finalize has had to end since the last reset.
    uint32_t sessionsFinalized() const { return state().sessionsFinalized; }
    uint32_t loginsFinalized() const { return state().loginsFinalized; }
    uint32_t sequenceViolations() const { return state().sequenceViolations; }
    uint32_t overlappingCalls() const { return state().overlappingCalls; }

    // Calls a callback of the latest C_Initialize; CKR_GENERAL_ERROR when it brought none.
    CK_RV createMutex(void** mutex);
    CK_RV destroyMutex(void* mutex);
    CK_RV lockMutex(void* mutex);
    CK_RV unlockMutex(void* mutex);

    // The exported functions, for a test that calls the token itself. Not recorded.
    CK_FUNCTION_LIST exports() const;

private:
    struct Unload {
        void operator()(void* library) const;
    };
    using CallText = uint32_t (*)(uint32_t, char*, uint32_t);

    void addFault(const std::string& function, Fault fault, uint32_t value, uint32_t nth);
    std::vector<std::string> texts(CallText text) const;

    std::unique_ptr<void, Unload> library_;
    const ScriptedTokenControl* control_ = nullptr;
};

}  // namespace NV::test
