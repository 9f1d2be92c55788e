// PKCS#11 (Cryptoki) 2.40 in the layout of Windows libraries: CK_ULONG is 32 bits wide and every
// structure is packed to one byte. Contains only declarations of the standard.
//
// CK_ULONG is uint32_t and not unsigned long, so that a build for another system, where a long is
// wider, also declares the Windows binary interface.

#pragma once

#include <cstdint>

#include "p11/cryptoki_values.h"

// Functions of a library, and callbacks given to it, use the Windows calling convention.
#if defined(__MINGW32__)
// Include the Windows headers first: they define CreateMutex as a macro, which is a member below.
#include <windows.h>
#undef CreateMutex
#define NV_CK_CALL
#else
#define NV_CK_CALL __attribute__((ms_abi))
#endif

using CK_BYTE = uint8_t;
using CK_UTF8CHAR = uint8_t;
using CK_CHAR = uint8_t;
using CK_BBOOL = uint8_t;
using CK_ULONG = uint32_t;
using CK_FLAGS = uint32_t;
using CK_RV = uint32_t;
using CK_SLOT_ID = uint32_t;
using CK_SESSION_HANDLE = uint32_t;
using CK_OBJECT_HANDLE = uint32_t;
using CK_OBJECT_CLASS = uint32_t;
using CK_KEY_TYPE = uint32_t;
using CK_CERTIFICATE_TYPE = uint32_t;
using CK_ATTRIBUTE_TYPE = uint32_t;
using CK_MECHANISM_TYPE = uint32_t;
using CK_USER_TYPE = uint32_t;
using CK_STATE = uint32_t;
using CK_NOTIFICATION = uint32_t;
using CK_RSA_PKCS_MGF_TYPE = uint32_t;
using CK_RSA_PKCS_OAEP_SOURCE_TYPE = uint32_t;
using CK_EC_KDF_TYPE = uint32_t;

using CK_VOID_PTR = void*;
using CK_VOID_PTR_PTR = void**;
using CK_BYTE_PTR = CK_BYTE*;
using CK_UTF8CHAR_PTR = CK_UTF8CHAR*;
using CK_ULONG_PTR = CK_ULONG*;
using CK_SLOT_ID_PTR = CK_SLOT_ID*;
using CK_SESSION_HANDLE_PTR = CK_SESSION_HANDLE*;
using CK_OBJECT_HANDLE_PTR = CK_OBJECT_HANDLE*;
using CK_MECHANISM_TYPE_PTR = CK_MECHANISM_TYPE*;

inline constexpr CK_BBOOL CK_FALSE = 0;
inline constexpr CK_BBOOL CK_TRUE = 1;

#define NV_CONSTANT(name, value) inline constexpr uint32_t name = value;
NV_CKR_VALUES(NV_CONSTANT)
NV_CKM_VALUES(NV_CONSTANT)
NV_CKA_VALUES(NV_CONSTANT)
#undef NV_CONSTANT

inline constexpr CK_OBJECT_CLASS CKO_DATA = 0;
inline constexpr CK_OBJECT_CLASS CKO_CERTIFICATE = 1;
inline constexpr CK_OBJECT_CLASS CKO_PUBLIC_KEY = 2;
inline constexpr CK_OBJECT_CLASS CKO_PRIVATE_KEY = 3;
inline constexpr CK_OBJECT_CLASS CKO_SECRET_KEY = 4;
inline constexpr CK_OBJECT_CLASS CKO_HW_FEATURE = 5;
inline constexpr CK_OBJECT_CLASS CKO_DOMAIN_PARAMETERS = 6;
inline constexpr CK_OBJECT_CLASS CKO_OTP_KEY = 8;
inline constexpr CK_OBJECT_CLASS CKO_PROFILE = 9;
inline constexpr CK_OBJECT_CLASS CKO_VENDOR_DEFINED = 0x80000000;

