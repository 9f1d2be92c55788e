// Running the operations.

#include "token_operations.h"

#include <stdexcept>

#include "heap_count.h"
#include "keystore/keystore_secret.h"
#include "peer_key.h"

namespace NV::test {

namespace {

constexpr CK_ULONG modulusBytes = 256;
constexpr CK_ULONG coordinateBytes = 32;

Bytes plainBytes()
{
    Bytes bytes(32);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(0xA0 + i);
    return bytes;
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

}  // namespace

TokenOperations::TokenOperations()
    : hash_(plainBytes()), rsaSignature_(signatureOf(CKM_RSA_PKCS, hash_, modulusBytes)),
      ecSignature_(signatureOf(CKM_ECDSA, hash_, 2 * size_t{coordinateBytes})),
      peer_(peerPoint(coordinateBytes))
{
    if (!p11_.loadModule(ScriptedToken::path()))
        throw std::runtime_error("the scripted token cannot be loaded");
    rsa_.setSlotId(kSlot);
    rsa_.setKeyId(L"01AB");
    ec_.setSlotId(kSlot);
    ec_.setKeyId(L"0256");
    reset();
    cipherText_.resize(modulusBytes);
    DWORD length = 0;
    if (rsa_.encrypt(&p11_, nullptr, hash_.data(), sizeOf(hash_), cipherText_.data(), modulusBytes,
                     &length, BCRYPT_PAD_PKCS1) != ERROR_SUCCESS)
        throw std::runtime_error("the scripted token does not encrypt");
}

void TokenOperations::reset()
{
    token.reset();
    token.addRsaKeyPair({0x01, 0xAB}, 8 * modulusBytes);
    token.addEcKeyPair({0x02, 0x56}, coordinateBytes);
    remadeFunctionList(token);
    token.clearCalls();
}

Attempt TokenOperations::run(const OperationRow& row)
{
    Attempt attempt(row.room);
    const Bytes given[] = {hash_, cipherText_, rsaSignature_, ecSignature_, peer_};
    const long before = liveHeapBlocks();
    attempt.status = start(row, attempt);
    attempt.heapLeft = liveHeapBlocks() - before;
    const Bytes* now[] = {&hash_, &cipherText_, &rsaSignature_, &ecSignature_, &peer_};
    attempt.inputKept = std::ranges::equal(given, now, {}, {}, [](const Bytes* b) { return *b; });
    if (attempt.handle != untouchedHandle && attempt.handle != 0) {
        const OwnedSecret record(reinterpret_cast<AgreedSecret*>(attempt.handle));
        attempt.secret.assign(record->bytes, record->bytes + record->length);
        attempt.heapLeft -= 2;
    }
    return attempt;
}

SECURITY_STATUS TokenOperations::start(const OperationRow& row, Attempt& attempt)
{
    BYTE* output = attempt.output.data();
    switch (row.operation) {
    case TokenOperation::rsaSign:
        return rsa_.sign(&p11_, nullptr, hash_.data(), sizeOf(hash_), output, row.room,
                         &attempt.length, 0, pin_);
    case TokenOperation::rsaVerify:
        return rsa_.verify(&p11_, nullptr, hash_.data(), sizeOf(hash_), rsaSignature_.data(),
                           sizeOf(rsaSignature_), 0);
    case TokenOperation::rsaEncrypt:
        return rsa_.encrypt(&p11_, nullptr, hash_.data(), sizeOf(hash_), output, row.room,
                            &attempt.length, BCRYPT_PAD_PKCS1);
    case TokenOperation::rsaDecrypt:
        return rsa_.decrypt(&p11_, nullptr, cipherText_.data(), sizeOf(cipherText_), output,
                            row.room, &attempt.length, BCRYPT_PAD_PKCS1, pin_);
    case TokenOperation::ecSign:
        return ec_.sign(&p11_, nullptr, hash_.data(), sizeOf(hash_), output, row.room,
                        &attempt.length, 0, pin_);
    case TokenOperation::ecVerify:
        return ec_.verify(&p11_, nullptr, hash_.data(), sizeOf(hash_), ecSignature_.data(),
                          sizeOf(ecSignature_), 0);
    case TokenOperation::agreement:
        return ec_.secretAgreement(&p11_, peer_.data(), sizeOf(peer_), &attempt.handle, pin_);
    default:
        return derive(row, attempt);
    }
}

SECURITY_STATUS TokenOperations::derive(const OperationRow& row, Attempt& attempt)
{
    const bool hmac = row.operation == TokenOperation::hmacDerivation;
    return store_.derive({&p11_, kSlot, untouchedHandle, secret_, attempt.output.data(), row.room,
                          &attempt.length, *findHashAlgorithm(L"SHA256"), hmac,
                          hmac ? hmacKey_ : none_, none_, none_});
}

Bytes TokenOperations::output(TokenOperation operation) const
{
    const Bytes secret(secret_.begin(), secret_.end());
    switch (operation) {
    case TokenOperation::rsaSign:
        return rsaSignature_;
    case TokenOperation::rsaEncrypt:
        return cipherText_;
    case TokenOperation::rsaDecrypt:
        return hash_;
    case TokenOperation::ecSign:
        return ecSignature_;
    case TokenOperation::agreement:
        return repeated(kSecretPattern, coordinateBytes);
    case TokenOperation::hashDerivation:
        return digestOf(CKM_SHA256, secret);
    case TokenOperation::hmacDerivation:
        return hmacOf(CKM_SHA256_HMAC, Bytes(hmacKey_.begin(), hmacKey_.end()), secret);
    default:
        return {};
    }
}

}  // namespace NV::test
