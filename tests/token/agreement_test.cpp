// Secret agreement with EC keys on the token, and derivation from the secret: equal to OpenSSL's
// results with the same keys.

#include <optional>
#include <string>
#include <vector>

#include "token_test.h"

namespace NV::test {

namespace {

constexpr wchar_t hashKdf[] = BCRYPT_KDF_HASH;
constexpr wchar_t hmacKdf[] = BCRYPT_KDF_HMAC;

// SubjectPublicKeyInfo ends with the coordinates of the point.
Bytes coordinatesOf(const Bytes& publicKeyInfo, const TokenKey& key)
{
    return {publicKeyInfo.end() - 2 * static_cast<ptrdiff_t>(key.bytes()), publicKeyInfo.end()};
}

ULONG magicOf(const TokenKey& key)
{
    switch (key.bits) {
    case 256:
        return BCRYPT_ECDH_PUBLIC_P256_MAGIC;
    case 384:
        return BCRYPT_ECDH_PUBLIC_P384_MAGIC;
    default:
        return BCRYPT_ECDH_PUBLIC_P521_MAGIC;
    }
}

Bytes blobOf(ULONG magic, ULONG keySize, const Bytes& coordinates)
{
    const BCRYPT_ECCKEY_BLOB header{magic, keySize};
    const auto* begin = reinterpret_cast<const unsigned char*>(&header);
    Bytes blob(begin, begin + sizeof header);
    blob.insert(blob.end(), coordinates.begin(), coordinates.end());
    return blob;
}

// A caller's parameter list. Texts and bytes are copied.
class Parameters {
public:
    Parameters& hash(const HashName& name)
    {
        const auto* begin = reinterpret_cast<const unsigned char*>(name.cng);
        return add(KDF_HASH_ALGORITHM,
                   Bytes(begin, begin + (std::wstring(name.cng).size() + 1) * sizeof(wchar_t)));
    }
    Parameters& prepend(const Bytes& bytes) { return add(KDF_SECRET_PREPEND, bytes); }
    Parameters& append(const Bytes& bytes) { return add(KDF_SECRET_APPEND, bytes); }
    Parameters& hmacKey(const Bytes& bytes) { return add(KDF_HMAC_KEY, bytes); }

    // Valid until the next change.
    NCryptBufferDesc* list()
    {
        buffers_.clear();
        for (auto& [type, bytes] : entries_)
            buffers_.push_back({static_cast<ULONG>(bytes.size()), type, bytes.data()});
        list_ = {NCRYPTBUFFER_VERSION, static_cast<ULONG>(buffers_.size()), buffers_.data()};
        return &list_;
    }

private:
    Parameters& add(ULONG type, const Bytes& bytes)
    {
        entries_.emplace_back(type, bytes);
        return *this;
    }

    std::vector<std::pair<ULONG, Bytes>> entries_;
    std::vector<BCryptBuffer> buffers_;
    NCryptBufferDesc list_{};
};

Bytes joined(std::initializer_list<Bytes> pieces)
{
    Bytes whole;
    for (const Bytes& piece : pieces)
        whole.insert(whole.end(), piece.begin(), piece.end());
    return whole;
}

class AgreementTest : public TokenTest {
protected:
    // 0 when the provider makes no key from the blob.
    static NCRYPT_KEY_HANDLE import(Bytes blob)
    {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(module()->ImportKey(provider(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &key,
                                      blob.data(), static_cast<DWORD>(blob.size()), 0),
                  ERROR_SUCCESS);
        return key;
    }

    // 0 with the status of the failure.
    static NCRYPT_SECRET_HANDLE agree(
        const TokenKey& key, const Bytes& blob, SECURITY_STATUS& status,
        const DialogDriver::Script& dialog = DialogDriver::entering(tokenPin))
    {
        const OpenedKey own = open(key);
        const NCRYPT_KEY_HANDLE peer = import(blob);
        NCRYPT_SECRET_HANDLE secret = 0;
        {
            const DialogDriver user(dialog);
            status = module()->SecretAgreement(provider(), own.handle(), peer, &secret, 0);
        }
        EXPECT_EQ(module()->FreeKey(provider(), peer), ERROR_SUCCESS);
        return secret;
    }

    static Outcome derive(NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, Parameters& parameters,
                          ULONG flags = 0, DWORD cbDerivedKey = 100)
    {
        Bytes derived(cbDerivedKey, 0xA5);
        DWORD length = 0;
        const SECURITY_STATUS status =
            module()->DeriveKey(provider(), secret, kdf, parameters.list(), derived.data(),
                                cbDerivedKey, &length, flags);
        EXPECT_LE(length, cbDerivedKey);
        EXPECT_EQ(Bytes(derived.begin() + length, derived.end()),
                  Bytes(cbDerivedKey - length, 0xA5))
            << "written past the result";
        derived.resize(length);
        return {status, derived};
    }
};

// One agreement for all cases of a curve.
class Derivation : public AgreementTest, public testing::WithParamInterface<TokenKey> {
protected:
    void SetUp() override
    {
        const std::string curve = "P-" + std::to_string(GetParam().bits);
        const Bytes peer = coordinatesOf(openSsl().makePeer(curve), GetParam());
        SECURITY_STATUS status = -1;
        handle_ = agree(GetParam(), blobOf(magicOf(GetParam()), GetParam().bytes(), peer), status);
        ASSERT_EQ(status, ERROR_SUCCESS);
        ASSERT_NE(handle_, 0U);
        secret_ = openSsl().agreedWithPeer(GetParam());
        ASSERT_EQ(secret_.size(), GetParam().bytes());
    }

