// What a caller can do with a token of any kind. OpenSSL is the judge of every result.

#include <algorithm>
#include <string>
#include <vector>

#include "ecdsa_der.h"
#include "kind_test.h"

namespace NV::test {

namespace {

constexpr char pkcs1[] = "-pkeyopt rsa_padding_mode:pkcs1";
constexpr char pkcs1Digest[] = "-pkeyopt rsa_padding_mode:pkcs1 -pkeyopt digest:sha256";
constexpr char pssDigest[] =
    "-pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:32 -pkeyopt digest:sha256";
constexpr char oaepSha1[] = "-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1";
constexpr char oaepSha256[] = "-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256";

// A way to sign or to encrypt, and what OpenSSL calls it.
struct Way {
    const char* name = nullptr;  // of the record
    Padding padding;
    const char* openSsl = nullptr;
};

const Way signatures[] = {{"pkcs1", Padding::pkcs1(sha256.cng), pkcs1Digest},
                          {"pss", Padding::pss(sha256.cng, 32), pssDigest},
                          {"ecdsa", Padding::none(), ""}};
const Way encryptions[] = {{"pkcs1", Padding::pkcs1(nullptr), pkcs1},
                           {"oaep-sha1", Padding::oaep(sha1.cng), oaepSha1},
                           {"oaep-sha256", Padding::oaep(sha256.cng), oaepSha256}};

bool isEc(const Way& way)
{
    return way.padding.flags() == 0;
}

class TokenKind : public KindTest {
protected:
    static TokenKey keyFor(const Way& way) { return isEc(way) ? ec() : rsa(); }

    static bool openSslVerifies(const Way& way, const Bytes& hash, const Bytes& signature)
    {
        return openSsl().verifies(keyFor(way), hash, isEc(way) ? derFromRaw(signature) : signature,
                                  way.openSsl);
    }

    // The private key is a file only if the token did not make it. Otherwise the provider decrypts; that
    // it does so as OpenSSL does is tested on its own.
    static Bytes decrypted(const Way& way, const Bytes& cipher)
    {
        if (hasPrivateKeyFile(rsa()))
            return openSsl().decrypt(rsa(), cipher, way.openSsl);
        const Outcome plain = open(rsa()).decrypt(way.padding, cipher, rsa().bytes());
        EXPECT_EQ(plain.status, ERROR_SUCCESS) << "nobody can tell what was encrypted";
        return plain.bytes;
    }

    // The other party's key on the curve of the token's, as a blob.
    static Bytes makePeer()
    {
        const Bytes information = openSsl().makePeer("P-" + std::to_string(ec().bits));
        const BCRYPT_ECCKEY_BLOB header{static_cast<ULONG>(ec().bits == 256
                                                               ? BCRYPT_ECDH_PUBLIC_P256_MAGIC
                                                               : BCRYPT_ECDH_PUBLIC_P384_MAGIC),
                                        ec().bytes()};
        const auto* begin = reinterpret_cast<const unsigned char*>(&header);
        Bytes blob(begin, begin + sizeof header);
        blob.insert(blob.end(), information.end() - 2 * static_cast<ptrdiff_t>(ec().bytes()),
                    information.end());
        return blob;
    }

