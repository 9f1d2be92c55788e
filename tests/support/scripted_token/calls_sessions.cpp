// The scripted token's session functions: C_OpenSession to C_Logout, and the two functions that
// remain from parallel sessions.

#include <span>

#include "call.h"
#include "calls.h"

namespace NV::scripted {

namespace {

// CK_STATE, in the order of the standard.
enum SessionState : CK_STATE {
    readOnlyPublic,
    readOnlyUser,
    readWritePublic,
    readWriteUser,
    readWriteSecurityOfficer,
};

CK_STATE stateOf(const Session& session, const Slot& slot)
{
    if (slot.login == Login::securityOfficer)
        return readWriteSecurityOfficer;
    const bool user = slot.login == Login::user;
    if (session.readOnly())
        return user ? readOnlyUser : readOnlyPublic;
    return user ? readWriteUser : readWritePublic;
}

CK_RV checkOpening(Token& token, CK_SLOT_ID id, CK_FLAGS flags)
{
    const CK_RV rv = token.checkToken(id);
    if (rv != CKR_OK)
        return rv;
    const Slot& slot = *token.slot(id);
    if ((flags & CKF_SERIAL_SESSION) == 0)
        return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
    if ((slot.tokenFlags & CKF_TOKEN_INITIALIZED) == 0)
        return CKR_TOKEN_NOT_RECOGNIZED;
    if ((flags & CKF_RW_SESSION) != 0 && (slot.tokenFlags & CKF_WRITE_PROTECTED) != 0)
        return CKR_TOKEN_WRITE_PROTECTED;
    if ((flags & CKF_RW_SESSION) == 0 && slot.login == Login::securityOfficer)
        return CKR_SESSION_READ_WRITE_SO_EXISTS;
    return CKR_OK;
}

// Whether this login is allowed, before its PIN is checked.
CK_RV checkLogin(const Token& token, const Slot& slot, CK_USER_TYPE userType)
{
    if (userType != CKU_USER && userType != CKU_SO)
        return CKR_USER_TYPE_INVALID;
    const Login wanted = userType == CKU_USER ? Login::user : Login::securityOfficer;
    if (slot.login == wanted)
        return CKR_USER_ALREADY_LOGGED_IN;
    if (slot.login != Login::nobody)
        return CKR_USER_ANOTHER_ALREADY_LOGGED_IN;
    if (wanted == Login::securityOfficer &&
        token.sessionCount(slot.id, false) != token.sessionCount(slot.id, true))
        return CKR_SESSION_READ_ONLY_EXISTS;
    if (wanted == Login::user && (slot.tokenFlags & CKF_USER_PIN_INITIALIZED) == 0)
        return CKR_USER_PIN_NOT_INITIALIZED;
    return CKR_OK;
}

CK_RV logIn(const Token& token, Slot& slot, CK_USER_TYPE userType, const CK_UTF8CHAR* pin,
            CK_ULONG length)
{
    const CK_RV rv = checkLogin(token, slot, userType);
    if (rv != CKR_OK)
        return rv;
    const bool ownKeypad = (slot.tokenFlags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    if (pin == nullptr && !ownKeypad)
        return CKR_ARGUMENTS_BAD;
    const bool user = userType == CKU_USER;
    const std::string_view right = user ? test::kPin : test::kSecurityOfficerPin;
    if (pin != nullptr && !std::ranges::equal(std::span(pin, length), right))
        return CKR_PIN_INCORRECT;
    slot.login = user ? Login::user : Login::securityOfficer;
    return CKR_OK;
}

}  // namespace

}  // namespace NV::scripted

using namespace NV::scripted;  // the definitions below are C functions outside every namespace

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR phSession)
{
    const Line line = Line{}
                          .decimal("slot", slotID)
                          .hex("flags", flags)
                          .pointer("application", pApplication)
                          .pointer("notify", reinterpret_cast<const void*>(notify));
    return serve("C_OpenSession", line, Needs::initialised, nullptr, [&](Token& token, Lie) {
        if (phSession == nullptr)
            return CKR_ARGUMENTS_BAD;
        const CK_RV rv = checkOpening(token, slotID, flags);
        if (rv == CKR_OK)
            *phSession = token.openSession(slotID, flags).handle;
        return rv;
    });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession)
{
    return serveSession("C_CloseSession", hSession, sessionLine(hSession), nullptr,
                        [&](Token& token, Session&, Lie) {
                            token.closeSession(hSession);
                            return CKR_OK;
                        });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return serve("C_CloseAllSessions", Line{}.decimal("slot", slotID), Needs::initialised, nullptr,
                 [&](Token& token, Lie) {
                     const CK_RV rv = token.checkToken(slotID);
                     if (rv != CKR_OK)
                         return rv;
                     std::vector<CK_SESSION_HANDLE> open;
                     for (const auto& [handle, session] : token.sessions) {
                         if (session.slot == slotID)
                             open.push_back(handle);
                     }
                     for (const CK_SESSION_HANDLE handle : open)
                         token.closeSession(handle);
                     return CKR_OK;
                 });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    const Line line = sessionLine(hSession).pointer("info", pInfo);
    return serveSession(
        "C_GetSessionInfo", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            if (pInfo == nullptr)
                return CKR_ARGUMENTS_BAD;
            const Slot* slot = token.slot(session.slot);
            if (slot == nullptr)
                return CKR_DEVICE_REMOVED;
            *pInfo = {session.slot, stateOf(session, *slot), session.flags, NV::test::kDeviceError};
            return CKR_OK;
        });
}

