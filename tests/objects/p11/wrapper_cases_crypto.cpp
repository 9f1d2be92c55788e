// What the call layer logs and passes on, word for word:
// the encryption, digest, signature and verification functions, C_EncryptInit to
// C_DecryptVerifyUpdate.
// Rows of the table that p11_wrapper_test.cpp runs.

#include "wrapper_cases.h"

namespace NV::test {

namespace {

constexpr WrapperCase cases[] = {
    {"C_EncryptInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_EncryptInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     R"(
TRC NV::Pkcs11::C_EncryptInit:ENTER
DBG NV::Pkcs11::C_EncryptInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_EncryptInit:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_EncryptInit:ARG[2]:hKey=00000000000000b1
TRC NV::Pkcs11::C_EncryptInit:CALL C_EncryptInit(): START
TRC NV::Pkcs11::C_EncryptInit:CALL C_EncryptInit(): END [# msec]
TRC NV::Pkcs11::C_EncryptInit:LEAVE
)"},
    {"C_Encrypt", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Encrypt(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Encrypt(session=0x5E55, data=0FF033, encryptedData=room[256])",
     R"(
TRC NV::Pkcs11::C_Encrypt:ENTER
DBG NV::Pkcs11::C_Encrypt:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Encrypt:ARG[1]:pData=[data]
DBG NV::Pkcs11::C_Encrypt:ARG[2]:ulDataLen=3
DBG NV::Pkcs11::C_Encrypt:ARG[3]:pEncryptedData=[output]
DBG NV::Pkcs11::C_Encrypt:ARG[4]:pulEncryptedDataLen=[length]
TRC NV::Pkcs11::C_Encrypt:CALL C_Encrypt(): START
TRC NV::Pkcs11::C_Encrypt:CALL C_Encrypt(): END [# msec]
TRC NV::Pkcs11::C_Encrypt:LEAVE
)"},
    {"C_EncryptUpdate", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_EncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     R"(
TRC NV::Pkcs11::C_EncryptUpdate:ENTER
DBG NV::Pkcs11::C_EncryptUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_EncryptUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_EncryptUpdate:ARG[2]:ulPartLen=3
DBG NV::Pkcs11::C_EncryptUpdate:ARG[3]:pEncryptedPart=[output]
DBG NV::Pkcs11::C_EncryptUpdate:ARG[4]:pulEncryptedPartLen=[length]
TRC NV::Pkcs11::C_EncryptUpdate:CALL C_EncryptUpdate(): START
TRC NV::Pkcs11::C_EncryptUpdate:CALL C_EncryptUpdate(): END [# msec]
TRC NV::Pkcs11::C_EncryptUpdate:LEAVE
)"},
    {"C_EncryptFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_EncryptInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_EncryptFinal(kSession, bench.output, &bench.length);
     },
     "C_EncryptFinal(session=0x5E55, lastEncryptedPart=room[256])",
     R"(
TRC NV::Pkcs11::C_EncryptFinal:ENTER
DBG NV::Pkcs11::C_EncryptFinal:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_EncryptFinal:ARG[1]:pLastEncryptedPart=[output]
DBG NV::Pkcs11::C_EncryptFinal:ARG[2]:pulLastEncryptedPartLen=[length]
TRC NV::Pkcs11::C_EncryptFinal:CALL C_EncryptFinal(): START
TRC NV::Pkcs11::C_EncryptFinal:CALL C_EncryptFinal(): END [# msec]
TRC NV::Pkcs11::C_EncryptFinal:LEAVE
)"},
    {"C_DecryptInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     "C_DecryptInit(session=0x5E55, mechanism=0x3, parameter=null, key=0xB2)",
     R"(
TRC NV::Pkcs11::C_DecryptInit:ENTER
DBG NV::Pkcs11::C_DecryptInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DecryptInit:ARG[1]:pMechanism=[rawRsa]
DBG NV::Pkcs11::C_DecryptInit:ARG[2]:hKey=00000000000000b2
TRC NV::Pkcs11::C_DecryptInit:CALL C_DecryptInit(): START
TRC NV::Pkcs11::C_DecryptInit:CALL C_DecryptInit(): END [# msec]
TRC NV::Pkcs11::C_DecryptInit:LEAVE
)"},
    {"C_Decrypt", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Decrypt(kSession, bench.cipher, 20, bench.output, &bench.length);
     },
     "C_Decrypt(session=0x5E55, encryptedData=000102030405060708090A0B0C0D0E0F10111213, "
     "data=room[256])",
     R"(
TRC NV::Pkcs11::C_Decrypt:ENTER
DBG NV::Pkcs11::C_Decrypt:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Decrypt:ARG[1]:pEncryptedData=[cipher]
DBG NV::Pkcs11::C_Decrypt:ARG[2]:ulEncryptedDataLen=20
DBG NV::Pkcs11::C_Decrypt:ARG[3]:pData=[output]
DBG NV::Pkcs11::C_Decrypt:ARG[4]:pulDataLen=[length]
TRC NV::Pkcs11::C_Decrypt:CALL C_Decrypt(): START
TRC NV::Pkcs11::C_Decrypt:CALL C_Decrypt(): END [# msec]
TRC NV::Pkcs11::C_Decrypt:LEAVE
)"},
    {"C_DecryptUpdate", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptUpdate(kSession, bench.cipher, 20, bench.output, &bench.length);
     },
     "C_DecryptUpdate(session=0x5E55, "
     "encryptedPart=000102030405060708090A0B0C0D0E0F10111213, part=room[256])",
     R"(
TRC NV::Pkcs11::C_DecryptUpdate:ENTER
DBG NV::Pkcs11::C_DecryptUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DecryptUpdate:ARG[1]:pEncryptedPart=[cipher]
DBG NV::Pkcs11::C_DecryptUpdate:ARG[2]:ulEncryptedPartLen=20
DBG NV::Pkcs11::C_DecryptUpdate:ARG[3]:pPart=[output]
DBG NV::Pkcs11::C_DecryptUpdate:ARG[4]:pulPartLen=[length]
TRC NV::Pkcs11::C_DecryptUpdate:CALL C_DecryptUpdate(): START
TRC NV::Pkcs11::C_DecryptUpdate:CALL C_DecryptUpdate(): END [# msec]
TRC NV::Pkcs11::C_DecryptUpdate:LEAVE
)"},
    {"C_DecryptFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DecryptInit(kSession, &bench.rawRsa, kPrivateKey) +
                token.C_DecryptUpdate(kSession, bench.cipher, 20, bench.output,
                                      &bench.scratchLength);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptFinal(kSession, bench.output, &bench.length);
     },
     "C_DecryptFinal(session=0x5E55, lastPart=room[256])",
     R"(
TRC NV::Pkcs11::C_DecryptFinal:ENTER
DBG NV::Pkcs11::C_DecryptFinal:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DecryptFinal:ARG[1]:pLastPart=[output]
DBG NV::Pkcs11::C_DecryptFinal:ARG[2]:pulLastPartLen=[length as a number]
TRC NV::Pkcs11::C_DecryptFinal:CALL C_DecryptFinal(): START
TRC NV::Pkcs11::C_DecryptFinal:CALL C_DecryptFinal(): END [# msec]
TRC NV::Pkcs11::C_DecryptFinal:LEAVE
)"},
    {"C_DigestInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_DigestInit(kSession, &bench.sha256); },
     "C_DigestInit(session=0x5E55, mechanism=0x250, parameter=null)",
     R"(
TRC NV::Pkcs11::C_DigestInit:ENTER
DBG NV::Pkcs11::C_DigestInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DigestInit:ARG[1]:pMechanism=[sha256]
TRC NV::Pkcs11::C_DigestInit:CALL C_DigestInit(): START
TRC NV::Pkcs11::C_DigestInit:CALL C_DigestInit(): END [# msec]
TRC NV::Pkcs11::C_DigestInit:LEAVE
)"},
    {"C_Digest", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Digest(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Digest(session=0x5E55, data=0FF033, digest=room[256])",
     R"(
TRC NV::Pkcs11::C_Digest:ENTER
DBG NV::Pkcs11::C_Digest:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Digest:ARG[1]:pData=[data]
DBG NV::Pkcs11::C_Digest:ARG[2]:ulDataLen=3
DBG NV::Pkcs11::C_Digest:ARG[3]:pDigest=[output]
DBG NV::Pkcs11::C_Digest:ARG[4]:pulDigestLen=[length]
TRC NV::Pkcs11::C_Digest:CALL C_Digest(): START
TRC NV::Pkcs11::C_Digest:CALL C_Digest(): END [# msec]
TRC NV::Pkcs11::C_Digest:LEAVE
)"},
    {"C_DigestUpdate", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_DigestUpdate(kSession, bench.data, 3); },
     "C_DigestUpdate(session=0x5E55, part=0FF033)",
     R"(
TRC NV::Pkcs11::C_DigestUpdate:ENTER
DBG NV::Pkcs11::C_DigestUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DigestUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_DigestUpdate:ARG[2]:ulPartLen=3
TRC NV::Pkcs11::C_DigestUpdate:CALL C_DigestUpdate(): START
TRC NV::Pkcs11::C_DigestUpdate:CALL C_DigestUpdate(): END [# msec]
TRC NV::Pkcs11::C_DigestUpdate:LEAVE
)"},
    {"C_DigestKey", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench&) { return p11.C_DigestKey(kSession, kSecretKey); },
     "C_DigestKey(session=0x5E55, key=0xB5)",
     R"(
TRC NV::Pkcs11::C_DigestKey:ENTER
DBG NV::Pkcs11::C_DigestKey:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DigestKey:ARG[1]:hKey=00000000000000b5
TRC NV::Pkcs11::C_DigestKey:CALL C_DigestKey(): START
TRC NV::Pkcs11::C_DigestKey:CALL C_DigestKey(): END [# msec]
TRC NV::Pkcs11::C_DigestKey:LEAVE
)"},
    {"C_DigestFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_DigestInit(kSession, &bench.sha256);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DigestFinal(kSession, bench.output, &bench.length);
     },
     "C_DigestFinal(session=0x5E55, digest=room[256])",
     R"(
TRC NV::Pkcs11::C_DigestFinal:ENTER
DBG NV::Pkcs11::C_DigestFinal:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DigestFinal:ARG[1]:pDigest=[output]
DBG NV::Pkcs11::C_DigestFinal:ARG[2]:pulDigestLen=[length]
TRC NV::Pkcs11::C_DigestFinal:CALL C_DigestFinal(): START
TRC NV::Pkcs11::C_DigestFinal:CALL C_DigestFinal(): END [# msec]
TRC NV::Pkcs11::C_DigestFinal:LEAVE
)"},
    {"C_SignInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) { return p11.C_SignInit(kSession, &bench.pss, kPrivateKey); },
     "C_SignInit(session=0x5E55, mechanism=0xD, parameter=500200000200000020000000, "
     "key=0xB2)",
     R"(
TRC NV::Pkcs11::C_SignInit:ENTER
DBG NV::Pkcs11::C_SignInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignInit:ARG[1]:pMechanism=[pss]
DBG NV::Pkcs11::C_SignInit:ARG[2]:hKey=00000000000000b2
DBG NV::Pkcs11::C_SignInit:pMechanism->mechanism = 0xd
DBG NV::Pkcs11::C_SignInit:pMechanism->pParameter = [pssParameters]
DBG NV::Pkcs11::C_SignInit:pMechanism->ulParameterLen = 12
TRC NV::Pkcs11::C_SignInit:CALL C_SignInit(): START
TRC NV::Pkcs11::C_SignInit:CALL C_SignInit(): END [# msec]
TRC NV::Pkcs11::C_SignInit:LEAVE
)"},
    {"C_Sign", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Sign(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_Sign(session=0x5E55, data=0FF033, signature=room[256])",
     R"(
TRC NV::Pkcs11::C_Sign:ENTER
DBG NV::Pkcs11::C_Sign:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Sign:ARG[1]:pData=[data]
DBG NV::Pkcs11::C_Sign:ARG[2]:ulDataLen=3
DBG NV::Pkcs11::C_Sign:ARG[3]:pSignature=[output]
DBG NV::Pkcs11::C_Sign:ARG[4]:pulSignatureLen=[length]
TRC NV::Pkcs11::C_Sign:CALL C_Sign(): START
TRC NV::Pkcs11::C_Sign:CALL C_Sign(): END [# msec]
TRC NV::Pkcs11::C_Sign:LEAVE
)"},
    {"C_SignUpdate", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_SignUpdate(kSession, bench.data, 3); },
     "C_SignUpdate(session=0x5E55, part=0FF033)",
     R"(
TRC NV::Pkcs11::C_SignUpdate:ENTER
DBG NV::Pkcs11::C_SignUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_SignUpdate:ARG[2]:ulPartLen=3
TRC NV::Pkcs11::C_SignUpdate:CALL C_SignUpdate(): START
TRC NV::Pkcs11::C_SignUpdate:CALL C_SignUpdate(): END [# msec]
TRC NV::Pkcs11::C_SignUpdate:LEAVE
)"},
    {"C_SignFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignFinal(kSession, bench.output, &bench.length);
     },
     "C_SignFinal(session=0x5E55, signature=room[256])",
     R"(
TRC NV::Pkcs11::C_SignFinal:ENTER
DBG NV::Pkcs11::C_SignFinal:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignFinal:ARG[1]:pSignature=[output]
DBG NV::Pkcs11::C_SignFinal:ARG[2]:pulSignatureLen=[length]
TRC NV::Pkcs11::C_SignFinal:CALL C_SignFinal(): START
TRC NV::Pkcs11::C_SignFinal:CALL C_SignFinal(): END [# msec]
TRC NV::Pkcs11::C_SignFinal:LEAVE
)"},
    {"C_SignRecoverInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignRecoverInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     "C_SignRecoverInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB2)",
     R"(
TRC NV::Pkcs11::C_SignRecoverInit:ENTER
DBG NV::Pkcs11::C_SignRecoverInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignRecoverInit:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_SignRecoverInit:ARG[2]:hKey=00000000000000b2
TRC NV::Pkcs11::C_SignRecoverInit:CALL C_SignRecoverInit(): START
TRC NV::Pkcs11::C_SignRecoverInit:CALL C_SignRecoverInit(): END [# msec]
TRC NV::Pkcs11::C_SignRecoverInit:LEAVE
)"},
    {"C_SignRecover", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_SignRecoverInit(kSession, &bench.rsaPkcs, kPrivateKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignRecover(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_SignRecover(session=0x5E55, data=0FF033, signature=room[256])",
     R"(
TRC NV::Pkcs11::C_SignRecover:ENTER
DBG NV::Pkcs11::C_SignRecover:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignRecover:ARG[1]:pData=[data]
DBG NV::Pkcs11::C_SignRecover:ARG[2]:ulDataLen=3
DBG NV::Pkcs11::C_SignRecover:ARG[3]:pSignature=[output]
DBG NV::Pkcs11::C_SignRecover:ARG[4]:pulSignatureLen=[length]
TRC NV::Pkcs11::C_SignRecover:CALL C_SignRecover(): START
TRC NV::Pkcs11::C_SignRecover:CALL C_SignRecover(): END [# msec]
TRC NV::Pkcs11::C_SignRecover:LEAVE
)"},
    {"C_VerifyInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_VerifyInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     R"(
TRC NV::Pkcs11::C_VerifyInit:ENTER
DBG NV::Pkcs11::C_VerifyInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_VerifyInit:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_VerifyInit:ARG[2]:hKey=00000000000000b1
TRC NV::Pkcs11::C_VerifyInit:CALL C_VerifyInit(): START
TRC NV::Pkcs11::C_VerifyInit:CALL C_VerifyInit(): END [# msec]
TRC NV::Pkcs11::C_VerifyInit:LEAVE
)"},
    {"C_Verify", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_Verify(kSession, bench.data, 3, bench.signature, 20);
     },
     "C_Verify(session=0x5E55, data=0FF033, "
     "signature=88906063B4A46C6FA0B8787BAC4C848758409093)",
     R"(
TRC NV::Pkcs11::C_Verify:ENTER
DBG NV::Pkcs11::C_Verify:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_Verify:ARG[1]:pData=[data]
DBG NV::Pkcs11::C_Verify:ARG[2]:ulDataLen=3
DBG NV::Pkcs11::C_Verify:ARG[3]:pSignature=[signature]
DBG NV::Pkcs11::C_Verify:ARG[4]:ulSignatureLen=20
TRC NV::Pkcs11::C_Verify:CALL C_Verify(): START
TRC NV::Pkcs11::C_Verify:CALL C_Verify(): END [# msec]
TRC NV::Pkcs11::C_Verify:LEAVE
)"},
    {"C_VerifyUpdate", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_VerifyUpdate(kSession, bench.data, 3); },
     "C_VerifyUpdate(session=0x5E55, part=0FF033)",
     R"(
TRC NV::Pkcs11::C_VerifyUpdate:ENTER
DBG NV::Pkcs11::C_VerifyUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_VerifyUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_VerifyUpdate:ARG[2]:ulPartLen=3
TRC NV::Pkcs11::C_VerifyUpdate:CALL C_VerifyUpdate(): START
TRC NV::Pkcs11::C_VerifyUpdate:CALL C_VerifyUpdate(): END [# msec]
TRC NV::Pkcs11::C_VerifyUpdate:LEAVE
)"},
    {"C_VerifyFinal", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyInit(kSession, &bench.rsaPkcs, kPublicKey) +
                token.C_VerifyUpdate(kSession, bench.data, 3);
     },
     [](Pkcs11& p11, Bench& bench) { return p11.C_VerifyFinal(kSession, bench.signature, 20); },
     "C_VerifyFinal(session=0x5E55, signature=88906063B4A46C6FA0B8787BAC4C848758409093)",
     R"(
TRC NV::Pkcs11::C_VerifyFinal:ENTER
DBG NV::Pkcs11::C_VerifyFinal:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_VerifyFinal:ARG[1]:pSignature=[signature]
DBG NV::Pkcs11::C_VerifyFinal:ARG[2]:ulSignatureLen=20
TRC NV::Pkcs11::C_VerifyFinal:CALL C_VerifyFinal(): START
TRC NV::Pkcs11::C_VerifyFinal:CALL C_VerifyFinal(): END [# msec]
TRC NV::Pkcs11::C_VerifyFinal:LEAVE
)"},
    {"C_VerifyRecoverInit", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyRecoverInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     "C_VerifyRecoverInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
     R"(
TRC NV::Pkcs11::C_VerifyRecoverInit:ENTER
DBG NV::Pkcs11::C_VerifyRecoverInit:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_VerifyRecoverInit:ARG[1]:pMechanism=[rsaPkcs]
DBG NV::Pkcs11::C_VerifyRecoverInit:ARG[2]:hKey=00000000000000b1
TRC NV::Pkcs11::C_VerifyRecoverInit:CALL C_VerifyRecoverInit(): START
TRC NV::Pkcs11::C_VerifyRecoverInit:CALL C_VerifyRecoverInit(): END [# msec]
TRC NV::Pkcs11::C_VerifyRecoverInit:LEAVE
)"},
    {"C_VerifyRecover", State::LoggedIn,
     [](const CK_FUNCTION_LIST& token, Bench& bench) {
         return token.C_VerifyRecoverInit(kSession, &bench.rsaPkcs, kPublicKey);
     },
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_VerifyRecover(kSession, bench.signature, 20, bench.output, &bench.length);
     },
     "C_VerifyRecover(session=0x5E55, signature=88906063B4A46C6FA0B8787BAC4C848758409093, "
     "data=room[256])",
     R"(
TRC NV::Pkcs11::C_VerifyRecover:ENTER
DBG NV::Pkcs11::C_VerifyRecover:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_VerifyRecover:ARG[1]:pSignature=[signature]
DBG NV::Pkcs11::C_VerifyRecover:ARG[2]:ulSignatureLen=20
DBG NV::Pkcs11::C_VerifyRecover:ARG[3]:pData=[output]
DBG NV::Pkcs11::C_VerifyRecover:ARG[4]:pulDataLen=[length]
TRC NV::Pkcs11::C_VerifyRecover:CALL C_VerifyRecover(): START
TRC NV::Pkcs11::C_VerifyRecover:CALL C_VerifyRecover(): END [# msec]
TRC NV::Pkcs11::C_VerifyRecover:LEAVE
)"},
    {"C_DigestEncryptUpdate", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DigestEncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DigestEncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     R"(
TRC NV::Pkcs11::C_DigestEncryptUpdate:ENTER
DBG NV::Pkcs11::C_DigestEncryptUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DigestEncryptUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_DigestEncryptUpdate:ARG[2]:ulPartLen=3
DBG NV::Pkcs11::C_DigestEncryptUpdate:ARG[3]:pEncryptedPart=[output]
DBG NV::Pkcs11::C_DigestEncryptUpdate:ARG[4]:pulEncryptedPartLen=[length]
TRC NV::Pkcs11::C_DigestEncryptUpdate:CALL C_DigestEncryptUpdate(): START
TRC NV::Pkcs11::C_DigestEncryptUpdate:CALL C_DigestEncryptUpdate(): END [# msec]
TRC NV::Pkcs11::C_DigestEncryptUpdate:LEAVE
)"},
    {"C_DecryptDigestUpdate", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptDigestUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DecryptDigestUpdate(session=0x5E55, encryptedPart=0FF033, part=room[256])",
     R"(
TRC NV::Pkcs11::C_DecryptDigestUpdate:ENTER
DBG NV::Pkcs11::C_DecryptDigestUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DecryptDigestUpdate:ARG[1]:pEncryptedPart=[data]
DBG NV::Pkcs11::C_DecryptDigestUpdate:ARG[2]:ulEncryptedPartLen=3
DBG NV::Pkcs11::C_DecryptDigestUpdate:ARG[3]:pPart=[output]
DBG NV::Pkcs11::C_DecryptDigestUpdate:ARG[4]:pulPartLen=[length]
TRC NV::Pkcs11::C_DecryptDigestUpdate:CALL C_DecryptDigestUpdate(): START
TRC NV::Pkcs11::C_DecryptDigestUpdate:CALL C_DecryptDigestUpdate(): END [# msec]
TRC NV::Pkcs11::C_DecryptDigestUpdate:LEAVE
)"},
    {"C_SignEncryptUpdate", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_SignEncryptUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_SignEncryptUpdate(session=0x5E55, part=0FF033, encryptedPart=room[256])",
     R"(
TRC NV::Pkcs11::C_SignEncryptUpdate:ENTER
DBG NV::Pkcs11::C_SignEncryptUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_SignEncryptUpdate:ARG[1]:pPart=[data]
DBG NV::Pkcs11::C_SignEncryptUpdate:ARG[2]:ulPartLen=3
DBG NV::Pkcs11::C_SignEncryptUpdate:ARG[3]:pEncryptedPart=[output]
DBG NV::Pkcs11::C_SignEncryptUpdate:ARG[4]:pulEncryptedPartLen=[length]
TRC NV::Pkcs11::C_SignEncryptUpdate:CALL C_SignEncryptUpdate(): START
TRC NV::Pkcs11::C_SignEncryptUpdate:CALL C_SignEncryptUpdate(): END [# msec]
TRC NV::Pkcs11::C_SignEncryptUpdate:LEAVE
)"},
    {"C_DecryptVerifyUpdate", State::LoggedIn, nothing,
     [](Pkcs11& p11, Bench& bench) {
         return p11.C_DecryptVerifyUpdate(kSession, bench.data, 3, bench.output, &bench.length);
     },
     "C_DecryptVerifyUpdate(session=0x5E55, encryptedPart=0FF033, part=room[256])",
     R"(
TRC NV::Pkcs11::C_DecryptVerifyUpdate:ENTER
DBG NV::Pkcs11::C_DecryptVerifyUpdate:ARG[0]:hSession=0000000000005e55
DBG NV::Pkcs11::C_DecryptVerifyUpdate:ARG[1]:pEncryptedPart=[data]
DBG NV::Pkcs11::C_DecryptVerifyUpdate:ARG[2]:ulEncryptedPartLen=3
DBG NV::Pkcs11::C_DecryptVerifyUpdate:ARG[3]:pPart=[output]
DBG NV::Pkcs11::C_DecryptVerifyUpdate:ARG[4]:pulPartLen=[length]
TRC NV::Pkcs11::C_DecryptVerifyUpdate:CALL C_DecryptVerifyUpdate(): START
TRC NV::Pkcs11::C_DecryptVerifyUpdate:CALL C_DecryptVerifyUpdate(): END [# msec]
TRC NV::Pkcs11::C_DecryptVerifyUpdate:LEAVE
)"},
};

}  // namespace

std::span<const WrapperCase> cryptoCases()
{
    return cases;
}

}  // namespace NV::test