inline constexpr CK_CERTIFICATE_TYPE CKC_X_509 = 0;

inline constexpr CK_KEY_TYPE CKK_RSA = 0x00;
inline constexpr CK_KEY_TYPE CKK_EC = 0x03;
inline constexpr CK_KEY_TYPE CKK_GENERIC_SECRET = 0x10;
inline constexpr CK_KEY_TYPE CKK_SHA_1_HMAC = 0x28;
inline constexpr CK_KEY_TYPE CKK_SHA256_HMAC = 0x2B;
inline constexpr CK_KEY_TYPE CKK_SHA384_HMAC = 0x2C;
inline constexpr CK_KEY_TYPE CKK_SHA512_HMAC = 0x2D;

inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA1 = 1;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA256 = 2;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA384 = 3;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA512 = 4;
inline constexpr CK_RSA_PKCS_OAEP_SOURCE_TYPE CKZ_DATA_SPECIFIED = 1;
inline constexpr CK_EC_KDF_TYPE CKD_NULL = 1;

inline constexpr CK_USER_TYPE CKU_SO = 0;
inline constexpr CK_USER_TYPE CKU_USER = 1;

// Slot flags.
inline constexpr CK_FLAGS CKF_TOKEN_PRESENT = 0x1;
inline constexpr CK_FLAGS CKF_REMOVABLE_DEVICE = 0x2;
inline constexpr CK_FLAGS CKF_HW_SLOT = 0x4;

// Token flags.
inline constexpr CK_FLAGS CKF_RNG = 0x00000001;
inline constexpr CK_FLAGS CKF_WRITE_PROTECTED = 0x00000002;
inline constexpr CK_FLAGS CKF_LOGIN_REQUIRED = 0x00000004;
inline constexpr CK_FLAGS CKF_USER_PIN_INITIALIZED = 0x00000008;
inline constexpr CK_FLAGS CKF_RESTORE_KEY_NOT_NEEDED = 0x00000020;
inline constexpr CK_FLAGS CKF_CLOCK_ON_TOKEN = 0x00000040;
inline constexpr CK_FLAGS CKF_PROTECTED_AUTHENTICATION_PATH = 0x00000100;
inline constexpr CK_FLAGS CKF_DUAL_CRYPTO_OPERATIONS = 0x00000200;
inline constexpr CK_FLAGS CKF_TOKEN_INITIALIZED = 0x00000400;
inline constexpr CK_FLAGS CKF_SECONDARY_AUTHENTICATION = 0x00000800;
inline constexpr CK_FLAGS CKF_USER_PIN_COUNT_LOW = 0x00010000;
inline constexpr CK_FLAGS CKF_USER_PIN_FINAL_TRY = 0x00020000;
inline constexpr CK_FLAGS CKF_USER_PIN_LOCKED = 0x00040000;
inline constexpr CK_FLAGS CKF_USER_PIN_TO_BE_CHANGED = 0x00080000;
inline constexpr CK_FLAGS CKF_SO_PIN_COUNT_LOW = 0x00100000;
inline constexpr CK_FLAGS CKF_SO_PIN_FINAL_TRY = 0x00200000;
inline constexpr CK_FLAGS CKF_SO_PIN_LOCKED = 0x00400000;
inline constexpr CK_FLAGS CKF_SO_PIN_TO_BE_CHANGED = 0x00800000;
inline constexpr CK_FLAGS CKF_ERROR_STATE = 0x01000000;

// Session flags.
inline constexpr CK_FLAGS CKF_RW_SESSION = 0x2;
inline constexpr CK_FLAGS CKF_SERIAL_SESSION = 0x4;

// Flags of CK_C_INITIALIZE_ARGS.
inline constexpr CK_FLAGS CKF_LIBRARY_CANT_CREATE_OS_THREADS = 0x1;
inline constexpr CK_FLAGS CKF_OS_LOCKING_OK = 0x2;

#pragma pack(push, 1)

