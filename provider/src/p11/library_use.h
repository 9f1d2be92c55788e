// What a user of a PKCS#11 library holds of it and must give back: the initialized state, a session,
// a login. The discovery and the call layer each keep one.

#pragma once

#include <optional>

#include "p11/cryptoki.h"

namespace NV {

// Notes what the calls have taken, as soon as the library has returned, so that it is given back
// also when the log fails before the caller sees the result. One session at a time: the last one
// that was opened. It has no lock.
class LibraryUse {
public:
    void initialized() { initialized_ = true; }
    void opened(CK_SESSION_HANDLE session) { session_ = session; }
    void loggedIn() { loggedIn_ = true; }

    void loggedOut() { loggedIn_ = false; }
    // Another session than the last one changes nothing.
    void closed(CK_SESSION_HANDLE session);
    // Finalizing also closes the session and ends the login.
    void finalized() { *this = {}; }

    // Log out, close too, and finalize too, as far as needed, by calls without trace lines. Ignore
    // their results, null entries of the list and exceptions.
    void giveBackLogin(const CK_FUNCTION_LIST& list) noexcept;
    void giveBackSession(const CK_FUNCTION_LIST& list) noexcept;
    void giveBack(const CK_FUNCTION_LIST& list) noexcept;

private:
    bool initialized_ = false;
    std::optional<CK_SESSION_HANDLE> session_;
    bool loggedIn_ = false;
};

}  // namespace NV
