// Key derivation through the table: every argument and every kind of buffer, in the order in which
// they are looked at.

#include <cwchar>

#include "secrets_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

// A parameter list whose buffers end where readable memory ends.
class Parameters {
public:
    Parameters& hash(std::wstring_view name, bool terminated = true)
    {
        const auto* begin = reinterpret_cast<const unsigned char*>(name.data());
        Bytes bytes(begin, begin + name.size() * sizeof(wchar_t));
        if (terminated)
            bytes.insert(bytes.end(), sizeof(wchar_t), 0);
        return add(KDF_HASH_ALGORITHM, bytes);
    }
    Parameters& add(ULONG type, const Bytes& bytes)
    {
        values_.push_back(std::make_unique<GuardedBytes>(bytes));
        return addPointer(type, values_.back()->data(), values_.back()->size());
    }
    Parameters& addPointer(ULONG type, void* data, ULONG size)
    {
        buffers_.push_back({size, type, data});
        return *this;
    }

    NCryptBufferDesc* list()
    {
        list_ = {0, static_cast<ULONG>(buffers_.size()), buffers_.data()};
        return &list_;
    }

private:
    std::vector<std::unique_ptr<GuardedBytes>> values_;
    std::vector<BCryptBuffer> buffers_;
    NCryptBufferDesc list_{};
};

Parameters sha256()
{
    Parameters parameters;
    parameters.hash(L"SHA256");
    return parameters;
}

class DeriveKeyTest : public SecretsTest {
protected:
    DeriveKeyTest() : secret(sharedSecret()) { forget(); }

    struct Result {
        SECURITY_STATUS status = 0;
        DWORD length = untouched;
        Bytes output = Bytes(64, 0xEE);
    };

    Result derive(const wchar_t* kdf, NCryptBufferDesc* list, ULONG flags = 0)
    {
        Result result;
        result.status =
            module()->DeriveKey(provider(), secret, kdf, list, result.output.data(),
                                static_cast<DWORD>(result.output.size()), &result.length, flags);
        return result;
    }

    void expectKey(const Bytes& expected, const Result& result)
    {
        EXPECT_EQ(success, result.status);
        EXPECT_EQ(expected.size(), result.length);
        Bytes whole(result.output.size(), 0xEE);
        std::ranges::copy(expected, whole.begin());
        EXPECT_EQ(hexEncode(whole), hexEncode(result.output));
    }

    // Refused with this status before the token was asked.
    void expectRefused(SECURITY_STATUS status, const Result& result)
    {
        EXPECT_EQ(status, result.status);
        EXPECT_EQ(untouched, result.length);
        EXPECT_EQ(Bytes(64, 0xEE), result.output);
        EXPECT_TRUE(token().calls().empty());
    }

    Parameters good = sha256();
    NCRYPT_SECRET_HANDLE secret;
};

constexpr const char* hashKdf = "DBG Using the HASH based KDF (BCRYPT_KDF_HASH)\n";
constexpr const char* hmacKdf = "DBG Using the HMAC based KDF (BCRYPT_KDF_HMAC)\n";
constexpr const char* sha256Line =
    "DBG Using KDF Hash Algorithm (KDF_HASH_ALGORITHM) as [SHA256]\n";
constexpr const char* prependLine = "DBG Using secret prepend item (KDF_SECRET_PREPEND)..\n";
constexpr const char* appendLine = "DBG Using secret append item (KDF_SECRET_APPEND)..\n";

}  // namespace

