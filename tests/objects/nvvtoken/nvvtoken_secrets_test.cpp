// Derivation from agreed secrets by several providers in one process, on several threads.

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "config/config.h"
#include "nvvtoken/nvvtoken.h"
#include "profile.h"
#include "secret_fixture.h"
#include "start_line.h"

namespace NV::test {

namespace {

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
    token.clearCalls();
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, derive(empty, secret).status);
    const std::vector<std::string> calls = token.calls();
    EXPECT_TRUE(std::ranges::any_of(
        calls, [](const std::string& line) { return line.starts_with("C_OpenSession(slot=0, "); }));
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, empty.FreeSecret(secret));
}

// The line of the buffer's type comes first.
TEST_F(ProviderSecretsTest, aBufferWithALengthAndNoBytesIsToldByItsType)
{
    const struct {
        ULONG type;
        const char* line;
    } rows[] = {
        {KDF_SECRET_PREPEND, "Using secret prepend item (KDF_SECRET_PREPEND).."},
        {KDF_SECRET_APPEND, "Using secret append item (KDF_SECRET_APPEND).."},
        {KDF_HMAC_KEY, "KDF_HMAC_KEY is only expected for HMAC based KDF (BCRYPT_KDF_HMAC)!!"},
        {0x7391, "Unknown NCryptBufferType encountered!!"},
    };
    const auto secret = addToList({0x51});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        BCryptBuffer buffer{16, row.type, nullptr};
        NCryptBufferDesc list{0, 1, &buffer};
        DWORD length = 0;
        log.takeLines();
        EXPECT_EQ(SECURITY_STATUS{NTE_INVALID_PARAMETER},
                  providers[0]->DeriveKey(secret, BCRYPT_KDF_HASH, &list, nullptr, 0, &length, 0));
        const std::string lines = render(log.takeLines());
        EXPECT_NE(std::string::npos, lines.find(row.line)) << lines;
    }
    providers[0]->FreeSecret(secret);
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
