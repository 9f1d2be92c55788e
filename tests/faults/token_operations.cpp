// Running the operations.

#include "token_operations.h"

#include <stdexcept>

#include "heap_count.h"
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

OperationInputs inputs()
{
    OperationInputs in;
    in.hash = plainBytes();
    in.rsaSignature = signatureOf(CKM_RSA_PKCS, in.hash, modulusBytes);
    in.ecSignature = signatureOf(CKM_ECDSA, in.hash, 2 * size_t{coordinateBytes});
    in.peer = peerPoint(coordinateBytes);
    return in;
}

const OperationRow& rowOf(TokenOperation operation)
{
    return *std::ranges::find(operationRows, operation, &OperationRow::operation);
}

}  // namespace

TokenOperations::TokenOperations(Behaviour behaviour)
    : mode_(behaviour), behaviour_(behaviour), in_(inputs())
{
    door_ = behaviour == Behaviour::modern ? openedProvider(token, in_) : keyObjects();
    reset();
    const OperationRow& encryption = rowOf(TokenOperation::rsaEncrypt);
    Attempt attempt(encryption.room);
    if (door_->start(encryption, in_, attempt) != ERROR_SUCCESS)
        throw std::runtime_error("the scripted token does not encrypt");
    in_.cipherText.assign(attempt.output.data(), attempt.output.data() + modulusBytes);
}

void TokenOperations::reset()
{
    token.reset();
    token.addRsaKeyPair({0x01, 0xAB}, 8 * modulusBytes);
    token.addEcKeyPair({0x02, 0x56}, coordinateBytes);
    list_ = &remadeFunctionList(token);
    if (behaviour_ == Behaviour::modern)
        token.exports().C_Initialize(nullptr);
    token.clearCalls();
}

Attempt TokenOperations::run(const OperationRow& row)
{
    Attempt attempt(row.room);
    const OperationInputs given = in_;
    const long before = liveHeapBlocks();
    attempt.status = door_->start(row, in_, attempt);
    if (attempt.handle != untouchedHandle && attempt.handle != 0)
        door_->takeSecret(attempt);
    attempt.heapLeft = liveHeapBlocks() - before;
    attempt.inputKept = in_ == given;
    return attempt;
}

Bytes TokenOperations::output(TokenOperation operation) const
{
    const Bytes secret(in_.secret.begin(), in_.secret.end());
    switch (operation) {
    case TokenOperation::rsaSign:
        return in_.rsaSignature;
    case TokenOperation::rsaEncrypt:
        return in_.cipherText;
    case TokenOperation::rsaDecrypt:
        return in_.hash;
    case TokenOperation::ecSign:
        return in_.ecSignature;
    case TokenOperation::agreement:
        return repeated(kSecretPattern, coordinateBytes);
    case TokenOperation::hashDerivation:
        return digestOf(CKM_SHA256, secret);
    case TokenOperation::hmacDerivation:
        return hmacOf(CKM_SHA256_HMAC, Bytes(in_.hmacKey.begin(), in_.hmacKey.end()), secret);
    default:
        return {};
    }
}

}  // namespace NV::test
