// A session without login: what any program may see of a token.

#pragma once

#include "base/encoding.h"
#include "p11/p11.h"

namespace NV::tool {

// The library is initialised for as long as the object lives. Its callers must not use the same
// library in another way meanwhile.
class PublicSession {
public:
    PublicSession(Pkcs11& p11, CK_SLOT_ID slot);
    ~PublicSession();
    PublicSession(const PublicSession&) = delete;
    PublicSession& operator=(const PublicSession&) = delete;

    bool isOpen() const { return open_; }
    CK_RV result() const { return rv_; }
    CK_SESSION_HANDLE handle() const { return handle_; }

    // Whether the token shows a public key object with that CKA_ID.
    bool hasPublicKey(const Bytes& id);

private:
    Pkcs11& p11_;
    CK_RV rv_;
    bool initialised_;
    bool open_ = false;
    CK_SESSION_HANDLE handle_ = 0;
};

}  // namespace NV::tool
