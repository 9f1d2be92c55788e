// The wrappers of the functions that use keys: encryption, digests, signatures, key management and
// random numbers. Also the two legacy functions for parallel sessions, and C_WaitForSlotEvent.

#include "p11/p11.h"

#include "p11/p11_call.h"

namespace NV {

using namespace call_layer;

CK_RV Pkcs11::C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                            CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_EncryptInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                        CK_BYTE_PTR pEncryptedData, CK_ULONG_PTR pulEncryptedDataLen)
{
    return NV_PLAIN_CALL(C_Encrypt, end, pointer("hSession", hSession), pointer("pData", pData),
                         number("ulDataLen", ulDataLen), pointer("pEncryptedData", pEncryptedData),
                         pointer("pulEncryptedDataLen", pulEncryptedDataLen));
}

CK_RV Pkcs11::C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                              CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return NV_PLAIN_CALL(C_EncryptUpdate, end, pointer("hSession", hSession),
                         pointer("pPart", pPart), number("ulPartLen", ulPartLen),
                         pointer("pEncryptedPart", pEncryptedPart),
                         pointer("pulEncryptedPartLen", pulEncryptedPartLen));
}

CK_RV Pkcs11::C_EncryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart,
                             CK_ULONG_PTR pulLastEncryptedPartLen)
{
    return NV_PLAIN_CALL(C_EncryptFinal, end, pointer("hSession", hSession),
                         pointer("pLastEncryptedPart", pLastEncryptedPart),
                         pointer("pulLastEncryptedPartLen", pulLastEncryptedPartLen));
}

CK_RV Pkcs11::C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                            CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_DecryptInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData,
                        CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen)
{
    return NV_PLAIN_CALL(C_Decrypt, end, pointer("hSession", hSession),
                         pointer("pEncryptedData", pEncryptedData),
                         number("ulEncryptedDataLen", ulEncryptedDataLen), pointer("pData", pData),
                         pointer("pulDataLen", pulDataLen));
}

CK_RV Pkcs11::C_DecryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                              CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart,
                              CK_ULONG_PTR pulPartLen)
{
    return NV_PLAIN_CALL(C_DecryptUpdate, end, pointer("hSession", hSession),
                         pointer("pEncryptedPart", pEncryptedPart),
                         number("ulEncryptedPartLen", ulEncryptedPartLen), pointer("pPart", pPart),
                         pointer("pulPartLen", pulPartLen));
}

// Compat: the pointer to the length prints as a number; people search logs for the line.
CK_RV Pkcs11::C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart,
                             CK_ULONG_PTR pulLastPartLen)
{
    return NV_PLAIN_CALL(C_DecryptFinal, end, pointer("hSession", hSession),
                         pointer("pLastPart", pLastPart), number("pulLastPartLen", pulLastPartLen));
}

CK_RV Pkcs11::C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    return NV_PLAIN_CALL(C_DigestInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism));
}

CK_RV Pkcs11::C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                       CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    return NV_PLAIN_CALL(C_Digest, end, pointer("hSession", hSession), pointer("pData", pData),
                         number("ulDataLen", ulDataLen), pointer("pDigest", pDigest),
                         pointer("pulDigestLen", pulDigestLen));
}

CK_RV Pkcs11::C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return NV_PLAIN_CALL(C_DigestUpdate, end, pointer("hSession", hSession),
                         pointer("pPart", pPart), number("ulPartLen", ulPartLen));
}

CK_RV Pkcs11::C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_DigestKey, end, pointer("hSession", hSession), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest,
                            CK_ULONG_PTR pulDigestLen)
{
    return NV_PLAIN_CALL(C_DigestFinal, end, pointer("hSession", hSession),
                         pointer("pDigest", pDigest), pointer("pulDigestLen", pulDigestLen));
}

CK_RV Pkcs11::C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                         CK_OBJECT_HANDLE hKey)
{
    constexpr Site here = NV_HERE;
    const auto logMechanism = [&] {
        if (pMechanism == nullptr)
            return;
        NV_UNDER(DBG, here, "pMechanism->mechanism = 0x%x", pMechanism->mechanism);
        NV_UNDER(DBG, here, "pMechanism->pParameter = %p", pMechanism->pParameter);
        NV_UNDER(DBG, here, "pMechanism->ulParameterLen = %d",
                 static_cast<int>(pMechanism->ulParameterLen));
    };
    return call(NV_CALL(C_SignInit, end), logMechanism, nothingAfter, pointer("hSession", hSession),
                pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                     CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return NV_PLAIN_CALL(C_Sign, end, pointer("hSession", hSession), pointer("pData", pData),
                         number("ulDataLen", ulDataLen), pointer("pSignature", pSignature),
                         pointer("pulSignatureLen", pulSignatureLen));
}

CK_RV Pkcs11::C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return NV_PLAIN_CALL(C_SignUpdate, end, pointer("hSession", hSession), pointer("pPart", pPart),
                         number("ulPartLen", ulPartLen));
}

