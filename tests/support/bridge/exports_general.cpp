// Exports: library, slots, tokens, mechanism lists, sessions and login.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "exports.h"
#include "mechanisms.h"

using namespace NV::bridge;

namespace {

CK_VERSION converted(const native::CK_VERSION& version)
{
    return {version.major, version.minor};
}

template <size_t size>
void copyText(CK_UTF8CHAR (&to)[size], const unsigned char (&from)[size])
{
    std::memcpy(to, from, size);
}

CK_INFO converted(const native::CK_INFO& info)
{
    CK_INFO result{};
    result.cryptokiVersion = converted(info.cryptokiVersion);
    copyText(result.manufacturerID, info.manufacturerID);
    result.flags = narrow(info.flags);
    copyText(result.libraryDescription, info.libraryDescription);
    result.libraryVersion = converted(info.libraryVersion);
    return result;
}

CK_SLOT_INFO converted(const native::CK_SLOT_INFO& info)
{
    CK_SLOT_INFO result{};
    copyText(result.slotDescription, info.slotDescription);
    copyText(result.manufacturerID, info.manufacturerID);
    result.flags = narrow(info.flags);
    result.hardwareVersion = converted(info.hardwareVersion);
    result.firmwareVersion = converted(info.firmwareVersion);
    return result;
}

CK_TOKEN_INFO converted(const native::CK_TOKEN_INFO& info)
{
    CK_TOKEN_INFO result{};
    copyText(result.label, info.label);
    copyText(result.manufacturerID, info.manufacturerID);
    copyText(result.model, info.model);
    copyText(result.serialNumber, info.serialNumber);
    result.flags = narrow(info.flags);
    result.ulMaxSessionCount = narrowAmount(info.ulMaxSessionCount);
    result.ulSessionCount = narrowAmount(info.ulSessionCount);
    result.ulMaxRwSessionCount = narrowAmount(info.ulMaxRwSessionCount);
    result.ulRwSessionCount = narrowAmount(info.ulRwSessionCount);
    result.ulMaxPinLen = narrowAmount(info.ulMaxPinLen);
    result.ulMinPinLen = narrowAmount(info.ulMinPinLen);
    result.ulTotalPublicMemory = narrowAmount(info.ulTotalPublicMemory);
    result.ulFreePublicMemory = narrowAmount(info.ulFreePublicMemory);
    result.ulTotalPrivateMemory = narrowAmount(info.ulTotalPrivateMemory);
    result.ulFreePrivateMemory = narrowAmount(info.ulFreePrivateMemory);
    result.hardwareVersion = converted(info.hardwareVersion);
    result.firmwareVersion = converted(info.firmwareVersion);
    copyText(result.utcTime, info.utcTime);
    return result;
}

CK_SESSION_INFO converted(const native::CK_SESSION_INFO& info)
{
    CK_SESSION_INFO result{};
    result.slotID = narrow(info.slotID);
    result.state = narrow(info.state);
    result.flags = narrow(info.flags);
    result.ulDeviceError = narrowAmount(info.ulDeviceError);
    return result;
}

CK_MECHANISM_INFO converted(const native::CK_MECHANISM_INFO& info)
{
    CK_MECHANISM_INFO result{};
    result.ulMinKeySize = narrowAmount(info.ulMinKeySize);
    result.ulMaxKeySize = narrowAmount(info.ulMaxKeySize);
    result.flags = narrow(info.flags);
    return result;
}

// A function that fills a structure; the caller's structure is written on success only.
template <typename Native, typename Member, typename Caller, typename... Arguments>
CK_RV fill(Member member, Caller* caller, Arguments... arguments)
{
    Native information{};
    const CK_RV result =
        callNative(member, arguments..., caller != nullptr ? &information : nullptr);
    if (result == CKR_OK && caller != nullptr)
        *caller = converted(information);
    return result;
}

// No list is longer than this; a wrong count from the caller must not become a huge allocation.
constexpr native::CK_ULONG longestList = 65536;

// A function that fills a list of identifiers; call gets the list and its length.
template <typename Call>
CK_RV fillList(CK_ULONG* caller, CK_ULONG* callerCount, Call call)
{
    if (callerCount == nullptr)
        return CKR_ARGUMENTS_BAD;

    native::CK_ULONG count = std::min<native::CK_ULONG>(*callerCount, longestList);
    // One more than requested, so that an empty list is not a null pointer.
    std::vector<native::CK_ULONG> list(caller != nullptr ? count + 1 : 0);
    const CK_RV result = call(caller != nullptr ? list.data() : nullptr, &count);
    if (result != CKR_OK && result != CKR_BUFFER_TOO_SMALL)
        return result;

    if (result == CKR_OK && caller != nullptr) {
        if (count >= list.size())
            return CKR_GENERAL_ERROR;
        std::transform(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(count), caller,
                       narrow);
    }
    *callerCount = narrowAmount(count);
    return result;
}

// The native library cannot use Windows callbacks: it locks with its own system's functions. Some
// libraries want a text of parameters, which NSS passes in pReserved; the Unix environment variable
// P11_BRIDGE_PARAMETERS has it.
CK_RV initializeWith(const CK_C_INITIALIZE_ARGS& arguments)
{
    const int callbacks = (arguments.CreateMutex != nullptr) + (arguments.DestroyMutex != nullptr) +
                          (arguments.LockMutex != nullptr) + (arguments.UnlockMutex != nullptr);
    if (callbacks != 0 && callbacks != 4)
        return CKR_ARGUMENTS_BAD;

    native::CK_C_INITIALIZE_ARGS converted{};
    converted.flags = CKF_OS_LOCKING_OK;
    converted.pReserved = arguments.pReserved;
    if (converted.pReserved == nullptr)
        converted.pReserved = std::getenv("P11_BRIDGE_PARAMETERS");
    return initializeLibrary(&converted);
}

CK_FUNCTION_LIST ownFunctions = {{2, 40},
#define NV_ENTRY(name, parameters) p11bridge_##name,
                                 NV_CK_FUNCTIONS(NV_ENTRY)
#undef NV_ENTRY
};

}  // namespace

