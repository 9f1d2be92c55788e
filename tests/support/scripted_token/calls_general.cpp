// The scripted token's general, slot and token functions: C_Initialize to C_SetPIN, and
// C_WaitForSlotEvent.

#include <cstring>

#include <windows.h>

#include "call.h"
#include "calls.h"

namespace NV::scripted {

namespace {

// Fields of information structures are padded with blanks.
template <size_t size>
void fill(CK_BYTE (&field)[size], std::string_view text)
{
    std::memset(field, ' ', size);
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

std::string numbered(std::string_view stem, CK_SLOT_ID slot)
{
    return std::string(stem) + std::to_string(slot);
}

int callbacksGiven(const CK_C_INITIALIZE_ARGS& arguments)
{
    return (arguments.CreateMutex != nullptr) + (arguments.DestroyMutex != nullptr) +
           (arguments.LockMutex != nullptr) + (arguments.UnlockMutex != nullptr);
}

CK_RV initialise(Token& token, const CK_C_INITIALIZE_ARGS* arguments)
{
    if (token.initialised)
        return CKR_CRYPTOKI_ALREADY_INITIALIZED;
    if (arguments != nullptr) {
        const int given = callbacksGiven(*arguments);
        if (arguments->pReserved != nullptr || (given != 0 && given != 4))
            return CKR_ARGUMENTS_BAD;
    }
    token.initArgumentsGiven = arguments != nullptr;
    token.initArguments = arguments != nullptr ? *arguments : CK_C_INITIALIZE_ARGS{};
    token.initialised = true;
    if (token.holdsMutex && arguments != nullptr && arguments->CreateMutex != nullptr)
        arguments->CreateMutex(&token.heldMutex);
    journal().sequenceThread = GetCurrentThreadId();
    return CKR_OK;
}

// The sessions and logins that C_Finalize ends because the caller has not.
void noteWhatIsLeft(const Token& token)
{
    journal().sessionsFinalized += static_cast<uint32_t>(token.sessions.size());
    for (const Slot& slot : token.slots)
        journal().loginsFinalized += slot.login != Login::nobody ? 1U : 0U;
}

void describeSlot(const Slot& slot, CK_SLOT_INFO& info)
{
    fill(info.slotDescription, numbered(test::kSlotDescriptionStem, slot.id));
    fill(info.manufacturerID, test::kManufacturer);
    info.flags = slot.flags;
    info.hardwareVersion = test::kSlotHardwareVersion;
    info.firmwareVersion = test::kSlotFirmwareVersion;
}

void describeToken(const Token& token, const Slot& slot, CK_TOKEN_INFO& info)
{
    fill(info.label, numbered(test::kTokenLabelStem, slot.id));
    fill(info.manufacturerID, test::kManufacturer);
    fill(info.model, test::kModel);
    fill(info.serialNumber, numbered(test::kSerialNumberStem, slot.id));
    info.flags = slot.tokenFlags;
    info.ulMaxSessionCount = test::kMaxSessionCount;
    info.ulSessionCount = token.sessionCount(slot.id, false);
    info.ulMaxRwSessionCount = test::kMaxRwSessionCount;
    info.ulRwSessionCount = token.sessionCount(slot.id, true);
    info.ulMaxPinLen = test::kMaxPinLength;
    info.ulMinPinLen = test::kMinPinLength;
    info.ulTotalPublicMemory = test::kTotalPublicMemory;
    info.ulFreePublicMemory = test::kFreePublicMemory;
    info.ulTotalPrivateMemory = test::kTotalPrivateMemory;
    info.ulFreePrivateMemory = test::kFreePrivateMemory;
    info.hardwareVersion = test::kTokenHardwareVersion;
    info.firmwareVersion = test::kTokenFirmwareVersion;
    fill(info.utcTime, test::kUtcTime);
}

}  // namespace

}  // namespace NV::scripted

using namespace NV::scripted;  // the definitions below are C functions outside every namespace

CK_RV C_Initialize(CK_VOID_PTR pInitArgs)
{
    const auto* arguments = static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs);
    return serve("C_Initialize", Line{}.initArguments(arguments), Needs::nothing, nullptr,
                 [&](Token& token, Lie) { return initialise(token, arguments); });
}

