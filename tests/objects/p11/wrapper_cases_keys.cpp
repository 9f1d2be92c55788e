// What the call layer logs and passes on, word for word:
// the key management and random number functions, C_GenerateKey to C_WaitForSlotEvent.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_GenerateKey", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GenerateKey(kSession, &bench.secretGeneration, bench.attributes, 2,
                                  &bench.newHandle);
     },
     "C_GenerateKey(session=0x5E55, mechanism=0x350, parameter=null, "
     "template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_GenerateKey:ENTER
DBG NV::Pkcs11::C_GenerateKey:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GenerateKey:ARG[1]:pMechanism=[secretGeneration]
DBG NV::Pkcs11::C_GenerateKey:ARG[2]:pTemplate=[attributes]
DBG NV::Pkcs11::C_GenerateKey:ARG[3]:ulCount=2
DBG NV::Pkcs11::C_GenerateKey:ARG[4]:phKey=[newHandle]
TRC NV::Pkcs11::C_GenerateKey:CALL C_GenerateKey(): START
TRC NV::Pkcs11::C_GenerateKey:CALL C_GenerateKey(): END [# msec]
TRC NV::Pkcs11::C_GenerateKey:LEAVE
)"},
    {"C_GenerateKeyPair", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GenerateKeyPair(kSession, &bench.pairGeneration, bench.publicTemplate, 1,
                                      bench.privateTemplate, 2, &bench.newHandle,
                                      &bench.otherHandle);
     },
     "C_GenerateKeyPair(session=0x5E55, mechanism=0x0, parameter=null, "
     "publicKeyTemplate={0x121=A0000000}, privateKeyTemplate={0x102=01AB,0x1=00})",
     R"(
TRC NV::Pkcs11::C_GenerateKeyPair:ENTER
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[1]:pMechanism=[pairGeneration]
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[2]:pPublicKeyTemplate=[publicTemplate]
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[3]:ulPublicKeyAttributeCount=1
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[4]:pPrivateKeyTemplate=[privateTemplate]
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[5]:ulPrivateKeyAttributeCount=2
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[6]:phPublicKey=[newHandle]
DBG NV::Pkcs11::C_GenerateKeyPair:ARG[7]:phPrivateKey=[otherHandle]
TRC NV::Pkcs11::C_GenerateKeyPair:CALL C_GenerateKeyPair(): START
TRC NV::Pkcs11::C_GenerateKeyPair:CALL C_GenerateKeyPair(): END [# msec]
TRC NV::Pkcs11::C_GenerateKeyPair:LEAVE
)"},
    {"C_WrapKey", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_WrapKey(kSession, &bench.rsaPkcs, kPublicKey, kSecretKey, bench.output,
                              &bench.length);
     },
     "C_WrapKey(session=0x5E55, mechanism=0x1, parameter=null, wrappingKey=0xB1, "
     "key=0xB5, wrappedKey=room[256])",
     R"(
TRC NV::Pkcs11::C_WrapKey:ENTER
DBG NV::Pkcs11::C_WrapKey:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_WrapKey:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_WrapKey:ARG[2]:hWrappingKey=00000000000000b1
DBG NV::Pkcs11::C_WrapKey:ARG[3]:hKey=00000000000000b5
DBG NV::Pkcs11::C_WrapKey:ARG[4]:pWrappedKey=[output]
DBG NV::Pkcs11::C_WrapKey:ARG[5]:pulWrappedKeyLen=[length]
TRC NV::Pkcs11::C_WrapKey:CALL C_WrapKey(): START
TRC NV::Pkcs11::C_WrapKey:CALL C_WrapKey(): END [# msec]
TRC NV::Pkcs11::C_WrapKey:LEAVE
)"},
    {"C_UnwrapKey", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_UnwrapKey(kSession, &bench.rsaPkcs, kPrivateKey, bench.data, 3,
                                bench.attributes, 2, &bench.newHandle);
     },
     "C_UnwrapKey(session=0x5E55, mechanism=0x1, parameter=null, unwrappingKey=0xB2, "
     "wrappedKey=0FF033, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_UnwrapKey:ENTER
DBG NV::Pkcs11::C_UnwrapKey:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_UnwrapKey:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_UnwrapKey:ARG[2]:hUnwrappingKey=00000000000000b2
DBG NV::Pkcs11::C_UnwrapKey:ARG[3]:pWrappedKey=[data]
DBG NV::Pkcs11::C_UnwrapKey:ARG[4]:ulWrappedKeyLen=3
DBG NV::Pkcs11::C_UnwrapKey:ARG[5]:pTemplate=[attributes]
DBG NV::Pkcs11::C_UnwrapKey:ARG[6]:ulAttributeCount=2
DBG NV::Pkcs11::C_UnwrapKey:ARG[7]:pTemplate=[newHandle]
TRC NV::Pkcs11::C_UnwrapKey:CALL C_UnwrapKey(): START
TRC NV::Pkcs11::C_UnwrapKey:CALL C_UnwrapKey(): END [# msec]
TRC NV::Pkcs11::C_UnwrapKey:LEAVE
)"},
    {"C_DeriveKey", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DeriveKey(kSession, &bench.ecdh, kEcPrivateKey, bench.attributes, 2,
                                &bench.newHandle);
     },
     "C_DeriveKey(session=0x5E55, mechanism=0x1050, "
     "parameter={kdf=0x1,sharedData=null,publicData=04A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7"
     "A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7"
     "A7A7A7A7}, baseKey=0xB4, template={0x0=00000000,0x102=01AB})",
     R"(