TEST_F(DeriveKeyTest, NullArgumentsAreInvalid)
{
    BYTE output[64] = {};
    DWORD length = untouched;
    const auto expectInvalid = [&](NCRYPT_SECRET_HANDLE handle, const wchar_t* kdf,
                                   NCryptBufferDesc* list, DWORD room, DWORD* result,
                                   ULONG flags = 0) {
        EXPECT_EQ(NTE_INVALID_PARAMETER,
                  module()->DeriveKey(provider(), handle, kdf, list, output, room, result, flags));
    };
    expectInvalid(0, BCRYPT_KDF_HASH, good.list(), 64, &length);
    expectInvalid(secret, nullptr, good.list(), 64, &length);
    expectInvalid(secret, BCRYPT_KDF_HASH, good.list(), 64, nullptr);
    expectInvalid(secret, BCRYPT_KDF_HASH, good.list(), 0, &length);
    // Before everything else is looked at.
    expectInvalid(0, BCRYPT_KDF_TLS_PRF, nullptr, 64, &length, KDF_USE_SECRET_AS_HMAC_KEY_FLAG);
    EXPECT_EQ("", said("DeriveKey"));
    EXPECT_EQ(untouched, length);
    EXPECT_TRUE(token().calls().empty());
}

TEST_F(DeriveKeyTest, SaysItsArguments)
{
    derive(BCRYPT_KDF_HASH, good.list());
    expectTrace(ofFunction(takeLines(), "NV::Provider::DeriveKey"),
                "dll/secrets/derive_key/says_its_arguments");
}

TEST_F(DeriveKeyTest, ADigestIntoALargerBuffer)
{
    expectKey(digestOf(CKM_SHA256, agreedBytes()), derive(BCRYPT_KDF_HASH, good.list()));
    EXPECT_TRUE(token().calls("C_Login").empty());
}

TEST_F(DeriveKeyTest, TheSecretServesAnyNumberOfTimes)
{
    for (int i = 0; i < 5; ++i) {
        Parameters parameters = sha256();
        expectKey(digestOf(CKM_SHA256, agreedBytes()), derive(BCRYPT_KDF_HASH, parameters.list()));
    }
}

TEST_F(DeriveKeyTest, AllFourHashes)
{
    for (const auto& [name, mechanism] :
         {std::pair<const wchar_t*, CK_MECHANISM_TYPE>{L"SHA1", CKM_SHA_1},
          {L"SHA256", CKM_SHA256},
          {L"SHA384", CKM_SHA384},
          {L"SHA512", CKM_SHA512}}) {
        Parameters parameters;
        parameters.hash(name);
        expectKey(digestOf(mechanism, agreedBytes()), derive(BCRYPT_KDF_HASH, parameters.list()));
        expectKey(hmacOf(mechanism + 1, Bytes{}, agreedBytes()),
                  derive(BCRYPT_KDF_HMAC, parameters.list()));
    }
}

TEST_F(DeriveKeyTest, WithoutAListThereIsNoHash)
{
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, nullptr));
    const std::string text = said("DeriveKey");
    EXPECT_TRUE(
        text.starts_with(std::string("WRN pParameterList(optional) field is NULL!!\n") + hashKdf))
        << text;
}

TEST_F(DeriveKeyTest, AnEmptyListHasNoHash)
{
    Parameters parameters;
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, parameters.list()));
    EXPECT_EQ(std::string::npos, said("DeriveKey").find("WRN"));
}

TEST_F(DeriveKeyTest, AListWithoutBuffersIsInvalid)
{
    NCryptBufferDesc list{0, 1, nullptr};
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, &list));
    NCryptBufferDesc none{0, 0, nullptr};
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, &none));
}

TEST_F(DeriveKeyTest, TlsPrfIsNotSupportedWithAnyList)
{
    Parameters empty;
    Parameters unknown;
    unknown.add(0x7391, {1, 2});
    Parameters unreadable;
    unreadable.addPointer(KDF_SECRET_PREPEND, nullptr, 5);
    for (NCryptBufferDesc* list : {static_cast<NCryptBufferDesc*>(nullptr), empty.list(),
                                   good.list(), unknown.list(), unreadable.list()}) {
        forget();
        expectRefused(NTE_NOT_SUPPORTED, derive(BCRYPT_KDF_TLS_PRF, list));
        const std::string warning =
            list == nullptr ? "WRN pParameterList(optional) field is NULL!!\n" : "";
        EXPECT_EQ(warning + "ERR Using the TLS-PRF based KDF (BCRYPT_KDF_TLS_PRF) not supported\n",
                  said("DeriveKey"));
    }
}