CK_RV C_Finalize(CK_VOID_PTR pReserved)
{
    return serve("C_Finalize", Line{}.pointer("reserved", pReserved), Needs::initialised, nullptr,
                 [&](Token& token, Lie) {
                     if (pReserved != nullptr)
                         return CKR_ARGUMENTS_BAD;
                     noteWhatIsLeft(token);
                     token.finalise();
                     return CKR_OK;
                 });
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo)
{
    return serve("C_GetInfo", Line{}.pointer("info", pInfo), Needs::initialised, nullptr,
                 [&](Token&, Lie) {
                     if (pInfo == nullptr)
                         return CKR_ARGUMENTS_BAD;
                     pInfo->cryptokiVersion = NV::test::kCryptokiVersion;
                     fill(pInfo->manufacturerID, NV::test::kManufacturer);
                     pInfo->flags = 0;
                     fill(pInfo->libraryDescription, NV::test::kLibraryDescription);
                     pInfo->libraryVersion = NV::test::kLibraryVersion;
                     return CKR_OK;
                 });
}

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount)
{
    const Line line =
        Line{}.decimal("tokenPresent", tokenPresent).room("slotList", pSlotList, pulCount);
    return serve("C_GetSlotList", line, Needs::initialised, pSlotList, [&](Token& token, Lie lie) {
        std::vector<CK_SLOT_ID> ids;
        for (const Slot& slot : token.slots) {
            if (tokenPresent == CK_FALSE || slot.present())
                ids.push_back(slot.id);
        }
        return give<CK_SLOT_ID>(ids, pSlotList, pulCount, lie);
    });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo)
{
    const Line line = Line{}.decimal("slot", slotID).pointer("info", pInfo);
    return serve("C_GetSlotInfo", line, Needs::initialised, nullptr, [&](Token& token, Lie) {
        const Slot* slot = token.slot(slotID);
        if (slot == nullptr)
            return CKR_SLOT_ID_INVALID;
        if (pInfo == nullptr)
            return CKR_ARGUMENTS_BAD;
        describeSlot(*slot, *pInfo);
        return CKR_OK;
    });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo)
{
    const Line line = Line{}.decimal("slot", slotID).pointer("info", pInfo);
    return serve("C_GetTokenInfo", line, Needs::initialised, nullptr, [&](Token& token, Lie) {
        const CK_RV rv = token.checkToken(slotID);
        if (rv != CKR_OK)
            return rv;
        if (pInfo == nullptr)
            return CKR_ARGUMENTS_BAD;
        describeToken(token, *token.slot(slotID), *pInfo);
        return CKR_OK;
    });
}

CK_RV C_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList,
                         CK_ULONG_PTR pulCount)
{
    const Line line =
        Line{}.decimal("slot", slotID).room("mechanismList", pMechanismList, pulCount);
    return serve("C_GetMechanismList", line, Needs::initialised, pMechanismList,
                 [&](Token& token, Lie lie) {
                     const CK_RV rv = token.checkToken(slotID);
                     if (rv != CKR_OK)
                         return rv;
                     std::vector<CK_MECHANISM_TYPE> types;
                     for (const NV::test::MechanismRow& row : NV::test::kMechanisms)
                         types.push_back(row.type);
                     return give<CK_MECHANISM_TYPE>(types, pMechanismList, pulCount, lie);
                 });
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo)
{
    const Line line = Line{}.decimal("slot", slotID).hex("type", type).pointer("info", pInfo);
    return serve("C_GetMechanismInfo", line, Needs::initialised, nullptr, [&](Token& token, Lie) {
        const CK_RV rv = token.checkToken(slotID);
        if (rv != CKR_OK)
            return rv;
        const NV::test::MechanismRow* row = NV::test::mechanismRow(type);
        if (row == nullptr)
            return CKR_MECHANISM_INVALID;
        if (pInfo == nullptr)
            return CKR_ARGUMENTS_BAD;
        *pInfo = {row->minKeySize, row->maxKeySize, row->flags};
        return CKR_OK;
    });
}

// Functions that set up a token and its PINs succeed and change nothing.

CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen,
                  CK_UTF8CHAR_PTR pLabel)
{
    const Line line = Line{}
                          .decimal("slot", slotID)
                          .text("pin", pPin, ulPinLen)
                          .text("label", pLabel, pLabel == nullptr ? 0 : 32);
    return serve("C_InitToken", line, Needs::initialised, nullptr, [&](Token& token, Lie) {
        const CK_RV rv = token.checkToken(slotID);
        return rv == CKR_OK && token.sessionCount(slotID, false) != 0 ? CKR_SESSION_EXISTS : rv;
    });
}

CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen)
{
    return serveSession("C_InitPIN", hSession, sessionLine(hSession).text("pin", pPin, ulPinLen),
                        nullptr, [](Token&, Session&, Lie) { return CKR_OK; });
}

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
               CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen)
{
    const Line line =
        sessionLine(hSession).text("oldPin", pOldPin, ulOldLen).text("newPin", pNewPin, ulNewLen);
    return serveSession("C_SetPIN", hSession, line, nullptr,
                        [](Token&, Session&, Lie) { return CKR_OK; });
}

// Returns at once, always with an event in the first slot.
CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved)
{
    const Line line =
        Line{}.hex("flags", flags).pointer("slot", pSlot).pointer("reserved", pReserved);
    return serve("C_WaitForSlotEvent", line, Needs::initialised, nullptr, [&](Token&, Lie) {
        if (pSlot != nullptr)
            *pSlot = NV::test::kSlot;
        return CKR_OK;
    });
}
