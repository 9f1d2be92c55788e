// A token that claims more than it has: counts and lengths are bounded before memory is taken, so that
// the process stays below 200 MB, and what is over the bound counts as a call that failed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include "log_off.h"
#include "memory_event.h"
#include "nvvtoken/nvvtoken_parameters.h"
#include "provider_world.h"

namespace NV::test {

namespace {

constexpr size_t mega = size_t{1} << 20;
constexpr size_t mostMemory = 200 * mega;
// What the machine gives before the test refuses more.
constexpr size_t givenMemory = 256 * mega;

constexpr uint32_t absurd = 0xFFFFFFF0;
constexpr uint32_t mostEntries = 65536;     // slots, mechanisms, objects
constexpr uint32_t longestValue = 1 << 20;  // bytes of an attribute

struct Claim {
    const char* name;
    const char* function;
    uint32_t nth;
    uint32_t value;
};

struct OpeningClaim : Claim {
    SECURITY_STATUS status;
    const char* keys;  // the names of EnumKeys, each with a blank behind it
};

void PrintTo(const OpeningClaim& claim, std::ostream* out)
{
    *out << claim.name;
}

// The first call of each pair asks for the count or the length. Attributes: the first and second call
// read the first certificate, the third and fourth its name.
constexpr OpeningClaim openingClaims[] = {
    {{"slots", "C_GetSlotList", 1, absurd}, NTE_INTERNAL_ERROR, ""},
    {{"one_slot_too_many", "C_GetSlotList", 1, mostEntries + 1}, NTE_INTERNAL_ERROR, ""},
    {{"most_slots", "C_GetSlotList", 1, mostEntries}, ERROR_SUCCESS, "01AB 0256 "},
    {{"slots_of_the_second_call", "C_GetSlotList", 2, absurd}, ERROR_SUCCESS, "01AB 0256 "},
    {{"mechanisms", "C_GetMechanismList", 1, absurd}, ERROR_SUCCESS, "01AB 0256 "},
    {{"one_mechanism_too_many", "C_GetMechanismList", 1, mostEntries + 1},
     ERROR_SUCCESS,
     "01AB 0256 "},
    {{"most_mechanisms", "C_GetMechanismList", 1, mostEntries}, ERROR_SUCCESS, "01AB 0256 "},
    {{"objects", "C_FindObjects", 1, absurd}, ERROR_SUCCESS, ""},
    {{"one_object_too_many", "C_FindObjects", 1, mostEntries + 1}, ERROR_SUCCESS, ""},
    {{"most_objects", "C_FindObjects", 1, mostEntries}, ERROR_SUCCESS, "01AB 0256 "},
    {{"certificate", "C_GetAttributeValue", 1, absurd}, ERROR_SUCCESS, "0256 "},
    {{"certificate_one_byte_too_long", "C_GetAttributeValue", 1, longestValue + 1},
     ERROR_SUCCESS,
     "0256 "},
    {{"longest_certificate", "C_GetAttributeValue", 1, longestValue}, ERROR_SUCCESS, "01AB 0256 "},
    {{"certificate_of_the_second_call", "C_GetAttributeValue", 2, absurd},
     ERROR_SUCCESS,
     "01AB 0256 "},
    {{"name", "C_GetAttributeValue", 3, absurd}, ERROR_SUCCESS, " 0256 "},
    {{"name_one_byte_too_long", "C_GetAttributeValue", 3, longestValue + 1},
     ERROR_SUCCESS,
     " 0256 "},
    {{"longest_name", "C_GetAttributeValue", 3, longestValue}, ERROR_SUCCESS, "01AB 0256 "},
};

struct OperationClaim : Claim {
    SECURITY_STATUS status;
};

void PrintTo(const OperationClaim& claim, std::ostream* out)
{
    *out << claim.name;
}

// Agreement reads the secret with the first two calls.
constexpr OperationClaim agreementClaims[] = {
    {{"secret", "C_GetAttributeValue", 1, absurd}, NTE_INTERNAL_ERROR},
    {{"secret_one_byte_too_long", "C_GetAttributeValue", 1, longestValue + 1}, NTE_INTERNAL_ERROR},
    {{"longest_secret", "C_GetAttributeValue", 1, longestValue}, ERROR_SUCCESS},
    {{"secret_of_the_second_call", "C_GetAttributeValue", 2, absurd}, ERROR_SUCCESS},
    {{"keys", "C_FindObjects", 1, absurd}, NTE_INTERNAL_ERROR},
    {{"one_key_too_many", "C_FindObjects", 1, mostEntries + 1}, NTE_INTERNAL_ERROR},
    {{"most_keys", "C_FindObjects", 1, mostEntries}, ERROR_SUCCESS},
};

// Lengths of what goes straight into the caller's buffer.
constexpr OperationClaim signatureClaims[] = {
    {{"signature", "C_Sign", 1, absurd}, ERROR_SUCCESS},
    {{"keys", "C_FindObjects", 1, absurd}, NTE_INTERNAL_ERROR},
};

std::string enumerate(Provider& provider)
{
    std::string names;
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
    while (provider.EnumKeys(nullptr, &record, &state, 0) == ERROR_SUCCESS) {
        const std::wstring name = record->pszName;
        names.append(name.begin(), name.end());
        names += ' ';
        std::free(record->pszName);
        std::free(record->pszAlgid);
        std::free(record);
    }
    std::free(state);
    return names;
}

class TokenLimitsTest : public testing::Test {
protected:
    // Runs the work on a token with the claim. A block that is refused shows as an exception.
    void withClaim(const Claim& claim, const std::function<void()>& work)
    {
        world.token.claim(claim.function, claim.value, claim.nth);
        withinMemory(work);
        EXPECT_EQ("", world.leftOnToken());
        world.recover();
    }

