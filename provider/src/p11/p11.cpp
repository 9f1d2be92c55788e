// The call layer's shared pieces, its life, and the wrappers of the general, slot, token and
// session functions. A wrapper states its name, its arguments with the way they print, how its
// outcome is told, and what it adds.

#include "p11/p11.h"

#include <memory>
#include <mutex>
#include <utility>

#include "base/scope_exit.h"
#include "p11/p11_call.h"

namespace NV {

using namespace call_layer;

namespace call_layer {

bool hasFunctionList(const Site& site, const CK_FUNCTION_LIST* list)
{
    if (list == nullptr)
        NV_UNDER(ERR, site, "Function List is not initialized");
    return list != nullptr;
}

void logOutcome(const Site& site, const char* name, Outcome outcome, CK_RV rv, double milliseconds)
{
    if (outcome == Outcome::End)
        NV_UNDER(TRC, site, "CALL %s(): END [%.3f msec]", name, milliseconds);
    else
        NV_UNDER(TRC, site, "CALL %s(): Result = %s, Elapsed [%.3f msec]", name,
                 returnValueText(rv), milliseconds);
}

}  // namespace call_layer

namespace {

// The locking that the library is offered when the caller brings none.
CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR handle)
{
    *handle = new std::mutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR handle)
{
    const std::unique_ptr<std::mutex> owned(static_cast<std::mutex*>(handle));
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR handle)
{
    if (handle != nullptr)
        static_cast<std::mutex*>(handle)->lock();
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR handle)
{
    if (handle != nullptr)
        static_cast<std::mutex*>(handle)->unlock();
    return CKR_OK;
}

}  // namespace

bool Pkcs11::loadModule(std::string path)
{
    Trace trace(NV_HERE);
    const std::lock_guard guard(lock_);
    trace.arguments(text("path", path.c_str()));
    if (module_ != nullptr)
        return trace.leaving(false);
    module_ = std::make_unique<P11Module>(std::move(path));
    return trace.leaving(module_->load() && module_->init());
}

CK_C_INITIALIZE_ARGS* Pkcs11::prepareInitArgs(const Site& site, CK_VOID_PTR pInitArgs,
                                              std::unique_ptr<CK_C_INITIALIZE_ARGS>& replaced)
{
    auto* args = static_cast<CK_C_INITIALIZE_ARGS*>(pInitArgs);
    const bool generated = args == nullptr;
    if (generated) {
        NV_UNDER(INF, site, "InitArgs will be generated because it is null");
        args = std::make_unique<CK_C_INITIALIZE_ARGS>(
                   CK_C_INITIALIZE_ARGS{createMutex, destroyMutex, lockMutex, unlockMutex,
                                        CKF_LIBRARY_CANT_CREATE_OS_THREADS | CKF_OS_LOCKING_OK,
                                        nullptr})
                   .release();
    }
    replaced = module_->replaceInitArgs(args, generated);
    const auto code = [](auto function) { return reinterpret_cast<const void*>(function); };
    NV_UNDER(INF, site, "ARGS.CreateMutex=%p", code(args->CreateMutex));
    NV_UNDER(INF, site, "ARGS.DestroyMutex=%p", code(args->DestroyMutex));
    NV_UNDER(INF, site, "ARGS.LockMutex=%p", code(args->LockMutex));
    NV_UNDER(INF, site, "ARGS.UnlockMutex=%p", code(args->UnlockMutex));
    NV_UNDER(INF, site, "ARGS.pReserved=%p", args->pReserved);
    NV_UNDER(INF, site, "ARGS.flags=0x%02x", args->flags);
    return args;
}

CK_RV Pkcs11::C_Initialize(CK_VOID_PTR pInitArgs)
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    const std::lock_guard guard(lock_);
    logArguments<LogLevel::DBG>(here, 0, pointer("pInitArgs", pInitArgs));
    CK_RV rv = CKR_GENERAL_ERROR;
    if (hasFunctionList(here, functionList())) {
        // Kept until the library has taken the new ones: it may still look at the old ones.
        std::unique_ptr<CK_C_INITIALIZE_ARGS> replaced;
        CK_C_INITIALIZE_ARGS* args = prepareInitArgs(here, pInitArgs, replaced);
        const auto remember = [this](CK_RV result) { initialized_ |= result == CKR_OK; };
        rv = guarded(here, "C_Initialize", Outcome::Result, functionList()->C_Initialize, remember,
                     static_cast<CK_VOID_PTR>(args));
    }
    NV_INF("RETURN CODE:%s", returnValueText(rv));
    trace.leave();
    return rv;
}

