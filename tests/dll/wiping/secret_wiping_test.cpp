// No copy of an agreed secret, of an HMAC key, of a derivation's input or of a derived key is left
// in what the module owns when the secret has been freed, neither in bytes nor in hexadecimal: not
// even in the texts that the log was given.

#include <utility>
#include <vector>

#include "wiping_fixture.h"

namespace NV::test {

namespace {

constexpr unsigned char secretPattern[] = {0xC3, 0x5A, 0x17, 0xE1, 0x8D, 0x2B, 0x94, 0x6F};
constexpr unsigned char hmacKeyBytes[] = {0xA1, 0xA7, 0xB3, 0xC9, 0x1D, 0x2F, 0x3B, 0x47};
constexpr unsigned char prependBytes[] = {0x11, 0xF7, 0x23, 0xE9, 0x3D, 0xDF, 0x4B, 0xC7};
constexpr unsigned char appendBytes[] = {0x5E, 0x06, 0x88, 0xD9, 0x70, 0x3C, 0xAB, 0x12};

class SecretWiping : public WatchedTest {
protected:
    SecretWiping()
    {
        token().setSecretPattern(bytesOf(secretPattern));
        lookForBytes("secret", secretPattern);
        lookForBytes("HMAC key", hmacKeyBytes);
        lookForBytes("prepended", prependBytes);
        lookForBytes("appended", appendBytes);
    }
    ~SecretWiping() override { token().setSecretPattern(bytesOf(kSecretPattern)); }

    static Bytes bytesOf(std::span<const unsigned char> bytes)
    {
        return {bytes.begin(), bytes.end()};
    }

    NCRYPT_SECRET_HANDLE agree(SECURITY_STATUS expected = ERROR_SUCCESS)
    {
        NCRYPT_SECRET_HANDLE secret = 0;
        const DialogDriver driver(DialogDriver::entering(L"odd-PIN-7391"));
        EXPECT_EQ(expected, table().SecretAgreement(provider(), ecKey(), peer(), &secret, 0));
        return secret;
    }

    // With everything that a list may contain. `copies`: how often it contains the prepended item.
    SECURITY_STATUS derive(NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, ULONG flags = 0,
                           size_t copies = 2, DWORD capacity = 64)
    {
        wchar_t hash[] = L"SHA256";
        Bytes key = bytesOf(hmacKeyBytes);
        Bytes prepend;
        for (size_t i = 0; i < copies; ++i)
            prepend.insert(prepend.end(), std::begin(prependBytes), std::end(prependBytes));
        Bytes append = bytesOf(appendBytes);
        std::vector<BCryptBuffer> buffers = {
            {sizeof hash, KDF_HASH_ALGORITHM, hash},
            {static_cast<ULONG>(prepend.size()), KDF_SECRET_PREPEND, prepend.data()},
            {static_cast<ULONG>(prepend.size()), KDF_SECRET_PREPEND, prepend.data()},
            {static_cast<ULONG>(append.size()), KDF_SECRET_APPEND, append.data()}};
        if (kdf == std::wstring_view(BCRYPT_KDF_HMAC))
            buffers.push_back({static_cast<ULONG>(key.size()), KDF_HMAC_KEY, key.data()});
        NCryptBufferDesc list{0, static_cast<ULONG>(buffers.size()), buffers.data()};
        derived_.assign(64, 0);
        DWORD length = 0;
        const SECURITY_STATUS status = table().DeriveKey(provider(), secret, kdf, &list,
                                                         derived_.data(), capacity, &length, flags);
        derived_.resize(length);
        return status;
    }

    void spoil(const char* function, uint32_t nth, bool throwing)
    {
        throwing ? token().throwFrom(function, nth) : token().fail(function, CKR_DEVICE_ERROR, nth);
    }
    void repair()
    {
        token().clearFaults();
        if (token().initialised())
            token().exports().C_Finalize(nullptr);
    }

    void free(NCRYPT_SECRET_HANDLE secret)
    {
        EXPECT_EQ(ERROR_SUCCESS, table().FreeSecret(provider(), secret));
    }

