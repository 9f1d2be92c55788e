// The two doors to the token operations.

#include "token_operations.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "configured_library.h"
#include "keystore/keystore.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_rsa.h"
#include "keystore/keystore_secret.h"
#include "nvvtoken/nvvtoken.h"
#include "p11/p11.h"
#include "peer_key.h"

namespace NV::test {

namespace {

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

class KeyObjects : public OperationDoor {
public:
    KeyObjects()
    {
        if (!p11_.loadModule(ScriptedToken::path()))
            throw std::runtime_error("the scripted token cannot be loaded");
        rsa_.setSlotId(kSlot);
        rsa_.setKeyId(L"01AB");
        ec_.setSlotId(kSlot);
        ec_.setKeyId(L"0256");
    }

    SECURITY_STATUS start(const OperationRow& row, OperationInputs& in, Attempt& attempt) override
    {
        BYTE* output = attempt.output.data();
        switch (row.operation) {
        case TokenOperation::rsaSign:
            return rsa_.sign(&p11_, nullptr, in.hash.data(), sizeOf(in.hash), output, row.room,
                             &attempt.length, 0, in.pin);
        case TokenOperation::rsaVerify:
            return rsa_.verify(&p11_, nullptr, in.hash.data(), sizeOf(in.hash),
                               in.rsaSignature.data(), sizeOf(in.rsaSignature), 0);
        case TokenOperation::rsaEncrypt:
            return rsa_.encrypt(&p11_, nullptr, in.hash.data(), sizeOf(in.hash), output, row.room,
                                &attempt.length, BCRYPT_PAD_PKCS1);
        case TokenOperation::rsaDecrypt:
            return rsa_.decrypt(&p11_, nullptr, in.cipherText.data(), sizeOf(in.cipherText), output,
                                row.room, &attempt.length, BCRYPT_PAD_PKCS1, in.pin);
        case TokenOperation::ecSign:
            return ec_.sign(&p11_, nullptr, in.hash.data(), sizeOf(in.hash), output, row.room,
                            &attempt.length, 0, in.pin);
        case TokenOperation::ecVerify:
            return ec_.verify(&p11_, nullptr, in.hash.data(), sizeOf(in.hash),
                              in.ecSignature.data(), sizeOf(in.ecSignature), 0);
        case TokenOperation::agreement:
            return ec_.secretAgreement(&p11_, in.peer.data(), sizeOf(in.peer), &attempt.handle,
                                       in.pin);
        default:
            return derive(row, in, attempt);
        }
    }

    void takeSecret(Attempt& attempt) override
    {
        const OwnedSecret record(reinterpret_cast<AgreedSecret*>(attempt.handle));
        attempt.secret.assign(record->bytes, record->bytes + record->length);
    }

private:
    SECURITY_STATUS derive(const OperationRow& row, OperationInputs& in, Attempt& attempt)
    {
        const bool hmac = row.operation == TokenOperation::hmacDerivation;
        return store_.derive({&p11_, kSlot, untouchedHandle, in.secret, attempt.output.data(),
                              row.room, &attempt.length, *findHashAlgorithm(L"SHA256"), hmac,
                              hmac ? in.hmacKey : none_, none_, none_});
    }

    Pkcs11 p11_;
    P11RSAKeyObject rsa_;
    P11ECKeyObject ec_;
    KeyStore store_;
    SecretBytes none_;
};

class OpenedKeys : public OperationDoor {
public:
    OpenedKeys(ScriptedToken& token, const OperationInputs& in)
    {
        configureScriptedToken();
        token.addCertificate(Bytes{0x01, 0xAB}, fixtureCertificate("rsa2048"));
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        token.addCertificate(Bytes{0x02, 0x56}, fixtureCertificate("p256"));
        token.addEcKeyPair({0x02, 0x56}, 32);
        Bytes blob = peerBlob(ecdhP256, 32);
        const bool opened = provider_.init() &&
                            provider_.OpenKey(&rsa_, L"01AB", 0, 0) == ERROR_SUCCESS &&
                            provider_.OpenKey(&ec_, L"0256", 0, 0) == ERROR_SUCCESS &&
                            provider_.ImportKey(0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer_,
                                                blob.data(), sizeOf(blob), 0) == ERROR_SUCCESS;
        if (!opened)
            throw std::runtime_error("no provider with its keys");
        OwnedSecret made = makeSecret(static_cast<uint32_t>(in.secret.size()));
        std::ranges::copy(in.secret, made->bytes);
        secret_ = reinterpret_cast<NCRYPT_SECRET_HANDLE>(made.get());
        SecretList::instance().add(std::move(made));
    }
    ~OpenedKeys() override { provider_.FreeSecret(secret_); }

