// What the call layer logs and passes on, word for word:
// the general, slot and token functions, C_Initialize to C_SetPIN.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_Initialize", State::Finalised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_Initialize(&bench.initArgs); },
     "C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,LockMutex=given,UnlockMu"
     "tex=given,flags=0x2,reserved=null})",
     R"(
TRC NV::Pkcs11::C_Initialize:ENTER
DBG NV::Pkcs11::C_Initialize:ARG[0]:pInitArgs=[initArgs]
INF NV::Pkcs11::C_Initialize:ARGS.CreateMutex=[createMutex]
INF NV::Pkcs11::C_Initialize:ARGS.DestroyMutex=[destroyMutex]
INF NV::Pkcs11::C_Initialize:ARGS.LockMutex=[lockMutex]
INF NV::Pkcs11::C_Initialize:ARGS.UnlockMutex=[unlockMutex]
INF NV::Pkcs11::C_Initialize:ARGS.pReserved=0000000000000000
INF NV::Pkcs11::C_Initialize:ARGS.flags=0x02
TRC NV::Pkcs11::C_Initialize:CALL C_Initialize(): START
TRC NV::Pkcs11::C_Initialize:CALL C_Initialize(): Result = 00000000(CKR_OK), Elapsed [# msec]
INF NV::Pkcs11::C_Initialize:RETURN CODE:00000000(CKR_OK)
TRC NV::Pkcs11::C_Initialize:LEAVE
)"},
    {"C_Finalize", State::Initialised, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_Finalize(nullptr); }, "C_Finalize(reserved=null)",
     R"(
TRC NV::Pkcs11::C_Finalize:ENTER
DBG NV::Pkcs11::C_Finalize:ARG[0]:pReserved=0000000000000000
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): START
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_Finalize:LEAVE
)"},
    {"C_GetInfo", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetInfo(&bench.info); }, "C_GetInfo(info=given)",
     R"(
TRC NV::Pkcs11::C_GetInfo:ENTER
DBG NV::Pkcs11::C_GetInfo:ARG[0]:pInfo=[info]
TRC NV::Pkcs11::C_GetInfo:CALL C_GetInfo(): START
TRC NV::Pkcs11::C_GetInfo:CALL C_GetInfo(): END [# msec]
TRC NV::Pkcs11::C_GetInfo:CK_INFO = {cryptokiVersion=2.40,manufacturerID=Odd Token Works,flags=0x0[must be zero],libraryDescription=Scripted token of the tests,libraryVersion=6.23}
TRC NV::Pkcs11::C_GetInfo:LEAVE
)"},
    {"C_GetFunctionList", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetFunctionList(&bench.functionList); },
     "C_GetFunctionList(functionList=given)",
     R"(
TRC NV::Pkcs11::C_GetFunctionList:ENTER
DBG NV::Pkcs11::C_GetFunctionList:ARG[0]:ppFunctionList=[functionList]
TRC NV::Pkcs11::C_GetFunctionList:CALL C_GetFunctionList(): START
TRC NV::Pkcs11::C_GetFunctionList:CALL C_GetFunctionList(): END [# msec]
TRC NV::Pkcs11::C_GetFunctionList:LEAVE
)"},
    {"C_GetSlotList", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSlotList(CK_TRUE, bench.slots, &bench.five); },
     "C_GetSlotList(tokenPresent=1, slotList=room[5])",
     R"(
TRC NV::Pkcs11::C_GetSlotList:ENTER
DBG NV::Pkcs11::C_GetSlotList:ARG[0]:tokenPresent=1
DBG NV::Pkcs11::C_GetSlotList:ARG[1]:pSlotList=[slots]
DBG NV::Pkcs11::C_GetSlotList:ARG[2]:pulCount=[five]
TRC NV::Pkcs11::C_GetSlotList:CALL C_GetSlotList(): START
TRC NV::Pkcs11::C_GetSlotList:CALL C_GetSlotList(): END [# msec]
TRC NV::Pkcs11::C_GetSlotList:Slot Count: 1
TRC NV::Pkcs11::C_GetSlotList:LEAVE
)"},
    {"C_GetSlotInfo", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSlotInfo(kSlot, &bench.slotInfo); },
     "C_GetSlotInfo(slot=52, info=given)",
     R"(
TRC NV::Pkcs11::C_GetSlotInfo:ENTER
DBG NV::Pkcs11::C_GetSlotInfo:ARG[0]:slotID=52
DBG NV::Pkcs11::C_GetSlotInfo:ARG[1]:pInfo=[slotInfo]
TRC NV::Pkcs11::C_GetSlotInfo:CALL C_GetSlotInfo(): START
TRC NV::Pkcs11::C_GetSlotInfo:CALL C_GetSlotInfo(): END [# msec]
TRC NV::Pkcs11::C_GetSlotInfo:CK_SLOT_INFO = {slotDescription=Odd Slot 52,manufacturerID=Odd Token Works,flags=0x7[CKF_TOKEN_PRESENT,CKF_REMOVABLE_DEVICE,CKF_HW_SLOT],hardwareVersion=2.9,firmwareVersion=4.13}
TRC NV::Pkcs11::C_GetSlotInfo:LEAVE
)"},
    {"C_GetTokenInfo", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetTokenInfo(kSlot, &bench.tokenInfo); },
     "C_GetTokenInfo(slot=52, info=given)",
     R"(
