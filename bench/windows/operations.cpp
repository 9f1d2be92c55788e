// Runs the operations through the table and bare.

#include "operations.h"

#include <stdexcept>

namespace NV::bench {

namespace {

// CNG and PKCS#11 take input by pointers to non-const.
PBYTE in(const Bytes& bytes)
{
    return const_cast<PBYTE>(bytes.data());
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

Bytes idOf(const wchar_t* name)
{
    const std::wstring wide = name;
    return hexDecode(std::string(wide.begin(), wide.end()));
}

Bytes countedBytes(size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(0xA0 + i);
    return bytes;
}

}  // namespace

std::span<const Operations::Row> Operations::rows()
{
    static constexpr Row all[] = {
        {"RSA-2048 sign", &Operations::rsaSign, &Operations::rsaSignBare},
        {"RSA-2048 verify", &Operations::rsaVerify, &Operations::rsaVerifyBare},
        {"RSA-2048 encrypt", &Operations::rsaEncrypt, &Operations::rsaEncryptBare},
        {"RSA-2048 decrypt", &Operations::rsaDecrypt, &Operations::rsaDecryptBare},
        {"ECDSA P-256 sign", &Operations::ecSign, &Operations::ecSignBare},
        {"ECDSA P-256 verify", &Operations::ecVerify, &Operations::ecVerifyBare},
        {"ECDH P-256 agreement and derivation", &Operations::deriveKey, &Operations::deriveKeyBare},
    };
    return all;
}

Operations::Operations(const LinkedModule& module, const OpenProvider& provider, BareToken* bare,
                       const wchar_t* rsaName, const wchar_t* ecName)
    : module_(module), provider_(provider.handle()), bare_(bare), rsa_(provider.openKey(rsaName)),
      ec_(provider.openKey(ecName)), rsaId_(idOf(rsaName)), ecId_(idOf(ecName)),
      hash_(countedBytes(32)), digestInfo_(hexDecode("3031300D060960864801650304020105000420"))
{
    digestInfo_.insert(digestInfo_.end(), hash_.begin(), hash_.end());
    importPeer();
    if (bare_ != nullptr)
        expectSameResults();
    else
        runOnce();
}

Operations::~Operations()
{
    for (const NCRYPT_KEY_HANDLE key : {rsa_, ec_, peer_})
        module_->FreeKey(provider_, key);
}

// The peer's public key is the key's own.
void Operations::importPeer()
{
    Bytes blob(sizeof(BCRYPT_ECCKEY_BLOB) + 64);
    DWORD length = 0;
    expectSuccess(module_->ExportKey(provider_, ec_, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, blob.data(),
                                     sizeOf(blob), &length, 0),
                  "ExportKey");
    reinterpret_cast<BCRYPT_ECCKEY_BLOB*>(blob.data())->dwMagic = BCRYPT_ECDH_PUBLIC_P256_MAGIC;
    expectSuccess(module_->ImportKey(provider_, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer_,
                                     blob.data(), length, 0),
                  "ImportKey");
    peerPoint_ = {0x04};
    peerPoint_.insert(peerPoint_.end(), blob.begin() + sizeof(BCRYPT_ECCKEY_BLOB), blob.end());
}

// Signs and encrypts before it verifies and decrypts.
void Operations::runOnce()
{
    rsaSign();
    ecSign();
    rsaEncrypt();
    for (const Row& row : rows())
        (this->*row.throughModule)();
}

// ECDSA signatures and ciphertexts differ each time, so the opposite operation must accept them.
void Operations::expectSameResults()
{
    rsaSign();
    rsaSignBare();
    ecSign();
    ecSignBare();
    rsaEncrypt();
    rsaEncryptBare();
    std::swap(moduleWrote_.ecSignature, bareWrote_.ecSignature);
    std::swap(moduleWrote_.cipher, bareWrote_.cipher);
    for (const Row& row : rows()) {
        (this->*row.throughModule)();
        (this->*row.bare)();
    }
    if (moduleWrote_.rsaSignature != bareWrote_.rsaSignature ||
        moduleWrote_.plain != bareWrote_.plain || moduleWrote_.derived != bareWrote_.derived)
        throw std::runtime_error("the module's results are not those of the bare calls");
}

SECURITY_STATUS Operations::sign(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags,
                                 const Bytes& hash, Bytes& signature)
{
    DWORD length = 0;
    return module_->SignHash(provider_, key, padding, in(hash), sizeOf(hash), signature.data(),
                             sizeOf(signature), &length, flags);
}

SECURITY_STATUS Operations::verify(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags,
                                   const Bytes& hash, const Bytes& signature)
{
    return module_->VerifySignature(provider_, key, padding, in(hash), sizeOf(hash), in(signature),
                                    sizeOf(signature), flags);
}

void Operations::rsaSign()
{
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    expectSuccess(sign(rsa_, &padding, BCRYPT_PAD_PKCS1, hash_, moduleWrote_.rsaSignature),
                  "SignHash");
}

void Operations::rsaSignBare()
{
    bare_->sign(CKK_RSA, rsaId_, digestInfo_, bareWrote_.rsaSignature);
}

void Operations::rsaVerify()
{
    // Without a name, both behaviours take the DigestInfo as it is.
    BCRYPT_PKCS1_PADDING_INFO padding{nullptr};
    expectSuccess(verify(rsa_, &padding, BCRYPT_PAD_PKCS1, digestInfo_, moduleWrote_.rsaSignature),
                  "VerifySignature");
}

void Operations::rsaVerifyBare()
{
    bare_->verify(CKK_RSA, rsaId_, digestInfo_, bareWrote_.rsaSignature);
}

void Operations::rsaEncrypt()
{
    DWORD length = 0;
    expectSuccess(module_->Encrypt(provider_, rsa_, in(hash_), sizeOf(hash_), nullptr,
                                   moduleWrote_.cipher.data(), sizeOf(moduleWrote_.cipher), &length,
                                   BCRYPT_PAD_PKCS1),
                  "Encrypt");
}

void Operations::rsaEncryptBare()
{
    bare_->encrypt(rsaId_, hash_, bareWrote_.cipher);
}

void Operations::rsaDecrypt()
{
    DWORD length = 0;
    expectSuccess(module_->Decrypt(provider_, rsa_, moduleWrote_.cipher.data(),
                                   sizeOf(moduleWrote_.cipher), nullptr, moduleWrote_.plain.data(),
                                   sizeOf(moduleWrote_.plain), &length, BCRYPT_PAD_PKCS1),
                  "Decrypt");
}

void Operations::decryptedLength()
{
    DWORD length = 0;
    expectSuccess(module_->Decrypt(provider_, rsa_, moduleWrote_.cipher.data(),
                                   sizeOf(moduleWrote_.cipher), nullptr, nullptr, 0, &length,
                                   BCRYPT_PAD_PKCS1),
                  "Decrypt");
}

void Operations::rsaDecryptBare()
{
    bare_->decrypt(rsaId_, bareWrote_.cipher, bareWrote_.plain);
}

void Operations::ecSign()
{
    expectSuccess(sign(ec_, nullptr, 0, hash_, moduleWrote_.ecSignature), "SignHash");
}

void Operations::ecSignBare()
{
    bare_->sign(CKK_EC, ecId_, hash_, bareWrote_.ecSignature);
}

void Operations::ecVerify()
{
    expectSuccess(verify(ec_, nullptr, 0, hash_, moduleWrote_.ecSignature), "VerifySignature");
}

void Operations::ecVerifyBare()
{
    bare_->verify(CKK_EC, ecId_, hash_, bareWrote_.ecSignature);
}

void Operations::deriveKey()
{
    wchar_t hashName[] = L"SHA256";
    NCryptBuffer buffer{sizeof hashName, KDF_HASH_ALGORITHM, hashName};
    NCryptBufferDesc list{NCRYPTBUFFER_VERSION, 1, &buffer};
    NCRYPT_SECRET_HANDLE secret = 0;
    expectSuccess(module_->SecretAgreement(provider_, ec_, peer_, &secret, 0), "SecretAgreement");
    DWORD length = 0;
    expectSuccess(module_->DeriveKey(provider_, secret, BCRYPT_KDF_HASH, &list,
                                     moduleWrote_.derived.data(), sizeOf(moduleWrote_.derived),
                                     &length, 0),
                  "DeriveKey");
    expectSuccess(module_->FreeSecret(provider_, secret), "FreeSecret");
}

void Operations::deriveKeyBare()
{
    bare_->digest(bare_->agree(ecId_, peerPoint_), bareWrote_.derived);
}

}  // namespace NV::bench
