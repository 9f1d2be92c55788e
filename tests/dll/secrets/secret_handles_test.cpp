// The life of secret handles through the table: release, double release, providers that come and go,
// and two of them at work at once.

#include <atomic>
#include <thread>

#include "secrets_fixture.h"
#include "start_line.h"

namespace NV::test {

namespace {

class SecretHandlesTest : public SecretsTest {
protected:
    SECURITY_STATUS derive(NCRYPT_PROV_HANDLE with, NCRYPT_SECRET_HANDLE secret, Bytes& key)
    {
        wchar_t name[] = L"SHA256";
        BCryptBuffer hash{sizeof name, KDF_HASH_ALGORITHM, name};
        NCryptBufferDesc list{0, 1, &hash};
        key.assign(32, 0xEE);
        DWORD length = 0;
        return module()->DeriveKey(with, secret, BCRYPT_KDF_HASH, &list, key.data(), 32, &length,
                                   0);
    }

    const Bytes derived = digestOf(CKM_SHA256, agreedBytes());
};

}  // namespace

TEST_F(SecretHandlesTest, ANullHandleIsInvalid)
{
    EXPECT_EQ(NTE_INVALID_PARAMETER, module()->FreeSecret(provider(), 0));
    EXPECT_EQ("", said("FreeSecret"));
}

TEST_F(SecretHandlesTest, FreeingTwiceWarnsAndSucceeds)
{
    const NCRYPT_SECRET_HANDLE kept = agree();
    const NCRYPT_SECRET_HANDLE secret = agree();
    EXPECT_NE(kept, secret);
    forget();
    EXPECT_EQ(success, module()->FreeSecret(provider(), secret));
    EXPECT_EQ("DBG Found secretHandle(PTR) in managed Global SecretHandle List of size (2)\n",
              said("FreeSecret"));
    EXPECT_EQ(success, module()->FreeSecret(provider(), secret));
    EXPECT_EQ("WRN Not found secretHandle(PTR) in managed Global SecretHandle List\n",
              said("FreeSecret"));
    EXPECT_TRUE(token().calls().empty());
    Bytes key;
    EXPECT_EQ(NTE_INVALID_HANDLE, derive(provider(), secret, key));
    EXPECT_EQ(success, derive(provider(), kept, key));
    EXPECT_EQ(derived, key);
    EXPECT_EQ(success, module()->FreeSecret(otherProvider(), kept));
}

// Nothing is freed through a pointer that is not in the list.
TEST_F(SecretHandlesTest, FreeingAForeignPointerWarnsAndSucceeds)
{
    int own = 7391;
    EXPECT_EQ(success,
              module()->FreeSecret(provider(), reinterpret_cast<NCRYPT_SECRET_HANDLE>(&own)));
    EXPECT_EQ("WRN Not found secretHandle(PTR) in managed Global SecretHandle List\n",
              said("FreeSecret"));
    EXPECT_EQ(7391, own);
    EXPECT_EQ(success, module()->FreeSecret(provider(), key()));
    DWORD length = 0;
    EXPECT_EQ(success, module()->ExportKey(provider(), key(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr,
                                           nullptr, 0, &length, 0));
}

TEST_F(SecretHandlesTest, ASecretOutlivesItsProvider)
{
    NCRYPT_SECRET_HANDLE secret = 0;
    {
        const OpenedProvider maker(module());
        Bytes blob = peerBlob(ecdhP256, 32);
        NCRYPT_KEY_HANDLE peer = 0;
        ASSERT_EQ(success,
                  module()->ImportKey(maker.handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer,
                                      blob.data(), static_cast<DWORD>(blob.size()), 0));
        const DialogDriver driver(DialogDriver::entering(userPin));
        ASSERT_EQ(success, module()->SecretAgreement(maker.handle(), maker.openKey(L"0256"), peer,
                                                     &secret, 0));
    }
    Bytes key;
    EXPECT_EQ(success, derive(provider(), secret, key));
    EXPECT_EQ(derived, key);
    EXPECT_EQ(success, module()->FreeSecret(provider(), secret));
}

// Both agree on their own thread; one driver answers all dialogs.
TEST_F(SecretHandlesTest, TwoProvidersAgreeAtOnceWithoutLoss)
{
    constexpr int rounds = 3;
    struct Side {
        NCRYPT_PROV_HANDLE provider;
        NCRYPT_KEY_HANDLE key;
        NCRYPT_KEY_HANDLE peer;
        std::vector<NCRYPT_SECRET_HANDLE> secrets;
    };
    const NCRYPT_KEY_HANDLE peer = importPeer();
    Side sides[] = {{provider(), key(), peer, {}}, {otherProvider(), keyOfOther(), peer, {}}};
    std::atomic<int> failed = 0;
    {
        const DialogDriver driver(DialogDriver::entering(userPin), 2 * rounds);
        StartLine start(2);
        std::vector<std::jthread> running;
        for (Side& side : sides) {
            running.emplace_back([&] {
                start.wait();
                for (int i = 0; i < rounds; ++i) {
                    NCRYPT_SECRET_HANDLE secret = 0;
                    failed += module()->SecretAgreement(side.provider, side.key, side.peer, &secret,
                                                        0) != success;
                    side.secrets.push_back(secret);
                }
            });
        }
    }
    EXPECT_EQ(0, failed);
    EXPECT_EQ(0u, token().sequenceViolations());
    EXPECT_EQ(0u, token().overlappingCalls());
    size_t left = size_t{2} * rounds;
    for (const Side& side : sides) {
        for (const NCRYPT_SECRET_HANDLE secret : side.secrets) {
            Bytes key;
            EXPECT_EQ(success, derive(side.provider, secret, key));
            EXPECT_EQ(derived, key);
            forget();
            EXPECT_EQ(success, module()->FreeSecret(side.provider, secret));
            EXPECT_EQ("DBG Found secretHandle(PTR) in managed Global SecretHandle List of size (" +
                          std::to_string(left--) + ")\n",
                      said("FreeSecret"));
        }
    }
    EXPECT_EQ(success, module()->FreeKey(provider(), peer));
}

// Each derivation gives the whole key, or the secret is gone.
TEST_F(SecretHandlesTest, DerivingWhileAnotherThreadFrees)
{
    for (int round = 0; round < 3; ++round) {
        const NCRYPT_SECRET_HANDLE secret = agree();
        std::atomic<bool> started = false;
        std::jthread freeing([&] {
            while (!started)
                std::this_thread::yield();
            EXPECT_EQ(success, module()->FreeSecret(otherProvider(), secret));
        });
        SECURITY_STATUS status = success;
        for (int i = 0; status == success && i < 1000; ++i) {
            Bytes key;
            status = derive(provider(), secret, key);
            EXPECT_EQ(status == success ? derived : Bytes(32, 0xEE), key);
            started = true;
        }
        EXPECT_EQ(NTE_INVALID_HANDLE, status);
    }
}

}  // namespace NV::test
