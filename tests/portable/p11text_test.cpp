// PKCS#11 values and structures as text. The names are compared with the PKCS#11 header of p11-kit,
// which was written by others; what it lacks is listed here.

#include "p11/p11text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "p11kit_constants.h"

namespace NV {

namespace {

using Names = std::map<uint32_t, std::string>;

// The blocks of numbers that the standard has given out so far, with room; array attributes; and
// the vendors' part, sampled where names could hide behind a lost bit.
std::vector<uint32_t> valuesToScan()
{
    std::vector<uint32_t> values;
    for (const uint32_t block : {0x00000000U, 0x40000000U, 0x80000000U, 0xC0000000U, 0xFFFF0000U}) {
        for (uint32_t low = 0; low <= 0xFFFF; ++low)
            values.push_back(block + low);
    }
    for (uint32_t value = 0x10000; value < 0xFFFF0000U; value += 0x10001)
        values.push_back(value);
    for (const test::P11KitConstant& constant : test::p11kitConstants())
        values.push_back(constant.value);
    return values;
}

template <typename TextFunction>
Names scan(TextFunction&& text)
{
    Names names;
    for (const uint32_t value : valuesToScan()) {
        const std::string name = text(value);
        if (name != "UNKNOWN")
            names[value] = name;
    }
    return names;
}

// "00000191(CKR_X)" without the number, which must be the value's.
std::string returnValueName(uint32_t value)
{
    std::string text = returnValueText(value);
    if (text == "UNKNOWN")
        return text;
    char number[16];
    std::snprintf(number, sizeof number, "%08x(", value);
    EXPECT_TRUE(text.starts_with(number) && text.ends_with(")")) << text;
    return text.substr(9, text.size() - 10);
}

// "CKA_X(257)" without the number, which must be the value's as a signed one.
std::string attributeName(uint32_t value)
{
    std::string text = attributeText(value);
    if (text == "UNKNOWN")
        return text;
    const std::string number = "(" + std::to_string(static_cast<int32_t>(value)) + ")";
    EXPECT_TRUE(text.ends_with(number)) << text;
    return text.substr(0, text.size() - number.size());
}

Names p11kitNames(std::string_view prefix)
{
    Names names;
    for (const test::P11KitConstant& constant : test::p11kitConstants()) {
        if (std::string_view(constant.name).starts_with(prefix))
            names[constant.value] = constant.name;
    }
    return names;
}

// The header's values of a name; none when it does not have it.
std::set<uint32_t> p11kitValues(const std::string& name)
{
    std::set<uint32_t> values;
    for (const test::P11KitConstant& constant : test::p11kitConstants()) {
        if (constant.name == name)
            values.insert(constant.value);
    }
    return values;
}

// Every name that both sides know has the same value. Returns the names that only we have.
std::set<std::string> namesThatP11KitLacks(const Names& ours, const std::set<std::string>& excepted)
{
    std::set<std::string> lacking;
    for (const auto& [value, name] : ours) {
        if (excepted.contains(name))
            continue;
        const std::set<uint32_t> values = p11kitValues(name);
        if (values.empty())
            lacking.insert(name);
        else
            EXPECT_EQ(std::set<uint32_t>{value}, values) << name;
    }
    return lacking;
}

// The header's names whose values have no name with us.
std::set<std::string> namesThatWeLack(std::string_view prefix, const Names& ours)
{
    std::set<std::string> lacking;
    for (const auto& [value, name] : p11kitNames(prefix)) {
        if (!ours.contains(value))
            lacking.insert(name);
    }
    return lacking;
}

size_t distinctNames(const Names& names)
{
    std::set<std::string> distinct;
    for (const auto& [value, name] : names)
        distinct.insert(name);
    return distinct.size();
}

using Strings = std::set<std::string>;

struct TextRow {
    uint32_t value;
    std::string_view text;
};

template <typename TextFunction>
void expectTexts(TextFunction&& text, std::initializer_list<TextRow> rows)
{
    for (const TextRow& row : rows)
        EXPECT_EQ(row.text, std::string(text(row.value))) << std::hex << row.value;
}

void expectCount(size_t expected, const Names& names)
{
    EXPECT_EQ(expected, names.size());
    EXPECT_EQ(expected, distinctNames(names));
}

// --- return values ---

TEST(ReturnValueText, ShowsEightHexadecimalDigitsAndTheName)
{
    expectTexts(returnValueText, {{0, "00000000(CKR_OK)"},
                                  {0x191, "00000191(CKR_CRYPTOKI_ALREADY_INITIALIZED)"},
                                  {0xA0, "000000a0(CKR_PIN_INCORRECT)"},
                                  {0x150, "00000150(CKR_BUFFER_TOO_SMALL)"},
                                  {0x200, "00000200(CKR_FUNCTION_REJECTED)"},
                                  // The five late values, as the errata number them.
                                  {0x1B5, "000001b5(CKR_EXCEEDED_MAX_ITERATIONS)"},
                                  {0x1B6, "000001b6(CKR_FIPS_SELF_TEST_FAILED)"},
                                  {0x1B7, "000001b7(CKR_LIBRARY_LOAD_FAILED)"},
                                  {0x1B8, "000001b8(CKR_PIN_TOO_WEAK)"},
                                  {0x1B9, "000001b9(CKR_PUBLIC_KEY_INVALID)"}});
}

TEST(ReturnValueText, OtherValuesAreUnknown)
{
    // Among them CKR_CURVE_NOT_SUPPORTED (0x140) and CKR_ACTION_PROHIBITED (0x1B).
    for (const uint32_t value :
         {0x140U, 0x1BU, 0x1C0U, 0x1C4U, 0x04U, 0x201U, 0x80000000U, 0x80000191U, 0xFFFFFFFFU})
        EXPECT_STREQ("UNKNOWN", returnValueText(value)) << value;
}

TEST(ReturnValueText, NamesNinetyTwoValuesEachOnceAsP11KitDoes)
{
    const Names names = scan(returnValueName);
    expectCount(92, names);
    EXPECT_EQ(0U, names.begin()->first);
    EXPECT_EQ(0x200U, names.rbegin()->first);

    Strings unnamed{"CKR_EXCEEDED_MAX_ITERATIONS", "CKR_FIPS_SELF_TEST_FAILED",
                    "CKR_LIBRARY_LOAD_FAILED", "CKR_PIN_TOO_WEAK", "CKR_PUBLIC_KEY_INVALID"};
    EXPECT_EQ(Strings{}, namesThatP11KitLacks(names, unnamed));
    unnamed.insert({"CKR_ACTION_PROHIBITED", "CKR_CURVE_NOT_SUPPORTED", "CKR_VENDOR_DEFINED",
                    "CKR_NSS_CERTDB_FAILED", "CKR_NSS_KEYDB_FAILED"});
    EXPECT_EQ(unnamed, namesThatWeLack("CKR_", names));
}

// --- mechanisms ---

TEST(MechanismText, IsTheBareIdentifier)
{
    expectTexts(mechanismText, {{0, "CKM_RSA_PKCS_KEY_PAIR_GEN"},
                                {0x0D, "CKM_RSA_PKCS_PSS"},
                                {0x1040, "CKM_EC_KEY_PAIR_GEN"},
                                {0x1050, "CKM_ECDH1_DERIVE"},
                                {0x210A, "CKM_AES_KEY_WRAP_PAD"},
                                {0x320, "CKM_CAST128_KEY_GEN"},
                                // Additions of version 3.
                                {0x1055, "CKM_EC_EDWARDS_KEY_PAIR_GEN"},
                                {0x1057, "CKM_EDDSA"},
                                {0x18, "CKM_DSA_SHA3_224"},
                                {0x19, "CKM_DSA_SHA3_256"},
                                {0x1A, "CKM_DSA_SHA3_384"},
                                {0x1B, "CKM_DSA_SHA3_512"},
                                {0x1047, "CKM_ECDSA_SHA3_224"},
                                {0x1048, "CKM_ECDSA_SHA3_256"},
                                {0x1049, "CKM_ECDSA_SHA3_384"},
                                {0x104A, "CKM_ECDSA_SHA3_512"},
                                {0x3AC, "CKM_SP800_108_COUNTER_KDF"},
                                {0x3AD, "CKM_SP800_108_FEEDBACK_KDF"},
                                {0x3AE, "CKM_SP800_108_DOUBLE_PIPELINE_KDF"},
                                // Two names have a spelling of their own.
                                {0x510, "CKM_KIP_DERIVE\t"},
                                {0x511, "CKM_KIP_WRAP"},
                                {0x2003, "CKM_DSA_PROBABLISTIC_PARAMETER_GEN"},
                                // Of the vendors' values only the first has a name.
                                {0x80000000, "CKM_VENDOR_DEFINED"}});
}

TEST(MechanismText, LaterObsoleteAndVendorsMechanismsAreUnknown)
{
    // EC_MONTGOMERY_KEY_PAIR_GEN, CHACHA20 and POLY1305 (four), CHACHA20_POLY1305, XEDDSA, HKDF (three)
    for (const uint32_t value : {0x1056U, 0x1225U, 0x1226U, 0x1227U, 0x1228U, 0x4021U, 0x4029U,
                                 0x402AU, 0x402BU, 0x402CU, 0x0FU, 0x80000001U, 0xFFFFFFFFU})
        EXPECT_STREQ("UNKNOWN", mechanismText(value)) << value;
}

// The named ones and the vendor value.
TEST(MechanismText, NamesTwoHundredAndNinetyFiveValuesAsP11KitDoes)
{
    const Names names = scan(mechanismText);
    expectCount(294 + 1, names);
    EXPECT_EQ((Strings{"CKM_DSA_SHA3_224", "CKM_DSA_SHA3_256", "CKM_DSA_SHA3_384",
                       "CKM_DSA_SHA3_512", "CKM_ECDSA_SHA3_224", "CKM_ECDSA_SHA3_256",
                       "CKM_ECDSA_SHA3_384", "CKM_ECDSA_SHA3_512", "CKM_SP800_108_COUNTER_KDF",
                       "CKM_SP800_108_DOUBLE_PIPELINE_KDF", "CKM_SP800_108_FEEDBACK_KDF"}),
              namesThatP11KitLacks(names, {"CKM_KIP_DERIVE\t"}));
    EXPECT_EQ(std::set<uint32_t>{0x510}, p11kitValues("CKM_KIP_DERIVE"));
}

TEST(MechanismText, LeavesOutOnlyObsoleteFamiliesAndVendors)
{
    const std::string_view families[] = {
        "CKM_SKIPJACK_", "CKM_KEA_",  "CKM_FORTEZZA_",      "CKM_BATON_",           "CKM_JUNIPER_",
        "CKM_CDMF_",     "CKM_CAST_", "CKM_KEY_WRAP_LYNKS", "CKM_KEY_WRAP_SET_OAEP"};
    for (const std::string& name : namesThatWeLack("CKM_", scan(mechanismText))) {
        if (*p11kitValues(name).begin() > 0x80000000U)
            continue;  // a vendor's own
        EXPECT_TRUE(std::ranges::any_of(families, [&](std::string_view family) {
            return name.starts_with(family);
        })) << name;
    }
}

// --- attributes ---

TEST(AttributeText, ShowsTheNameAndTheDecimalNumber)
{
    expectTexts(attributeText, {{0, "CKA_CLASS(0)"},
                                {0x101, "CKA_SUBJECT(257)"},
                                {0x102, "CKA_ID(258)"},
                                {0x180, "CKA_EC_PARAMS(384)"},
                                {0x134, "CKA_SUBPRIME_BITS(308)"},
                                // Additions of version 3.
                                {0x04, "CKA_UNIQUE_ID(4)"},
                                {0x601, "CKA_PROFILE_ID(1537)"},
                                {0x129, "CKA_PUBLIC_KEY_INFO(297)"},
                                {0x8C, "CKA_NAME_HASH_ALGORITHM(140)"},
                                // Array attributes.
                                {0x40000211, "CKA_WRAP_TEMPLATE(1073742353)"},
                                {0x40000212, "CKA_UNWRAP_TEMPLATE(1073742354)"},
                                {0x40000213, "CKA_DERIVE_TEMPLATE(1073742355)"},
                                {0x40000600, "CKA_ALLOWED_MECHANISMS(1073743360)"},
                                // The vendor value is a negative number.
                                {0x80000000, "CKA_VENDOR_DEFINED(-2147483648)"}});
}

TEST(AttributeText, OtherTypesAreUnknown)
{
    for (const uint32_t value : {0x05U, 0x211U, 0x600U, 0x1000U, 0x80000001U, 0xFFFFFFFFU})
        EXPECT_STREQ("UNKNOWN", attributeText(value)) << value;
}

// The vendor value is one of them.
TEST(AttributeText, NamesOneHundredAndEightTypesAsP11KitDoes)
{
    const Names names = scan(attributeName);
    expectCount(108, names);
    // p11-kit writes CKA_SUB_PRIME_BITS for 0x134.
    EXPECT_EQ((Strings{"CKA_PROFILE_ID", "CKA_SUBPRIME_BITS", "CKA_UNIQUE_ID"}),
              namesThatP11KitLacks(names, {}));
    for (const std::string& name : namesThatWeLack("CKA_", names))
        EXPECT_GT(*p11kitValues(name).begin(), 0x80000000U) << name;  // vendors' own
}

// Return values and attributes each have one buffer.
TEST(StaticTexts, EachCallOverwritesTheTextOfItsKindOnly)
{
    const char* result = returnValueText(0);
    EXPECT_EQ(result, returnValueText(1));
    EXPECT_STREQ("00000001(CKR_CANCEL)", result);
    const char* attribute = attributeText(0x101);
    EXPECT_EQ(attribute, attributeText(0x102));
    EXPECT_STREQ("CKA_ID(258)", attribute);
    EXPECT_STREQ("00000001(CKR_CANCEL)", result);
    returnValueText(0);
    EXPECT_STREQ("CKA_ID(258)", attribute);
}

// --- object classes ---

std::string classText(uint32_t value)
{
    return objectClassText(&value, sizeof value);
}

TEST(ObjectClassText, TenValuesHaveAName)
{
    Names named;
    for (const uint32_t value : valuesToScan()) {
        if (const std::string name = classText(value); !name.empty())
            named[value] = name;
    }
    EXPECT_EQ((Names{{0, "CKO_DATA(0)"},
                     {1, "CKO_CERTIFICATE(1)"},
                     {2, "CKO_PUBLIC_KEY(2)"},
                     {3, "CKO_PRIVATE_KEY(3)"},
                     {4, "CKO_SECRET_KEY(4)"},
                     {5, "CKO_HW_FEATURE(5)"},
                     {6, "CKO_DOMAIN_PARAMETERS(6)"},
                     {8, "CKO_OTP_KEY(8)"},
                     {9, "CKO_PROFILE(9)"},
                     {0x80000000, "CKO_VENDOR_DEFINED(0x80000000)"}}),
              named);
    EXPECT_EQ("", classText(0x01000000));  // CKO_CERTIFICATE with its bytes reversed
    EXPECT_EQ("", classText(0xFFFFFFFF));
}

TEST(ObjectClassText, TakesOnlyAValueOfFourBytes)
{
    const uint64_t one = 1;
    EXPECT_EQ("CKO_CERTIFICATE(1)", objectClassText(&one, 4));
    for (const CK_ULONG length : {0U, 1U, 2U, 3U, 5U, 8U, 0xFFFFFFFFU})
        EXPECT_EQ("", objectClassText(&one, length)) << length;
    EXPECT_EQ("", objectClassText(nullptr, 4));
    EXPECT_EQ("", objectClassText(nullptr, 0));
}

TEST(ObjectClassText, TheValueNeedNotBeAligned)
{
    const unsigned char data[] = {0xFF, 0x03, 0x00, 0x00, 0x00};
    EXPECT_EQ("CKO_PRIVATE_KEY(3)", objectClassText(data + 1, 4));
}

// --- structures ---

std::string pointerText(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

// A value of four bytes that is a class is shown by its name, whatever the type of the attribute.
TEST(AttributeRendering, ShowsAClassByNameAndAnyOtherValueByItsPointer)
{
    struct Row {
        CK_ATTRIBUTE_TYPE type;
        uint32_t value;
        CK_ULONG length;
        const char* begin;
        std::string shown;
        const char* end;
    };
    uint32_t value = 0;
    const std::string pointer = pointerText(&value);
    const Row rows[] = {
        {0, 3, 4, "{type=CKA_CLASS(0),pValue=", "CKO_PRIVATE_KEY(3)", ",ulValueLen=4}"},
        {0x121, 1, 4, "{type=CKA_MODULUS_BITS(289),pValue=", "CKO_CERTIFICATE(1)",
         ",ulValueLen=4}"},
        {0x1000, 1, 4, "{type=UNKNOWN,pValue=", "CKO_CERTIFICATE(1)", ",ulValueLen=4}"},
        {0x102, 0x80000000, 4, "{type=CKA_ID(258),pValue=", "CKO_VENDOR_DEFINED(0x80000000)",
         ",ulValueLen=4}"},
        {0, 7, 4, "{type=CKA_CLASS(0),pValue=", pointer, ",ulValueLen=4}"},
        {1, 1, 1, "{type=CKA_TOKEN(1),pValue=", pointer, ",ulValueLen=1}"},
        {0x102, 1, 0, "{type=CKA_ID(258),pValue=", pointer, ",ulValueLen=0}"},
        // The length of an unavailable value is -1.
        {0x11, 1, 0xFFFFFFFF, "{type=CKA_VALUE(17),pValue=", pointer, ",ulValueLen=-1}"},
    };
    for (const Row& row : rows) {
        value = row.value;
        EXPECT_EQ(row.begin + row.shown + row.end,
                  toText(CK_ATTRIBUTE{row.type, &value, row.length}));
    }
    EXPECT_EQ("{type=CKA_VALUE(17),pValue=" + pointerText(nullptr) + ",ulValueLen=4}",
              toText(CK_ATTRIBUTE{0x11, nullptr, 4}));
}

// Fills a blank-padded field.
template <size_t N>
void put(unsigned char (&field)[N], std::string_view text)
{
    std::memset(field, ' ', N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

TEST(InfoRendering, ShowsEveryFieldInOrder)
{
    CK_INFO info{};
    info.cryptokiVersion = {2, 40};
    put(info.manufacturerID, "Norvanta");
    info.flags = 0;
    put(info.libraryDescription, "Token library");
    info.libraryVersion = {1, 5};
    EXPECT_EQ("{cryptokiVersion=2.40,manufacturerID=Norvanta,flags=0x0[must be zero],"
              "libraryDescription=Token library,libraryVersion=1.5}",
              toText(info));
}

TEST(InfoRendering, ShowsOddValuesAsTheyAre)
{
    CK_INFO info{};
    info.cryptokiVersion = {255, 0};
    put(info.manufacturerID, "  both ends  ");
    info.flags = 0xFFFFFFFF;
    put(info.libraryDescription, "");
    info.libraryVersion = {0, 255};
    EXPECT_EQ("{cryptokiVersion=255.0,manufacturerID=both ends,flags=0xffffffff[must be zero],"
              "libraryDescription=,libraryVersion=0.255}",
              toText(info));
}

TEST(InfoRendering, AFieldThatFillsItsWidthIsNotReadBeyondIt)
{
    CK_INFO info{};
    put(info.manufacturerID, "12345678901234567890123456789012");
    put(info.libraryDescription, "abcdefghijklmnopqrstuvwxyzABCDEF");
    EXPECT_EQ("{cryptokiVersion=0.0,manufacturerID=12345678901234567890123456789012,"
              "flags=0x0[must be zero],libraryDescription=abcdefghijklmnopqrstuvwxyzABCDEF,"
              "libraryVersion=0.0}",
              toText(info));
}

TEST(SlotInfoRendering, ShowsEveryFieldInOrder)
{
    CK_SLOT_INFO info{};
    put(info.slotDescription, "Reader 52 of a long name that fills much of sixty-four");
    put(info.manufacturerID, "Norvanta");
    info.flags = 0x5;
    info.hardwareVersion = {3, 4};
    info.firmwareVersion = {5, 60};
    EXPECT_EQ("{slotDescription=Reader 52 of a long name that fills much of sixty-four,"
              "manufacturerID=Norvanta,flags=0x5[CKF_TOKEN_PRESENT,CKF_HW_SLOT],"
              "hardwareVersion=3.4,firmwareVersion=5.60}",
              toText(info));
}

TEST(SlotInfoRendering, UnknownFlagsAddNoName)
{
    CK_SLOT_INFO info{};
    put(info.slotDescription, "s");
    put(info.manufacturerID, "m");
    info.flags = 0xFFFFFFFF;
    EXPECT_EQ("{slotDescription=s,manufacturerID=m,"
              "flags=0xffffffff[CKF_TOKEN_PRESENT,CKF_REMOVABLE_DEVICE,CKF_HW_SLOT],"
              "hardwareVersion=0.0,firmwareVersion=0.0}",
              toText(info));
    info.flags = 0xFFFFFFF8;
    EXPECT_EQ("{slotDescription=s,manufacturerID=m,flags=0xfffffff8[],"
              "hardwareVersion=0.0,firmwareVersion=0.0}",
              toText(info));
}

CK_TOKEN_INFO someToken()
{
    CK_TOKEN_INFO info{};
    put(info.label, "  My token");
    put(info.manufacturerID, "Norvanta");
    put(info.model, "Model 7");
    put(info.serialNumber, "0123456789ABCDEF");
    info.flags = 0x40D;
    info.ulMaxSessionCount = 1;
    info.ulSessionCount = 2;
    info.ulMaxRwSessionCount = 3;
    info.ulRwSessionCount = 4;
    info.ulMaxPinLen = 255;
    info.ulMinPinLen = 6;
    info.ulTotalPublicMemory = 7;
    info.ulFreePublicMemory = 8;
    info.ulTotalPrivateMemory = 9;
    info.ulFreePrivateMemory = 10;
    info.hardwareVersion = {11, 12};
    info.firmwareVersion = {13, 14};
    put(info.utcTime, "2026030417050900");
    return info;
}

TEST(TokenInfoRendering, ShowsEveryFieldInOrder)
{
    EXPECT_EQ("{label=My token,manufacturerID=Norvanta,model=Model 7,serialNumber=0123456789ABCDEF,"
              "flags=0x40d[CKF_RNG,CKF_LOGIN_REQUIRED,CKF_USER_PIN_INITIALIZED,"
              "CKF_TOKEN_INITIALIZED],"
              "ulMaxSessionCount=1,ulSessionCount=2,ulMaxRwSessionCount=3,ulRwSessionCount=4,"
              "ulMaxPinLen=255,ulMinPinLen=6,ulTotalPublicMemory=7,ulFreePublicMemory=8,"
              "ulTotalPrivateMemory=9,ulFreePrivateMemory=10,hardwareVersion=11.12,"
              "firmwareVersion=13.14,utcTime=2026030417050900}",
              toText(someToken()));
}

void expectShown(const CK_TOKEN_INFO& info, const std::string& part)
{
    EXPECT_NE(std::string::npos, toText(info).find(part)) << part << " in " << toText(info);
}

TEST(TokenInfoRendering, ShowsOddValuesAsTheyAre)
{
    CK_TOKEN_INFO info = someToken();
    info.ulSessionCount = 0xFFFFFFFF;
    info.ulFreePrivateMemory = 0xFFFFFFFF;
    expectShown(info, ",ulSessionCount=-1,");
    expectShown(info, ",ulFreePrivateMemory=-1,");
    // The time keeps its blanks.
    put(info.utcTime, " 2026");
    EXPECT_TRUE(toText(info).ends_with(",utcTime= 2026           }")) << toText(info);
    // Fields that fill their width are not read beyond it.
    put(info.label, "12345678901234567890123456789012");
    put(info.model, "1234567890123456");
    expectShown(info, "{label=12345678901234567890123456789012,");
    expectShown(info, ",model=1234567890123456,");
}

TEST(TokenInfoRendering, EachFlagHasItsBitAndAllComeInBitOrder)
{
    const std::map<uint32_t, std::string> names{
        {0x00000001, "CKF_RNG"},
        {0x00000002, "CKF_WRITE_PROTECTED"},
        {0x00000004, "CKF_LOGIN_REQUIRED"},
        {0x00000008, "CKF_USER_PIN_INITIALIZED"},
        {0x00000020, "CKF_RESTORE_KEY_NOT_NEEDED"},
        {0x00000040, "CKF_CLOCK_ON_TOKEN"},
        {0x00000100, "CKF_PROTECTED_AUTHENTICATION_PATH"},
        {0x00000200, "CKF_DUAL_CRYPTO_OPERATIONS"},
        {0x00000400, "CKF_TOKEN_INITIALIZED"},
        {0x00000800, "CKF_SECONDARY_AUTHENTICATION"},
        {0x00010000, "CKF_USER_PIN_COUNT_LOW"},
        {0x00020000, "CKF_USER_PIN_FINAL_TRY"},
        {0x00400000, "CKF_SO_PIN_LOCKED"},
        {0x00800000, "CKF_SO_PIN_TO_BE_CHANGED"},
        {0x01000000, "CKF_ERROR_STATE"},
    };
    CK_TOKEN_INFO info = someToken();
    std::string all;
    for (int bit = 0; bit < 32; ++bit) {
        info.flags = uint32_t{1} << bit;
        const auto name = names.find(info.flags);
        const std::string expected = name == names.end() ? "" : name->second;
        expectShown(info, "[" + expected + "],");
        if (!expected.empty())
            all += (all.empty() ? "" : ",") + expected;
    }
    info.flags = 0xFFFFFFFF;
    expectShown(info, ",flags=0xffffffff[" + all + "],ulMaxSessionCount=1,");
}

TEST(SessionInfoRendering, ShowsEveryFieldInOrder)
{
    EXPECT_EQ("{slotID=52,state=2,flags=0x6[CKF_RW_SESSION,CKF_SERIAL_SESSION],"
              "ulDeviceError=0x30}",
              toText(CK_SESSION_INFO{52, 2, 0x6, 0x30}));
}

TEST(SessionInfoRendering, ShowsOddValuesAsTheyAre)
{
    EXPECT_EQ("{slotID=-1,state=-2,flags=0xfffffff9[],ulDeviceError=0xffffffff}",
              toText(CK_SESSION_INFO{0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFF9, 0xFFFFFFFF}));
    EXPECT_EQ("{slotID=0,state=0,flags=0x4[CKF_SERIAL_SESSION],ulDeviceError=0x0}",
              toText(CK_SESSION_INFO{0, 0, 0x4, 0}));
}

TEST(FunctionListRendering, ShowsTheVersionAndEveryEntryInOrder)
{
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
    const std::string text = toText(list);
    const std::string null = pointerText(nullptr);
    EXPECT_TRUE(text.starts_with("{version=2.40,C_Initialize=" + null + ",C_Finalize=" + null +
                                 ",C_GetInfo=" + null + ",C_GetFunctionList=" + null +
                                 ",C_GetSlotList=" + null + ","))
        << text;
    EXPECT_TRUE(text.ends_with(",C_GetFunctionStatus=" + null + ",C_CancelFunction=" + null +
                               ",C_WaitForSlotEvent=" + null + "}"))
        << text;
    EXPECT_EQ(68, std::ranges::count(text, '=') - 1);
}

}  // namespace

}  // namespace NV
