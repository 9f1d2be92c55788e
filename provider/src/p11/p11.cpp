// Loading, and the wrappers of the general, slot, token and session functions. A wrapper states its
// name, its arguments with their formats, how its outcome is logged, and any lines of its own.

#include "p11/p11.h"

#include <memory>
#include <mutex>
#include <utility>

#include "base/scope_exit.h"
#include "base/secret.h"
#include "p11/p11_call.h"
#include "p11/p11_mutex.h"

namespace NV {

using namespace call_layer;

namespace call_layer {

void logOutcome(const Site& site, const char* name, Outcome outcome, CK_RV rv, double milliseconds)
{
    if (outcome == Outcome::end)
        NV_UNDER(TRC, site, "CALL %s(): END [%.3f msec]", name, milliseconds);
    else
        NV_UNDER(TRC, site, "CALL %s(): Result = %s, Elapsed [%.3f msec]", name,
                 returnValueText(rv), milliseconds);
}

}  // namespace call_layer

bool Pkcs11::loadModule(std::string path)
{
    Trace trace(NV_HERE);
    const std::lock_guard guard(lock_);
    trace.arguments(text("path", path.c_str()));
    if (module_ != nullptr)
        return trace.leaving(false);
    module_ = std::make_shared<P11Module>(std::move(path));
    return trace.leaving(module_->load() && module_->init());
}

bool Pkcs11::discoverAgain(const Site& site)
{
    const std::lock_guard guard(lock_);
    lost_ = false;
    return module_->discoverAgain(site);
}

P11Module::InitArgs Pkcs11::prepareInitArgs(const Site& site, CK_VOID_PTR pInitArgs)
{
    P11Module::InitArgs replaced;
    if (pInitArgs == nullptr) {
        NV_UNDER(INF, site, "InitArgs will be generated because it is null");
        replaced = module_->replaceInitArgs(initArgsWithMutexes());
    } else {
        replaced = module_->replaceInitArgs(*static_cast<CK_C_INITIALIZE_ARGS*>(pInitArgs));
    }
    const CK_C_INITIALIZE_ARGS& args = *module_->initArgs();
    const auto code = [](auto function) { return reinterpret_cast<const void*>(function); };
    NV_UNDER(INF, site, "ARGS.CreateMutex=%p", code(args.CreateMutex));
    NV_UNDER(INF, site, "ARGS.DestroyMutex=%p", code(args.DestroyMutex));
    NV_UNDER(INF, site, "ARGS.LockMutex=%p", code(args.LockMutex));
    NV_UNDER(INF, site, "ARGS.UnlockMutex=%p", code(args.UnlockMutex));
    NV_UNDER(INF, site, "ARGS.pReserved=%p", args.pReserved);
    NV_UNDER(INF, site, "ARGS.flags=0x%02x", args.flags);
    return replaced;
}

CK_RV Pkcs11::C_Initialize(CK_VOID_PTR pInitArgs)
{
    constexpr Site here = NV_HERE;
    const auto initialize = [&](const CK_FUNCTION_LIST& list) {
        // The library may use the old arguments until it has taken the new ones.
        const P11Module::InitArgs replaced = prepareInitArgs(here, pInitArgs);
        const auto entry = watched(list.C_Initialize, [this](const auto& make) {
            const CK_RV rv = make();
            if (rv == CKR_OK) {
                use_.initialized();
                initialized_ = true;
            }
            return rv;
        });
        return guarded(here, "C_Initialize", Outcome::result, entry, nothingAfter,
                       static_cast<CK_VOID_PTR>(module_->initArgs()));
    };
    const auto work = [&] {
        const CK_RV rv = withFunctionList(here, initialize);
        NV_UNDER(INF, here, "RETURN CODE:%s", returnValueText(rv));
        return rv;
    };
    return traced(here, work, pointer("pInitArgs", pInitArgs));
}

CK_RV Pkcs11::C_Finalize(CK_VOID_PTR pReserved)
{
    const auto finalize = [this](const auto& make) {
        use_.finalized();
        return make();
    };
    return call(watchedCall(NV_CALL(C_Finalize, result), finalize), nothingBefore, nothingAfter,
                pointer("pReserved", pReserved));
}

CK_RV Pkcs11::C_GetInfo(CK_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetInfo, end), nothingBefore, logInfo(NV_HERE, "CK_INFO = ", pInfo),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    return NV_PLAIN_CALL(C_GetFunctionList, end, pointer("ppFunctionList", ppFunctionList));
}

