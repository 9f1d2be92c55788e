// The list of agreed secrets: what is in it, and that it stands several providers on several threads.

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "config/config.h"
#include "nvvtoken/nvvtoken.h"
#include "profile.h"
#include "secret_fixture.h"
#include "start_line.h"

namespace NV::test {

namespace {

NCRYPT_SECRET_HANDLE addToList(const Bytes& bytes)
{
    OwnedSecret secret = makeSecret(static_cast<uint32_t>(bytes.size()));
    std::ranges::copy(bytes, secret->bytes);
    const auto handle = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get());
    SecretList::instance().add(std::move(secret));
    return handle;
}

size_t listSize()
{
    size_t size = 0;
    SecretList::instance().remove(0, size);
    return size;
}

TEST(SecretListTest, makesZeroFilledRecords)
{
    const OwnedSecret secret = makeSecret(5);
    EXPECT_EQ(5u, secret->length);
    EXPECT_EQ(Bytes(5), Bytes(secret->bytes, secret->bytes + 5));
}

TEST(SecretListTest, givesWhatWasPutInOnce)
{
    SecretList& list = SecretList::instance();
    const auto first = addToList({1, 2, 3});
    const auto second = addToList({4});
    ASSERT_TRUE(list.copy(first));
    EXPECT_EQ((SecretBytes{1, 2, 3}), *list.copy(first));
    EXPECT_EQ((SecretBytes{4}), *list.copy(second));
    EXPECT_FALSE(list.copy(first + 1));

    size_t size = 0;
    const OwnedSecret removed = list.remove(first, size);
    EXPECT_EQ(2u, size);
    EXPECT_EQ(first, reinterpret_cast<NCRYPT_SECRET_HANDLE>(removed.get()));
    EXPECT_FALSE(list.copy(first));
    EXPECT_EQ(nullptr, list.remove(first, size));
    EXPECT_EQ(1u, size);
    EXPECT_NE(nullptr, list.remove(second, size));
    EXPECT_EQ(0u, listSize());
}

// Secrets that are made before, so that the threads meet in the list and not in the heap.
std::vector<OwnedSecret> madeSecrets(size_t count)
{
    std::vector<OwnedSecret> secrets;
    secrets.reserve(count);
    for (size_t i = 0; i < count; ++i)
        secrets.push_back(makeSecret(1));
    return secrets;
}

TEST(SecretListTest, losesNothingOnManyThreads)
{
    constexpr size_t threads = 4;
    constexpr size_t each = 2000;
    std::vector<std::vector<OwnedSecret>> secrets;
    std::vector<NCRYPT_SECRET_HANDLE> handles;
    for (size_t i = 0; i < threads; ++i) {
        secrets.push_back(madeSecrets(each));
        for (const OwnedSecret& secret : secrets.back())
            handles.push_back(reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get()));
    }
    {
        StartLine start(threads);
        std::vector<std::jthread> running;
        for (auto& own : secrets) {
            running.emplace_back([&] {
                start.wait();
                for (OwnedSecret& secret : own)
                    SecretList::instance().add(std::move(secret));
            });
        }
    }
    EXPECT_EQ(threads * each, listSize());
    size_t lost = 0;
    for (const auto handle : handles) {
        size_t size = 0;
        lost += SecretList::instance().remove(handle, size) == nullptr ? 1U : 0U;
    }
    EXPECT_EQ(0u, lost);
    EXPECT_EQ(0u, listSize());
}

// Each thread adds, reads and removes its own secrets, whatever the others do.
TEST(SecretListTest, standsManyThreads)
{
    constexpr int threads = 4;
    constexpr int rounds = 500;
    std::atomic<int> wrong = 0;
    StartLine start(threads);
    const auto work = [&](unsigned char mark) {
        start.wait();
        for (int i = 0; i < rounds; ++i) {
            const auto handle = addToList({mark, static_cast<unsigned char>(i)});
            const auto bytes = SecretList::instance().copy(handle);
            wrong += !bytes || bytes->front() != mark ? 1 : 0;
            size_t size = 0;
            wrong += SecretList::instance().remove(handle, size) == nullptr ? 1 : 0;
        }
    };
    {
        std::vector<std::jthread> running;
        for (unsigned char mark = 1; mark <= threads; ++mark)
            running.emplace_back(work, mark);
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0u, listSize());
}

// Providers in this process, without the DLL's border.
class ProviderSecretsTest : public testing::Test {
protected:
    ProviderSecretsTest()
    {
        profile.writeConfigFor(ScriptedToken::widePath());
        Config::instance().load(narrowPath(profile.configFile()));
        for (auto& provider : providers) {
            provider = std::make_unique<Provider>();
            if (!provider->init())
                throw std::runtime_error("the provider does not initialise");
        }
        token.clearCalls();
        log.takeLines();
    }

