// What the call layer logs and passes on, word for word:
// the session functions, C_OpenSession to C_Logout.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_OpenSession", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION | CKF_RW_SESSION, &bench.application,
                                  notify, &bench.newHandle);
     },
     "C_OpenSession(slot=52, flags=0x6, application=given, notify=given)",
     R"(
TRC NV::Pkcs11::C_OpenSession:ENTER
DBG NV::Pkcs11::C_OpenSession:ARG[0]:slotID=52
DBG NV::Pkcs11::C_OpenSession:ARG[1]:flags=0x6
DBG NV::Pkcs11::C_OpenSession:ARG[2]:pApplication=[application]
DBG NV::Pkcs11::C_OpenSession:ARG[3]:Notify=[notify]
DBG NV::Pkcs11::C_OpenSession:ARG[4]:phSession=[newHandle]
DBG NV::Pkcs11::C_OpenSession:CKF_SERIAL_SESSION is enabled
DBG NV::Pkcs11::C_OpenSession:CKF_RW_SESSION is enabled
TRC NV::Pkcs11::C_OpenSession:CALL C_OpenSession(): START
TRC NV::Pkcs11::C_OpenSession:CALL C_OpenSession(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_OpenSession:LEAVE
)"},
    {"C_CloseSession", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CloseSession(kSession); },
     "C_CloseSession(session=0x5E55)",
     R"(
TRC NV::Pkcs11::C_CloseSession:ENTER
DBG NV::Pkcs11::C_CloseSession:ARG[0]:hSession=0000000000005e55
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): START
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_CloseSession:LEAVE
)"},
    {"C_CloseAllSessions", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CloseAllSessions(kSlot); },
     "C_CloseAllSessions(slot=52)",
     R"(
TRC NV::Pkcs11::C_CloseAllSessions:ENTER
DBG NV::Pkcs11::C_CloseAllSessions:ARG[0]:slotID=52
TRC NV::Pkcs11::C_CloseAllSessions:CALL C_CloseAllSessions(): START
TRC NV::Pkcs11::C_CloseAllSessions:CALL C_CloseAllSessions(): END [# msec]
TRC NV::Pkcs11::C_CloseAllSessions:LEAVE
)"},
    {"C_GetSessionInfo", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GetSessionInfo(kSession, &bench.sessionInfo); },
     "C_GetSessionInfo(session=0x5E55, info=given)",
     R"(
TRC NV::Pkcs11::C_GetSessionInfo:ENTER
DBG NV::Pkcs11::C_GetSessionInfo:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GetSessionInfo:ARG[1]:pInfo=[sessionInfo]
TRC NV::Pkcs11::C_GetSessionInfo:CALL C_GetSessionInfo(): START
TRC NV::Pkcs11::C_GetSessionInfo:CALL C_GetSessionInfo(): END [# msec]
TRC NV::Pkcs11::C_GetSessionInfo:CK_SESSION_INFO = {slotID=52,state=3,flags=0x6[CKF_RW_SESSION,CKF_SERIAL_SESSION],ulDeviceError=0xde7}
TRC NV::Pkcs11::C_GetSessionInfo:LEAVE
)"},
    {"C_GetOperationState", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetOperationState(kSession, bench.output, &bench.length);
     },
     "C_GetOperationState(session=0x5E55, operationState=room[256])",
     R"(
TRC NV::Pkcs11::C_GetOperationState:ENTER
DBG NV::Pkcs11::C_GetOperationState:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GetOperationState:ARG[1]:pOperationState=[output]
DBG NV::Pkcs11::C_GetOperationState:ARG[2]:pulOperationStateLen=[length]
TRC NV::Pkcs11::C_GetOperationState:CALL C_GetOperationState(): START
TRC NV::Pkcs11::C_GetOperationState:CALL C_GetOperationState(): END [# msec]
TRC NV::Pkcs11::C_GetOperationState:LEAVE
)"},
    {"C_SetOperationState", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetOperationState(kSession, bench.data, 3, kPrivateKey, kSecretKey);
     },
     "C_SetOperationState(session=0x5E55, operationState=0FF033, encryptionKey=0xB2, "
     "authenticationKey=0xB5)",
     R"(
TRC NV::Pkcs11::C_SetOperationState:ENTER
DBG NV::Pkcs11::C_SetOperationState:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SetOperationState:ARG[1]:pOperationState=[data]
DBG NV::Pkcs11::C_SetOperationState:ARG[2]:ulOperationStateLen=3
DBG NV::Pkcs11::C_SetOperationState:ARG[3]:hEncryptionKey=00000000000000b2
DBG NV::Pkcs11::C_SetOperationState:ARG[4]:hAuthenticationKey=00000000000000b5
TRC NV::Pkcs11::C_SetOperationState:CALL C_SetOperationState(): START
TRC NV::Pkcs11::C_SetOperationState:CALL C_SetOperationState(): END [# msec]
TRC NV::Pkcs11::C_SetOperationState:LEAVE
)"},
    {"C_Login", State::SessionOpen, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_Login(kSession, CKU_USER, bench.userPin, 12); },
     "C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391)",
     R"(
TRC NV::Pkcs11::C_Login:ENTER
DBG NV::Pkcs11::C_Login:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Login:ARG[1]:userType=1
DBG NV::Pkcs11::C_Login:ARG[2]:pPin=[userPin]
DBG NV::Pkcs11::C_Login:ARG[3]:ulPinLen=12
TRC NV::Pkcs11::C_Login:CALL C_Login(): START
TRC NV::Pkcs11::C_Login:CALL C_Login(): END [# msec]
TRC NV::Pkcs11::C_Login:LEAVE
)"},
    {"C_Logout", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_Logout(kSession); }, "C_Logout(session=0x5E55)",
     R"(
TRC NV::Pkcs11::C_Logout:ENTER
DBG NV::Pkcs11::C_Logout:ARG[0]:hSession=0000000000005e55
TRC NV::Pkcs11::C_Logout:CALL C_Logout(): START
TRC NV::Pkcs11::C_Logout:CALL C_Logout(): END [# msec]
TRC NV::Pkcs11::C_Logout:LEAVE
)"},
};

}  // namespace

std::span<const WrapperCase> sessionsCases()
{
    return cases;
}

}  // namespace NV::test
