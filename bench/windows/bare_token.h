// PKCS#11 calls as a program for a single token would write them: no trace, no look-ups, no objects
// that outlive the call. The module's own cost is measured as the difference to them.

#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

#include "base/encoding.h"
#include "p11/cryptoki.h"

namespace NV::bench {

// The operations make the calls that the module makes for the same operation, in the same order and
// with the same arguments. Each throws std::runtime_error when a call fails.
class BareToken {
public:
    // Loads the library, or shares the instance that the module has loaded. Uses the first slot
    // with a token.
    BareToken(const std::filesystem::path& library, std::string pin);
    ~BareToken();
    BareToken(const BareToken&) = delete;
    BareToken& operator=(const BareToken&) = delete;

    // Between the two, the operations find the library initialized, and may run on several threads.
    void initialize();
    void finalize();

    // Keys are named by their CKA_ID.
    void sign(CK_KEY_TYPE keyType, const Bytes& id, const Bytes& data, Bytes& signature);
    void verify(CK_KEY_TYPE keyType, const Bytes& id, const Bytes& data, const Bytes& signature);
    void encrypt(const Bytes& id, const Bytes& plain, Bytes& cipher);
    void decrypt(const Bytes& id, const Bytes& cipher, Bytes& plain);
    // The secret of an ECDH agreement with the peer's uncompressed point.
    Bytes agree(const Bytes& id, const Bytes& peerPoint);
    void digest(const Bytes& data, Bytes& digest);

    // The function list, for other calls.
    const CK_FUNCTION_LIST& list() const { return *list_; }
    CK_SLOT_ID slot() const { return slot_; }

private:
    // Initialize, open a session, log in if needed, work, log out, close, finalize. The first and the
    // last step are left out while the library is initialized.
    template <typename Work>
    void inSession(bool login, const Work& work);

    CK_OBJECT_HANDLE find(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass,
                          CK_KEY_TYPE keyType, const Bytes& id);

    HMODULE library_;
    CK_FUNCTION_LIST* list_ = nullptr;
    CK_SLOT_ID slot_ = 0;
    bool initialized_ = false;
    std::string pin_;
};

}  // namespace NV::bench
