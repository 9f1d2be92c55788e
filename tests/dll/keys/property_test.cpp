// Properties of the provider and of its keys.

#include <cstring>

#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class PropertyOperationTest : public ServedKeysTest {
protected:
    SECURITY_STATUS ofProvider(const wchar_t* name, Output& output, DWORD room, DWORD flags = 0)
    {
        return table()->GetProviderProperty(handle(), name, output.at(), room, &output.length,
                                            flags);
    }
    SECURITY_STATUS ofKey(NCRYPT_KEY_HANDLE key, const wchar_t* name, Output& output, DWORD room)
    {
        return table()->GetKeyProperty(handle(), key, name, output.at(), room, &output.length, 0);
    }

    static Bytes text(const std::wstring& characters)
    {
        const auto* begin = reinterpret_cast<const unsigned char*>(characters.c_str());
        return {begin, begin + (characters.size() + 1) * sizeof(wchar_t)};
    }

    Bytes valueOfProvider(const wchar_t* name)
    {
        Output output;
        EXPECT_EQ(status(ERROR_SUCCESS), ofProvider(name, output, 400));
        return {output.at(), output.at() + output.length};
    }
    Bytes valueOfKey(NCRYPT_KEY_HANDLE key, const wchar_t* name)
    {
        Output output;
        EXPECT_EQ(status(ERROR_SUCCESS), ofKey(key, name, output, 400));
        return {output.at(), output.at() + output.length};
    }

    SECURITY_STATUS setOwner(BYTE* bytes, DWORD length)
    {
        return store(L"HWND Handle", bytes, length);
    }
    SECURITY_STATUS store(const wchar_t* name, BYTE* bytes, DWORD length, DWORD flags = 0)
    {
        return table()->SetProviderProperty(handle(), name, bytes, length, flags);
    }
    SECURITY_STATUS store(NCRYPT_KEY_HANDLE key, const wchar_t* name, BYTE* bytes, DWORD length,
                          DWORD flags = 0)
    {
        return table()->SetKeyProperty(handle(), key, name, bytes, length, flags);
    }
    void expectLength(DWORD expected, const wchar_t* name, DWORD room)
    {
        DWORD length = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->GetProviderProperty(handle(), name, nullptr, room, &length, 0));
        EXPECT_EQ(expected, length);
    }
};

using KeyPropertyTest = PropertyOperationTest;

}  // namespace

TEST_F(PropertyOperationTest, nameAndVersionCarryTheirTerminatingZero)
{
    EXPECT_EQ(text(L"Norvanta Software KeyStore Provider"), valueOfProvider(L"Name"));
    EXPECT_EQ(72U, valueOfProvider(L"Name").size());
    EXPECT_EQ(text(L"1.0"), valueOfProvider(L"Version"));
    EXPECT_EQ(8U, valueOfProvider(L"Version").size());
}

TEST_F(PropertyOperationTest, implTypeIsHardware)
{
    EXPECT_EQ((Bytes{1, 0, 0, 0}), valueOfProvider(L"Impl Type"));
}

TEST_F(PropertyOperationTest, providerHandleIsEightBytesAtTheProvidersAddress)
{
    const Bytes value = valueOfProvider(L"Provider Handle");
    ASSERT_EQ(8U, value.size());
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the handle is the provider's address.
    EXPECT_EQ(0, std::memcmp(value.data(), reinterpret_cast<const void*>(handle()), 8));
}

TEST_F(PropertyOperationTest, anExactBufferIsEnough)
{
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS), ofProvider(L"Version", output, 8));
    EXPECT_EQ(8U, output.length);
    EXPECT_TRUE(output.onlyWritten(8));
    expectTrace(linesOf("NV::Provider::GetProviderProperty"),
                "dll/keys/property/an_exact_buffer_is_enough");
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(PropertyOperationTest, aNullBufferAsksForTheLength)
{
    expectLength(72, L"Name", 0);
    expectLength(72, L"Name", 7);
    EXPECT_EQ(0U, countLines(takeLines(), "TRC NV::Provider::GetProviderProperty:Store the value "
                                          "into output buffer (72 bytes)"));
}