// The saved state is a fixed text; restoring it succeeds and changes nothing.

CK_RV C_GetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                          CK_ULONG_PTR pulOperationStateLen)
{
    const Line line =
        sessionLine(hSession).room("operationState", pOperationState, pulOperationStateLen);
    return serveSession(
        "C_GetOperationState", hSession, line, pOperationState, [&](Token&, Session&, Lie lie) {
            return giveBytes(NV::test::kOperationState, pOperationState, pulOperationStateLen, lie);
        });
}

CK_RV C_SetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                          CK_ULONG ulOperationStateLen, CK_OBJECT_HANDLE hEncryptionKey,
                          CK_OBJECT_HANDLE hAuthenticationKey)
{
    const Line line = sessionLine(hSession)
                          .bytes("operationState", pOperationState, ulOperationStateLen)
                          .hex("encryptionKey", hEncryptionKey)
                          .hex("authenticationKey", hAuthenticationKey);
    return serveSession("C_SetOperationState", hSession, line, nullptr,
                        [](Token&, Session&, Lie) { return CKR_OK; });
}

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
              CK_ULONG ulPinLen)
{
    const Line line =
        sessionLine(hSession).decimal("userType", userType).text("pin", pPin, ulPinLen);
    return serveSession("C_Login", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            Slot* slot = token.slot(session.slot);
                            return slot == nullptr ? CKR_DEVICE_REMOVED
                                                   : logIn(token, *slot, userType, pPin, ulPinLen);
                        });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession)
{
    return serveSession("C_Logout", hSession, sessionLine(hSession), nullptr,
                        [](Token& token, Session& session, Lie) {
                            Slot* slot = token.slot(session.slot);
                            if (slot == nullptr)
                                return CKR_DEVICE_REMOVED;
                            if (slot->login == Login::nobody)
                                return CKR_USER_NOT_LOGGED_IN;
                            token.logOut(*slot);
                            return CKR_OK;
                        });
}

// The standard retains these two for old callers; with this token they succeed.

CK_RV C_GetFunctionStatus(CK_SESSION_HANDLE hSession)
{
    return serveSession("C_GetFunctionStatus", hSession, sessionLine(hSession), nullptr,
                        [](Token&, Session&, Lie) { return CKR_OK; });
}

CK_RV C_CancelFunction(CK_SESSION_HANDLE hSession)
{
    return serveSession("C_CancelFunction", hSession, sessionLine(hSession), nullptr,
                        [](Token&, Session&, Lie) { return CKR_OK; });
}
