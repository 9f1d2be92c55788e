// Eight threads at once use the module and its objects, with SoftHSM2: every result is equal to
// OpenSSL's, or OpenSSL verifies it.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "ecdsa_der.h"
#include "host.h"
#include "logger/logger.h"
#include "thread_scenarios.h"
#include "together.h"
#include "token_test.h"

namespace NV::test {

namespace {

std::string bridge()
{
    const std::u8string path = host::winelibPath("p11bridge.dll").u8string();
    return {path.begin(), path.end()};
}

Bytes joined(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// OpenSSL's results for inputs that no other thread has.
KnownResults knownToOpenSsl(const OpenSsl& openSsl, unsigned thread, const Bytes& secret)
{
    KnownResults known;
    known.hash = arbitraryBytes(32, thread);
    known.rsaSignature = openSsl.sign(rsa2048, known.hash, "-pkeyopt rsa_padding_mode:pkcs1");
    known.ecSignature = rawFromDer(openSsl.sign(p256, known.hash), p256.bytes());
    known.plain = arbitraryBytes(256, thread);
    known.plain.front() &= 0x3F;  // as a number it must be less than the modulus
    known.cipher = openSsl.encrypt(rsa2048, known.plain, "-pkeyopt rsa_padding_mode:none");
    known.prepend = arbitraryBytes(7, thread);
    known.digest = openSsl.digest(sha256, joined(known.prepend, secret));
    known.hmacKey = arbitraryBytes(40, thread);
    known.hmac = openSsl.hmac(sha256, known.hmacKey, joined(known.prepend, secret));
    return known;
}

// Without a log, so that threads compete for the module and the token, not for the log file.
class QuietToken {
public:
    QuietToken()
    {
        profile_.profile().writeConfig("logRotate=7\nlogTypes=FILE\nlogStore=\np11File=" +
                                       narrowPath(host::winelibPath("p11bridge.dll")) + "\n");
        module_ = std::make_unique<ProviderModule>();
        const Bytes peer = openSsl_.makePeer("P-256");
        facts_ = {.rsaKey = rsa2048.name,
                  .ecKey = p256.name,
                  .spareKey = rsaKeys[1].name,
                  .names = {L"01AB", L"0256", L"0384", L"03A1", L"04C2", L"0521"},
                  .pin = tokenPin,
                  // SubjectPublicKeyInfo ends in the coordinates of the point.
                  .peer = Bytes(peer.end() - 64, peer.end()),
                  .secret = openSsl_.agreedWithPeer(p256)};
        for (unsigned thread = 1; thread <= threadCount; ++thread)
            known_.push_back(knownToOpenSsl(openSsl_, thread, facts_.secret));
    }

    ThreadedToken threaded() const { return {*module_, facts_, known_}; }
    const TokenFacts& facts() const { return facts_; }
    const std::vector<KnownResults>& known() const { return known_; }
    const OpenSsl& openSsl() const { return openSsl_; }

private:
    TokenProfile profile_;
    OpenSsl openSsl_{tokenFolder()};
    std::unique_ptr<ProviderModule> module_;
    TokenFacts facts_;
    std::vector<KnownResults> known_;
};

class TokenThreads : public testing::Test {
public:
    static void SetUpTestSuite() { token_ = std::make_unique<QuietToken>(); }
    static void TearDownTestSuite() { token_.reset(); }

protected:
    static const QuietToken& token() { return *token_; }

private:
    static inline std::unique_ptr<QuietToken> token_;
};

}  // namespace

TEST_F(TokenThreads, mixedWorkOnTwoProviders)
{
    EXPECT_EQ(workOnTwoProviders(token().threaded(), rounds(210)), "");
}

TEST_F(TokenThreads, dialogsOnTwoProvidersBesideOtherWork)
{
    EXPECT_EQ(workWithDialogs(token().threaded(), rounds(1)), "");
}

TEST_F(TokenThreads, providersComeAndGoWhileOthersWork)
{
    EXPECT_EQ(openAndFreeProviders(token().threaded(), rounds(1)), "");
}

TEST_F(TokenThreads, aProviderIsFreedInTheMiddleOfItsWork)
{
    EXPECT_EQ(freeAProviderInUse(token().threaded(), rounds(3)), "");
}

TEST_F(TokenThreads, freeingDoesNotWaitForTheDialogOfAnotherThread)
{
    EXPECT_EQ(freeUnderAnOpenDialog(token().threaded()), "");
}

TEST_F(TokenThreads, workWithPinOnTwoSetsOfObjects)
{
    EXPECT_EQ(workWithPins(bridge(), token().facts(), token().known(), rounds(10)), "");
}

// ECDSA signatures differ each time, so OpenSSL verifies those of each thread.
TEST_F(TokenThreads, openSslVerifiesTheSignaturesOfThreads)
{
    loggerSettings().types = 0;
    std::array<PinWork, 2> works{PinWork(bridge(), token().facts()),
                                 PinWork(bridge(), token().facts())};
    std::array<Bytes, threadCount> signatures;
    EXPECT_EQ(runTogether(threadCount,
                          [&](int number, Complaints&) {
                              const auto thread = static_cast<size_t>(number);
                              signatures[thread] =
                                  works[thread % 2].ecSignature(token().known()[thread]);
                          }),
              "");
    for (size_t thread = 0; thread < signatures.size(); ++thread) {
        const Bytes& hash = token().known()[thread].hash;
        ASSERT_EQ(signatures[thread].size(), 2 * p256.bytes()) << thread;
        EXPECT_TRUE(token().openSsl().verifies(p256, hash, derFromRaw(signatures[thread])));
        EXPECT_FALSE(
            token().openSsl().verifies(p256, changed(hash), derFromRaw(signatures[thread])));
    }
}

}  // namespace NV::test