TEST_F(DeriveKeyTest, OtherFunctionsAreUnknown)
{
    for (const wchar_t* kdf :
         {L"", L"hash", L"HASH ", L"HMAC2", L"SP800_56A_CONCAT", L"TRUNCATE"}) {
        Parameters parameters = sha256();
        expectRefused(NTE_INVALID_PARAMETER, derive(kdf, parameters.list()));
        EXPECT_EQ("ERR Unknown key derivation function (KDF) identifier!!\n", said("DeriveKey"));
    }
}

TEST_F(DeriveKeyTest, OtherHashNamesAreRefused)
{
    for (const wchar_t* name :
         {L"", L"sha256", L"SHA224", L"SHA25", L"SHA2560", L"SHA-256", L"MD5"}) {
        Parameters parameters;
        parameters.hash(name);
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HMAC, parameters.list()));
    }
}

TEST_F(DeriveKeyTest, AHashNameMayLackItsTerminator)
{
    Parameters parameters;
    parameters.hash(L"SHA512", false);
    expectKey(digestOf(CKM_SHA512, agreedBytes()), derive(BCRYPT_KDF_HASH, parameters.list()));
}

// Half a character is none; what follows a terminator is not part of the name.
TEST_F(DeriveKeyTest, AHashNameOfOddSize)
{
    Parameters longer;
    longer.add(KDF_HASH_ALGORITHM, {'S', 0, 'H', 0, 'A', 0, '1', 0, 'x'});
    expectKey(digestOf(CKM_SHA_1, agreedBytes()), derive(BCRYPT_KDF_HASH, longer.list()));
    Parameters half;
    half.add(KDF_HASH_ALGORITHM, {'S'});
    forget();
    expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, half.list()));
    Parameters behind;
    behind.hash(std::wstring_view(L"SHA1\0junk", 9));
    expectKey(digestOf(CKM_SHA_1, agreedBytes()), derive(BCRYPT_KDF_HASH, behind.list()));
}

TEST_F(DeriveKeyTest, TheLastOfSeveralHashNamesHolds)
{
    Parameters parameters;
    parameters.hash(L"SHA1").hash(L"SHA384");
    expectKey(digestOf(CKM_SHA384, agreedBytes()), derive(BCRYPT_KDF_HASH, parameters.list()));
}

TEST_F(DeriveKeyTest, ItemsOfOneKindFollowEachOther)
{
    good.add(KDF_SECRET_APPEND, {0xF1})
        .add(KDF_SECRET_PREPEND, {0x01, 0x02})
        .add(KDF_SECRET_APPEND, {0xF2, 0xF3})
        .add(KDF_SECRET_PREPEND, {0x03});
    expectKey(digestOf(CKM_SHA256, joinedBytes({{1, 2, 3}, agreedBytes(), {0xF1, 0xF2, 0xF3}})),
              derive(BCRYPT_KDF_HASH, good.list()));
    EXPECT_EQ(std::string(hashKdf) + sha256Line + appendLine + prependLine + appendLine +
                  prependLine,
              said("DeriveKey"));
}

TEST_F(DeriveKeyTest, EmptyBuffersAddNothing)
{
    for (const ULONG type : {ULONG{KDF_SECRET_PREPEND}, ULONG{KDF_SECRET_APPEND},
                             ULONG{KDF_HMAC_KEY}, ULONG{KDF_HASH_ALGORITHM}}) {
        BYTE somewhere = 0x77;
        Parameters parameters = sha256();
        parameters.addPointer(type, nullptr, 0).addPointer(type, &somewhere, 0);
        expectKey(hmacOf(CKM_SHA256_HMAC, Bytes{}, agreedBytes()),
                  derive(BCRYPT_KDF_HMAC, parameters.list()));
    }
}

