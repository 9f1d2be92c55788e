// The scripted token's memory: slots, sessions, logins and objects, and the rules for them. The
// PKCS#11 functions (calls_*.cpp) and the control (control.cpp) use it.

#pragma once

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "scripted_token_control.h"
#include "scripted_token_values.h"

namespace NV::scripted {

using test::Bytes;

enum class Login { nobody, user, securityOfficer };

struct Slot {
    CK_SLOT_ID id = 0;
    CK_FLAGS flags = 0;
    CK_FLAGS tokenFlags = 0;
    Login login = Login::nobody;

    bool present() const { return (flags & CKF_TOKEN_PRESENT) != 0; }
};

struct Object {
    CK_SLOT_ID slot = 0;
    CK_SESSION_HANDLE session = 0;  // 0: on the token
    std::map<CK_ATTRIBUTE_TYPE, Bytes> attributes;

    const Bytes* find(CK_ATTRIBUTE_TYPE type) const;
    CK_ULONG number(CK_ATTRIBUTE_TYPE type, CK_ULONG otherwise) const;
    bool flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const;
    CK_OBJECT_CLASS objectClass() const;
    bool isPrivate() const;  // CKA_PRIVATE; if it is absent, only private keys are
    bool reveals(CK_ATTRIBUTE_TYPE type) const;  // false: CKR_ATTRIBUTE_SENSITIVE
    CK_ULONG modulusLength() const;              // bytes; 0: not an RSA key
    CK_ULONG coordinateSize() const;             // bytes; 0: not a key on a known curve
};

enum class Work { encrypt, decrypt, digest, sign, signRecover, verify, verifyRecover, count };

struct Operation {
    const test::MechanismRow* mechanism;
    Bytes parameter;     // as it was when the operation began
    CK_MECHANISM given;  // with the caller's pointer, for parameters that are read again
    CK_OBJECT_HANDLE key = 0;
    Bytes data;  // collected from the update calls
};

struct Search {
    std::vector<CK_OBJECT_HANDLE> found;
    size_t told = 0;
};

struct Session {
    CK_SESSION_HANDLE handle;
    CK_SLOT_ID slot;
    CK_FLAGS flags;
    std::array<std::optional<Operation>, static_cast<size_t>(Work::count)> operations;
    std::optional<Search> search;

    std::optional<Operation>& operation(Work work) { return operations[static_cast<size_t>(work)]; }
    bool readOnly() const { return (flags & CKF_RW_SESSION) == 0; }
};

class Token {
public:
    Token() { reset(); }

    // Restores the state after loading.
    void reset();
    // Removes all that does not outlive C_Finalize; slots and the objects on the token remain.
    void finalise();

    Slot* slot(CK_SLOT_ID id);
    CK_RV checkToken(CK_SLOT_ID id);  // CKR_OK: the slot exists and has a token

    Session* session(CK_SESSION_HANDLE handle);
    Session& openSession(CK_SLOT_ID id, CK_FLAGS flags);
    void closeSession(CK_SESSION_HANDLE handle);
    CK_ULONG sessionCount(CK_SLOT_ID id, bool readWriteOnly) const;
    void logOut(Slot& from);

    // False for a private object while the user is not logged in to a token that requires it.
    bool visible(const Object& seen);
    Object* object(CK_OBJECT_HANDLE handle);
    CK_OBJECT_HANDLE addTokenObject(Object added);
    CK_OBJECT_HANDLE addSessionObject(Session& owner, Object added);
    std::vector<CK_OBJECT_HANDLE> search(const Session& session,
                                         std::span<const CK_ATTRIBUTE> wanted);

    bool initialised = false;
    CK_C_INITIALIZE_ARGS initArguments{};  // of the latest C_Initialize
    bool initArgumentsGiven = false;
    std::vector<Slot> slots;
    std::map<CK_SESSION_HANDLE, Session> sessions;
    std::map<CK_OBJECT_HANDLE, Object> objects;
    Bytes secretPattern;
    bool parametersReread = false;
    bool holdsMutex = false;
    void* heldMutex = nullptr;  // from a C_Initialize with holdsMutex to its C_Finalize

private:
    CK_SESSION_HANDLE nextSession_ = test::kFirstSession;
    CK_OBJECT_HANDLE nextObject_ = test::kFirstObject;
    CK_OBJECT_HANDLE nextSessionObject_ = test::kFirstSessionObject;
};

// Guards the token, the recorded calls and the faults. Not held during a delay.
std::mutex& tokenMutex();

// The only token of this library. The caller holds tokenMutex.
Token& token();

Bytes valueOf(const CK_ATTRIBUTE& attribute);
bool equals(const Bytes& value, const CK_ATTRIBUTE& attribute);
Object objectFrom(const CK_ATTRIBUTE* attributes, CK_ULONG count);
Bytes numberBytes(CK_ULONG value);

}  // namespace NV::scripted
