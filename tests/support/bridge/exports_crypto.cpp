// Exports: cryptographic operations. Most functions have one of five shapes; each is listed under
// its shape.

#include <memory>
#include <utility>

#include "exports.h"
#include "mechanisms.h"

using namespace NV::bridge;

namespace {

enum Operation { encrypt, decrypt, digest, sign, signRecover, verify, verifyRecover };

// Starts an operation; key is empty for C_DigestInit.
template <typename Member, typename... Key>
CK_RV start(Operation operation, Member member, CK_SESSION_HANDLE session,
            const CK_MECHANISM* callerMechanism, Key... key)
{
    auto mechanism = std::make_unique<Mechanism>(callerMechanism);
    const CK_RV result = callNative(member, session, mechanism->get(), key...);
    if (result == CKR_OK)
        keepMechanism(session, operation, std::move(mechanism));
    return result;
}

}  // namespace

// (session, mechanism, key)
#define NV_START(name, operation)                                                                  \
    NV_EXPORT(name,                                                                                \
              (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey),    \
              { return start(operation, NV_NATIVE(name), hSession, pMechanism, hKey); })
NV_START(C_EncryptInit, encrypt)
NV_START(C_DecryptInit, decrypt)
NV_START(C_SignInit, sign)
NV_START(C_SignRecoverInit, signRecover)
NV_START(C_VerifyInit, verify)
NV_START(C_VerifyRecoverInit, verifyRecover)

// (session, input, length, output, length in and out)
#define NV_BYTES_TO_BYTES(name)                                                                    \
    NV_EXPORT(name,                                                                                \
              (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pInput, CK_ULONG ulInputLen,                \
               CK_BYTE_PTR pOutput, CK_ULONG_PTR pulOutputLen),                                    \
              {                                                                                    \
                  InOut length{pulOutputLen};                                                      \
                  return length.finish(callNative(NV_NATIVE(name), hSession, pInput, ulInputLen,   \
                                                  pOutput, length.get()));                         \
              })
NV_BYTES_TO_BYTES(C_Encrypt)
NV_BYTES_TO_BYTES(C_EncryptUpdate)
NV_BYTES_TO_BYTES(C_Decrypt)
NV_BYTES_TO_BYTES(C_DecryptUpdate)
NV_BYTES_TO_BYTES(C_Digest)
NV_BYTES_TO_BYTES(C_Sign)
NV_BYTES_TO_BYTES(C_SignRecover)
NV_BYTES_TO_BYTES(C_VerifyRecover)
NV_BYTES_TO_BYTES(C_DigestEncryptUpdate)
NV_BYTES_TO_BYTES(C_DecryptDigestUpdate)
NV_BYTES_TO_BYTES(C_SignEncryptUpdate)
NV_BYTES_TO_BYTES(C_DecryptVerifyUpdate)

// (session, output, length in and out)
#define NV_TO_BYTES(name)                                                                          \
    NV_EXPORT(                                                                                     \
        name, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOutput, CK_ULONG_PTR pulOutputLen), {      \
            InOut length{pulOutputLen};                                                            \
            return length.finish(callNative(NV_NATIVE(name), hSession, pOutput, length.get()));    \
        })
NV_TO_BYTES(C_EncryptFinal)
NV_TO_BYTES(C_DecryptFinal)
NV_TO_BYTES(C_DigestFinal)
NV_TO_BYTES(C_SignFinal)
NV_TO_BYTES(C_GetOperationState)

// (session, bytes, length)
#define NV_WITH_BYTES(name)                                                                        \
    NV_EXPORT(name, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pBytes, CK_ULONG ulLen),              \
              { return callNative(NV_NATIVE(name), hSession, pBytes, ulLen); })
NV_WITH_BYTES(C_InitPIN)
NV_WITH_BYTES(C_DigestUpdate)
NV_WITH_BYTES(C_SignUpdate)
NV_WITH_BYTES(C_VerifyUpdate)
NV_WITH_BYTES(C_VerifyFinal)
NV_WITH_BYTES(C_SeedRandom)
NV_WITH_BYTES(C_GenerateRandom)

NV_EXPORT(C_DigestInit, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism),
          { return start(digest, NV_NATIVE(C_DigestInit), hSession, pMechanism); })

NV_FORWARD(C_DigestKey, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey), hSession, hKey)

NV_FORWARD(C_Verify,
           (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
            CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen),
           hSession, pData, ulDataLen, pSignature, ulSignatureLen)

NV_FORWARD(C_SetOperationState,
           (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState, CK_ULONG ulOperationStateLen,
            CK_OBJECT_HANDLE hEncryptionKey, CK_OBJECT_HANDLE hAuthenticationKey),
           hSession, pOperationState, ulOperationStateLen, hEncryptionKey, hAuthenticationKey)
