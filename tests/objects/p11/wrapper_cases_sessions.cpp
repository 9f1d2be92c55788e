// What the call layer logs and passes on, word for word:
// the session functions, C_OpenSession to C_Logout.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_OpenSession", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, &bench.application,
                                  notify, &bench.newHandle);
     },
     "C_OpenSession(slot=52, flags=0x6, application=given, notify=given)",
     "slotID=52, flags=0x6, pApplication=[application], Notify=[notify], phSession=[newHandle]", "",
     "DBG CKF_SERIAL_SESSION is enabled\n"
     "DBG CKF_RW_SESSION is enabled\n",
     Outcome::result},
    {"C_CloseSession", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CloseSession(kSession); },
     "C_CloseSession(session=0x5E55)", "hSession=0000000000005e55", "", "", Outcome::result},
    {"C_CloseAllSessions", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CloseAllSessions(kSlot); },
     "C_CloseAllSessions(slot=52)", "slotID=52"},
    {"C_GetSessionInfo", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSessionInfo(kSession, &bench.sessionInfo); },
     "C_GetSessionInfo(session=0x5E55, info=given)",
     "hSession=0000000000005e55, pInfo=[sessionInfo]",
     "TRC CK_SESSION_INFO = {slotID=52,state=3,flags=0x6[CKF_RW_SESSION,CKF_SERIAL_SESSION],"
     "ulDeviceError=0xde7}\n"},
    {"C_GetOperationState", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetOperationState(kSession, bench.output, &bench.length);
     },
     "C_GetOperationState(session=0x5E55, operationState=room[256])",
     "hSession=0000000000005e55, pOperationState=[output], pulOperationStateLen=[length]"},
    {"C_SetOperationState", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetOperationState(kSession, bench.data, 3, kPrivateKey, kSecretKey);
     },
     "C_SetOperationState(session=0x5E55, operationState=0FF033, encryptionKey=0xB2, "
     "authenticationKey=0xB5)",
     "hSession=0000000000005e55, pOperationState=[data], ulOperationStateLen=3, "
     "hEncryptionKey=00000000000000b2, hAuthenticationKey=00000000000000b5"},
    {"C_Login", State::sessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_Login(kSession, CKU_USER, bench.userPin, 12); },
     "C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391)",
     "hSession=0000000000005e55, userType=1, pPin=[userPin], ulPinLen=12"},
    {"C_Logout", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_Logout(kSession); }, "C_Logout(session=0x5E55)",
     "hSession=0000000000005e55"},
};

}  // namespace

std::span<const WrapperCase> sessionsCases()
{
    return cases;
}

}  // namespace NV::test
