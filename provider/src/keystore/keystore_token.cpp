// The steps of the token sequence.

#include "keystore/keystore_token.h"

#include <algorithm>
#include <array>
#include <vector>

#include "config/mode.h"
#include "logger/operation.h"
#include "p11/library_life.h"
#include "p11/p11text.h"

namespace NV {

// What the log says about a search for a key.
struct TokenSequence::KeyTexts {
    const char* search;
    const char* none;
    const char* several;
    const char* found;

    static constexpr KeyTexts of(CK_OBJECT_CLASS objectClass)
    {
        if (objectClass == CKO_PRIVATE_KEY)
            return {") Try to find private key object of the token ",
                    "There is no suitable private key object",
                    "There are multiple private key objects for the token (use first one)",
                    "Found private key object = "};
        return {") Try to find public key object of the token ",
                "There is no suitable public key object",
                "There are multiple public key objects for the token (use first one)",
                "Found public key object = "};
    }
};

TokenSequence::TokenSequence(Pkcs11& p11, CK_SLOT_ID slotId, const Site& operation)
    : p11_(p11), slotId_(slotId), operation_(operation)
{
}

TokenSequence::~TokenSequence()
{
    p11_.giveBack();
}

bool TokenSequence::check(CK_RV rv, std::string_view failure)
{
    if (rv == CKR_OK)
        return true;
    NV_UNDER(ERR, operation_, "%.*s(%s)", static_cast<int>(failure.size()), failure.data(),
             returnValueText(rv));
    noteResult(rv, returnValueText);
    failure_.note(rv);
    return false;
}

bool TokenSequence::initialize()
{
    if (p11_.joined())
        return true;
    NV_UNDER(TRC, operation_, "0) Try to initialize");
    const CK_RV rv = p11_.C_Initialize(nullptr);
    if (rv == CKR_CRYPTOKI_ALREADY_INITIALIZED)
        return true;
    initialized_ = check(rv, "Failed C_Initialize ");
    return initialized_;
}

bool TokenSequence::openSession(const char* heading)
{
    NV_UNDER(TRC, operation_, "%s", heading);
    opened_ = check(p11_.C_OpenSession(slotId_, CKF_SERIAL_SESSION, nullptr, nullptr, &session_),
                    "Failed to open session ");
    if (opened_)
        NV_UNDER(TRC, operation_, "Success to open session (%p)", asPointer(session_));
    return opened_;
}

bool TokenSequence::login(const SecretBytes& pin)
{
    NV_UNDER(TRC, operation_, "2) Try to login the token ");
    // A private copy, because PKCS#11 takes the PIN by a pointer to non-const.
    SecretBytes copy(pin);
    if (p11_.joined())
        login_ = std::unique_lock(sequenceLock());
    const CK_RV rv =
        p11_.C_Login(session_, CKU_USER, copy.data(), static_cast<CK_ULONG>(copy.size()));
    if (rv == CKR_USER_ALREADY_LOGGED_IN && mode().sharesLibraryWithHost()) {
        NV_UNDER(TRC, operation_, "The token has a login already");
        return true;
    }
    loggedIn_ = check(rv, "Failed to login the token ");
    if (loggedIn_)
        NV_UNDER(TRC, operation_, "Success to login the token");
    return loggedIn_;
}

bool TokenSequence::findKey(int step, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType,
                            const Bytes& id)
{
    const KeyTexts texts = KeyTexts::of(objectClass);
    NV_UNDER(TRC, operation_, "%d%s", step, texts.search);
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_KEY_TYPE, &keyType, sizeof keyType),
                         attribute(CKA_ID, id.data(), id.size())};
    const CK_RV rv = p11_.C_FindObjectsInit(session_, search.data(), search.size());
    if (!check(rv, "Failed to initialize FindObject "))
        return false;
    NV_UNDER(TRC, operation_, "Success to initialize FindObject of the token");
    return findFirst(texts);
}

// Compat: a search that failed or found nothing is not finalized.
bool TokenSequence::findFirst(const KeyTexts& texts)
{
    std::vector<CK_OBJECT_HANDLE> found;
    if (!check(findObjects(p11_, session_, found), "Failed to find Object "))
        return false;
    NV_UNDER(DBG, operation_, "Success to Found %d Object (must be 1)",
             static_cast<int>(found.size()));
    if (found.empty()) {
        NV_UNDER(ERR, operation_, "%s", texts.none);
        fail();
        return false;
    }
    if (found.size() > 1)
        NV_UNDER(WRN, operation_, "%s", texts.several);
    key_ = found.front();
    NV_UNDER(TRC, operation_, "%s%p", texts.found, asPointer(key_));
    if (!check(p11_.C_FindObjectsFinal(session_), "Failed to finalize the FindObject "))
        return false;
    NV_UNDER(TRC, operation_, "Success to finalize the FindObject");
    return true;
}

SECURITY_STATUS TokenSequence::finish(const CleanUp& steps)
{
    if (loggedIn_) {
        NV_UNDER(TRC, operation_, "%d) Try to logout the token ", steps.logout);
        const CK_RV rv = p11_.C_Logout(session_);
        if (check(rv, "Failed to logout the token "))
            NV_UNDER(TRC, operation_, "Success to logout the token");
    }
    // A login that its wrapper could not report, or not end. The end of the session does not always
    // end it: another part of the process may have one, too.
    p11_.giveBackLogin();
    if (login_.owns_lock())
        login_.unlock();
    if (opened_) {
        NV_UNDER(TRC, operation_, "%d) Try to close the session (%p)", steps.close,
                 asPointer(session_));
        const CK_RV rv = p11_.C_CloseSession(session_);
        if (check(rv, "Failed to close session "))
            NV_UNDER(TRC, operation_, "Success to close session");
    }
    // A session that its wrapper could not report, or not close.
    p11_.giveBackSession();
    if (initialized_) {
        NV_UNDER(TRC, operation_, "%d) Try to finalize", steps.finalize);
        const CK_RV rv = p11_.C_Finalize(nullptr);
        check(rv, "Failed C_Finalize ");
    }
    return status();
}

SECURITY_STATUS TokenSequence::status() const
{
    if (!failure_.failed())
        return ERROR_SUCCESS;
    if (p11_.joined() && failure_.result() == CKR_CRYPTOKI_NOT_INITIALIZED)
        return libraryLost;
    return mode().translatesTokenResults() ? static_cast<SECURITY_STATUS>(failure_.status().value)
                                           : NTE_INTERNAL_ERROR;
}

CK_ULONG lengthWithin(const void* buffer, CK_ULONG capacity, CK_ULONG reported)
{
    return buffer != nullptr ? std::min(capacity, reported) : reported;
}

}  // namespace NV