CK_RV Pkcs11::C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                          CK_ULONG_PTR pulSignatureLen)
{
    return NV_PLAIN_CALL(C_SignFinal, end, pointer("hSession", hSession),
                         pointer("pSignature", pSignature),
                         pointer("pulSignatureLen", pulSignatureLen));
}

CK_RV Pkcs11::C_SignRecoverInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_SignRecoverInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_SignRecover(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                            CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return NV_PLAIN_CALL(C_SignRecover, end, pointer("hSession", hSession), pointer("pData", pData),
                         number("ulDataLen", ulDataLen), pointer("pSignature", pSignature),
                         pointer("pulSignatureLen", pulSignatureLen));
}

CK_RV Pkcs11::C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                           CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_VerifyInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                       CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    return NV_PLAIN_CALL(C_Verify, end, pointer("hSession", hSession), pointer("pData", pData),
                         number("ulDataLen", ulDataLen), pointer("pSignature", pSignature),
                         number("ulSignatureLen", ulSignatureLen));
}

CK_RV Pkcs11::C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return NV_PLAIN_CALL(C_VerifyUpdate, end, pointer("hSession", hSession),
                         pointer("pPart", pPart), number("ulPartLen", ulPartLen));
}

CK_RV Pkcs11::C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                            CK_ULONG ulSignatureLen)
{
    return NV_PLAIN_CALL(C_VerifyFinal, end, pointer("hSession", hSession),
                         pointer("pSignature", pSignature),
                         number("ulSignatureLen", ulSignatureLen));
}

CK_RV Pkcs11::C_VerifyRecoverInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                  CK_OBJECT_HANDLE hKey)
{
    return NV_PLAIN_CALL(C_VerifyRecoverInit, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hKey", hKey));
}

CK_RV Pkcs11::C_VerifyRecover(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,
                              CK_ULONG ulSignatureLen, CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen)
{
    return NV_PLAIN_CALL(C_VerifyRecover, end, pointer("hSession", hSession),
                         pointer("pSignature", pSignature),
                         number("ulSignatureLen", ulSignatureLen), pointer("pData", pData),
                         pointer("pulDataLen", pulDataLen));
}

CK_RV Pkcs11::C_DigestEncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart,
                                    CK_ULONG ulPartLen, CK_BYTE_PTR pEncryptedPart,
                                    CK_ULONG_PTR pulEncryptedPartLen)
{
    return NV_PLAIN_CALL(C_DigestEncryptUpdate, end, pointer("hSession", hSession),
                         pointer("pPart", pPart), number("ulPartLen", ulPartLen),
                         pointer("pEncryptedPart", pEncryptedPart),
                         pointer("pulEncryptedPartLen", pulEncryptedPartLen));
}

CK_RV Pkcs11::C_DecryptDigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                                    CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart,
                                    CK_ULONG_PTR pulPartLen)
{
    return NV_PLAIN_CALL(C_DecryptDigestUpdate, end, pointer("hSession", hSession),
                         pointer("pEncryptedPart", pEncryptedPart),
                         number("ulEncryptedPartLen", ulEncryptedPartLen), pointer("pPart", pPart),
                         pointer("pulPartLen", pulPartLen));
}

CK_RV Pkcs11::C_SignEncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                                  CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return NV_PLAIN_CALL(C_SignEncryptUpdate, end, pointer("hSession", hSession),
                         pointer("pPart", pPart), number("ulPartLen", ulPartLen),
                         pointer("pEncryptedPart", pEncryptedPart),
                         pointer("pulEncryptedPartLen", pulEncryptedPartLen));
}

CK_RV Pkcs11::C_DecryptVerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                                    CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart,
                                    CK_ULONG_PTR pulPartLen)
{
    return NV_PLAIN_CALL(C_DecryptVerifyUpdate, end, pointer("hSession", hSession),
                         pointer("pEncryptedPart", pEncryptedPart),
                         number("ulEncryptedPartLen", ulEncryptedPartLen), pointer("pPart", pPart),
                         pointer("pulPartLen", pulPartLen));
}