    static SECURITY_STATUS agree(Bytes peer, NCRYPT_SECRET_HANDLE& secret)
    {
        const OpenedKey own = open(ec());
        NCRYPT_KEY_HANDLE imported = 0;
        EXPECT_EQ(module()->ImportKey(provider(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &imported,
                                      peer.data(), static_cast<DWORD>(peer.size()), 0),
                  ERROR_SUCCESS);
        SECURITY_STATUS status = ERROR_SUCCESS;
        {
            const DialogDriver user(DialogDriver::entering(tokenPin));
            status = module()->SecretAgreement(provider(), own.handle(), imported, &secret, 0);
        }
        EXPECT_EQ(module()->FreeKey(provider(), imported), ERROR_SUCCESS);
        return status;
    }

    // SHA256 of the secret.
    static SECURITY_STATUS derive(NCRYPT_SECRET_HANDLE secret, Bytes& derived)
    {
        wchar_t name[] = L"SHA256";
        BCryptBuffer buffer{sizeof name, KDF_HASH_ALGORITHM, name};
        NCryptBufferDesc list{NCRYPTBUFFER_VERSION, 1, &buffer};
        derived.assign(sha256.size, 0);
        DWORD length = 0;
        return module()->DeriveKey(provider(), secret, BCRYPT_KDF_HASH, &list, derived.data(),
                                   sha256.size, &length, 0);
    }
};

}  // namespace

TEST_F(TokenKind, Opens)
{
    lookAtWholeLog();
    record("open", openingStatus());
}

TEST_F(TokenKind, ListsItsKeys)
{
    std::vector<std::wstring> expected = {rsa().name, ec().name, lone().name};
    std::ranges::sort(expected);
    forgetLog();
    const std::vector<std::wstring> names = listed();
    EXPECT_TRUE(names.empty() || names == expected) << names.size() << " keys";
    record("list", names == expected ? "works" : "no keys");
}

TEST_F(TokenKind, SignsAsOpenSslVerifies)
{
    const Bytes hash = arbitraryBytes(sha256.size);
    for (const Way& way : signatures) {
        SCOPED_TRACE(way.name);
        forgetLog();
        const Outcome signature = open(keyFor(way)).sign(way.padding, hash);
        record(std::string("sign-") + way.name, signature.status);
        if (signature.status != ERROR_SUCCESS) {
            EXPECT_EQ(signature.bytes, Bytes{});
            continue;
        }
        EXPECT_TRUE(openSslVerifies(way, hash, signature.bytes));
        EXPECT_FALSE(openSslVerifies(way, changed(hash), signature.bytes));
    }
}

TEST_F(TokenKind, VerifiesWhatItSigned)
{
    const Bytes hash = arbitraryBytes(sha256.size, 2);
    for (const Way& way : signatures) {
        SCOPED_TRACE(way.name);
        const OpenedKey key = open(keyFor(way));
        const Outcome signature = key.sign(way.padding, hash);
        ASSERT_EQ(signature.status, ERROR_SUCCESS) << "there is nothing to verify";
        ASSERT_TRUE(openSslVerifies(way, hash, signature.bytes));
        forgetLog();
        record(std::string("verify-") + way.name, key.verify(way.padding, hash, signature.bytes));
        EXPECT_NE(key.verify(way.padding, changed(hash), signature.bytes), ERROR_SUCCESS);
        EXPECT_NE(key.verify(way.padding, hash, changed(signature.bytes, 40)), ERROR_SUCCESS);
    }
}

TEST_F(TokenKind, EncryptsWhatTheKeyDecrypts)
{
    const Bytes plain = arbitraryBytes(32, 3);
    for (const Way& way : encryptions) {
        SCOPED_TRACE(way.name);
        forgetLog();
        const Outcome cipher = open(rsa()).encrypt(way.padding, plain);
        record(std::string("encrypt-") + way.name, cipher.status);
        if (cipher.status == ERROR_SUCCESS) {
            EXPECT_EQ(cipher.bytes.size(), rsa().bytes());
            EXPECT_EQ(decrypted(way, cipher.bytes), plain);
        }
    }
}

TEST_F(TokenKind, DecryptsWhatOpenSslEncrypted)
{
    const Bytes plain = arbitraryBytes(32, 4);
    for (const Way& way : encryptions) {
        SCOPED_TRACE(way.name);
        const Bytes cipher = openSsl().encrypt(rsa(), plain, way.openSsl);
        forgetLog();
        const Outcome decrypted = open(rsa()).decrypt(way.padding, cipher, rsa().bytes());
        record(std::string("decrypt-") + way.name, decrypted.status);
        EXPECT_EQ(decrypted.bytes, decrypted.status == ERROR_SUCCESS ? plain : Bytes{});
    }
}

TEST_F(TokenKind, AgreesWithOpenSsl)
{
    const Bytes peer = makePeer();
    NCRYPT_SECRET_HANDLE secret = 0;
    forgetLog();
    SECURITY_STATUS status = agree(peer, secret);
    if (status == ERROR_SUCCESS) {
        Bytes derived;
        status = derive(secret, derived);
        if (status == ERROR_SUCCESS) {
            EXPECT_EQ(derived, openSsl().digest(sha256, openSsl().agreedByPeer(ec())));
        }
    }
    record("agree", status);
    if (secret != 0) {
        EXPECT_EQ(module()->FreeSecret(provider(), secret), ERROR_SUCCESS);
    }
}

TEST_F(TokenKind, RefusesAWrongPinAndAcceptsTheRightOneAfterwards)
{
    const Bytes hash = arbitraryBytes(sha256.size, 5);
    const Way& way = signatures[0];
    const OpenedKey key = open(rsa());
    forgetLog();
    const Outcome wrong = key.sign(way.padding, hash, DialogDriver::entering(L"wrong-pin-0815"));
    record("wrong-pin", wrong.status);
    EXPECT_NE(wrong.status, ERROR_SUCCESS);
    EXPECT_EQ(wrong.bytes, Bytes{});
    const Outcome right = key.sign(way.padding, hash);
    EXPECT_EQ(right.status, ERROR_SUCCESS);
    EXPECT_TRUE(openSslVerifies(way, hash, right.bytes));
}

TEST_F(TokenKind, SignsNothingWithACertificateWithoutAKey)
{
    const OpenedKey key = open(lone());
    forgetLog();
    const Outcome signature = key.sign(Padding::none(), arbitraryBytes(sha256.size));
    record("no-key", signature.status);
    EXPECT_NE(signature.status, ERROR_SUCCESS);
    EXPECT_EQ(signature.bytes, Bytes{});
}

TEST_F(TokenKind, OpensNoUnknownName)
{
    NCRYPT_KEY_HANDLE key = 0;
    forgetLog();
    const SECURITY_STATUS status = module()->OpenKey(provider(), &key, L"FFFF", 0, 0);
    record("unknown-name", status);
    EXPECT_NE(status, ERROR_SUCCESS);
    EXPECT_EQ(key, 0U);
}

}  // namespace NV::test