TRC NV::Pkcs11::C_GetTokenInfo:ENTER
DBG NV::Pkcs11::C_GetTokenInfo:ARG[0]:slotID=52
DBG NV::Pkcs11::C_GetTokenInfo:ARG[1]:pInfo=[tokenInfo]
TRC NV::Pkcs11::C_GetTokenInfo:CALL C_GetTokenInfo(): START
TRC NV::Pkcs11::C_GetTokenInfo:CALL C_GetTokenInfo(): END [# msec]
TRC NV::Pkcs11::C_GetTokenInfo:CK_TOKEN_INFO = {label=Odd Label 52,manufacturerID=Odd Token Works,model=OddModel-3,serialNumber=SN-7391-52,flags=0x40d[CKF_RNG,CKF_LOGIN_REQUIRED,CKF_USER_PIN_INITIALIZED,CKF_TOKEN_INITIALIZED],ulMaxSessionCount=37,ulSessionCount=0,ulMaxRwSessionCount=19,ulRwSessionCount=0,ulMaxPinLen=15,ulMinPinLen=5,ulTotalPublicMemory=70001,ulFreePublicMemory=50021,ulTotalPrivateMemory=30011,ulFreePrivateMemory=10007,hardwareVersion=3.7,firmwareVersion=5.11,utcTime=2031052913374100}
TRC NV::Pkcs11::C_GetTokenInfo:LEAVE
)"},
    {"C_GetMechanismList", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetMechanismList(kSlot, bench.types, &bench.forty);
     },
     "C_GetMechanismList(slot=52, mechanismList=room[40])",
     R"(
TRC NV::Pkcs11::C_GetMechanismList:ENTER
DBG NV::Pkcs11::C_GetMechanismList:ARG[0]:slotID=52
DBG NV::Pkcs11::C_GetMechanismList:ARG[1]:pMechanismList=[types]
DBG NV::Pkcs11::C_GetMechanismList:ARG[2]:pulCount=[forty]
TRC NV::Pkcs11::C_GetMechanismList:CALL C_GetMechanismList(): START
TRC NV::Pkcs11::C_GetMechanismList:CALL C_GetMechanismList(): END [# msec]
TRC NV::Pkcs11::C_GetMechanismList:LEAVE
)"},
    {"C_GetMechanismInfo", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetMechanismInfo(kSlot, CKM_ECDSA, &bench.mechanismInfo);
     },
     "C_GetMechanismInfo(slot=52, type=0x1041, info=given)",
     R"(
TRC NV::Pkcs11::C_GetMechanismInfo:ENTER
DBG NV::Pkcs11::C_GetMechanismInfo:ARG[0]:slotID=52
DBG NV::Pkcs11::C_GetMechanismInfo:ARG[1]:type=4161
DBG NV::Pkcs11::C_GetMechanismInfo:ARG[2]:pInfo=[mechanismInfo]
TRC NV::Pkcs11::C_GetMechanismInfo:CALL C_GetMechanismInfo(): START
TRC NV::Pkcs11::C_GetMechanismInfo:CALL C_GetMechanismInfo(): END [# msec]
TRC NV::Pkcs11::C_GetMechanismInfo:LEAVE
)"},
    {"C_InitToken", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_InitToken(kSlot, bench.oldPin, 5, bench.label); },
     "C_InitToken(slot=52, pin=pin-A, label=A label of thirty-two characters)",
     R"(
TRC NV::Pkcs11::C_InitToken:ENTER
DBG NV::Pkcs11::C_InitToken:ARG[0]:slotID=52
DBG NV::Pkcs11::C_InitToken:ARG[1]:pPin=[oldPin]
DBG NV::Pkcs11::C_InitToken:ARG[2]:ulPinLen=5
DBG NV::Pkcs11::C_InitToken:ARG[3]:pLabel=[label]
TRC NV::Pkcs11::C_InitToken:CALL C_InitToken(): START
TRC NV::Pkcs11::C_InitToken:CALL C_InitToken(): END [# msec]
TRC NV::Pkcs11::C_InitToken:LEAVE
)"},
    {"C_InitPIN", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_InitPIN(kSession, bench.oldPin, 5); },
     "C_InitPIN(session=0x5E55, pin=pin-A)",
     R"(
TRC NV::Pkcs11::C_InitPIN:ENTER
DBG NV::Pkcs11::C_InitPIN:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_InitPIN:ARG[1]:pPin=[oldPin]
DBG NV::Pkcs11::C_InitPIN:ARG[2]:ulPinLen=5
TRC NV::Pkcs11::C_InitPIN:CALL C_InitPIN(): START
TRC NV::Pkcs11::C_InitPIN:CALL C_InitPIN(): END [# msec]
TRC NV::Pkcs11::C_InitPIN:LEAVE
)"},
    {"C_SetPIN", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetPIN(kSession, bench.oldPin, 5, bench.newPin, 6);
     },
     "C_SetPIN(session=0x5E55, oldPin=pin-A, newPin=pin-B7)",
     R"(
TRC NV::Pkcs11::C_SetPIN:ENTER
DBG NV::Pkcs11::C_SetPIN:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SetPIN:ARG[1]:pOldPin=[oldPin]
DBG NV::Pkcs11::C_SetPIN:ARG[2]:ulOldLen=5
DBG NV::Pkcs11::C_SetPIN:ARG[3]:pNewPin=[newPin]
DBG NV::Pkcs11::C_SetPIN:ARG[4]:ulNewLen=6
TRC NV::Pkcs11::C_SetPIN:CALL C_SetPIN(): START
TRC NV::Pkcs11::C_SetPIN:CALL C_SetPIN(): END [# msec]
TRC NV::Pkcs11::C_SetPIN:LEAVE
)"},
};

}  // namespace

std::span<const WrapperCase> generalCases()
{
    return cases;
}

}  // namespace NV::test
