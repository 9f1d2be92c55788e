// What the call layer logs and passes on, word for word:
// the object functions, C_CreateObject to C_FindObjectsFinal.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_CreateObject", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_CreateObject(kSession, bench.attributes, 2, &bench.newHandle);
     },
     "C_CreateObject(session=0x5E55, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, pTemplate=[attributes], ulCount=2, phObject=[newHandle]"},
    {"C_CopyObject", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_CopyObject(kSession, kDataObject, bench.attributes, 2, &bench.newHandle);
     },
     "C_CopyObject(session=0x5E55, object=0xB6, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, hObject=00000000000000b6, pTemplate=[attributes], ulCount=2, "
     "phNewObject=[newHandle]"},
    {"C_DestroyObject", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_DestroyObject(kSession, kDataObject); },
     "C_DestroyObject(session=0x5E55, object=0xB6)",
     "hSession=0000000000005e55, hObject=00000000000000b6"},
    {"C_GetObjectSize", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetObjectSize(kSession, kDataObject, &bench.length);
     },
     "C_GetObjectSize(session=0x5E55, object=0xB6, size=given)",
     "hSession=0000000000005e55, hObject=00000000000000b6, pulSize=[length]"},
    {"C_GetAttributeValue", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GetAttributeValue(kSession, kDataObject, bench.wanted, 1);
     },
     "C_GetAttributeValue(session=0x5E55, object=0xB6, template={0x102=room[20]})",
     "hSession=0000000000005e55, hObject=00000000000000b6, pTemplate=[wanted], ulCount=1"},
    {"C_SetAttributeValue", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SetAttributeValue(kSession, kDataObject, bench.attributes, 2);
     },
     "C_SetAttributeValue(session=0x5E55, object=0xB6, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, hObject=00000000000000b6, pTemplate=[attributes], ulCount=2"},
    {"C_FindObjectsInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_FindObjectsInit(kSession, bench.attributes, 2); },
     "C_FindObjectsInit(session=0x5E55, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, pTemplate=[attributes], ulCount=2", "",
     "TRC ATTR[0]={type=CKA_CLASS(0),pValue=CKO_DATA(0),ulValueLen=4}\n"
     "TRC ATTR[1]={type=CKA_ID(258),pValue=[id],ulValueLen=2}\n",
     Outcome::result},
    {"C_FindObjects", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench&) {
         return token.C_FindObjectsInit(kSession, nullptr, 0);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_FindObjects(kSession, bench.handles, 3, &bench.length);
     },
     "C_FindObjects(session=0x5E55, max=3, objects=given, count=given)",
     "hSession=0000000000005e55, phObject=[handles], ulMaxObjectCount=3, "
     "pulObjectCount=[length]",
     "TRC OBJECT COUNT = 3\n"
     "TRC OBJECT[0]=00000000000000b1\n"
     "TRC OBJECT[1]=00000000000000b2\n"
     "TRC OBJECT[2]=00000000000000b3\n",
     "", Outcome::result},
    {"C_FindObjectsFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench&) {
         return token.C_FindObjectsInit(kSession, nullptr, 0);
     },
     [](Pkcs11& p11, Bench&) { return p11.C_FindObjectsFinal(kSession); },
     "C_FindObjectsFinal(session=0x5E55)", "hSession=0000000000005e55", "", "", Outcome::result},
};

}  // namespace

std::span<const WrapperCase> objectsCases()
{
    return cases;
}

}  // namespace NV::test