NV_EXPORT(C_Initialize, (CK_VOID_PTR pInitArgs), {
    if (pInitArgs == nullptr)
        return std::getenv("P11_BRIDGE_PARAMETERS") == nullptr
                   ? initializeLibrary(nullptr)
                   : initializeWith(CK_C_INITIALIZE_ARGS{});
    return initializeWith(*static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs));
})

NV_EXPORT(C_Finalize, (CK_VOID_PTR pReserved), {
    const CK_RV result = finalizeLibrary(pReserved);
    if (result == CKR_OK)
        forgetAllMechanisms();
    return result;
})

NV_EXPORT(C_GetFunctionList, (CK_FUNCTION_LIST_PTR_PTR ppFunctionList), {
    if (ppFunctionList == nullptr)
        return CKR_ARGUMENTS_BAD;
    *ppFunctionList = &ownFunctions;
    return CKR_OK;
})

NV_EXPORT(C_GetInfo, (CK_INFO_PTR pInfo),
          { return fill<native::CK_INFO>(NV_NATIVE(C_GetInfo), pInfo); })

NV_EXPORT(C_GetSlotInfo, (CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo),
          { return fill<native::CK_SLOT_INFO>(NV_NATIVE(C_GetSlotInfo), pInfo, slotID); })

NV_EXPORT(C_GetTokenInfo, (CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo),
          { return fill<native::CK_TOKEN_INFO>(NV_NATIVE(C_GetTokenInfo), pInfo, slotID); })

NV_EXPORT(C_GetMechanismInfo,
          (CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo), {
              return fill<native::CK_MECHANISM_INFO>(NV_NATIVE(C_GetMechanismInfo), pInfo, slotID,
                                                     type);
          })

NV_EXPORT(C_GetSessionInfo, (CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo),
          { return fill<native::CK_SESSION_INFO>(NV_NATIVE(C_GetSessionInfo), pInfo, hSession); })

NV_EXPORT(C_GetSlotList, (CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount), {
    return fillList(pSlotList, pulCount, [&](auto* list, auto* count) {
        return callNative(NV_NATIVE(C_GetSlotList), tokenPresent, list, count);
    });
})

NV_EXPORT(C_GetMechanismList,
          (CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount), {
              return fillList(pMechanismList, pulCount, [&](auto* list, auto* count) {
                  return callNative(NV_NATIVE(C_GetMechanismList), slotID, list, count);
              });
          })

NV_EXPORT(C_WaitForSlotEvent, (CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved), {
    NewHandle slot{pSlot};
    return slot.finish(callNative(NV_NATIVE(C_WaitForSlotEvent), flags, slot.get(), pReserved));
})

NV_FORWARD(C_InitToken,
           (CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel),
           slotID, pPin, ulPinLen, pLabel)

NV_FORWARD(C_SetPIN,
           (CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
            CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen),
           hSession, pOldPin, ulOldLen, pNewPin, ulNewLen)

// The native library does not get the Windows callback, because its calling convention is
// different.
NV_EXPORT(C_OpenSession,
          (CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication, CK_NOTIFY,
           CK_SESSION_HANDLE_PTR phSession),
          {
              native::CK_SESSION_HANDLE session = 0;
              const CK_RV result =
                  callNative(NV_NATIVE(C_OpenSession), slotID, flags, pApplication,
                             native::CK_NOTIFY{nullptr}, phSession != nullptr ? &session : nullptr);
              if (result == CKR_OK && phSession != nullptr)
                  *phSession = shortSession(session);
              return result;
          })

NV_EXPORT(C_CloseSession, (CK_SESSION_HANDLE hSession), {
    const CK_RV result = callNative(NV_NATIVE(C_CloseSession), hSession);
    if (result == CKR_OK)
        forgetMechanisms(hSession);
    return result;
})

NV_FORWARD(C_CloseAllSessions, (CK_SLOT_ID slotID), slotID)

NV_FORWARD(C_Login,
           (CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
            CK_ULONG ulPinLen),
           hSession, userType, pPin, ulPinLen)

NV_FORWARD(C_Logout, (CK_SESSION_HANDLE hSession), hSession)

NV_FORWARD(C_GetFunctionStatus, (CK_SESSION_HANDLE hSession), hSession)

NV_FORWARD(C_CancelFunction, (CK_SESSION_HANDLE hSession), hSession)