TEST_F(PropertyOperationTest, aBufferOneByteShortLeavesTheLengthAsItWas)
{
    Output output;
    EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), ofProvider(L"Name", output, 71));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ("The length of output buffer is too short\n",
              messages(linesOf("NV::Provider::GetProviderProperty"), "ERR"));
}

TEST_F(PropertyOperationTest, onlyTheSilentFlagIsAccepted)
{
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS), ofProvider(L"Name", output, 400, 0x40));
    for (const DWORD flags : {0x41U, 0x1U, 0x80U, 0x80000000U, 0xFFFFFFFFU}) {
        Output refused;
        EXPECT_EQ(status(NTE_BAD_FLAGS), ofProvider(L"Name", refused, 400, flags)) << flags;
        EXPECT_TRUE(refused.untouched());
    }
    EXPECT_EQ("", messages(takeLines(), "ERR"));
}

TEST_F(PropertyOperationTest, badFlagsPrecedeBadParameters)
{
    Output output;
    EXPECT_EQ(status(NTE_BAD_FLAGS), ofProvider(nullptr, output, 400, 0x1));
    EXPECT_EQ(status(NTE_BAD_FLAGS),
              table()->GetProviderProperty(handle(), L"Name", nullptr, 0, nullptr, 0x1));
    EXPECT_EQ(status(NTE_BAD_FLAGS), ofProvider(std::wstring(65, L'x').c_str(), output, 400, 0x1));
    EXPECT_TRUE(output.untouched());
}

TEST_F(PropertyOperationTest, nullNameAndNullLengthAreRefused)
{
    Output output;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), ofProvider(nullptr, output, 400));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->GetProviderProperty(handle(), L"Name", output.at(), 400, nullptr, 0));
    EXPECT_TRUE(output.untouched());
}

TEST_F(PropertyOperationTest, aNameOf65CharactersIsRefusedAndOneOf64IsLookedUp)
{
    Output output;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              ofProvider(std::wstring(65, L'x').c_str(), output, 400));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofProvider(std::wstring(64, L'x').c_str(), output, 400));
    EXPECT_EQ("Not Found Key Property (" + std::string(64, 'x') + ")\n",
              messages(takeLines(), "ERR"));
    EXPECT_TRUE(output.untouched());
}

TEST_F(PropertyOperationTest, namesAreCaseSensitive)
{
    Output output;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofProvider(L"name", output, 400));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofProvider(L"", output, 400));
    EXPECT_EQ("Not Found Key Property (name)\nNot Found Key Property ()\n",
              messages(takeLines(), "ERR"));
    EXPECT_TRUE(output.untouched());
}

TEST_F(PropertyOperationTest, anyPropertyCanBeStoredAndReplaced)
{
    BYTE first[] = {1, 2, 3};
    BYTE second[] = {9};
    EXPECT_EQ(status(ERROR_SUCCESS), store(L"Own", first, 3, 0xFFFFFFFF));
    EXPECT_EQ((Bytes{1, 2, 3}), valueOfProvider(L"Own"));
    EXPECT_EQ(status(ERROR_SUCCESS), store(L"Own", second, 1));
    EXPECT_EQ((Bytes{9}), valueOfProvider(L"Own"));
    EXPECT_EQ(status(ERROR_SUCCESS), store(L"Name", second, 1));
    EXPECT_EQ((Bytes{9}), valueOfProvider(L"Name"));
}

TEST_F(PropertyOperationTest, storingIsTraced)
{
    BYTE value[] = {1, 2, 3};
    EXPECT_EQ(status(ERROR_SUCCESS), store(L"Own", value, 3, 0x40));
    expectTrace(linesOf("NV::Provider::SetProviderProperty"),
                "dll/keys/property/storing_is_traced");
}

