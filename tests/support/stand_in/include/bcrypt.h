// The part of CNG's primitives that the module's core and its tests use: declarations alone.

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