    Bytes derived_;
};

TEST_F(SecretWiping, IsSeenToLookAtTheSecret)
{
    const auto secret = agree();
    EXPECT_EQ("secret in a block still held\n", memory().found());
    free(secret);
    EXPECT_EQ("", memory().found());
}

TEST_F(SecretWiping, AfterEachDerivation)
{
    const auto secret = agree();
    for (const wchar_t* kdf : {BCRYPT_KDF_HASH, BCRYPT_KDF_HMAC}) {
        for (const ULONG flags : {0ul, ULONG{KDF_USE_SECRET_AS_HMAC_KEY_FLAG}}) {
            EXPECT_EQ(ERROR_SUCCESS, derive(secret, kdf, flags));
            ASSERT_EQ(32u, derived_.size());
            EXPECT_EQ("", memory().foundReleased());
            // Known only now. The caller has the bytes, but the text of them was the module's.
            lookForBytes("derived key", std::span(derived_).first(8));
            EXPECT_EQ("", memory().foundReleased());
        }
    }
    free(secret);
    EXPECT_EQ("", memory().found());
}

TEST_F(SecretWiping, OfADerivedKeyThatIsDerivedAgain)
{
    const auto secret = agree();
    for (const wchar_t* kdf : {BCRYPT_KDF_HASH, BCRYPT_KDF_HMAC}) {
        EXPECT_EQ(ERROR_SUCCESS, derive(secret, kdf));
        lookForBytes("derived key", std::span(derived_).first(8));
        EXPECT_EQ(ERROR_SUCCESS, derive(secret, kdf));
        EXPECT_EQ("", memory().foundReleased());
    }
    free(secret);
    EXPECT_EQ("", memory().found());
}

// The longest text that a record takes, and one that it does not take.
TEST_F(SecretWiping, OfTextsThatFillTheLogsBuffer)
{
    const auto secret = agree();
    for (const size_t copies : {size_t{2000}, size_t{4000}}) {
        EXPECT_EQ(ERROR_SUCCESS, derive(secret, BCRYPT_KDF_HASH, 0, copies));
        EXPECT_EQ("", memory().foundReleased()) << copies;
    }
    free(secret);
    EXPECT_EQ("", memory().found());
}

TEST_F(SecretWiping, AfterRefusedArguments)
{
    const auto secret = agree();
    EXPECT_EQ(NTE_INVALID_PARAMETER, derive(secret, L"ODD"));
    EXPECT_EQ(NTE_NOT_SUPPORTED, derive(secret, BCRYPT_KDF_TLS_PRF));
    EXPECT_EQ(NTE_INVALID_HANDLE, derive(secret + 0x7391, BCRYPT_KDF_HMAC));
    EXPECT_EQ(NTE_INTERNAL_ERROR, derive(secret, BCRYPT_KDF_HMAC, 0, 2, 7));
    EXPECT_EQ("", memory().foundReleased());
    free(secret);
    EXPECT_EQ("", memory().found());
}

TEST_F(SecretWiping, AfterEveryFailureOfAnAgreement)
{
    // The value is asked for twice, everything else once.
    const std::pair<const char*, uint32_t> faults[] = {
        {"C_DeriveKey", 1}, {"C_GetAttributeValue", 1}, {"C_GetAttributeValue", 2},
        {"C_Logout", 1},    {"C_CloseSession", 1},      {"C_Finalize", 1}};
    for (const auto& [function, nth] : faults) {
        for (const bool throwing : {false, true}) {
            spoil(function, nth, throwing);
            agree(NTE_INTERNAL_ERROR);
            repair();
            EXPECT_EQ("", memory().found()) << function << nth << throwing;
        }
    }
}

TEST_F(SecretWiping, AfterEveryFailureOfADerivation)
{
    const auto secret = agree();
    const std::pair<const char*, const wchar_t*> faults[] = {
        {"C_Initialize", BCRYPT_KDF_HASH},   {"C_OpenSession", BCRYPT_KDF_HMAC},
        {"C_CreateObject", BCRYPT_KDF_HMAC}, {"C_SignInit", BCRYPT_KDF_HMAC},
        {"C_Sign", BCRYPT_KDF_HMAC},         {"C_DigestInit", BCRYPT_KDF_HASH},
        {"C_Digest", BCRYPT_KDF_HASH},       {"C_CloseSession", BCRYPT_KDF_HMAC},
        {"C_Finalize", BCRYPT_KDF_HASH}};
    for (const auto& [function, kdf] : faults) {
        for (const bool throwing : {false, true}) {
            spoil(function, 1, throwing);
            EXPECT_EQ(NTE_INTERNAL_ERROR, derive(secret, kdf)) << function << throwing;
            repair();
            EXPECT_EQ("", memory().foundReleased()) << function << throwing;
        }
    }
    free(secret);
    EXPECT_EQ("", memory().found());
}

}  // namespace

}  // namespace NV::test