    void TearDown() override
    {
        if (handle_ != 0) {
            EXPECT_EQ(module()->FreeSecret(provider(), handle_), ERROR_SUCCESS);
        }
    }

    NCRYPT_SECRET_HANDLE handle() const { return handle_; }
    const Bytes& secret() const { return secret_; }

    void expectDerived(const wchar_t* kdf, Parameters parameters, ULONG flags,
                       const Bytes& expected) const
    {
        const Outcome outcome = derive(handle_, kdf, parameters, flags);
        EXPECT_EQ(outcome.status, ERROR_SUCCESS);
        EXPECT_EQ(outcome.bytes, expected);
    }

private:
    NCRYPT_SECRET_HANDLE handle_ = 0;
    Bytes secret_;
};

INSTANTIATE_TEST_SUITE_P(Token, Derivation, testing::ValuesIn(ecKeys), keyOf);

const Bytes before = arbitraryBytes(7, 11);
const Bytes beforeToo = arbitraryBytes(130, 12);
const Bytes after = arbitraryBytes(5, 13);
const Bytes afterToo = arbitraryBytes(33, 14);

}  // namespace

TEST_P(Derivation, HashIsOpenSslsDigestOfOpenSslsSecret)
{
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        const auto digest = [&](const Bytes& data) { return openSsl().digest(hash, data); };
        expectDerived(hashKdf, Parameters().hash(hash), 0, digest(secret()));
        expectDerived(hashKdf, Parameters().hash(hash).prepend(before), 0,
                      digest(joined({before, secret()})));
        expectDerived(hashKdf, Parameters().hash(hash).append(after), 0,
                      digest(joined({secret(), after})));
        // Several buffers of one kind are joined in their order, regardless of the buffers between
        // them.
        expectDerived(hashKdf,
                      Parameters()
                          .append(after)
                          .prepend(before)
                          .hash(hash)
                          .prepend(beforeToo)
                          .append(Bytes{})
                          .append(afterToo),
                      0, digest(joined({before, beforeToo, secret(), after, afterToo})));
    }
}

TEST_P(Derivation, HmacIsOpenSslsOfOpenSslsSecret)
{
    for (const HashName& hash : hashNames) {
        // As long as the hash, which is SoftHSM2's minimum; longer; and longer than its block.
        for (const size_t keySize : {size_t{hash.size}, size_t{hash.size} + 9, size_t{150}}) {
            SCOPED_TRACE(std::string(hash.openSsl) + ", key of " + std::to_string(keySize));
            const Bytes key = arbitraryBytes(keySize, 15);
            const auto hmac = [&](const Bytes& data) { return openSsl().hmac(hash, key, data); };
            expectDerived(hmacKdf, Parameters().hash(hash).hmacKey(key), 0, hmac(secret()));
            expectDerived(hmacKdf,
                          Parameters()
                              .hash(hash)
                              .prepend(before)
                              .hmacKey(key)
                              .append(after)
                              .prepend(beforeToo)
                              .append(afterToo),
                          0, hmac(joined({before, beforeToo, secret(), after, afterToo})));
        }
    }
}

// SoftHSM2 accepts no HMAC key that is shorter than the hash.
TEST_P(Derivation, HmacKeyThatTheTokenRefusesFails)
{
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        for (const size_t size : {size_t{0}, size_t{1}, size_t{hash.size} - 1}) {
            Parameters parameters;
            parameters.hash(hash).hmacKey(arbitraryBytes(size));
            const Outcome outcome = derive(handle(), hmacKdf, parameters);
            EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR) << size;
            EXPECT_EQ(outcome.bytes, Bytes{}) << size;
        }
        Parameters withoutKey;
        EXPECT_EQ(derive(handle(), hmacKdf, withoutKey.hash(hash)).status, NTE_INTERNAL_ERROR);
    }
}