CK_RV Pkcs11::C_Finalize(CK_VOID_PTR pReserved)
{
    return NV_PLAIN_CALL(C_Finalize, Result, pointer("pReserved", pReserved));
}

CK_RV Pkcs11::C_GetInfo(CK_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetInfo, End), nothingBefore, logInfo(NV_HERE, "CK_INFO", pInfo),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    return NV_PLAIN_CALL(C_GetFunctionList, End, pointer("ppFunctionList", ppFunctionList));
}

CK_RV Pkcs11::C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    constexpr Site here = NV_HERE;
    const auto logCount = [&](CK_RV rv) {
        if (rv == CKR_OK && pulCount != nullptr)
            NV_UNDER(TRC, here, "Slot Count: %d", static_cast<int>(*pulCount));
    };
    return call(NV_CALL(C_GetSlotList, End), nothingBefore, logCount,
                number("tokenPresent", tokenPresent), pointer("pSlotList", pSlotList),
                pointer("pulCount", pulCount));
}

CK_RV Pkcs11::C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetSlotInfo, End), nothingBefore, logInfo(NV_HERE, "CK_SLOT_INFO", pInfo),
                number("slotID", slotID), pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetTokenInfo, End), nothingBefore,
                logInfo(NV_HERE, "CK_TOKEN_INFO", pInfo), number("slotID", slotID),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                                 CK_ULONG_PTR pulCount)
{
    return NV_PLAIN_CALL(C_GetMechanismList, End, number("slotID", slotID),
                         pointer("pMechanismList", pMechanismList), pointer("pulCount", pulCount));
}

CK_RV Pkcs11::C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                                 CK_MECHANISM_INFO_PTR pInfo)
{
    return NV_PLAIN_CALL(C_GetMechanismInfo, End, number("slotID", slotID), number("type", type),
                         pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen,
                          CK_UTF8CHAR_PTR pLabel)
{
    return NV_PLAIN_CALL(C_InitToken, End, number("slotID", slotID), pointer("pPin", pPin),
                         number("ulPinLen", ulPinLen), pointer("pLabel", pLabel));
}

CK_RV Pkcs11::C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return NV_PLAIN_CALL(C_InitPIN, End, pointer("hSession", hSession), pointer("pPin", pPin),
                         number("ulPinLen", ulPinLen));
}

CK_RV Pkcs11::C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
                       CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen)
{
    return NV_PLAIN_CALL(C_SetPIN, End, pointer("hSession", hSession), pointer("pOldPin", pOldPin),
                         number("ulOldLen", ulOldLen), pointer("pNewPin", pNewPin),
                         number("ulNewLen", ulNewLen));
}

CK_RV Pkcs11::C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication,
                            CK_NOTIFY Notify, CK_SESSION_HANDLE_PTR phSession)
{
    constexpr Site here = NV_HERE;
    const auto logFlags = [&] {
        if ((flags & CKF_SERIAL_SESSION) != 0)
            NV_UNDER(DBG, here, "CKF_SERIAL_SESSION is enabled");
        if ((flags & CKF_RW_SESSION) != 0)
            NV_UNDER(DBG, here, "CKF_RW_SESSION is enabled");
    };
    return call(NV_CALL(C_OpenSession, Result), logFlags, nothingAfter, number("slotID", slotID),
                flagBits("flags", flags), pointer("pApplication", pApplication),
                pointer("Notify", Notify), pointer("phSession", phSession));
}

CK_RV Pkcs11::C_CloseSession(CK_SESSION_HANDLE hSession)
{
    return NV_PLAIN_CALL(C_CloseSession, Result, pointer("hSession", hSession));
}