CK_RV Pkcs11::C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    constexpr Site here = NV_HERE;
    const auto logCount = [&](CK_RV rv) {
        if (rv == CKR_OK && pulCount != nullptr)
            NV_UNDER(TRC, here, "Slot Count: %d", static_cast<int>(*pulCount));
    };
    return call(NV_CALL(C_GetSlotList, end), nothingBefore, logCount,
                number("tokenPresent", tokenPresent), pointer("pSlotList", pSlotList),
                pointer("pulCount", pulCount));
}

CK_RV Pkcs11::C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetSlotInfo, end), nothingBefore,
                logInfo(NV_HERE, "CK_SLOT_INFO = ", pInfo), number("slotID", slotID),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetTokenInfo, end), nothingBefore,
                logInfo(NV_HERE, "CK_TOKEN_INFO = ", pInfo), number("slotID", slotID),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                                 CK_ULONG_PTR pulCount)
{
    return NV_PLAIN_CALL(C_GetMechanismList, end, number("slotID", slotID),
                         pointer("pMechanismList", pMechanismList), pointer("pulCount", pulCount));
}

CK_RV Pkcs11::C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                                 CK_MECHANISM_INFO_PTR pInfo)
{
    return NV_PLAIN_CALL(C_GetMechanismInfo, end, number("slotID", slotID), number("type", type),
                         pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen,
                          CK_UTF8CHAR_PTR pLabel)
{
    return NV_PLAIN_CALL(C_InitToken, end, number("slotID", slotID), pointer("pPin", pPin),
                         number("ulPinLen", ulPinLen), pointer("pLabel", pLabel));
}

CK_RV Pkcs11::C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return NV_PLAIN_CALL(C_InitPIN, end, pointer("hSession", hSession), pointer("pPin", pPin),
                         number("ulPinLen", ulPinLen));
}

CK_RV Pkcs11::C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
                       CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen)
{
    return NV_PLAIN_CALL(C_SetPIN, end, pointer("hSession", hSession), pointer("pOldPin", pOldPin),
                         number("ulOldLen", ulOldLen), pointer("pNewPin", pNewPin),
                         number("ulNewLen", ulNewLen));
}

CK_RV Pkcs11::C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication,
                            CK_NOTIFY notify, CK_SESSION_HANDLE_PTR phSession)
{
    constexpr Site here = NV_HERE;
    const auto logFlags = [&] {
        if ((flags & CKF_SERIAL_SESSION) != 0)
            NV_UNDER(DBG, here, "CKF_SERIAL_SESSION is enabled");
        if ((flags & CKF_RW_SESSION) != 0)
            NV_UNDER(DBG, here, "CKF_RW_SESSION is enabled");
    };
    const auto open = [&](const auto& make) {
        const CK_RV rv = make();
        if (rv == CKR_OK && phSession != nullptr)
            use_.opened(*phSession);
        return rv;
    };
    return call(watchedCall(NV_CALL(C_OpenSession, result), open), logFlags, nothingAfter,
                number("slotID", slotID), flagBits("flags", flags),
                pointer("pApplication", pApplication), pointer("Notify", notify),
                pointer("phSession", phSession));
}

CK_RV Pkcs11::C_CloseSession(CK_SESSION_HANDLE hSession)
{
    const auto close = [&](const auto& make) {
        use_.closed(hSession);
        return make();
    };
    return call(watchedCall(NV_CALL(C_CloseSession, result), close), nothingBefore, nothingAfter,
                pointer("hSession", hSession));
}

CK_RV Pkcs11::C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return NV_PLAIN_CALL(C_CloseAllSessions, end, number("slotID", slotID));
}

CK_RV Pkcs11::C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetSessionInfo, end), nothingBefore,
                logInfo(NV_HERE, "CK_SESSION_INFO = ", pInfo), pointer("hSession", hSession),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                                  CK_ULONG_PTR pulOperationStateLen)
{
    return NV_PLAIN_CALL(C_GetOperationState, end, pointer("hSession", hSession),
                         pointer("pOperationState", pOperationState),
                         pointer("pulOperationStateLen", pulOperationStateLen));
}