    struct Result {
        SECURITY_STATUS status;
        Bytes key;
    };

    static Result derive(Provider& provider, NCRYPT_SECRET_HANDLE secret, ULONG flags = 0,
                         const wchar_t* kdf = BCRYPT_KDF_HASH)
    {
        wchar_t name[] = L"SHA256";
        BCryptBuffer hash{sizeof name, KDF_HASH_ALGORITHM, name};
        NCryptBufferDesc list{0, 1, &hash};
        Result result{0, Bytes(32, untouchedByte)};
        DWORD length = 0;
        result.status =
            provider.DeriveKey(secret, kdf, &list, result.key.data(), 32, &length, flags);
        return result;
    }

    Profile profile;
    ScriptedToken token;
    LogCapture log;
    std::unique_ptr<Provider> providers[2];
};

TEST_F(ProviderSecretsTest, theFlagMakesTheSecretTheHmacKey)
{
    const Bytes bytes = {0x51, 0x52, 0x53};
    const auto secret = addToList(bytes);
    const Result result =
        derive(*providers[0], secret, KDF_USE_SECRET_AS_HMAC_KEY_FLAG, BCRYPT_KDF_HMAC);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(hmacOf(CKM_SHA256_HMAC, bytes, bytes), result.key);
    providers[0]->FreeSecret(secret);
}

TEST_F(ProviderSecretsTest, aSecretOutlivesItsProvider)
{
    const auto secret = addToList({0x51, 0x52});
    providers[0].reset();
    const Result result = derive(*providers[1], secret);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(digestOf(CKM_SHA256, Bytes{0x51, 0x52}), result.key);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, providers[1]->FreeSecret(secret));
    EXPECT_EQ(0u, listSize());
}

// The slot is the provider's: without one the token refuses.
TEST_F(ProviderSecretsTest, aProviderWithoutASlotCannotDerive)
{
    token.clearSlots();
    Provider empty;
    ASSERT_TRUE(empty.init());
    const auto secret = addToList({0x51});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, derive(empty, secret).status);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, empty.FreeSecret(secret));
}

// Every derivation before the release succeeds with the right key, every later one is refused.
TEST_F(ProviderSecretsTest, derivingWhileAnotherThreadFrees)
{
    loggerSettings().types = 0;
    const Bytes expected = digestOf(CKM_SHA256, Bytes(64, 0x51));
    int wrongKeys = 0;
    int wrongStatus = 0;
    for (int round = 0; round < 40; ++round) {
        const auto secret = addToList(Bytes(64, 0x51));
        std::atomic<bool> started = false;
        std::jthread freeing([&] {
            while (!started)
                std::this_thread::yield();
            providers[1]->FreeSecret(secret);
        });
        SECURITY_STATUS status = ERROR_SUCCESS;
        while (status == ERROR_SUCCESS) {
            const Result result = derive(*providers[0], secret);
            status = result.status;
            wrongKeys += status == ERROR_SUCCESS && result.key != expected ? 1 : 0;
            started = true;
        }
        wrongStatus += status != NTE_INVALID_HANDLE ? 1 : 0;
    }
    EXPECT_EQ(0, wrongKeys);
    EXPECT_EQ(0, wrongStatus);
    EXPECT_EQ(0u, listSize());
}

TEST_F(ProviderSecretsTest, twoProvidersDeriveAtOnceWithoutMeetingOnTheToken)
{
    loggerSettings().types = 0;
    const auto secret = addToList({0x51, 0x52});
    const Bytes expected = digestOf(CKM_SHA256, Bytes{0x51, 0x52});
    std::atomic<int> wrong = 0;
    {
        StartLine start(2);
        std::vector<std::jthread> running;
        for (auto& provider : providers) {
            running.emplace_back([&] {
                start.wait();
                for (int i = 0; i < 50; ++i) {
                    const Result result = derive(*provider, secret);
                    wrong += result.status != ERROR_SUCCESS || result.key != expected ? 1 : 0;
                    const Bytes bytes(1, static_cast<unsigned char>(i));
                    const auto own = addToList(bytes);
                    wrong += derive(*provider, own).key != digestOf(CKM_SHA256, bytes) ? 1 : 0;
                    provider->FreeSecret(own);
                }
            });
        }
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0u, token.sequenceViolations());
    EXPECT_EQ(0u, token.overlappingCalls());
    providers[0]->FreeSecret(secret);
    EXPECT_EQ(0u, listSize());
}

}  // namespace

}  // namespace NV::test
