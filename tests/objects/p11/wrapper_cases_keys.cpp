// What the call layer logs and passes on, word for word:
// the key management and random number functions, C_GenerateKey to C_WaitForSlotEvent.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_GenerateKey", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GenerateKey(kSession, &bench.secretGeneration, bench.attributes, 2,
                                  &bench.newHandle);
     },
     "C_GenerateKey(session=0x5E55, mechanism=0x350, parameter=null, "
     "template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, pMechanism=[secretGeneration], pTemplate=[attributes], "
     "ulCount=2, phKey=[newHandle]"},
    {"C_GenerateKeyPair", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_GenerateKeyPair(kSession, &bench.pairGeneration, bench.publicTemplate, 1,
                                      bench.privateTemplate, 2, &bench.newHandle,
                                      &bench.otherHandle);
     },
     "C_GenerateKeyPair(session=0x5E55, mechanism=0x0, parameter=null, "
     "publicKeyTemplate={0x121=A0000000}, privateKeyTemplate={0x102=01AB,0x1=00})",
     "hSession=0000000000005e55, pMechanism=[pairGeneration], "
     "pPublicKeyTemplate=[publicTemplate], ulPublicKeyAttributeCount=1, "
     "pPrivateKeyTemplate=[privateTemplate], ulPrivateKeyAttributeCount=2, "
     "phPublicKey=[newHandle], phPrivateKey=[otherHandle]"},
    {"C_WrapKey", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_WrapKey(kSession, &bench.rsaPkcs, kPublicKey, kSecretKey, bench.output,
                              &bench.length);
     },
     "C_WrapKey(session=0x5E55, mechanism=0x1, parameter=null, wrappingKey=0xB1, "
     "key=0xB5, wrappedKey=room[256])",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hWrappingKey=00000000000000b1, "
     "hKey=00000000000000b5, pWrappedKey=[output], pulWrappedKeyLen=[length]"},
    {"C_UnwrapKey", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_UnwrapKey(kSession, &bench.rsaPkcs, kPrivateKey, bench.data, 3,
                                bench.attributes, 2, &bench.newHandle);
     },
     "C_UnwrapKey(session=0x5E55, mechanism=0x1, parameter=null, unwrappingKey=0xB2, "
     "wrappedKey=0FF033, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hUnwrappingKey=00000000000000b2, "
     "pWrappedKey=[data], ulWrappedKeyLen=3, pTemplate=[attributes], ulAttributeCount=2, "
     "pTemplate=[newHandle]"},
    {"C_DeriveKey", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DeriveKey(kSession, &bench.ecdh, kEcPrivateKey, bench.attributes, 2,
                                &bench.newHandle);
     },
     "C_DeriveKey(session=0x5E55, mechanism=0x1050, "
     "parameter={kdf=0x1,sharedData=null,publicData=04A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7"
     "A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7A7"
     "A7A7A7A7}, baseKey=0xB4, template={0x0=00000000,0x102=01AB})",
     "hSession=0000000000005e55, pMechanism=[ecdh], hBaseKey=00000000000000b4, "
     "pTemplate=[attributes], ulAttributeCount=2, phKey=[newHandle]"},
    {"C_SeedRandom", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_SeedRandom(kSession, bench.data, 3); },
     "C_SeedRandom(session=0x5E55, seed=0FF033)",
     "hSession=0000000000005e55, pSeed=[data], ulSeedLen=3"},
    {"C_GenerateRandom", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_GenerateRandom(kSession, bench.output, 16); },
     "C_GenerateRandom(session=0x5E55, randomData=room[16])",
     "hSession=0000000000005e55, RandomData=[output], ulRandomLen=16"},
    {"C_GetFunctionStatus", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_GetFunctionStatus(kSession); },
     "C_GetFunctionStatus(session=0x5E55)", "hSession=0000000000005e55"},
    {"C_CancelFunction", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench&) { return p11.C_CancelFunction(kSession); },
     "C_CancelFunction(session=0x5E55)", "hSession=0000000000005e55"},
    {"C_WaitForSlotEvent", State::initialised, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_WaitForSlotEvent(0x1B, bench.slots, &bench.application);
     },
     "C_WaitForSlotEvent(flags=0x1B, slot=given, reserved=given)",
     "flags=1b, pSlot=[slots], pRserved=[application]"},
};

}  // namespace

std::span<const WrapperCase> keysCases()
{
    return cases;
}

}  // namespace NV::test