TEST_F(PropertyOperationTest, nothingIsStoredWithoutNameOrBytes)
{
    BYTE value[] = {1};
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(nullptr, value, 1));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(L"Own", nullptr, 1));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(L"Own", value, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(L"Own", value, 0x80000000));
    Output output;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofProvider(L"Own", output, 400));
}

TEST_F(PropertyOperationTest, theOwnerWindowIsTold)
{
    BYTE window[] = {0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0};
    EXPECT_EQ(status(ERROR_SUCCESS), setOwner(window, 8));
    const LogLines lines = linesOf("NV::Provider::SetProviderProperty");
    ASSERT_EQ(9U, lines.size());
    EXPECT_EQ("TRC NV::Provider::SetProviderProperty:Set NCRYPT_WINDOW_HANDLE_PROPERTY",
              render(lines[5]));
    EXPECT_EQ("TRC NV::Provider::SetProviderProperty:Owner Window Handle is 0000000012345678",
              render(lines[6]));
    EXPECT_EQ(Bytes(window, window + 8), valueOfProvider(L"HWND Handle"));
}

TEST_F(PropertyOperationTest, anOwnerWindowOfFewerBytesIsZeroExtended)
{
    BYTE window[] = {0x78, 0x56, 0x34};
    EXPECT_EQ(status(ERROR_SUCCESS), setOwner(window, 3));
    EXPECT_EQ("Owner Window Handle is 0000000000345678",
              linesOf("NV::Provider::SetProviderProperty").at(6).message);
}

TEST_F(PropertyOperationTest, anOwnerWindowOfNineBytesIsStoredButNotTaken)
{
    BYTE window[9] = {0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(status(ERROR_SUCCESS), setOwner(window, 9));
    const LogLines lines = linesOf("NV::Provider::SetProviderProperty");
    EXPECT_EQ(8U, lines.size());
    EXPECT_EQ("Set NCRYPT_WINDOW_HANDLE_PROPERTY", lines.at(5).message);
    EXPECT_EQ(Bytes(window, window + 9), valueOfProvider(L"HWND Handle"));
}

TEST_F(PropertyOperationTest, theOwnerWindowsNameIsExact)
{
    BYTE window[8] = {0x78};
    EXPECT_EQ(status(ERROR_SUCCESS), store(L"hwnd handle", window, 8));
    EXPECT_EQ(7U, linesOf("NV::Provider::SetProviderProperty").size());
}

TEST_F(KeyPropertyTest, rsaKeyHasItsSevenProperties)
{
    EXPECT_EQ(text(L"01AB"), valueOfKey(rsa, L"Name"));
    EXPECT_EQ(text(L"01AB"), valueOfKey(rsa, L"Unique Name"));
    EXPECT_EQ((Bytes{3, 0, 0, 0}), valueOfKey(rsa, L"Key Usage"));
    EXPECT_EQ((Bytes{1, 0, 0, 0}), valueOfKey(rsa, L"Impl Type"));
    EXPECT_EQ(text(L"RSA"), valueOfKey(rsa, L"Algorithm Name"));
    EXPECT_EQ(text(L"RSA"), valueOfKey(rsa, L"Algorithm Group"));
    EXPECT_EQ((Bytes{0, 0, 0, 0}), valueOfKey(rsa, L"Export Policy"));
}

TEST_F(KeyPropertyTest, ecKeyIsNamedByItsCurve)
{
    EXPECT_EQ(text(L"ECDSA_P256"), valueOfKey(ec, L"Algorithm Name"));
    EXPECT_EQ(text(L"ECDSA"), valueOfKey(ec, L"Algorithm Group"));
}

TEST_F(KeyPropertyTest, readingIsTraced)
{
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS), ofKey(rsa, L"Key Usage", output, 4));
    expectTrace(linesOf("NV::Provider::GetKeyProperty"), "dll/keys/property/reading_is_traced");
    EXPECT_TRUE(output.onlyWritten(4));
}