    SECURITY_STATUS start(const OperationRow& row, OperationInputs& in, Attempt& attempt) override
    {
        BYTE* output = attempt.output.data();
        switch (row.operation) {
        case TokenOperation::rsaSign:
        case TokenOperation::ecSign:
            return provider_.SignHash(keyOf(row), nullptr, in.hash.data(), sizeOf(in.hash), output,
                                      row.room, &attempt.length, 0);
        case TokenOperation::rsaVerify: {
            // Wine's BCrypt does not verify without the name of the hash.
            BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
            Bytes signature =
                signatureOf(CKM_RSA_PKCS, sha256DigestInfo(in.hash), in.rsaSignature.size());
            return provider_.VerifySignature(rsa_, &padding, in.hash.data(), sizeOf(in.hash),
                                             signature.data(), sizeOf(signature), BCRYPT_PAD_PKCS1);
        }
        case TokenOperation::ecVerify:
            return provider_.VerifySignature(ec_, nullptr, in.hash.data(), sizeOf(in.hash),
                                             in.ecSignature.data(), sizeOf(in.ecSignature), 0);
        case TokenOperation::rsaEncrypt:
            return provider_.Encrypt(rsa_, in.hash.data(), sizeOf(in.hash), nullptr, output,
                                     row.room, &attempt.length, BCRYPT_PAD_PKCS1);
        case TokenOperation::rsaDecrypt:
            return provider_.Decrypt(rsa_, in.cipherText.data(), sizeOf(in.cipherText), nullptr,
                                     output, row.room, &attempt.length, BCRYPT_PAD_PKCS1);
        case TokenOperation::agreement:
            return provider_.SecretAgreement(ec_, peer_, &attempt.handle, 0);
        default:
            return derive(row, in, attempt);
        }
    }

    void takeSecret(Attempt& attempt) override
    {
        if (const auto secret = SecretList::instance().copy(attempt.handle))
            attempt.secret.assign(secret->begin(), secret->end());
        provider_.FreeSecret(attempt.handle);
    }

private:
    NCRYPT_KEY_HANDLE keyOf(const OperationRow& row) const
    {
        return row.operation == TokenOperation::ecSign ? ec_ : rsa_;
    }

    SECURITY_STATUS derive(const OperationRow& row, OperationInputs& in, Attempt& attempt)
    {
        const bool hmac = row.operation == TokenOperation::hmacDerivation;
        wchar_t name[] = L"SHA256";
        BCryptBuffer buffers[] = {
            {sizeof name, KDF_HASH_ALGORITHM, name},
            {static_cast<ULONG>(in.hmacKey.size()), KDF_HMAC_KEY, in.hmacKey.data()}};
        NCryptBufferDesc list{0, static_cast<ULONG>(hmac ? 2 : 1), buffers};
        return provider_.DeriveKey(secret_, hmac ? BCRYPT_KDF_HMAC : BCRYPT_KDF_HASH, &list,
                                   attempt.output.data(), row.room, &attempt.length, 0);
    }

    Provider provider_;
    NCRYPT_KEY_HANDLE rsa_ = 0;
    NCRYPT_KEY_HANDLE ec_ = 0;
    NCRYPT_KEY_HANDLE peer_ = 0;
    NCRYPT_SECRET_HANDLE secret_ = 0;
};

}  // namespace

std::unique_ptr<OperationDoor> keyObjects()
{
    return std::make_unique<KeyObjects>();
}

std::unique_ptr<OperationDoor> openedProvider(ScriptedToken& token, const OperationInputs& in)
{
    return std::make_unique<OpenedKeys>(token, in);
}

}  // namespace NV::test
