// What the call layer logs and passes on, word for word:
// the general, slot and token functions, C_Initialize to C_SetPIN.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_Initialize", State::finalised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_Initialize(&bench.initArgs); },
     "C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,LockMutex=given,UnlockMu"
     "tex=given,flags=0x2,reserved=null})",
     "pInitArgs=[initArgs]", "",
     "INF ARGS.CreateMutex=[createMutex]\n"
     "INF ARGS.DestroyMutex=[destroyMutex]\n"
     "INF ARGS.LockMutex=[lockMutex]\n"
     "INF ARGS.UnlockMutex=[unlockMutex]\n"
     "INF ARGS.pReserved=0000000000000000\n"
     "INF ARGS.flags=0x02\n",
     Outcome::result},
    {"C_Finalize", State::initialised, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_Finalize(nullptr); }, "C_Finalize(reserved=null)",
     "pReserved=0000000000000000", "", "", Outcome::result},
    {"C_GetInfo", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetInfo(&bench.info); }, "C_GetInfo(info=given)",
     "pInfo=[info]",
     "TRC CK_INFO = {cryptokiVersion=2.40,manufacturerID=Odd Token Works,"
     "flags=0x0[must be zero],libraryDescription=Scripted token of the tests,"
     "libraryVersion=6.23}\n"},
    {"C_GetFunctionList", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetFunctionList(&bench.functionList); },
     "C_GetFunctionList(functionList=given)", "ppFunctionList=[functionList]"},
    {"C_GetSlotList", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSlotList(CK_TRUE, bench.slots, &bench.five); },
     "C_GetSlotList(tokenPresent=1, slotList=room[5])",
     "tokenPresent=1, pSlotList=[slots], pulCount=[five]", "TRC Slot Count: 1\n"},
    {"C_GetSlotInfo", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSlotInfo(kSlot, &bench.slotInfo); },
     "C_GetSlotInfo(slot=52, info=given)", "slotID=52, pInfo=[slotInfo]",
     "TRC CK_SLOT_INFO = {slotDescription=Odd Slot 52,manufacturerID=Odd Token Works,"
     "flags=0x7[CKF_TOKEN_PRESENT,CKF_REMOVABLE_DEVICE,CKF_HW_SLOT],hardwareVersion=2.9,"
     "firmwareVersion=4.13}\n"},
    {"C_GetTokenInfo", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetTokenInfo(kSlot, &bench.tokenInfo); },
     "C_GetTokenInfo(slot=52, info=given)", "slotID=52, pInfo=[tokenInfo]",
     "TRC CK_TOKEN_INFO = {label=Odd Label 52,manufacturerID=Odd Token Works,model=OddModel-3,"
     "serialNumber=SN-7391-52,flags=0x40d[CKF_RNG,CKF_LOGIN_REQUIRED,CKF_USER_PIN_INITIALIZED,"
     "CKF_TOKEN_INITIALIZED],ulMaxSessionCount=37,ulSessionCount=0,ulMaxRwSessionCount=19,"
     "ulRwSessionCount=0,ulMaxPinLen=15,ulMinPinLen=5,ulTotalPublicMemory=70001,"
     "ulFreePublicMemory=50021,ulTotalPrivateMemory=30011,ulFreePrivateMemory=10007,"
     "hardwareVersion=3.7,firmwareVersion=5.11,utcTime=2031052913374100}\n"},
    {"C_GetMechanismList", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetMechanismList(kSlot, bench.types, &bench.forty);
     },
     "C_GetMechanismList(slot=52, mechanismList=room[40])",
     "slotID=52, pMechanismList=[types], pulCount=[forty]"},
    {"C_GetMechanismInfo", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetMechanismInfo(kSlot, CKM_ECDSA, &bench.mechanismInfo);
     },
     "C_GetMechanismInfo(slot=52, type=0x1041, info=given)",
     "slotID=52, type=4161, pInfo=[mechanismInfo]"},
    {"C_InitToken", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_InitToken(kSlot, bench.oldPin, 5, bench.label); },
     "C_InitToken(slot=52, pin=pin-A, label=A label of thirty-two characters)",
     "slotID=52, pPin=[oldPin], ulPinLen=5, pLabel=[label]"},
    {"C_InitPIN", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_InitPIN(kSession, bench.oldPin, 5); },
     "C_InitPIN(session=0x5E55, pin=pin-A)",
     "hSession=0000000000005e55, pPin=[oldPin], ulPinLen=5"},
    {"C_SetPIN", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetPIN(kSession, bench.oldPin, 5, bench.newPin, 6);
     },
     "C_SetPIN(session=0x5E55, oldPin=pin-A, newPin=pin-B7)",
     "hSession=0000000000005e55, pOldPin=[oldPin], ulOldLen=5, pNewPin=[newPin], ulNewLen=6"},
};

}  // namespace

std::span<const WrapperCase> generalCases()
{
    return cases;
}

}  // namespace NV::test