CK_RV Pkcs11::C_SetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                                  CK_ULONG ulOperationStateLen, CK_OBJECT_HANDLE hEncryptionKey,
                                  CK_OBJECT_HANDLE hAuthenticationKey)
{
    return NV_PLAIN_CALL(C_SetOperationState, end, pointer("hSession", hSession),
                         pointer("pOperationState", pOperationState),
                         number("ulOperationStateLen", ulOperationStateLen),
                         pointer("hEncryptionKey", hEncryptionKey),
                         pointer("hAuthenticationKey", hAuthenticationKey));
}

CK_RV Pkcs11::C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                      CK_ULONG ulPinLen)
{
    constexpr Site here = NV_HERE;
    const auto noteLogin = [this](const auto& make) {
        const CK_RV rv = make();
        if (rv == CKR_OK)
            use_.loggedIn();
        return rv;
    };
    const auto login = [&](const CK_FUNCTION_LIST& list) {
        if (pPin != nullptr)
            return guarded(here, "C_Login", Outcome::end, watched(list.C_Login, noteLogin),
                           nothingAfter, hSession, userType, pPin, ulPinLen);
        if (ulPinLen == 0)
            return loginWithoutPin(here, hSession, userType);
        // Compat: the text says the opposite of what is wrong; people search logs for it.
        NV_UNDER(ERR, here, "Invalid Argument ulPinLen is zero");
        return CKR_GENERAL_ERROR;
    };
    return traced(
        here, [&] { return withFunctionList(here, login); }, pointer("hSession", hSession),
        number("userType", userType), pointer("pPin", pPin), number("ulPinLen", ulPinLen));
}

CK_RV Pkcs11::loginWithoutPin(const Site& site, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType)
{
    try {
        module_->lock();
        const ScopeExit unlock([this] { module_->unlock(); });
        const CK_RV rv = NVEnterPIN(*module_, hSession, userType);
        if (rv == CKR_OK)
            use_.loggedIn();
        return rv;
    } catch (...) {
        NV_UNDER(ERR, site, "Caught Exception");
        return CKR_FUNCTION_FAILED;
    }
}

CK_RV Pkcs11::C_Logout(CK_SESSION_HANDLE hSession)
{
    const auto logout = [this](const auto& make) {
        use_.loggedOut();
        return make();
    };
    return call(watchedCall(NV_CALL(C_Logout, end), logout), nothingBefore, nothingAfter,
                pointer("hSession", hSession));
}

void Pkcs11::giveBackLogin() noexcept
{
    quietly([this] {
        const std::lock_guard guard(lock_);
        if (const CK_FUNCTION_LIST* list = functionList())
            use_.giveBackLogin(*list);
    });
}

void Pkcs11::giveBackSession() noexcept
{
    quietly([this] {
        const std::lock_guard guard(lock_);
        if (const CK_FUNCTION_LIST* list = functionList())
            use_.giveBackSession(*list);
    });
}

void Pkcs11::giveBack() noexcept
{
    quietly([this] {
        const std::lock_guard guard(lock_);
        if (const CK_FUNCTION_LIST* list = functionList())
            use_.giveBack(*list);
    });
}

}  // namespace NV

CK_RV NVEnterPIN(const NV::P11Module& module, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                 NV::PinSource source)
{
    constexpr NV::Site here = NV_HERE;
    const NV::Trace trace(here);
    NV_TRC("Popup Dialog: START");
    std::string& pin = source["pin"];
    const NV::WipedAtEnd wiped(pin);
    NV_TRC("Popup Dialog: END");
    if (pin.empty()) {
        NV_ERR("Entered PIN is empty");
        return trace.leaving(CKR_GENERAL_ERROR);
    }
    // Compat: the PIN is in clear text. This path is for installations that are being debugged.
    NV_DBG("Entered Pin=%s[%dbytes]", pin.c_str(), static_cast<int>(pin.size()));
    const auto logResult = [&here](CK_RV rv) {
        NV_UNDER(INF, here, "CALL C_Login(): RETURN CODE:%s", NV::returnValueText(rv));
    };
    return trace.leaving(NV::call_layer::guarded(
        here, "C_Login", NV::call_layer::Outcome::end, module.functionList()->C_Login, logResult,
        hSession, userType, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
        static_cast<CK_ULONG>(pin.size())));
}