TEST_P(Derivation, SecretItselfCanBeTheHmacKey)
{
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        // The flag takes precedence over a key.
        Parameters parameters;
        parameters.hash(hash).prepend(before).append(after).hmacKey(arbitraryBytes(64));
        const Outcome outcome =
            derive(handle(), hmacKdf, parameters, KDF_USE_SECRET_AS_HMAC_KEY_FLAG);
        if (secret().size() < hash.size) {
            EXPECT_EQ(outcome.status, NTE_INTERNAL_ERROR);
        } else {
            EXPECT_EQ(outcome.status, ERROR_SUCCESS);
            EXPECT_EQ(outcome.bytes,
                      openSsl().hmac(hash, secret(), joined({before, secret(), after})));
        }
    }
}

TEST_P(Derivation, ResultIsTheWholeHashOrNothing)
{
    for (const HashName& hash : hashNames) {
        SCOPED_TRACE(hash.openSsl);
        Parameters parameters;
        parameters.hash(hash);
        DWORD length = 0;
        EXPECT_EQ(module()->DeriveKey(provider(), handle(), hashKdf, parameters.list(), nullptr, 0,
                                      &length, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(length, hash.size);
        EXPECT_EQ(derive(handle(), hashKdf, parameters, 0, hash.size).bytes.size(), hash.size);
        const Outcome tooSmall = derive(handle(), hashKdf, parameters, 0, hash.size - 1);
        EXPECT_EQ(tooSmall.status, NTE_INTERNAL_ERROR);
        EXPECT_EQ(tooSmall.bytes, Bytes{});

        parameters.hmacKey(arbitraryBytes(hash.size));
        EXPECT_EQ(module()->DeriveKey(provider(), handle(), hmacKdf, parameters.list(), nullptr, 0,
                                      &length, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(length, hash.size);
        EXPECT_EQ(derive(handle(), hmacKdf, parameters, 0, hash.size - 1).status,
                  NTE_INTERNAL_ERROR);
    }
}

class Agreement : public AgreementTest, public testing::WithParamInterface<TokenKey> {
protected:
    std::string curve() const { return "P-" + std::to_string(GetParam().bits); }

    // The other party's coordinates, new for each case.
    Bytes makePeer() const { return coordinatesOf(openSsl().makePeer(curve()), GetParam()); }

    Bytes blob(const Bytes& coordinates) const
    {
        return blobOf(magicOf(GetParam()), GetParam().bytes(), coordinates);
    }

    // The token rejects the point, and then works with a valid one.
    void expectRefused(const Bytes& blob) const
    {
        SECURITY_STATUS status = ERROR_SUCCESS;
        EXPECT_EQ(agree(GetParam(), blob, status), 0U);
        EXPECT_EQ(status, NTE_INTERNAL_ERROR);
    }
    void expectWorking() const { expectAgreed(makePeer()); }

    // The latest peer.
    void expectAgreed(const Bytes& coordinates) const
    {
        SECURITY_STATUS status = -1;
        const NCRYPT_SECRET_HANDLE secret = agree(GetParam(), blob(coordinates), status);
        ASSERT_EQ(status, ERROR_SUCCESS);
        Parameters parameters;
        EXPECT_EQ(derive(secret, hashKdf, parameters.hash(sha256)).bytes,
                  openSsl().digest(sha256, openSsl().agreedWithPeer(GetParam())));
        EXPECT_EQ(module()->FreeSecret(provider(), secret), ERROR_SUCCESS);
    }
};

INSTANTIATE_TEST_SUITE_P(Token, Agreement, testing::ValuesIn(ecKeys), keyOf);

// Half of P-521's secrets begin with a zero byte, which is part of the secret.
TEST_P(Agreement, KeepsTheLengthOfTheSecret)
{
    for (int i = 0; i < 6; ++i)
        expectAgreed(makePeer());
}

TEST_P(Agreement, PointOffTheCurveIsRefused)
{
    const Bytes good = makePeer();
    expectRefused(blob(changed(good, good.size() - 1)));
    expectRefused(blob(changed(good, GetParam().bytes() - 1)));
    expectRefused(blob(Bytes(good.size(), 0)));
    expectWorking();
}

TEST_P(Agreement, CoordinatesNotBelowThePrimeAreRefused)
{
    Bytes coordinates = makePeer();
    std::fill_n(coordinates.begin(), GetParam().bytes(), 0xFF);
    expectRefused(blob(coordinates));
    expectRefused(blob(Bytes(coordinates.size(), 0xFF)));
    expectWorking();
}

// Lengths that the token must check: the provider trusts the header.
TEST_P(Agreement, PointOfAnotherLengthIsRefused)
{
    const Bytes good = makePeer();
    const auto size = static_cast<ptrdiff_t>(GetParam().bytes());
    for (const ptrdiff_t wrong : {ptrdiff_t{0}, ptrdiff_t{1}, size - 1, size / 2})
        expectRefused(blobOf(magicOf(GetParam()), static_cast<ULONG>(wrong),
                             Bytes(good.begin(), good.begin() + 2 * wrong)));
    expectRefused(blobOf(magicOf(GetParam()), GetParam().bytes() + 1, joined({good, {0, 0}})));
    expectWorking();
}

TEST_P(Agreement, PointOfAnotherCurveIsRefused)
{
    for (const TokenKey& other : ecKeys) {
        if (other.bits == GetParam().bits)
            continue;
        SCOPED_TRACE(other.file);
        const Bytes peer =
            coordinatesOf(openSsl().makePeer("P-" + std::to_string(other.bits)), other);
        expectRefused(blobOf(magicOf(other), other.bytes(), peer));
        expectRefused(blobOf(magicOf(GetParam()), other.bytes(), peer));
    }
    expectWorking();
}

// The points of secp256k1 differ from those of P-256 only in their equation.
TEST_F(AgreementTest, PointOfACurveOfTheSameSizeIsRefused)
{
    const Bytes peer = coordinatesOf(openSsl().makePeer("secp256k1"), p256);
    SECURITY_STATUS status = ERROR_SUCCESS;
    EXPECT_EQ(agree(p256, blobOf(magicOf(p256), p256.bytes(), peer), status), 0U);
    EXPECT_EQ(status, NTE_INTERNAL_ERROR);
}

TEST_P(Agreement, BlobShorterThanItsHeaderSaysIsNoKey)
{
    Bytes shorter = blob(makePeer());
    shorter.pop_back();
    EXPECT_EQ(import(shorter), 0U);
    EXPECT_EQ(import(Bytes(shorter.begin(), shorter.begin() + 8)), 0U);
    EXPECT_EQ(import(Bytes(shorter.begin(), shorter.begin() + 3)), 0U);
    expectWorking();
}

TEST_P(Agreement, WrongPinAndCancelGiveNoSecret)
{
    const Bytes peer = blob(makePeer());
    SECURITY_STATUS status = ERROR_SUCCESS;
    EXPECT_EQ(agree(GetParam(), peer, status, DialogDriver::entering(L"wrong-pin")), 0U);
    EXPECT_EQ(status, NTE_INTERNAL_ERROR);
    EXPECT_EQ(agree(GetParam(), peer, status, DialogDriver::cancelling()), 0U);
    EXPECT_EQ(status, NTE_USER_CANCELLED);
    expectWorking();
}

TEST_P(Agreement, RsaKeyDoesNotAgree)
{
    SECURITY_STATUS status = ERROR_SUCCESS;
    EXPECT_EQ(agree(rsa2048, blob(makePeer()), status), 0U);
    EXPECT_EQ(status, NTE_NOT_SUPPORTED);
}

// The secret outlives the key of the agreement, and can be used until it is freed.
TEST_F(AgreementTest, SecretLivesUntilItIsFreed)
{
    const Bytes peer = coordinatesOf(openSsl().makePeer("P-256"), p256);
    SECURITY_STATUS status = -1;
    const NCRYPT_SECRET_HANDLE secret =
        agree(p256, blobOf(magicOf(p256), p256.bytes(), peer), status);
    ASSERT_EQ(status, ERROR_SUCCESS);
    Parameters parameters;
    parameters.hash(sha256);
    const Bytes expected = openSsl().digest(sha256, openSsl().agreedWithPeer(p256));
    {
        const OpenedProvider another(module());
        DWORD length = 0;
        Bytes derived(32);
        EXPECT_EQ(module()->DeriveKey(another.handle(), secret, hashKdf, parameters.list(),
                                      derived.data(), 32, &length, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(derived, expected);
    }
    EXPECT_EQ(derive(secret, hashKdf, parameters).bytes, expected);
    EXPECT_EQ(module()->FreeSecret(provider(), secret), ERROR_SUCCESS);
    EXPECT_EQ(derive(secret, hashKdf, parameters).status, NTE_INVALID_HANDLE);
    EXPECT_EQ(module()->FreeSecret(provider(), secret), ERROR_SUCCESS);
}

}  // namespace NV::test