    static void withinMemory(const std::function<void()>& work)
    {
        const MemoryLimit limit(givenMemory);
        EXPECT_NO_THROW(work());
        EXPECT_GT(mostMemory, MemoryLimit::mostAsked());
    }

    // Whether opening succeeds, and the keys.
    void open(SECURITY_STATUS status, const std::string& keys)
    {
        const auto provider = std::make_unique<Provider>();
        EXPECT_EQ(status == ERROR_SUCCESS, provider->init());
        EXPECT_EQ(keys, enumerate(*provider));
    }

    LogOff logOff;
    ProviderWorld world;
};

class OpeningLimitsTest : public TokenLimitsTest,
                          public testing::WithParamInterface<OpeningClaim> {};
class AgreementLimitsTest : public TokenLimitsTest,
                            public testing::WithParamInterface<OperationClaim> {};
class SignatureLimitsTest : public TokenLimitsTest,
                            public testing::WithParamInterface<OperationClaim> {};

constexpr auto nameOfClaim = [](const auto& claim) { return claim.param.name; };

}  // namespace

// Otherwise the other tests could not fail.
TEST(MemoryLimitTest, seesAndRefusesWhatIsTooMuch)
{
    const MemoryLimit limit(mega);
    EXPECT_NO_THROW(delete[] new char[mega / 2]);
    EXPECT_LE(mega / 2, MemoryLimit::mostAsked());
    EXPECT_GT(mega, MemoryLimit::mostAsked());
    EXPECT_THROW(std::vector<char>(2 * mega), std::bad_alloc);
    EXPECT_LE(2 * mega, MemoryLimit::mostAsked());
    const std::unique_ptr<void, decltype(&std::free)> refused(std::malloc(3 * mega), &std::free);
    EXPECT_EQ(nullptr, refused);
    EXPECT_LE(3 * mega, MemoryLimit::mostAsked());
}

TEST_P(OpeningLimitsTest, opensWithWhatIsBelievable)
{
    withClaim(GetParam(), [&] { open(GetParam().status, GetParam().keys); });
    open(ERROR_SUCCESS, "01AB 0256 ");
}

TEST_P(AgreementLimitsTest, agreesOnWhatIsBelievable)
{
    world.open();
    world.prepare();
    SECURITY_STATUS status = 0;
    withClaim(GetParam(), [&] {
        status = world.provider->SecretAgreement(world.ec, world.peer, &world.out.handle, 0);
    });
    EXPECT_EQ(GetParam().status, status);
    EXPECT_EQ(status == ERROR_SUCCESS, world.out.handle != unwrittenHandle);
    if (world.out.handle != unwrittenHandle)
        world.provider->FreeSecret(world.out.handle);
    EXPECT_EQ(0, world.secretsAdded());
    EXPECT_EQ("", world.nextOperations());
}

TEST_P(SignatureLimitsTest, signsIntoTheBufferThatIsThere)
{
    world.open();
    world.prepare();
    SECURITY_STATUS status = 0;
    withClaim(GetParam(), [&] {
        status = world.provider->SignHash(world.ec, nullptr, world.hash.data(), 32,
                                          world.out.buffer.data(), ProviderWorld::room,
                                          &world.out.length, 0);
    });
    EXPECT_EQ(GetParam().status, status);
    const bool done = status == ERROR_SUCCESS;
    EXPECT_TRUE(world.out.buffer.holdsExactly(done ? world.ecSignature : Bytes{}));
    EXPECT_EQ(done ? 64 : unwrittenNumber, world.out.length);
    EXPECT_EQ("", world.nextOperations());
}

INSTANTIATE_TEST_SUITE_P(Claims, OpeningLimitsTest, testing::ValuesIn(openingClaims), nameOfClaim);
INSTANTIATE_TEST_SUITE_P(Claims, AgreementLimitsTest, testing::ValuesIn(agreementClaims),
                         nameOfClaim);
INSTANTIATE_TEST_SUITE_P(Claims, SignatureLimitsTest, testing::ValuesIn(signatureClaims),
                         nameOfClaim);

// A caller's length: only what is there may be read, and nothing leaves but a status.
TEST_F(TokenLimitsTest, anAbsurdLengthInABufferListIsRefused)
{
    world.open();
    wchar_t bytes[512] = L"SHA256";
    for (const uint32_t type :
         {bufferTypeHashAlgorithm, bufferTypePrepend, bufferTypeAppend, bufferTypeHmacKey}) {
        SCOPED_TRACE(type);
        world.prepare();
        BCryptBuffer buffers[] = {{14, KDF_HASH_ALGORITHM, bytes}, {absurd, type, bytes}};
        NCryptBufferDesc list{0, 2, buffers};
        SECURITY_STATUS status = 0;
        const MemoryLimit limit(givenMemory);
        EXPECT_NO_THROW(status = world.provider->DeriveKey(
                            world.secret, BCRYPT_KDF_HMAC, &list, world.out.buffer.data(),
                            ProviderWorld::room, &world.out.length, 0));
        // The name may have ended where its terminator is.
        EXPECT_TRUE(status != ERROR_SUCCESS || type == bufferTypeHashAlgorithm);
        EXPECT_EQ("", world.leftOnToken());
    }
    EXPECT_EQ("", world.nextOperations());
}

// Each is within its bound, all of them together are not.
TEST_F(TokenLimitsTest, manyLongCertificatesTogether)
{
    constexpr size_t certificates = 1000;
    for (size_t i = 0; i < certificates; ++i)
        world.token.addCertificate(
            Bytes{0x77, static_cast<CK_BYTE>(i >> 8), static_cast<CK_BYTE>(i)}, Bytes{0x30, 0x00});
    world.prepare();
    world.token.claim("C_GetAttributeValue", longestValue);
    withinMemory([&] {
        const auto provider = std::make_unique<Provider>();
        provider->init();
    });
    EXPECT_EQ("", world.leftOnToken());
    world.recover();
}

// Every list and length that opening asks for is absurd at once.
TEST_F(TokenLimitsTest, everythingIsAbsurd)
{
    for (const char* function :
         {"C_GetSlotList", "C_GetMechanismList", "C_FindObjects", "C_GetAttributeValue"})
        world.token.claim(function, absurd);
    withinMemory([&] { open(NTE_INTERNAL_ERROR, ""); });
    EXPECT_EQ("", world.leftOnToken());
    world.recover();
    open(ERROR_SUCCESS, "01AB 0256 ");
}

}  // namespace NV::test