TEST_F(DeriveKeyTest, ANullBufferWithALengthIsInvalid)
{
    for (const ULONG type : {0u, 1u, 2u, 3u, 4u}) {
        Parameters parameters = sha256();
        parameters.addPointer(type, nullptr, 1);
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HMAC, parameters.list()));
    }
}

TEST_F(DeriveKeyTest, ANullBufferWithALengthIsReportedByItsType)
{
    const std::pair<ULONG, std::string> lines[] = {
        {KDF_HASH_ALGORITHM, "DBG Using KDF Hash Algorithm (KDF_HASH_ALGORITHM) as []\n"},
        {KDF_SECRET_PREPEND, prependLine},
        {KDF_SECRET_APPEND, appendLine},
        {KDF_HMAC_KEY,
         "ERR KDF_HMAC_KEY is only expected for HMAC based KDF (BCRYPT_KDF_HMAC)!!\n"},
        {0x7391, "DBG Unknown NCryptBufferType encountered!!\n"}};
    for (const auto& [type, line] : lines) {
        forget();
        Parameters parameters = sha256();
        parameters.addPointer(type, nullptr, 1);
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, parameters.list()));
        EXPECT_EQ(std::string(hashKdf) + sha256Line + line, said("DeriveKey"));
    }
}

TEST_F(DeriveKeyTest, AHashNameOfAnAbsurdLengthTakesNoMemoryForIt)
{
    std::wstring name = L"SHA256";
    Parameters parameters;
    parameters.addPointer(KDF_HASH_ALGORITHM, name.data(), 0xFFFFFFFE);
    EXPECT_EQ(success, derive(BCRYPT_KDF_HASH, parameters.list()).status);
}

TEST_F(DeriveKeyTest, OtherTypesAreUnknown)
{
    for (const ULONG type : std::initializer_list<ULONG>{4, 5, 6, 7, 0x10, 0x7391, 0xFFFFFFFF}) {
        Parameters parameters = sha256();
        parameters.add(type, {1, 2}).add(KDF_SECRET_APPEND, {1});
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, parameters.list()));
        EXPECT_EQ(std::string(hashKdf) + sha256Line +
                      "DBG Unknown NCryptBufferType encountered!!\n",
                  said("DeriveKey"));
        Parameters empty = sha256();
        empty.addPointer(type, nullptr, 0);
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, empty.list()));
        forget();
    }
}

TEST_F(DeriveKeyTest, AnHmacKeyIsOnlyForHmac)
{
    for (const Bytes& key : {Bytes{0xA1}, Bytes{}}) {
        Parameters parameters = sha256();
        parameters.add(KDF_HMAC_KEY, key);
        expectRefused(NTE_INVALID_PARAMETER, derive(BCRYPT_KDF_HASH, parameters.list()));
        EXPECT_EQ(std::string(hashKdf) + sha256Line +
                      "ERR KDF_HMAC_KEY is only expected for HMAC based KDF (BCRYPT_KDF_HMAC)!!\n",
                  said("DeriveKey"));
    }
}

TEST_F(DeriveKeyTest, AnHmacWithAKey)
{
    good.add(KDF_HMAC_KEY, {0xA1, 0xA2, 0xA3}).add(KDF_SECRET_PREPEND, {0x01});
    expectKey(
        hmacOf(CKM_SHA256_HMAC, Bytes{0xA1, 0xA2, 0xA3}, joinedBytes({{0x01}, agreedBytes()})),
        derive(BCRYPT_KDF_HMAC, good.list()));
    EXPECT_EQ(std::string(hmacKdf) + sha256Line + prependLine, said("DeriveKey"));
}