CK_RV Pkcs11::C_CloseAllSessions(CK_SLOT_ID slotID)
{
    return NV_PLAIN_CALL(C_CloseAllSessions, End, number("slotID", slotID));
}

CK_RV Pkcs11::C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo)
{
    return call(NV_CALL(C_GetSessionInfo, End), nothingBefore,
                logInfo(NV_HERE, "CK_SESSION_INFO", pInfo), pointer("hSession", hSession),
                pointer("pInfo", pInfo));
}

CK_RV Pkcs11::C_GetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                                  CK_ULONG_PTR pulOperationStateLen)
{
    return NV_PLAIN_CALL(C_GetOperationState, End, pointer("hSession", hSession),
                         pointer("pOperationState", pOperationState),
                         pointer("pulOperationStateLen", pulOperationStateLen));
}

CK_RV Pkcs11::C_SetOperationState(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,
                                  CK_ULONG ulOperationStateLen, CK_OBJECT_HANDLE hEncryptionKey,
                                  CK_OBJECT_HANDLE hAuthenticationKey)
{
    return NV_PLAIN_CALL(C_SetOperationState, End, pointer("hSession", hSession),
                         pointer("pOperationState", pOperationState),
                         number("ulOperationStateLen", ulOperationStateLen),
                         pointer("hEncryptionKey", hEncryptionKey),
                         pointer("hAuthenticationKey", hAuthenticationKey));
}

CK_RV Pkcs11::C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                      CK_ULONG ulPinLen)
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    const std::lock_guard guard(lock_);
    logArguments<LogLevel::DBG>(here, 0, pointer("hSession", hSession),
                                number("userType", userType), pointer("pPin", pPin),
                                number("ulPinLen", ulPinLen));
    CK_RV rv = CKR_GENERAL_ERROR;
    if (!hasFunctionList(here, functionList())) {
        // Said there already.
    } else if (pPin != nullptr) {
        rv = guarded(here, "C_Login", Outcome::End, functionList()->C_Login, nothingAfter, hSession,
                     userType, pPin, ulPinLen);
    } else if (ulPinLen != 0) {
        // The text says the opposite of what is wrong. Kept: logs are searched by it.
        NV_ERR("Invalid Argument ulPinLen is zero");
    } else {
        rv = loginWithoutPin(here, hSession, userType);
    }
    trace.leave();
    return rv;
}

CK_RV Pkcs11::loginWithoutPin(const Site& site, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType)
{
    try {
        module_->lock();
        ScopeExit unlock([this] { module_->unlock(); });
        const CK_RV rv = NVEnterPIN(*module_, hSession, userType);
        unlock.run();
        return rv;
    } catch (...) {
        NV_UNDER(ERR, site, "Caught Exception");
        return CKR_FUNCTION_FAILED;
    }
}

CK_RV Pkcs11::C_Logout(CK_SESSION_HANDLE hSession)
{
    return NV_PLAIN_CALL(C_Logout, End, pointer("hSession", hSession));
}

}  // namespace NV

CK_RV NVEnterPIN(const NV::P11Module& module, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                 NV::PinSource source)
{
    const NV::Trace trace(NV_HERE);
    NV_TRC("Popup Dialog: START");
    std::string pin = source["pin"];
    NV_TRC("Popup Dialog: END");
    CK_RV rv = CKR_GENERAL_ERROR;
    if (pin.empty()) {
        NV_ERR("Entered PIN is empty");
    } else {
        // In clear text on purpose: this path serves set-ups that are being debugged.
        NV_DBG("Entered Pin=%s[%dbytes]", pin.c_str(), static_cast<int>(pin.size()));
        NV_TRC("CALL C_Login(): START");
        const NV::Stopwatch clock;
        rv = module.functionList()->C_Login(hSession, userType,
                                            reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                            static_cast<CK_ULONG>(pin.size()));
        NV_TRC("CALL C_Login(): END [%.3f msec]", clock.milliseconds());
        NV_INF("CALL C_Login(): RETURN CODE:%s", NV::returnValueText(rv));
    }
    trace.leave();
    return rv;
}
