// The part of CNG's primitives that the module's core and its tests use. public_keys.cpp implements
// the functions.

#pragma once

#include <windows.h>

inline constexpr wchar_t BCRYPT_RSA_ALGORITHM[] = L"RSA";
inline constexpr wchar_t BCRYPT_SHA1_ALGORITHM[] = L"SHA1";
inline constexpr wchar_t BCRYPT_SHA256_ALGORITHM[] = L"SHA256";
inline constexpr wchar_t BCRYPT_SHA384_ALGORITHM[] = L"SHA384";
inline constexpr wchar_t BCRYPT_SHA512_ALGORITHM[] = L"SHA512";
inline constexpr wchar_t BCRYPT_PUBLIC_KEY_LENGTH[] = L"PublicKeyLength";
inline constexpr wchar_t BCRYPT_SIGNATURE_LENGTH[] = L"SignatureLength";
inline constexpr wchar_t BCRYPT_PUBLIC_KEY_BLOB[] = L"PUBLICBLOB";
inline constexpr wchar_t BCRYPT_RSAPUBLIC_BLOB[] = L"RSAPUBLICBLOB";
inline constexpr wchar_t BCRYPT_ECCPUBLIC_BLOB[] = L"ECCPUBLICBLOB";
inline constexpr wchar_t LEGACY_RSAPUBLIC_BLOB[] = L"CAPIPUBLICBLOB";
inline constexpr wchar_t BCRYPT_KDF_HASH[] = L"HASH";
inline constexpr wchar_t BCRYPT_KDF_HMAC[] = L"HMAC";
inline constexpr wchar_t BCRYPT_KDF_TLS_PRF[] = L"TLS_PRF";

inline constexpr ULONG BCRYPT_RSAPUBLIC_MAGIC = 0x31415352;
inline constexpr ULONG BCRYPT_ECDSA_PUBLIC_P256_MAGIC = 0x31534345;
inline constexpr ULONG BCRYPT_ECDSA_PUBLIC_P384_MAGIC = 0x33534345;
inline constexpr ULONG BCRYPT_ECDSA_PUBLIC_P521_MAGIC = 0x35534345;
inline constexpr ULONG BCRYPT_ECDH_PUBLIC_P256_MAGIC = 0x314B4345;
inline constexpr ULONG BCRYPT_ECDH_PUBLIC_P384_MAGIC = 0x334B4345;
inline constexpr ULONG BCRYPT_ECDH_PUBLIC_P521_MAGIC = 0x354B4345;

inline constexpr ULONG BCRYPT_PAD_NONE = 0x01;
inline constexpr ULONG BCRYPT_PAD_PKCS1 = 0x02;
inline constexpr ULONG BCRYPT_PAD_OAEP = 0x04;
inline constexpr ULONG BCRYPT_PAD_PSS = 0x08;

inline constexpr ULONG KDF_HASH_ALGORITHM = 0;
inline constexpr ULONG KDF_SECRET_PREPEND = 1;
inline constexpr ULONG KDF_SECRET_APPEND = 2;
inline constexpr ULONG KDF_HMAC_KEY = 3;
inline constexpr ULONG KDF_USE_SECRET_AS_HMAC_KEY_FLAG = 1;

struct BCRYPT_INTERFACE_VERSION {
    USHORT MajorVersion;
    USHORT MinorVersion;
};

struct BCRYPT_PKCS1_PADDING_INFO {
    LPCWSTR pszAlgId;
};
struct BCRYPT_PSS_PADDING_INFO {
    LPCWSTR pszAlgId;
    ULONG cbSalt;
};
struct BCRYPT_OAEP_PADDING_INFO {
    LPCWSTR pszAlgId;
    PUCHAR pbLabel;
    ULONG cbLabel;
};

struct BCRYPT_ECCKEY_BLOB {
    ULONG dwMagic;
    ULONG cbKey;
};
struct BCRYPT_RSAKEY_BLOB {
    ULONG Magic;
    ULONG BitLength;
    ULONG cbPublicExp;
    ULONG cbModulus;
    ULONG cbPrime1;
    ULONG cbPrime2;
};

struct BCryptBuffer {
    ULONG cbBuffer;
    ULONG BufferType;
    PVOID pvBuffer;
};
struct BCryptBufferDesc {
    ULONG ulVersion;
    ULONG cBuffers;
    BCryptBuffer* pBuffers;
};

// Public keys, by OpenSSL: RSA, and ECDSA on P-256, P-384 and P-521. What Windows would not take gets
// STATUS_INVALID_PARAMETER or STATUS_NOT_SUPPORTED.
using BCRYPT_HANDLE = void*;
using BCRYPT_ALG_HANDLE = void*;
using BCRYPT_KEY_HANDLE = void*;

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR name, LPCWSTR provider,
                                     ULONG flags);
NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags);
// A BCRYPT_RSAKEY_BLOB or a BCRYPT_ECCKEY_BLOB with an ECDSA magic.
NTSTATUS BCryptImportKeyPair(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE import, LPCWSTR type,
                             BCRYPT_KEY_HANDLE* key, PUCHAR blob, ULONG size, ULONG flags);
NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key);
// PKCS #1 v1.5 with a hash name or a null one, PSS, and r followed by s for ECDSA.
NTSTATUS BCryptVerifySignature(BCRYPT_KEY_HANDLE key, void* padding, PUCHAR hash, ULONG hashSize,
                               PUCHAR signature, ULONG signatureSize, ULONG flags);
// RSA alone. A null output asks for the length.
NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* padding,
                       PUCHAR iv, ULONG ivSize, PUCHAR output, ULONG outputSize, ULONG* length,
                       ULONG flags);
