// What a program can read from a token without a login: the slot that the provider uses, and a
// session on it.

#pragma once

#include "p11/cryptoki.h"
#include "p11/p11.h"

namespace NV::tool {

// Keeps the library initialised while the object exists; in modern, it is initialised already. The caller
// must not use the same library in another way during that time.
class PublicSession {
public:
    PublicSession(Pkcs11& p11, CK_SLOT_ID slot);
    ~PublicSession();
    PublicSession(const PublicSession&) = delete;
    PublicSession& operator=(const PublicSession&) = delete;

    bool isOpen() const { return open_; }
    CK_RV result() const { return rv_; }
    CK_SESSION_HANDLE handle() const { return handle_; }
    // For functions that may replace the session by another one of the slot, or by 0 for none.
    CK_SESSION_HANDLE& handle() { return handle_; }

private:
    Pkcs11& p11_;
    CK_RV rv_;
    bool initialised_;
    bool open_ = false;
    CK_SESSION_HANDLE handle_ = 0;
};

}  // namespace NV::tool