CK_RV Pkcs11::C_GenerateKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                            CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                            CK_OBJECT_HANDLE_PTR phKey)
{
    return NV_PLAIN_CALL(C_GenerateKey, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("pTemplate", pTemplate),
                         number("ulCount", ulCount), pointer("phKey", phKey));
}

CK_RV Pkcs11::C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                                CK_ATTRIBUTE_PTR pPublicKeyTemplate,
                                CK_ULONG ulPublicKeyAttributeCount,
                                CK_ATTRIBUTE_PTR pPrivateKeyTemplate,
                                CK_ULONG ulPrivateKeyAttributeCount,
                                CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    return NV_PLAIN_CALL(
        C_GenerateKeyPair, end, pointer("hSession", hSession), pointer("pMechanism", pMechanism),
        pointer("pPublicKeyTemplate", pPublicKeyTemplate),
        number("ulPublicKeyAttributeCount", ulPublicKeyAttributeCount),
        pointer("pPrivateKeyTemplate", pPrivateKeyTemplate),
        number("ulPrivateKeyAttributeCount", ulPrivateKeyAttributeCount),
        pointer("phPublicKey", phPublicKey), pointer("phPrivateKey", phPrivateKey));
}

CK_RV Pkcs11::C_WrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                        CK_OBJECT_HANDLE hWrappingKey, CK_OBJECT_HANDLE hKey,
                        CK_BYTE_PTR pWrappedKey, CK_ULONG_PTR pulWrappedKeyLen)
{
    return NV_PLAIN_CALL(C_WrapKey, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hWrappingKey", hWrappingKey),
                         pointer("hKey", hKey), pointer("pWrappedKey", pWrappedKey),
                         pointer("pulWrappedKeyLen", pulWrappedKeyLen));
}

// Compat: the argument line of phKey is labelled "pTemplate", as an earlier one is.
CK_RV Pkcs11::C_UnwrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                          CK_OBJECT_HANDLE hUnwrappingKey, CK_BYTE_PTR pWrappedKey,
                          CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return NV_PLAIN_CALL(
        C_UnwrapKey, end, pointer("hSession", hSession), pointer("pMechanism", pMechanism),
        pointer("hUnwrappingKey", hUnwrappingKey), pointer("pWrappedKey", pWrappedKey),
        number("ulWrappedKeyLen", ulWrappedKeyLen), pointer("pTemplate", pTemplate),
        number("ulAttributeCount", ulAttributeCount), pointer("pTemplate", phKey));
}

CK_RV Pkcs11::C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                          CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey)
{
    return NV_PLAIN_CALL(C_DeriveKey, end, pointer("hSession", hSession),
                         pointer("pMechanism", pMechanism), pointer("hBaseKey", hBaseKey),
                         pointer("pTemplate", pTemplate),
                         number("ulAttributeCount", ulAttributeCount), pointer("phKey", phKey));
}

CK_RV Pkcs11::C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen)
{
    return NV_PLAIN_CALL(C_SeedRandom, end, pointer("hSession", hSession), pointer("pSeed", pSeed),
                         number("ulSeedLen", ulSeedLen));
}

CK_RV Pkcs11::C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData,
                               CK_ULONG ulRandomLen)
{
    return NV_PLAIN_CALL(C_GenerateRandom, end, pointer("hSession", hSession),
                         pointer("RandomData", RandomData), number("ulRandomLen", ulRandomLen));
}

CK_RV Pkcs11::C_GetFunctionStatus(CK_SESSION_HANDLE hSession)
{
    return NV_PLAIN_CALL(C_GetFunctionStatus, end, pointer("hSession", hSession));
}

CK_RV Pkcs11::C_CancelFunction(CK_SESSION_HANDLE hSession)
{
    return NV_PLAIN_CALL(C_CancelFunction, end, pointer("hSession", hSession));
}

// Compat: "pRserved" is spelt like this, and the flags print without "0x".
CK_RV Pkcs11::C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved)
{
    return NV_PLAIN_CALL(C_WaitForSlotEvent, end, bareFlagBits("flags", flags),
                         pointer("pSlot", pSlot), pointer("pRserved", pReserved));
}

}  // namespace NV