struct CK_VERSION {
    CK_BYTE major;
    CK_BYTE minor;
};

// Character fields of all information structures are padded with blanks, not terminated.
struct CK_INFO {
    CK_VERSION cryptokiVersion;
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_UTF8CHAR libraryDescription[32];
    CK_VERSION libraryVersion;
};

struct CK_SLOT_INFO {
    CK_UTF8CHAR slotDescription[64];
    CK_UTF8CHAR manufacturerID[32];
    CK_FLAGS flags;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
};

struct CK_TOKEN_INFO {
    CK_UTF8CHAR label[32];
    CK_UTF8CHAR manufacturerID[32];
    CK_UTF8CHAR model[16];
    CK_CHAR serialNumber[16];
    CK_FLAGS flags;
    CK_ULONG ulMaxSessionCount;
    CK_ULONG ulSessionCount;
    CK_ULONG ulMaxRwSessionCount;
    CK_ULONG ulRwSessionCount;
    CK_ULONG ulMaxPinLen;
    CK_ULONG ulMinPinLen;
    CK_ULONG ulTotalPublicMemory;
    CK_ULONG ulFreePublicMemory;
    CK_ULONG ulTotalPrivateMemory;
    CK_ULONG ulFreePrivateMemory;
    CK_VERSION hardwareVersion;
    CK_VERSION firmwareVersion;
    CK_CHAR utcTime[16];
};

struct CK_SESSION_INFO {
    CK_SLOT_ID slotID;
    CK_STATE state;
    CK_FLAGS flags;
    CK_ULONG ulDeviceError;
};

struct CK_MECHANISM_INFO {
    CK_ULONG ulMinKeySize;
    CK_ULONG ulMaxKeySize;
    CK_FLAGS flags;
};

struct CK_ATTRIBUTE {
    CK_ATTRIBUTE_TYPE type;
    CK_VOID_PTR pValue;
    CK_ULONG ulValueLen;
};

struct CK_MECHANISM {
    CK_MECHANISM_TYPE mechanism;
    CK_VOID_PTR pParameter;
    CK_ULONG ulParameterLen;
};

struct CK_RSA_PKCS_PSS_PARAMS {
    CK_MECHANISM_TYPE hashAlg;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_ULONG sLen;
};

struct CK_RSA_PKCS_OAEP_PARAMS {
    CK_MECHANISM_TYPE hashAlg;
    CK_RSA_PKCS_MGF_TYPE mgf;
    CK_RSA_PKCS_OAEP_SOURCE_TYPE source;
    CK_VOID_PTR pSourceData;
    CK_ULONG ulSourceDataLen;
};

struct CK_ECDH1_DERIVE_PARAMS {
    CK_EC_KDF_TYPE kdf;
    CK_ULONG ulSharedDataLen;
    CK_BYTE_PTR pSharedData;
    CK_ULONG ulPublicDataLen;
    CK_BYTE_PTR pPublicData;
};

using CK_NOTIFY = CK_RV(NV_CK_CALL*)(CK_SESSION_HANDLE, CK_NOTIFICATION, CK_VOID_PTR);
using CK_CREATEMUTEX = CK_RV(NV_CK_CALL*)(CK_VOID_PTR_PTR);
using CK_DESTROYMUTEX = CK_RV(NV_CK_CALL*)(CK_VOID_PTR);
using CK_LOCKMUTEX = CK_RV(NV_CK_CALL*)(CK_VOID_PTR);
using CK_UNLOCKMUTEX = CK_RV(NV_CK_CALL*)(CK_VOID_PTR);

struct CK_C_INITIALIZE_ARGS {
    CK_CREATEMUTEX CreateMutex;
    CK_DESTROYMUTEX DestroyMutex;
    CK_LOCKMUTEX LockMutex;
    CK_UNLOCKMUTEX UnlockMutex;
    CK_FLAGS flags;
    CK_VOID_PTR pReserved;
};