TEST_F(DeriveKeyTest, TheLastOfSeveralHmacKeysHolds)
{
    good.add(KDF_HMAC_KEY, {0xA1, 0xA2}).add(KDF_HMAC_KEY, {0xB1});
    expectKey(hmacOf(CKM_SHA256_HMAC, Bytes{0xB1}, agreedBytes()),
              derive(BCRYPT_KDF_HMAC, good.list()));
}

TEST_F(DeriveKeyTest, TheFlagMakesTheSecretTheHmacKeyAndWins)
{
    Parameters without = sha256();
    Parameters with = sha256();
    with.add(KDF_HMAC_KEY, {0xA1, 0xA2});
    for (NCryptBufferDesc* list : {without.list(), with.list()}) {
        forget();
        expectKey(hmacOf(CKM_SHA256_HMAC, agreedBytes(), agreedBytes()),
                  derive(BCRYPT_KDF_HMAC, list, KDF_USE_SECRET_AS_HMAC_KEY_FLAG));
        EXPECT_EQ("DBG KDF_USE_SECRET_AS_HMAC_KEY_FLAG flag is enabled\n" + std::string(hmacKdf) +
                      sha256Line,
                  said("DeriveKey"));
    }
}

TEST_F(DeriveKeyTest, TheFlagChangesNothingOfADigest)
{
    expectKey(digestOf(CKM_SHA256, agreedBytes()),
              derive(BCRYPT_KDF_HASH, good.list(), KDF_USE_SECRET_AS_HMAC_KEY_FLAG));
    EXPECT_TRUE(token().calls("C_CreateObject").empty());
}

TEST_F(DeriveKeyTest, OtherFlagsAreIgnored)
{
    expectKey(digestOf(CKM_SHA256, agreedBytes()),
              derive(BCRYPT_KDF_HASH, good.list(), 0xFFFFFFFE));
    EXPECT_EQ(std::string(hashKdf) + sha256Line, said("DeriveKey"));
}

TEST_F(DeriveKeyTest, ALengthQuery)
{
    for (const DWORD room : {0u, 5u}) {
        Parameters parameters = sha256();
        DWORD length = untouched;
        EXPECT_EQ(success, module()->DeriveKey(provider(), secret, BCRYPT_KDF_HASH,
                                               parameters.list(), nullptr, room, &length, 0));
        EXPECT_EQ(32u, length);
    }
}

TEST_F(DeriveKeyTest, ASmallerBufferIsAnInternalError)
{
    for (const wchar_t* kdf : {BCRYPT_KDF_HASH, BCRYPT_KDF_HMAC}) {
        Bytes output(31, 0xEE);
        const GuardedBytes guarded(output);
        DWORD length = untouched;
        EXPECT_EQ(NTE_INTERNAL_ERROR, module()->DeriveKey(provider(), secret, kdf, good.list(),
                                                          guarded.data(), 31, &length, 0));
        EXPECT_EQ(untouched, length);
        EXPECT_EQ(output, Bytes(guarded.data(), guarded.data() + 31));
    }
}

TEST_F(DeriveKeyTest, AnUnlistedSecretIsAnInvalidHandle)
{
    for (const NCRYPT_SECRET_HANDLE handle : {NCRYPT_SECRET_HANDLE{0x52D7}, secret + 1}) {
        DWORD length = untouched;
        EXPECT_EQ(NTE_INVALID_HANDLE, module()->DeriveKey(provider(), handle, BCRYPT_KDF_HASH,
                                                          good.list(), nullptr, 0, &length, 0));
        EXPECT_EQ(untouched, length);
    }
    EXPECT_TRUE(token().calls().empty());
}

TEST_F(DeriveKeyTest, AnotherProviderDerivesAsWell)
{
    Bytes output(32);
    DWORD length = 0;
    EXPECT_EQ(success, module()->DeriveKey(otherProvider(), secret, BCRYPT_KDF_HASH, good.list(),
                                           output.data(), 32, &length, 0));
    EXPECT_EQ(digestOf(CKM_SHA256, agreedBytes()), output);
}

}  // namespace NV::test
