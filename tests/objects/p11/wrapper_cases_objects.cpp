// What the call layer logs and passes on, word for word:
// the object functions, C_CreateObject to C_FindObjectsFinal.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_CreateObject", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_CreateObject(kSession, bench.attributes, 2, &bench.newHandle);
     },
     "C_CreateObject(session=0x5E55, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_CreateObject:ENTER
DBG NV::Pkcs11::C_CreateObject:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_CreateObject:ARG[1]:pTemplate=[attributes]
DBG NV::Pkcs11::C_CreateObject:ARG[2]:ulCount=2
DBG NV::Pkcs11::C_CreateObject:ARG[3]:phObject=[newHandle]
TRC NV::Pkcs11::C_CreateObject:CALL C_CreateObject(): START
TRC NV::Pkcs11::C_CreateObject:CALL C_CreateObject(): END [# msec]
TRC NV::Pkcs11::C_CreateObject:LEAVE
)"},
    {"C_CopyObject", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_CopyObject(kSession, kDataObject, bench.attributes, 2, &bench.newHandle);
     },
     "C_CopyObject(session=0x5E55, object=0xB6, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_CopyObject:ENTER
DBG NV::Pkcs11::C_CopyObject:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_CopyObject:ARG[1]:hObject=00000000000000b6
DBG NV::Pkcs11::C_CopyObject:ARG[2]:pTemplate=[attributes]
DBG NV::Pkcs11::C_CopyObject:ARG[3]:ulCount=2
DBG NV::Pkcs11::C_CopyObject:ARG[4]:phNewObject=[newHandle]
TRC NV::Pkcs11::C_CopyObject:CALL C_CopyObject(): START
TRC NV::Pkcs11::C_CopyObject:CALL C_CopyObject(): END [# msec]
TRC NV::Pkcs11::C_CopyObject:LEAVE
)"},
    {"C_DestroyObject", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_DestroyObject(kSession, kDataObject); },
     "C_DestroyObject(session=0x5E55, object=0xB6)",
     R"(
TRC NV::Pkcs11::C_DestroyObject:ENTER
DBG NV::Pkcs11::C_DestroyObject:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DestroyObject:ARG[1]:hObject=00000000000000b6
TRC NV::Pkcs11::C_DestroyObject:CALL C_DestroyObject(): START
TRC NV::Pkcs11::C_DestroyObject:CALL C_DestroyObject(): END [# msec]
TRC NV::Pkcs11::C_DestroyObject:LEAVE
)"},
    {"C_GetObjectSize", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetObjectSize(kSession, kDataObject, &bench.length);
     },
     "C_GetObjectSize(session=0x5E55, object=0xB6, size=given)",
     R"(
TRC NV::Pkcs11::C_GetObjectSize:ENTER
DBG NV::Pkcs11::C_GetObjectSize:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GetObjectSize:ARG[1]:hObject=00000000000000b6
DBG NV::Pkcs11::C_GetObjectSize:ARG[2]:pulSize=[length]
TRC NV::Pkcs11::C_GetObjectSize:CALL C_GetObjectSize(): START
TRC NV::Pkcs11::C_GetObjectSize:CALL C_GetObjectSize(): END [# msec]
TRC NV::Pkcs11::C_GetObjectSize:LEAVE
)"},
    {"C_GetAttributeValue", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetAttributeValue(kSession, kDataObject, bench.wanted, 1);
     },
     "C_GetAttributeValue(session=0x5E55, object=0xB6, template={0x102=room[20]})",
     R"(
TRC NV::Pkcs11::C_GetAttributeValue:ENTER
DBG NV::Pkcs11::C_GetAttributeValue:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GetAttributeValue:ARG[1]:hObject=00000000000000b6
DBG NV::Pkcs11::C_GetAttributeValue:ARG[2]:pTemplate=[wanted]
DBG NV::Pkcs11::C_GetAttributeValue:ARG[3]:ulCount=1
TRC NV::Pkcs11::C_GetAttributeValue:CALL C_GetAttributeValue(): START
TRC NV::Pkcs11::C_GetAttributeValue:CALL C_GetAttributeValue(): END [# msec]
TRC NV::Pkcs11::C_GetAttributeValue:LEAVE
)"},
    {"C_SetAttributeValue", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetAttributeValue(kSession, kDataObject, bench.attributes, 2);
     },
     "C_SetAttributeValue(session=0x5E55, object=0xB6, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_SetAttributeValue:ENTER
DBG NV::Pkcs11::C_SetAttributeValue:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SetAttributeValue:ARG[1]:hObject=00000000000000b6
DBG NV::Pkcs11::C_SetAttributeValue:ARG[2]:pTemplate=[attributes]
DBG NV::Pkcs11::C_SetAttributeValue:ARG[3]:ulCount=2
TRC NV::Pkcs11::C_SetAttributeValue:CALL C_SetAttributeValue(): START
TRC NV::Pkcs11::C_SetAttributeValue:CALL C_SetAttributeValue(): END [# msec]
TRC NV::Pkcs11::C_SetAttributeValue:LEAVE
)"},
    {"C_FindObjectsInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_FindObjectsInit(kSession, bench.attributes, 2); },
     "C_FindObjectsInit(session=0x5E55, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_FindObjectsInit:ENTER
DBG NV::Pkcs11::C_FindObjectsInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_FindObjectsInit:ARG[1]:pTemplate=[attributes]
DBG NV::Pkcs11::C_FindObjectsInit:ARG[2]:ulCount=2
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[0]={type=CKA_CLASS(0),pValue=CKO_DATA(0),ulValueLen=4}
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[1]={type=CKA_ID(258),pValue=[id],ulValueLen=2}
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): START
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsInit:LEAVE
)"},
    {"C_FindObjects", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench&) {
         return token.C_FindObjectsInit(kSession, nullptr, 0);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_FindObjects(kSession, bench.handles, 3, &bench.length);
     },
     "C_FindObjects(session=0x5E55, max=3, objects=given, count=given)",
     R"(
TRC NV::Pkcs11::C_FindObjects:ENTER
DBG NV::Pkcs11::C_FindObjects:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_FindObjects:ARG[1]:phObject=[handles]
DBG NV::Pkcs11::C_FindObjects:ARG[2]:ulMaxObjectCount=3
DBG NV::Pkcs11::C_FindObjects:ARG[3]:pulObjectCount=[length]
TRC NV::Pkcs11::C_FindObjects:CALL C_FindObjects(): START
TRC NV::Pkcs11::C_FindObjects:CALL C_FindObjects(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 3
TRC NV::Pkcs11::C_FindObjects:OBJECT[0]=00000000000000b1
TRC NV::Pkcs11::C_FindObjects:OBJECT[1]=00000000000000b2
TRC NV::Pkcs11::C_FindObjects:OBJECT[2]=00000000000000b3
TRC NV::Pkcs11::C_FindObjects:LEAVE
)"},
    {"C_FindObjectsFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench&) {
         return token.C_FindObjectsInit(kSession, nullptr, 0);
     },
     [](Pkcs11& p11, Bench&) { return p11.C_FindObjectsFinal(kSession); },
     "C_FindObjectsFinal(session=0x5E55)",
     R"(
TRC NV::Pkcs11::C_FindObjectsFinal:ENTER
DBG NV::Pkcs11::C_FindObjectsFinal:ARG[0]:hSession=0000000000005e55
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): START
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsFinal:LEAVE
)"},
};

}  // namespace

std::span<const WrapperCase> objectsCases()
{
    return cases;
}

}  // namespace NV::test
