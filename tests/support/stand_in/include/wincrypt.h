// The part of Windows' certificate functions that the module's core and its tests use.
// certificates.cpp implements it.

#pragma once

#include <windows.h>

// As on Windows.
#include <bcrypt.h>
#include <ncrypt.h>

using HCERTSTORE = void*;
using HCRYPTPROV_LEGACY = uintptr_t;

inline constexpr DWORD X509_ASN_ENCODING = 0x00001;
inline constexpr DWORD PKCS_7_ASN_ENCODING = 0x10000;
inline constexpr DWORD AT_KEYEXCHANGE = 1;
inline constexpr DWORD AT_SIGNATURE = 2;
inline constexpr DWORD CERT_KEY_PROV_INFO_PROP_ID = 2;
inline constexpr DWORD CERT_STORE_ADD_REPLACE_EXISTING = 3;
inline constexpr DWORD CERT_CLOSE_STORE_FORCE_FLAG = 0x0001;
inline constexpr DWORD CERT_STORE_CREATE_NEW_FLAG = 0x2000;
// Numbers in the place of names.
// NOLINTBEGIN(performance-no-int-to-ptr)
#define CERT_STORE_PROV_MEMORY reinterpret_cast<LPCSTR>(uintptr_t{2})
#define X509_BASIC_CONSTRAINTS2 reinterpret_cast<LPCSTR>(uintptr_t{15})
#define RSA_CSP_PUBLICKEYBLOB reinterpret_cast<LPCSTR>(uintptr_t{19})
#define CNG_RSA_PUBLIC_KEY_BLOB reinterpret_cast<LPCSTR>(uintptr_t{72})
#define X509_OBJECT_IDENTIFIER reinterpret_cast<LPCSTR>(uintptr_t{73})
// NOLINTEND(performance-no-int-to-ptr)
inline constexpr char szOID_BASIC_CONSTRAINTS2[] = "2.5.29.19";

struct CRYPT_DATA_BLOB {
    DWORD cbData;
    BYTE* pbData;
};
using CRYPT_OBJID_BLOB = CRYPT_DATA_BLOB;

struct CRYPT_BIT_BLOB {
    DWORD cbData;
    BYTE* pbData;
    DWORD cUnusedBits;
};

struct CRYPT_ALGORITHM_IDENTIFIER {
    LPSTR pszObjId;
    CRYPT_OBJID_BLOB Parameters;
};

struct CERT_PUBLIC_KEY_INFO {
    CRYPT_ALGORITHM_IDENTIFIER Algorithm;
    CRYPT_BIT_BLOB PublicKey;
};

struct CERT_EXTENSION {
    LPSTR pszObjId;
    BOOL fCritical;
    CRYPT_OBJID_BLOB Value;
};

// Only the public key and the extensions are filled.
struct CERT_INFO {
    CERT_PUBLIC_KEY_INFO SubjectPublicKeyInfo;
    DWORD cExtension;
    CERT_EXTENSION* rgExtension;
};

struct CERT_BASIC_CONSTRAINTS2_INFO {
    BOOL fCA;
    BOOL fPathLenConstraint;
    DWORD dwPathLenConstraint;
};

struct CERT_CONTEXT {
    DWORD dwCertEncodingType;
    BYTE* pbCertEncoded;
    DWORD cbCertEncoded;
    CERT_INFO* pCertInfo;
    HCERTSTORE hCertStore;
};
using PCCERT_CONTEXT = const CERT_CONTEXT*;

struct CRYPT_KEY_PROV_PARAM;

struct CRYPT_KEY_PROV_INFO {
    LPWSTR pwszContainerName;
    LPWSTR pwszProvName;
    DWORD dwProvType;
    DWORD dwFlags;
    DWORD cProvParam;
    CRYPT_KEY_PROV_PARAM* rgProvParam;
    DWORD dwKeySpec;
};

// The blob of a public RSA key: the two heads, then the modulus in little-endian order.
struct BLOBHEADER {
    BYTE bType;
    BYTE bVersion;
    WORD reserved;
    uint32_t aiKeyAlg;
};
struct RSAPUBKEY {
    DWORD magic;
    DWORD bitlen;
    DWORD pubexp;
};

// Null for anything that is not one whole certificate.
PCCERT_CONTEXT CertCreateCertificateContext(DWORD encoding, const BYTE* der, DWORD size);
BOOL CertFreeCertificateContext(PCCERT_CONTEXT context);
// CERT_KEY_PROV_INFO_PROP_ID alone. The value is one block that begins with a CRYPT_KEY_PROV_INFO.
BOOL CertGetCertificateContextProperty(PCCERT_CONTEXT context, DWORD property, void* value,
                                       DWORD* size);
// Of an RSA key, in bits; 0 for any other.
DWORD CertGetPublicKeyLength(DWORD encoding, CERT_PUBLIC_KEY_INFO* key);
// The first extension of the identifier; null when there is none.
CERT_EXTENSION* CertFindExtension(LPCSTR identifier, DWORD count, CERT_EXTENSION* extensions);
// X509_OBJECT_IDENTIFIER, X509_BASIC_CONSTRAINTS2, RSA_CSP_PUBLICKEYBLOB and CNG_RSA_PUBLIC_KEY_BLOB.
BOOL CryptDecodeObject(DWORD encoding, LPCSTR type, const BYTE* bytes, DWORD size, DWORD flags,
                       void* structure, DWORD* structureSize);
// A new store of its own: the provider must be CERT_STORE_PROV_MEMORY.
HCERTSTORE CertOpenStore(LPCSTR provider, DWORD encoding, HCRYPTPROV_LEGACY legacy, DWORD flags,
                         const void* parameter);
BOOL CertCloseStore(HCERTSTORE store, DWORD flags);
// The certificate after `previous`, whose reference it takes. Null behind the last one.
PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE store, PCCERT_CONTEXT previous);

// Tests wrap these three at the pointers through which imported functions of Windows are called, by
// the linker's option --wrap. So they are called through such pointers here as well.
#define NV_IMPORTED(result, name, parameters, arguments)                                           \
    extern "C" result(*imported##name) parameters __asm__("__imp_" #name);                         \
    inline result name parameters                                                                  \
    {                                                                                              \
        return imported##name arguments;                                                           \
    }

// One store for the whole process, in memory, whatever the name.
NV_IMPORTED(HCERTSTORE, CertOpenSystemStoreW, (HCRYPTPROV_LEGACY legacy, LPCWSTR name),
            (legacy, name))
// A certificate of the same bytes is replaced.
NV_IMPORTED(BOOL, CertAddCertificateContextToStore,
            (HCERTSTORE store, PCCERT_CONTEXT context, DWORD disposition, PCCERT_CONTEXT* stored),
            (store, context, disposition, stored))
// CERT_KEY_PROV_INFO_PROP_ID alone.
NV_IMPORTED(BOOL, CertSetCertificateContextProperty,
            (PCCERT_CONTEXT context, DWORD property, DWORD flags, const void* value),
            (context, property, flags, value))

#undef NV_IMPORTED