using CK_INFO_PTR = CK_INFO*;
using CK_SLOT_INFO_PTR = CK_SLOT_INFO*;
using CK_TOKEN_INFO_PTR = CK_TOKEN_INFO*;
using CK_SESSION_INFO_PTR = CK_SESSION_INFO*;
using CK_MECHANISM_INFO_PTR = CK_MECHANISM_INFO*;
using CK_ATTRIBUTE_PTR = CK_ATTRIBUTE*;
using CK_MECHANISM_PTR = CK_MECHANISM*;

struct CK_FUNCTION_LIST;
using CK_FUNCTION_LIST_PTR = CK_FUNCTION_LIST*;
using CK_FUNCTION_LIST_PTR_PTR = CK_FUNCTION_LIST_PTR*;

// The 68 functions in the order of the function list: X(name, parameters).
#define NV_CK_FUNCTIONS(X)                                                                         \
    X(C_Initialize, (CK_VOID_PTR pInitArgs))                                                       \
    X(C_Finalize, (CK_VOID_PTR pReserved))                                                         \
    X(C_GetInfo, (CK_INFO_PTR pInfo))                                                              \
    X(C_GetFunctionList, (CK_FUNCTION_LIST_PTR_PTR ppFunctionList))                                \
    X(C_GetSlotList, (CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount))     \
    X(C_GetSlotInfo, (CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo))                                  \
    X(C_GetTokenInfo, (CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo))                                \
    X(C_GetMechanismList,                                                                          \
      (CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR pMechanismList, CK_ULONG_PTR pulCount))            \
    X(C_GetMechanismInfo,                                                                          \
      (CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR pInfo))                    \
    X(C_InitToken,                                                                                 \
      (CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel))        \
    X(C_InitPIN, (CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen))            \
    X(C_SetPIN, (CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,           \
                 CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen))                                      \
    X(C_OpenSession, (CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR pApplication,                 \
                      CK_NOTIFY Notify, CK_SESSION_HANDLE_PTR phSession))                          \
    X(C_CloseSession, (CK_SESSION_HANDLE hSession))                                                \
    X(C_CloseAllSessions, (CK_SLOT_ID slotID))                                                     \
    X(C_GetSessionInfo, (CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo))                   \
    X(C_GetOperationState, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState,               \
                            CK_ULONG_PTR pulOperationStateLen))                                    \
    X(C_SetOperationState,                                                                         \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pOperationState, CK_ULONG ulOperationStateLen,      \
       CK_OBJECT_HANDLE hEncryptionKey, CK_OBJECT_HANDLE hAuthenticationKey))                      \
    X(C_Login, (CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,           \
                CK_ULONG ulPinLen))                                                                \
    X(C_Logout, (CK_SESSION_HANDLE hSession))                                                      \
    X(C_CreateObject, (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,   \
                       CK_OBJECT_HANDLE_PTR phObject))                                             \
    X(C_CopyObject,                                                                                \
      (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,           \
       CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject))                                        \
    X(C_DestroyObject, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject))                     \
    X(C_GetObjectSize,                                                                             \
      (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize))                \
    X(C_GetAttributeValue, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,                  \
                            CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount))                         \
    X(C_SetAttributeValue, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,                  \
                            CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount))                         \
    X(C_FindObjectsInit,                                                                           \
      (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount))                  \
    X(C_FindObjects, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,                   \
                      CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount))                     \
    X(C_FindObjectsFinal, (CK_SESSION_HANDLE hSession))                                            \
    X(C_EncryptInit,                                                                               \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_Encrypt, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,               \
                  CK_BYTE_PTR pEncryptedData, CK_ULONG_PTR pulEncryptedDataLen))                   \
    X(C_EncryptUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,         \
                        CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen))             \
    X(C_EncryptFinal, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart,                 \
                       CK_ULONG_PTR pulLastEncryptedPartLen))                                      \
    X(C_DecryptInit,                                                                               \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_Decrypt, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData,                          \
                  CK_ULONG ulEncryptedDataLen, CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen))        \
    X(C_DecryptUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,                    \
                        CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen))  \
    X(C_DecryptFinal,                                                                              \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart, CK_ULONG_PTR pulLastPartLen))            \
    X(C_DigestInit, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism))                     \
    X(C_Digest, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,                \
                 CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen))                                  \
    X(C_DigestUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen))         \
    X(C_DigestKey, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey))                            \
    X(C_DigestFinal, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)) \
    X(C_SignInit,                                                                                  \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_Sign, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,                  \
               CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen))                              \
    X(C_SignUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen))           \
    X(C_SignFinal,                                                                                 \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen))          \
    X(C_SignRecoverInit,                                                                           \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_SignRecover, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,           \
                      CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen))                       \
    X(C_VerifyInit,                                                                                \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_Verify, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,                \
                 CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen))                                 \
    X(C_VerifyUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen))         \
    X(C_VerifyFinal,                                                                               \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen))               \
    X(C_VerifyRecoverInit,                                                                         \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey))            \
    X(C_VerifyRecover, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature,                        \
                        CK_ULONG ulSignatureLen, CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen))      \
    X(C_DigestEncryptUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,   \
                              CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen))       \
    X(C_DecryptDigestUpdate,                                                                       \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart, CK_ULONG ulEncryptedPartLen,        \
       CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen))                                                \
    X(C_SignEncryptUpdate, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,     \
                            CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen))         \
    X(C_DecryptVerifyUpdate,                                                                       \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart, CK_ULONG ulEncryptedPartLen,        \
       CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen))                                                \
    X(C_GenerateKey, (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,                     \
                      CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phKey))   \
    X(C_GenerateKeyPair,                                                                           \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,                                    \
       CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,                    \
       CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,                  \
       CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey))                       \
    X(C_WrapKey,                                                                                   \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hWrappingKey,     \
       CK_OBJECT_HANDLE hKey, CK_BYTE_PTR pWrappedKey, CK_ULONG_PTR pulWrappedKeyLen))             \
    X(C_UnwrapKey,                                                                                 \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hUnwrappingKey,   \
       CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate,              \
       CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey))                                     \
    X(C_DeriveKey,                                                                                 \
      (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,         \
       CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey))         \
    X(C_SeedRandom, (CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen))           \
    X(C_GenerateRandom,                                                                            \
      (CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen))                  \
    X(C_GetFunctionStatus, (CK_SESSION_HANDLE hSession))                                           \
    X(C_CancelFunction, (CK_SESSION_HANDLE hSession))                                              \
    X(C_WaitForSlotEvent, (CK_FLAGS flags, CK_SLOT_ID_PTR pSlot, CK_VOID_PTR pReserved))

// A library's function list: the version, followed without padding by the pointers.
struct CK_FUNCTION_LIST {
    CK_VERSION version;
#define NV_ENTRY(name, parameters) CK_RV(NV_CK_CALL* name) parameters;
    NV_CK_FUNCTIONS(NV_ENTRY)
#undef NV_ENTRY
};

#pragma pack(pop)

using CK_C_GetFunctionList = CK_RV(NV_CK_CALL*)(CK_FUNCTION_LIST_PTR_PTR);

static_assert(sizeof(CK_C_INITIALIZE_ARGS) == 44);
static_assert(sizeof(CK_FUNCTION_LIST) == 2 + 68 * sizeof(void*));
static_assert(sizeof(CK_MECHANISM) == 16 && sizeof(CK_ATTRIBUTE) == 16);
static_assert(sizeof(CK_RSA_PKCS_PSS_PARAMS) == 12 && sizeof(CK_RSA_PKCS_OAEP_PARAMS) == 24);
static_assert(sizeof(CK_ECDH1_DERIVE_PARAMS) == 28);