TEST_F(KeyPropertyTest, anyFlagsAreAccepted)
{
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->GetKeyProperty(handle(), rsa, L"Key Usage", output.at(), 4, &output.length,
                                      0xFFFFFFFF));
    EXPECT_EQ(4U, output.length);
}

TEST_F(KeyPropertyTest, aShortBufferAndAQueryFollowTheProvidersRules)
{
    Output output;
    EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), ofKey(rsa, L"Name", output, 9));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ("The length of output buffer is too short\n", messages(takeLines(), "ERR"));
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->GetKeyProperty(handle(), rsa, L"Name", nullptr, 0, &length, 0));
    EXPECT_EQ(10U, length);
}

TEST_F(KeyPropertyTest, wrongArgumentsAndNamesAreRefused)
{
    Output output;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), ofKey(rsa, nullptr, output, 400));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->GetKeyProperty(handle(), rsa, L"Name", output.at(), 400, nullptr, 0));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofKey(rsa, L"name", output, 400));
    EXPECT_EQ("Not Found Key Property (name)\n", messages(takeLines(), "ERR"));
    // No limit to the length of a key property's name.
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofKey(rsa, std::wstring(65, L'x').c_str(), output, 400));
    for (const NCRYPT_KEY_HANDLE unknown :
         {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, handle()})
        EXPECT_EQ(status(NTE_INVALID_HANDLE), ofKey(unknown, L"Name", output, 400));
    EXPECT_TRUE(output.untouched());
}

TEST_F(KeyPropertyTest, storingAddsToTheKeyAndKeepsAFirstValue)
{
    BYTE value[] = {1, 2, 3};
    EXPECT_EQ(status(ERROR_SUCCESS), store(rsa, L"Own", value, 3, 0xFF));
    expectTrace(linesOf("NV::Provider::SetKeyProperty"),
                "dll/keys/property/storing_adds_to_the_key_and_keeps_a_first_value");
    value[0] = 9;
    EXPECT_EQ(status(ERROR_SUCCESS), store(rsa, L"Own", value, 3));
    EXPECT_EQ((Bytes{1, 2, 3}), valueOfKey(rsa, L"Own"));
    Output output;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofKey(ec, L"Own", output, 400));
}

TEST_F(KeyPropertyTest, storingRefusesWrongArgumentsAndHandles)
{
    BYTE value[] = {1};
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(rsa, L"Own", nullptr, 1));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(rsa, L"Own", value, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(rsa, L"Own", value, 0x80000000));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), store(rsa, nullptr, value, 1));
    EXPECT_EQ("", messages(takeLines(), "ERR"));
    EXPECT_EQ(status(NTE_INVALID_HANDLE), store(0x12345678, L"Own", value, 1));
    EXPECT_EQ("Not Found the key (0000000012345678)", ofLevel(takeLines(), "ERR").at(0).message);
    Output output;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED), ofKey(rsa, L"Own", output, 400));
}

TEST_F(KeyPropertyTest, theFirstFreedHandleEmptiesTheValuesOfEveryOther)
{
    const NCRYPT_KEY_HANDLE second = openKey(L"01AB");
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    const NCRYPT_KEY_HANDLE third = openKey(L"01AB");
    for (const NCRYPT_KEY_HANDLE key : {second, third}) {
        for (const wchar_t* name : {L"Name", L"Unique Name", L"Key Usage", L"Impl Type",
                                    L"Algorithm Name", L"Algorithm Group", L"Export Policy"})
            EXPECT_EQ(Bytes(), valueOfKey(key, name));
    }
    EXPECT_EQ(text(L"ECDSA_P256"), valueOfKey(ec, L"Algorithm Name"));
}

}  // namespace NV::test
