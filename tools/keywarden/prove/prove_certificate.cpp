// The steps that begin with the certificate in "My", as applications do.

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/scope_exit.h"
#include "failure.h"
#include "formats/certificate_key.h"
#include "nvvtoken/nvvtoken_name.h"
#include "prove/bcrypt_key.h"
#include "prove/proving.h"
#include "system/library_guard.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* runCheck = "Run \"keywarden check\", which compares \"My\" with the token.";

// The numbers of a public key blob, without the magic, which says what the key is for.
bool sameKey(const Bytes& left, const Bytes& right)
{
    constexpr size_t magicSize = sizeof(ULONG);
    return left.size() == right.size() && left.size() > magicSize &&
           std::equal(left.begin() + magicSize, left.end(), right.begin() + magicSize);
}

using AcquireFunction = decltype(&CryptAcquireCertificatePrivateKey);

AcquireFunction acquireFunction(const ProveOptions& options)
{
    if (options.acquire.empty())
        return CryptAcquireCertificatePrivateKey;
    static HMODULE module = nullptr;  // as long as the program
    module = LoadLibraryW(options.acquire.c_str());
    const auto function = module == nullptr
                              ? nullptr
                              : reinterpret_cast<AcquireFunction>(reinterpret_cast<void*>(
                                    GetProcAddress(module, "CryptAcquireCertificatePrivateKey")));
    if (function == nullptr)
        throw Failure(toUtf8(options.acquire) + " has no CryptAcquireCertificatePrivateKey");
    return function;
}

Bytes exportedPublicKey(NCRYPT_KEY_HANDLE key)
{
    DWORD size = 0;
    requireOfSystem(NCryptExportKey(key, 0, BCRYPT_PUBLIC_KEY_BLOB, nullptr, nullptr, 0, &size, 0),
                    "NCryptExportKey of the acquired key");
    Bytes blob(size);
    requireOfSystem(
        NCryptExportKey(key, 0, BCRYPT_PUBLIC_KEY_BLOB, nullptr, blob.data(), size, &size, 0),
        "NCryptExportKey of the acquired key");
    blob.resize(size);
    return blob;
}

}  // namespace

std::string provePublication(Proving&, ProvedKey& key)
{
    key.opened();
    bool named = false;
    for (StoredCertificate& entry : certificatesInMy()) {
        if (entry.provider != providerName || entry.container != key.name)
            continue;
        named = true;
        if (sameKey(cngPublicKey(*entry.certificate), key.publicKey)) {
            key.certificate = std::move(entry.certificate);
            return subjectOf(*key.certificate) + ", " + validityOf(*key.certificate) +
                   ", with the provider's name and the key's";
        }
    }
    throw Failure(named ? "the certificates in \"My\" that name the key are of other keys"
                        : "\"My\" has no certificate that names the provider and the key",
                  runCheck);
}

std::string proveBitLength(Proving&, ProvedKey& key)
{
    const CERT_CONTEXT& certificate = key.published();
    DWORD bits = 0;
    DWORD size = sizeof bits;
    if (!CertGetCertificateContextProperty(&certificate, CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID,
                                           &bits, &size)) {
        if (GetLastError() == static_cast<DWORD>(CRYPT_E_NOT_FOUND))
            throw NotPossible(
                "the system gives certificates no CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID");
        requireOfSystem(false, "CertGetCertificateContextProperty");
    }
    if (bits != key.opened().bits())
        throw Failure("CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID is " + std::to_string(bits) +
                      ", but the provider's key has " + std::to_string(key.opened().bits()) +
                      " bits");
    return std::to_string(bits) + " bits, as the provider's key";
}

std::string proveAcquiring(Proving& proving, ProvedKey& key)
{
    const CERT_CONTEXT& certificate = key.published();
    const AcquireFunction acquire = acquireFunction(proving.options);
    HCRYPTPROV_OR_NCRYPT_KEY_HANDLE acquired = 0;
    DWORD kind = 0;
    WINBOOL ours = FALSE;
    const GuardedCall call("CryptAcquireCertificatePrivateKey");
    requireOfSystem(acquire(&certificate,
                            CRYPT_ACQUIRE_ONLY_NCRYPT_KEY_FLAG | CRYPT_ACQUIRE_SILENT_FLAG, nullptr,
                            &acquired, &kind, &ours) != FALSE,
                    "CryptAcquireCertificatePrivateKey");
    if (kind != CERT_NCRYPT_KEY_SPEC)
        throw Failure(
            "CryptAcquireCertificatePrivateKey gives a key of CryptoAPI, key specification " +
            std::to_string(kind));
    const ScopeExit release([&] {
        if (ours)
            NCryptFreeObject(acquired);
    });
    if (!sameKey(exportedPublicKey(acquired), cngPublicKey(certificate)))
        throw Failure("CryptAcquireCertificatePrivateKey gives another key than the certificate's");
    return "CryptAcquireCertificatePrivateKey, silent, gives the key of the certificate";
}

std::string proveVerifyingByCertificate(Proving&, ProvedKey& key)
{
    if (key.signature.empty())
        throw NotTried("there is no signature");
    BCRYPT_KEY_HANDLE imported = nullptr;
    requireOfSystem(CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING,
                                                &key.published().pCertInfo->SubjectPublicKeyInfo,
                                                key.isRsa ? 0 : CRYPT_OID_INFO_PUBKEY_SIGN_KEY_FLAG,
                                                nullptr, &imported) != FALSE,
                    "CryptImportPublicKeyInfoEx2");
    const BcryptKey publicKey(imported);
    requireGoodSignature(imported, key.isRsa, key.digest, key.signature);
    return "by BCrypt with the certificate's public key; another hash does not verify";
}

}  // namespace NV::tool
