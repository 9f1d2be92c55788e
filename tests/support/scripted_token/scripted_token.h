// The tests' side of the scripted token: loads scripted_token.dll from the folder of the test
// program, the same instance that the code under test loads by path(), configures it and reads its
// state. README.md in this folder describes the token, the forms of recorded calls and the faults.

#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scripted_token_control.h"
#include "scripted_token_values.h"

namespace NV::test {

// What the token returns for these; see pattern().
Bytes signatureOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data, size_t length);
Bytes hmacOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> key,
             std::span<const CK_BYTE> data);
Bytes digestOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data);

// What CKM_RSA_PKCS signs for a SHA-256 hash (DigestInfo, RFC 8017, 9.2).
Bytes sha256DigestInfo(const Bytes& hash);

// The full path of a file in the folder of the running test program.
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
    // A copy of the library under another name: a separate token.
    explicit ScriptedToken(const std::wstring& copy);
    // Resets the token and releases the library.
    ~ScriptedToken();
    ScriptedToken(const ScriptedToken&) = delete;
    ScriptedToken& operator=(const ScriptedToken&) = delete;

    // The path with which the code under test loads the library.
    static std::string path();  // UTF-8
    static std::wstring widePath();

    // Restores the state after loading, including calls and faults.
    void reset() { control_->reset(); }

    // The calls since the last reset or clearing, in order of arrival: "C_Finalize(reserved=null)",
    // their names, those of one name, and the identifiers of the threads that made them.
    std::vector<std::string> calls() const { return texts(control_->callLine); }
    std::vector<std::string> callNames() const { return texts(control_->callName); }
    std::vector<std::string> calls(const std::string& name) const;
    std::vector<uint32_t> callThreads() const;
    void clearCalls() { control_->clearCalls(); }
    // Off: calls are neither recorded nor rendered, so that each costs almost nothing. Faults still
    // apply, and the order of calls is still checked.
    void setRecording(bool on) { control_->setRecording(on ? 1 : 0); }

    // Faults: on the nth call from now, counted from 1, or on every call (0). They accumulate; a
    // fault for a single call is removed by it. An unknown name throws std::invalid_argument.
    void fail(const std::string& function, CK_RV rv, uint32_t nth = 0)
    {
        addFault(function, Fault::returnValue, rv, nth);
    }
    // Like fail, but the call does its work before it returns the value.
    void failAfterWork(const std::string& function, CK_RV rv, uint32_t nth = 0)
    {
        addFault(function, Fault::returnAfterWork, rv, nth);
    }
    void throwFrom(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::throwException, 0, nth);
    }
    // Like throwFrom, but the call does its work before.
    void throwAfterWork(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::throwAfterWork, 0, nth);
    }
    // A call that gives a list or bytes succeeds and reports this count or length, whatever the true
    // one is, also when it is asked for it without a buffer. It writes what is true.
    void claim(const std::string& function, uint32_t count, uint32_t nth = 0)
    {
        addFault(function, Fault::claims, count, nth);
    }
    // C_GetAttributeValue succeeds, but reports every value as unavailable.
    void valueUnavailable(uint32_t nth = 0)
    {
        addFault("C_GetAttributeValue", Fault::valueUnavailable, 0, nth);
    }
    void delay(const std::string& function, std::chrono::milliseconds time, uint32_t nth = 0)
    {
        addFault(function, Fault::delay, static_cast<uint32_t>(time.count()), nth);
    }
    // Comes last: the call has begun, and holds the mutex if setHoldsMutex is on.
    void crashIn(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::crash, 0, nth);
    }
    // These three apply to, and count, only calls with an output buffer.
    void bufferTooSmall(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::bufferTooSmall, 0, nth);
    }
    void secondCountLarger(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::secondCountLarger, 0, nth);
    }
    void lengthPastBuffer(const std::string& function, uint32_t nth = 0)
    {
        addFault(function, Fault::lengthPastBuffer, 0, nth);
    }
    void clearFaults() { control_->clearFaults(); }
    // The faults that calls have met since the last reset or the last time this was asked; at most
    // the first 64.
    std::vector<StruckFault> takeStruckFaults();

    // What C_GetFunctionList returns from its next call on.
    void setListMode(ListMode mode) { control_->setListMode(mode); }
    void setListEntryNull(const std::string& function);

    // The list lies in memory that cannot be written. Whether it is so now, which code that has written
    // to the list may have changed.
    void setListReadOnly(bool on) { control_->setListReadOnly(on ? 1 : 0); }
    bool listReadOnly() const { return control_->listReadOnly() != 0; }

    // Slots: addSlot of a known identifier changes that slot.
    void clearSlots() { control_->clearSlots(); }
    void addSlot(CK_SLOT_ID slot, CK_FLAGS flags = kSlotFlags, CK_FLAGS tokenFlags = kTokenFlags)
    {
        control_->putSlot(slot, flags, tokenFlags);
    }

    // Objects that live on the token, with handles from kFirstObject on.
    void clearObjects() { control_->clearObjects(); }
    CK_OBJECT_HANDLE addObject(const std::vector<Attribute>& attributes, CK_SLOT_ID slot = kSlot);
    CK_OBJECT_HANDLE addCertificate(const std::optional<Bytes>& id, const Bytes& der,
                                    CK_SLOT_ID slot = kSlot);
    // First the public key, then the private one. An empty modulus means a pattern.
    KeyPair addRsaKeyPair(const Bytes& id, CK_ULONG modulusBits, CK_SLOT_ID slot = kSlot,
                          const Bytes& modulus = {});
    // Coordinates of 32, 48 or 66 bytes: P-256, P-384, P-521; others throw std::invalid_argument.
    KeyPair addEcKeyPair(const Bytes& id, CK_ULONG coordinateSize, CK_SLOT_ID slot = kSlot);

    // The bytes that the agreed secrets of C_DeriveKey repeat (kSecretPattern).
    void setSecretPattern(const Bytes& bytes)
    {
        control_->setSecretPattern(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    // The token reads a mechanism's parameter block again at the end of the operation, and returns
    // CKR_MECHANISM_PARAM_INVALID if it has changed.
    void setParametersReread(bool on) { control_->setParametersReread(on ? 1 : 0); }

    // The token holds the mutex that it got: each C_Initialize makes a mutex by the callbacks that it
    // was given, and each other call until the C_Finalize holds it from its beginning to its end.
    void setHoldsMutex(bool on) { control_->setHoldsMutex(on ? 1 : 0); }

    TokenState state() const;
    bool initialised() const { return state().initialised != 0; }
    uint32_t openSessions() const { return state().openSessions; }
    bool userLoggedIn() const { return state().userLoggedIn != 0; }
    // The sessions and logins that C_Finalize has ended since the last reset.
    uint32_t sessionsFinalized() const { return state().sessionsFinalized; }
    uint32_t loginsFinalized() const { return state().loginsFinalized; }
    uint32_t sequenceViolations() const { return state().sequenceViolations; }
    uint32_t overlappingCalls() const { return state().overlappingCalls; }

    // Calls a callback of the latest C_Initialize; CKR_GENERAL_ERROR when it passed none.
    CK_RV createMutex(void** mutex)
    {
        return control_->callMutexCallback(MutexCallback::create, nullptr, mutex);
    }
    CK_RV destroyMutex(void* mutex)
    {
        return control_->callMutexCallback(MutexCallback::destroy, mutex, nullptr);
    }
    CK_RV lockMutex(void* mutex)
    {
        return control_->callMutexCallback(MutexCallback::lock, mutex, nullptr);
    }
    CK_RV unlockMutex(void* mutex)
    {
        return control_->callMutexCallback(MutexCallback::unlock, mutex, nullptr);
    }

    // The exported functions, for a test that calls the token directly. Not recorded.
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