TRC NV::Pkcs11::C_DeriveKey:ENTER
DBG NV::Pkcs11::C_DeriveKey:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DeriveKey:ARG[1]:pMechanism=[ecdh]
DBG NV::Pkcs11::C_DeriveKey:ARG[2]:hBaseKey=00000000000000b4
DBG NV::Pkcs11::C_DeriveKey:ARG[3]:pTemplate=[attributes]
DBG NV::Pkcs11::C_DeriveKey:ARG[4]:ulAttributeCount=2
DBG NV::Pkcs11::C_DeriveKey:ARG[5]:phKey=[newHandle]
TRC NV::Pkcs11::C_DeriveKey:CALL C_DeriveKey(): START
TRC NV::Pkcs11::C_DeriveKey:CALL C_DeriveKey(): END [# msec]
TRC NV::Pkcs11::C_DeriveKey:LEAVE
)"},
    {"C_SeedRandom", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_SeedRandom(kSession, bench.data, 3); },
     "C_SeedRandom(session=0x5E55, seed=0FF033)",
     R"(
TRC NV::Pkcs11::C_SeedRandom:ENTER
DBG NV::Pkcs11::C_SeedRandom:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SeedRandom:ARG[1]:pSeed=[data]
DBG NV::Pkcs11::C_SeedRandom:ARG[2]:ulSeedLen=3
TRC NV::Pkcs11::C_SeedRandom:CALL C_SeedRandom(): START
TRC NV::Pkcs11::C_SeedRandom:CALL C_SeedRandom(): END [# msec]
TRC NV::Pkcs11::C_SeedRandom:LEAVE
)"},
    {"C_GenerateRandom", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GenerateRandom(kSession, bench.output, 16); },
     "C_GenerateRandom(session=0x5E55, randomData=room[16])",
     R"(
TRC NV::Pkcs11::C_GenerateRandom:ENTER
DBG NV::Pkcs11::C_GenerateRandom:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_GenerateRandom:ARG[1]:RandomData=[output]
DBG NV::Pkcs11::C_GenerateRandom:ARG[2]:ulRandomLen=16
TRC NV::Pkcs11::C_GenerateRandom:CALL C_GenerateRandom(): START
TRC NV::Pkcs11::C_GenerateRandom:CALL C_GenerateRandom(): END [# msec]
TRC NV::Pkcs11::C_GenerateRandom:LEAVE
)"},
    {"C_GetFunctionStatus", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_GetFunctionStatus(kSession); },
     "C_GetFunctionStatus(session=0x5E55)",
     R"(
TRC NV::Pkcs11::C_GetFunctionStatus:ENTER
DBG NV::Pkcs11::C_GetFunctionStatus:ARG[0]:hSession=0000000000005e55
TRC NV::Pkcs11::C_GetFunctionStatus:CALL C_GetFunctionStatus(): START
TRC NV::Pkcs11::C_GetFunctionStatus:CALL C_GetFunctionStatus(): END [# msec]
TRC NV::Pkcs11::C_GetFunctionStatus:LEAVE
)"},
    {"C_CancelFunction", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CancelFunction(kSession); },
     "C_CancelFunction(session=0x5E55)",
     R"(
TRC NV::Pkcs11::C_CancelFunction:ENTER
DBG NV::Pkcs11::C_CancelFunction:ARG[0]:hSession=0000000000005e55
TRC NV::Pkcs11::C_CancelFunction:CALL C_CancelFunction(): START
TRC NV::Pkcs11::C_CancelFunction:CALL C_CancelFunction(): END [# msec]
TRC NV::Pkcs11::C_CancelFunction:LEAVE
)"},
    {"C_WaitForSlotEvent", State::Initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_WaitForSlotEvent(0x1B, bench.slots, &bench.application);
     },
     "C_WaitForSlotEvent(flags=0x1B, slot=given, reserved=given)",
     R"(
TRC NV::Pkcs11::C_WaitForSlotEvent:ENTER
DBG NV::Pkcs11::C_WaitForSlotEvent:ARG[0]:flags=1b
DBG NV::Pkcs11::C_WaitForSlotEvent:ARG[1]:pSlot=[slots]
DBG NV::Pkcs11::C_WaitForSlotEvent:ARG[2]:pRserved=[application]
TRC NV::Pkcs11::C_WaitForSlotEvent:CALL C_WaitForSlotEvent(): START
TRC NV::Pkcs11::C_WaitForSlotEvent:CALL C_WaitForSlotEvent(): END [# msec]
TRC NV::Pkcs11::C_WaitForSlotEvent:LEAVE
)"},
};

}  // namespace

std::span<const WrapperCase> keysCases()
{
    return cases;
}

}  // namespace NV::test
