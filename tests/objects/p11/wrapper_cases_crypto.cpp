// What the call layer logs and passes on, word for word:
// the encryption, digest, signature and verification functions, C_EncryptInit to
// C_DecryptVerifyUpdate.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_EncryptInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_EncryptInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hKey=00000000000000b1"},
    {"C_Encrypt", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Encrypt(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Encrypt(session=0x5E55, data=0FF033, encryptedData=room[256])",
     "hSession=0000000000005e55, pData=[data], ulDataLen=3, pEncryptedData=[output], "
     "pulEncryptedDataLen=[length]"},
    {"C_EncryptUpdate", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_EncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3, pEncryptedPart=[output], "
     "pulEncryptedPartLen=[length]"},
    {"C_EncryptFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptFinal(kSession, bench.output, &bench.length);
     },
     "C_EncryptFinal(session=0x5E55, lastEncryptedPart=room[256])",
     "hSession=0000000000005e55, pLastEncryptedPart=[output], pulLastEncryptedPartLen=[length]"},
    {"C_DecryptInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     "C_DecryptInit(session=0x5E55, mechanism=0x3, parameter=null, key=0xB2)",
     "hSession=0000000000005e55, pMechanism=[rawRsa], hKey=00000000000000b2"},
    {"C_Decrypt", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Decrypt(kSession, bench.cipher, 20, bench.output, &bench.length);
     },
     "C_Decrypt(session=0x5E55, encryptedData=000102030405060708090A0B0C0D0E0F10111213, "
     "data=room[256])",
     "hSession=0000000000005e55, pEncryptedData=[cipher], ulEncryptedDataLen=20, "
     "pData=[output], pulDataLen=[length]"},
    {"C_DecryptUpdate", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptUpdate(kSession, bench.cipher, 20, bench.output, &bench.length);
     },
     "C_DecryptUpdate(session=0x5E55, "
     "encryptedPart=000102030405060708090A0B0C0D0E0F10111213, part=room[256])",
     "hSession=0000000000005e55, pEncryptedPart=[cipher], ulEncryptedPartLen=20, "
     "pPart=[output], pulPartLen=[length]"},
    {"C_DecryptFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey) +
                token.C_DecryptUpdate(kSession, bench.cipher, 20, bench.output,
                                      &bench.scratchLength);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptFinal(kSession, bench.output, &bench.length);
     },
     "C_DecryptFinal(session=0x5E55, lastPart=room[256])",
     "hSession=0000000000005e55, pLastPart=[output], pulLastPartLen=[length as a number]"},
    {"C_DigestInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_DigestInit(kSession, &bench.sha256); },
     "C_DigestInit(session=0x5E55, mechanism=0x250, parameter=null)",
     "hSession=0000000000005e55, pMechanism=[sha256]"},
    {"C_Digest", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Digest(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Digest(session=0x5E55, data=0FF033, digest=room[256])",
     "hSession=0000000000005e55, pData=[data], ulDataLen=3, pDigest=[output], "
     "pulDigestLen=[length]"},
    {"C_DigestUpdate", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_DigestUpdate(kSession, bench.data, 3); },
     "C_DigestUpdate(session=0x5E55, part=0FF033)",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3"},
    {"C_DigestKey", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench&) { return p11.C_DigestKey(kSession, kSecretKey); },
     "C_DigestKey(session=0x5E55, key=0xB5)", "hSession=0000000000005e55, hKey=00000000000000b5"},
    {"C_DigestFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DigestFinal(kSession, bench.output, &bench.length);
     },
     "C_DigestFinal(session=0x5E55, digest=room[256])",
     "hSession=0000000000005e55, pDigest=[output], pulDigestLen=[length]"},
    {"C_SignInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_SignInit(kSession, &bench.pss, kPrivateKey); },
     "C_SignInit(session=0x5E55, mechanism=0xD, parameter=500200000200000020000000, "
     "key=0xB2)",
     "hSession=0000000000005e55, pMechanism=[pss], hKey=00000000000000b2", "",
     "DBG pMechanism->mechanism = 0xd\n"
     "DBG pMechanism->pParameter = [pssParameters]\n"
     "DBG pMechanism->ulParameterLen = 12\n"},
    {"C_Sign", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Sign(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Sign(session=0x5E55, data=0FF033, signature=room[256])",
     "hSession=0000000000005e55, pData=[data], ulDataLen=3, pSignature=[output], "
     "pulSignatureLen=[length]"},
    {"C_SignUpdate", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_SignUpdate(kSession, bench.data, 3); },
     "C_SignUpdate(session=0x5E55, part=0FF033)",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3"},
    {"C_SignFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignFinal(kSession, bench.output, &bench.length);
     },
     "C_SignFinal(session=0x5E55, signature=room[256])",
     "hSession=0000000000005e55, pSignature=[output], pulSignatureLen=[length]"},
    {"C_SignRecoverInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignRecoverInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     "C_SignRecoverInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB2)",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hKey=00000000000000b2"},
    {"C_SignRecover", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignRecoverInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignRecover(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_SignRecover(session=0x5E55, data=0FF033, signature=room[256])",
     "hSession=0000000000005e55, pData=[data], ulDataLen=3, pSignature=[output], "
     "pulSignatureLen=[length]"},
    {"C_VerifyInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_VerifyInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hKey=00000000000000b1"},
    {"C_Verify", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Verify(kSession, bench.data, 3, bench.signature, 20);
     },
     "C_Verify(session=0x5E55, data=0FF033, "
     "signature=88906063B4A46C6FA0B8787BAC4C848758409093)",
     "hSession=0000000000005e55, pData=[data], ulDataLen=3, pSignature=[signature], "
     "ulSignatureLen=20"},
    {"C_VerifyUpdate", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_VerifyUpdate(kSession, bench.data, 3); },
     "C_VerifyUpdate(session=0x5E55, part=0FF033)",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3"},
    {"C_VerifyFinal", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey) +
                token.C_VerifyUpdate(kSession, bench.data, 3);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_VerifyFinal(kSession, bench.signature, 20); },
     "C_VerifyFinal(session=0x5E55, signature=88906063B4A46C6FA0B8787BAC4C848758409093)",
     "hSession=0000000000005e55, pSignature=[signature], ulSignatureLen=20"},
    {"C_VerifyRecoverInit", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyRecoverInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_VerifyRecoverInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     "hSession=0000000000005e55, pMechanism=[rsaPkcs], hKey=00000000000000b1"},
    {"C_VerifyRecover", State::loggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyRecoverInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyRecover(kSession, bench.signature, 20, bench.output, &bench.length);
     },
     "C_VerifyRecover(session=0x5E55, signature=88906063B4A46C6FA0B8787BAC4C848758409093, "
     "data=room[256])",
     "hSession=0000000000005e55, pSignature=[signature], ulSignatureLen=20, pData=[output], "
     "pulDataLen=[length]"},
    {"C_DigestEncryptUpdate", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DigestEncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DigestEncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3, pEncryptedPart=[output], "
     "pulEncryptedPartLen=[length]"},
    {"C_DecryptDigestUpdate", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptDigestUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DecryptDigestUpdate(session=0x5E55, encryptedPart=0FF033, part=room[256])",
     "hSession=0000000000005e55, pEncryptedPart=[data], ulEncryptedPartLen=3, pPart=[output], "
     "pulPartLen=[length]"},
    {"C_SignEncryptUpdate", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignEncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_SignEncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     "hSession=0000000000005e55, pPart=[data], ulPartLen=3, pEncryptedPart=[output], "
     "pulEncryptedPartLen=[length]"},
    {"C_DecryptVerifyUpdate", State::loggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptVerifyUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DecryptVerifyUpdate(session=0x5E55, encryptedPart=0FF033, part=room[256])",
     "hSession=0000000000005e55, pEncryptedPart=[data], ulEncryptedPartLen=3, pPart=[output], "
     "pulPartLen=[length]"},
};

}  // namespace

std::span<const WrapperCase> cryptoCases()
{
    return cases;
}

}  // namespace NV::test
