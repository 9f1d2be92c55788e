// M1, M2, M4 and M18: the properties of keys and of the provider.

#include <algorithm>
#include <cstring>
#include <optional>

#include "config/config.h"
#include "folder.h"
#include "keystore/keystore_key.h"
#include "log_capture.h"
#include "modern_mode.h"
#include "module_fixture.h"
#include "nvvtoken/nvvtoken.h"

namespace NV::test {

namespace {

Bytes text(const std::wstring& characters)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(characters.c_str());
    return {begin, begin + (characters.size() + 1) * sizeof(wchar_t)};
}

Bytes number(uint32_t value)
{
    Bytes bytes(4);
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

// NCRYPT_SUPPORTED_LENGTHS: the least, the most, the increment, the default.
Bytes lengths(uint32_t bits)
{
    Bytes bytes;
    for (const uint32_t value : {bits, bits, 0U, bits}) {
        const Bytes four = number(value);
        bytes.insert(bytes.end(), four.begin(), four.end());
    }
    return bytes;
}

constexpr const wchar_t* moreNames[] = {
    L"Length",       L"PublicKeyLength",         L"Lengths", L"SignatureLength", L"Block Length",
    L"ECCCurveName", L"SmartCardKeyCertificate", L"Key Type"};

constexpr const wchar_t* optionalNames[] = {L"UI Policy", L"Use Context", L"HWND Handle"};

// The property operations of a fixture with two keys.
template <typename Keys>
class PropertiesOf : public Keys {
protected:
    using Output = typename Keys::Output;

    SECURITY_STATUS get(NCRYPT_KEY_HANDLE key, const wchar_t* name, Output& output, DWORD room)
    {
        return this->table()->GetKeyProperty(this->handle(), key, name, output.at(), room,
                                             &output.length, 0);
    }
    SECURITY_STATUS getOfProvider(const wchar_t* name, Output& output, DWORD room)
    {
        return this->table()->GetProviderProperty(this->handle(), name, output.at(), room,
                                                  &output.length, 0);
    }
    // Nothing for a refusal, which must be NTE_NOT_SUPPORTED and leave the output alone.
    std::optional<Bytes> value(NCRYPT_KEY_HANDLE key, const wchar_t* name)
    {
        // Certificates are longer than other outputs.
        Bytes bytes(4000, 0xEE);
        DWORD length = 0xEEEE;
        const SECURITY_STATUS result = this->table()->GetKeyProperty(
            this->handle(), key, name, bytes.data(), 4000, &length, 0);
        if (result != ERROR_SUCCESS) {
            EXPECT_EQ(status(NTE_NOT_SUPPORTED), result);
            EXPECT_EQ(0xEEEEU, length);
            EXPECT_EQ(Bytes(4000, 0xEE), bytes);
            return std::nullopt;
        }
        bytes.resize(length);
        return bytes;
    }
    SECURITY_STATUS set(NCRYPT_KEY_HANDLE key, const wchar_t* name, Bytes bytes)
    {
        return this->table()->SetKeyProperty(this->handle(), key, name, bytes.data(),
                                             static_cast<DWORD>(bytes.size()), 0);
    }
    SECURITY_STATUS setOfProvider(const wchar_t* name, Bytes bytes)
    {
        return this->table()->SetProviderProperty(this->handle(), name, bytes.data(),
                                                  static_cast<DWORD>(bytes.size()), 0);
    }

    // The public P-256 key that counts up.
    NCRYPT_KEY_HANDLE importKey()
    {
        Bytes blob = hexDecode("45434B3120000000");
        const Bytes point = someBytes(64);
        blob.insert(blob.end(), point.begin(), point.end());
        NCRYPT_KEY_HANDLE imported = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  this->table()->ImportKey(this->handle(), 0, L"ECCPUBLICBLOB", nullptr, &imported,
                                           blob.data(), static_cast<DWORD>(blob.size()), 0));
        return imported;
    }
};

using ModernPropertiesTest = PropertiesOf<ModernKeysTest>;
using ClassicPropertiesTest = PropertiesOf<ServedKeysTest>;

// A token with certificates of the test's choice.
class ModernPropertiesOfKeysTest : public ModernModuleTest {
protected:
    NCRYPT_KEY_HANDLE serve(const std::string& certificate)
    {
        token.addCertificate(Bytes{0x01}, certificateDer(certificate));
        token.addRsaKeyPair({0x01}, 2048);  // any public key object
        start();
        return openKey(L"01");
    }
    std::optional<Bytes> value(NCRYPT_KEY_HANDLE key, const wchar_t* name)
    {
        Bytes bytes(400);
        DWORD length = 0;
        if (table()->GetKeyProperty(handle(), key, name, bytes.data(), 400, &length, 0) !=
            ERROR_SUCCESS)
            return std::nullopt;
        bytes.resize(length);
        return bytes;
    }
};

}  // namespace

TEST_F(ModernPropertiesTest, aFreedHandleLeavesTheValuesOfEveryOther)
{
    const NCRYPT_KEY_HANDLE second = openKey(L"01AB");
    const std::optional<Bytes> name = value(second, L"Name");
    EXPECT_EQ(text(L"01AB"), name);
    EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), rsa));
    const NCRYPT_KEY_HANDLE third = openKey(L"01AB");
    for (const NCRYPT_KEY_HANDLE key : {second, third}) {
        EXPECT_EQ(text(L"01AB"), value(key, L"Name"));
        EXPECT_EQ(text(L"01AB"), value(key, L"Unique Name"));
        EXPECT_EQ(number(3), value(key, L"Key Usage"));
        EXPECT_EQ(number(1), value(key, L"Impl Type"));
        EXPECT_EQ(text(L"RSA"), value(key, L"Algorithm Name"));
        EXPECT_EQ(text(L"RSA"), value(key, L"Algorithm Group"));
        EXPECT_EQ(number(0), value(key, L"Export Policy"));
        EXPECT_EQ(number(2048), value(key, L"Length"));
        EXPECT_EQ(certificateDer("rsa2048"), value(key, L"SmartCardKeyCertificate"));
    }
}

TEST_F(ModernPropertiesTest, whatIsSetOnAHandleIsItsOwn)
{
    const NCRYPT_KEY_HANDLE second = openKey(L"01AB");
    EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, L"Own", {1, 2, 3}));
    EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, L"Own", {4}));
    EXPECT_EQ((Bytes{1, 2, 3}), value(rsa, L"Own"));
    EXPECT_EQ(std::nullopt, value(second, L"Own"));
}

TEST_F(ModernPropertiesTest, anRsaKeySaysWhatClientsAskFor)
{
    EXPECT_EQ(number(2048), value(rsa, L"Length"));
    EXPECT_EQ(number(2048), value(rsa, L"PublicKeyLength"));
    EXPECT_EQ(lengths(2048), value(rsa, L"Lengths"));
    EXPECT_EQ(number(256), value(rsa, L"SignatureLength"));
    EXPECT_EQ(number(256), value(rsa, L"Block Length"));
    EXPECT_EQ(std::nullopt, value(rsa, L"ECCCurveName"));
    EXPECT_EQ(certificateDer("rsa2048"), value(rsa, L"SmartCardKeyCertificate"));
    EXPECT_EQ(number(0), value(rsa, L"Key Type"));
    EXPECT_EQ(number(3), value(rsa, L"Key Usage"));
}

TEST_F(ModernPropertiesTest, anEcKeySaysWhatClientsAskFor)
{
    EXPECT_EQ(number(256), value(ec, L"Length"));
    EXPECT_EQ(number(256), value(ec, L"PublicKeyLength"));
    EXPECT_EQ(lengths(256), value(ec, L"Lengths"));
    EXPECT_EQ(number(64), value(ec, L"SignatureLength"));
    EXPECT_EQ(std::nullopt, value(ec, L"Block Length"));
    EXPECT_EQ(text(L"nistP256"), value(ec, L"ECCCurveName"));
    EXPECT_EQ(certificateDer("p256"), value(ec, L"SmartCardKeyCertificate"));
    EXPECT_EQ(number(0), value(ec, L"Key Type"));
    EXPECT_EQ(number(6), value(ec, L"Key Usage"));
}

TEST_F(ModernPropertiesTest, anImportedKeyHasAllButTheCertificate)
{
    const NCRYPT_KEY_HANDLE imported = importKey();
    EXPECT_EQ(number(256), value(imported, L"Length"));
    EXPECT_EQ(number(256), value(imported, L"PublicKeyLength"));
    EXPECT_EQ(lengths(256), value(imported, L"Lengths"));
    EXPECT_EQ(number(64), value(imported, L"SignatureLength"));
    EXPECT_EQ(std::nullopt, value(imported, L"Block Length"));
    EXPECT_EQ(text(L"nistP256"), value(imported, L"ECCCurveName"));
    EXPECT_EQ(std::nullopt, value(imported, L"SmartCardKeyCertificate"));
    EXPECT_EQ(number(0), value(imported, L"Key Type"));
    EXPECT_EQ(number(6), value(imported, L"Key Usage"));
    EXPECT_EQ(text(L"ECDSA_P256"), value(imported, L"Algorithm Name"));
}

TEST_F(ModernPropertiesOfKeysTest, aModulusThatDoesNotFillItsBytesHasItsTrueLength)
{
    const NCRYPT_KEY_HANDLE key = serve("rsa1031");
    EXPECT_EQ(number(1031), value(key, L"Length"));
    EXPECT_EQ(number(1031), value(key, L"PublicKeyLength"));
    EXPECT_EQ(lengths(1031), value(key, L"Lengths"));
    EXPECT_EQ(number(129), value(key, L"SignatureLength"));
    EXPECT_EQ(number(129), value(key, L"Block Length"));
}

TEST_F(ModernPropertiesTest, whatNobodyHasSetIsNotFound)
{
    for (const wchar_t* name : optionalNames) {
        for (const NCRYPT_KEY_HANDLE key : {rsa, ec, importKey()}) {
            Output output;
            EXPECT_EQ(status(NTE_NOT_FOUND), get(key, name, output, 400));
            EXPECT_TRUE(output.untouched());
            EXPECT_EQ(status(ERROR_SUCCESS), set(key, name, {1, 2, 3}));
            EXPECT_EQ((Bytes{1, 2, 3}), value(key, name));
        }
        Output output;
        EXPECT_EQ(status(NTE_NOT_FOUND), getOfProvider(name, output, 400));
        EXPECT_TRUE(output.untouched());
        EXPECT_EQ(status(ERROR_SUCCESS), setOfProvider(name, {1, 2, 3}));
        EXPECT_EQ(status(ERROR_SUCCESS), getOfProvider(name, output, 400));
        EXPECT_EQ(3U, output.length);
    }
}

TEST_F(ModernPropertiesTest, otherNamesAreNotSupported)
{
    for (const wchar_t* name :
         {L"", L"length", L"LENGTH", L"Length ", L"ui policy", L"SmartCardPin", L"Unknown"}) {
        Output output;
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), get(rsa, name, output, 400));
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), getOfProvider(name, output, 400));
        EXPECT_TRUE(output.untouched());
    }
    for (const wchar_t* name : moreNames) {
        Output output;
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), getOfProvider(name, output, 400));
    }
}

TEST_F(ModernPropertiesTest, whatTheKeySaysAndThePinCannotBeSet)
{
    for (const NCRYPT_KEY_HANDLE key : {rsa, ec, importKey()}) {
        for (const wchar_t* name : moreNames) {
            const std::optional<Bytes> before = value(key, name);
            takeLines();
            EXPECT_EQ(status(NTE_NOT_SUPPORTED), set(key, name, {1, 2, 3, 4}));
            const std::wstring wide = name;
            EXPECT_EQ("Not Supported Key Property (" + std::string(wide.begin(), wide.end()) +
                          ")\n",
                      messages(takeLines(), "ERR"));
            EXPECT_EQ(before, value(key, name));
        }
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), set(key, L"SmartCardPin", text(L"odd-PIN-7391")));
        EXPECT_EQ(std::nullopt, value(key, L"SmartCardPin"));
        EXPECT_EQ(status(ERROR_SUCCESS), set(key, L"smartcardpin", {1}));
    }
}

TEST_F(ModernPropertiesTest, wrongArgumentsAreRefusedBeforeTheNameIsLookedAt)
{
    BYTE bytes[] = {1, 2, 3, 4};
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->SetKeyProperty(handle(), rsa, L"Length", nullptr, 4, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->SetKeyProperty(handle(), rsa, L"SmartCardPin", bytes, 0, 0));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->SetKeyProperty(handle(), rsa, nullptr, bytes, 4, 0));
    const OpenedProvider other(table());
    const NCRYPT_KEY_HANDLE foreign = other.openKey(L"01AB");
    for (const NCRYPT_KEY_HANDLE key :
         {NCRYPT_KEY_HANDLE{0}, NCRYPT_KEY_HANDLE{0x77}, handle(), foreign}) {
        for (const wchar_t* name : {L"Length", L"SmartCardPin", L"UI Policy", L"HWND Handle"}) {
            EXPECT_EQ(status(NTE_INVALID_HANDLE), set(key, name, {1}));
            Output output;
            EXPECT_EQ(status(NTE_INVALID_HANDLE), get(key, name, output, 400));
            EXPECT_TRUE(output.untouched());
        }
    }
    Output output;
    EXPECT_EQ(status(NTE_INVALID_PARAMETER), get(rsa, nullptr, output, 400));
    EXPECT_EQ(status(NTE_INVALID_PARAMETER),
              table()->GetKeyProperty(handle(), rsa, L"Length", output.at(), 4, nullptr, 0));
    EXPECT_TRUE(output.untouched());
}

TEST_F(ModernPropertiesTest, aShortBufferOfAKeyTellsTheLength)
{
    struct Row {
        NCRYPT_KEY_HANDLE key;
        const wchar_t* name;
    };
    for (const auto& [key, name] :
         {Row{rsa, L"Name"}, Row{rsa, L"Length"}, Row{rsa, L"Lengths"}, Row{ec, L"ECCCurveName"}}) {
        const auto size = static_cast<DWORD>(value(key, name).value().size());
        for (const DWORD room : {size - 1, DWORD{1}, DWORD{0}}) {
            takeLines();
            Output output;
            EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), get(key, name, output, room)) << room;
            EXPECT_EQ(size, output.length);
            EXPECT_TRUE(output.onlyWritten(0));
            EXPECT_EQ("The length of output buffer is too short\n", messages(takeLines(), "ERR"));
        }
        for (const DWORD room : {size, size + 1}) {
            Output output;
            EXPECT_EQ(status(ERROR_SUCCESS), get(key, name, output, room));
            EXPECT_EQ(size, output.length);
            EXPECT_TRUE(output.onlyWritten(size));
        }
        DWORD length = 0;
        EXPECT_EQ(status(ERROR_SUCCESS),
                  table()->GetKeyProperty(handle(), key, name, nullptr, 0, &length, 0));
        EXPECT_EQ(size, length);
    }
}

TEST_F(ModernPropertiesTest, aShortBufferOfTheProviderTellsTheLength)
{
    const auto size = static_cast<DWORD>(4 * sizeof(wchar_t));
    for (const DWORD room : {size - 1, DWORD{0}}) {
        Output output;
        EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), getOfProvider(L"Version", output, room));
        EXPECT_EQ(size, output.length);
        EXPECT_TRUE(output.onlyWritten(0));
    }
    Output output;
    EXPECT_EQ(status(ERROR_SUCCESS), getOfProvider(L"Version", output, size));
    EXPECT_TRUE(output.onlyWritten(size));
}

TEST_F(ModernPropertiesTest, theLastWindowThatIsSetOnAKeyIsTheValue)
{
    const NCRYPT_KEY_HANDLE second = openKey(L"01AB");
    const Bytes first{0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0};
    const Bytes last{0x11, 0x22, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, L"HWND Handle", first));
    EXPECT_EQ(first, value(rsa, L"HWND Handle"));
    takeLines();
    EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, L"HWND Handle", last));
    std::string steps;
    for (const LogLine& line : linesOf("NV::Provider::SetKeyProperty"))
        steps += line.message + "\n";
    EXPECT_NE(std::string::npos, steps.find("Set NCRYPT_WINDOW_HANDLE_PROPERTY\n"
                                            "Owner Window Handle is 0000000000002211\n"))
        << steps;
    EXPECT_EQ(last, value(rsa, L"HWND Handle"));
    Output output;
    EXPECT_EQ(status(NTE_NOT_FOUND), get(second, L"HWND Handle", output, 400));
}

// The window itself, in a provider object whose keys the test can look at.
class ModernOwnerWindowTest : public testing::Test {
protected:
    ModernOwnerWindowTest()
    {
        const TemporaryFolder folder;
        const std::filesystem::path file = folder.path() / "provider.conf";
        writeFile(file, "p11File=" + ScriptedToken::path() + "\n");
        Config::instance().load(narrowPath(file));
        token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("unconstrained"));
        EXPECT_TRUE(provider.init());
        EXPECT_EQ(status(ERROR_SUCCESS), provider.OpenKey(&key, L"01AB", 0, 0));
    }

    void set(Bytes bytes)
    {
        EXPECT_EQ(status(ERROR_SUCCESS),
                  provider.SetKeyProperty(key, L"HWND Handle", bytes.data(),
                                          static_cast<DWORD>(bytes.size()), 0));
    }
    static uintptr_t windowOf(NCRYPT_KEY_HANDLE handle)
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the handle is the key's address.
        const auto* object = reinterpret_cast<const P11KeyObject*>(handle);
        return reinterpret_cast<uintptr_t>(object->ownerWindow());
    }

    ScriptedToken token;
    LogCapture log;
    std::optional<ModernMode> modern{std::in_place};
    Provider provider;
    NCRYPT_KEY_HANDLE key = 0;
};

TEST_F(ModernOwnerWindowTest, isTheLastOneThatWasSetOnTheHandle)
{
    EXPECT_EQ(0U, windowOf(key));
    set({0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0});
    EXPECT_EQ(0x12345678U, windowOf(key));
    set({0x11, 0x22});
    EXPECT_EQ(0x2211U, windowOf(key));
    // No window at all.
    set(Bytes(9, 0x55));
    EXPECT_EQ(0x2211U, windowOf(key));
    NCRYPT_KEY_HANDLE second = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), provider.OpenKey(&second, L"01AB", 0, 0));
    EXPECT_EQ(0U, windowOf(second));
    set({0});
    EXPECT_EQ(0U, windowOf(key));
}

TEST_F(ModernOwnerWindowTest, isNoneInClassic)
{
    modern.reset();
    set({0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0});
    EXPECT_EQ(0U, windowOf(key));
}

TEST_F(ClassicPropertiesTest, hasNoneOfTheseAndTakesWhatIsSet)
{
    for (const wchar_t* name : moreNames) {
        EXPECT_EQ(std::nullopt, value(rsa, name));
        EXPECT_EQ(std::nullopt, value(ec, name));
        EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, name, {1, 2}));
        EXPECT_EQ((Bytes{1, 2}), value(rsa, name));
    }
    for (const wchar_t* name : optionalNames) {
        Output output;
        EXPECT_EQ(std::nullopt, value(rsa, name));
        EXPECT_EQ(status(NTE_NOT_SUPPORTED), getOfProvider(name, output, 400));
        EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, name, {1, 2}));
        EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, name, {3}));
        EXPECT_EQ((Bytes{1, 2}), value(rsa, name));
    }
    EXPECT_EQ(status(ERROR_SUCCESS), set(rsa, L"SmartCardPin", {1}));
    EXPECT_EQ((Bytes{1}), value(rsa, L"SmartCardPin"));
    EXPECT_EQ(number(3), value(ec, L"Key Usage"));
}

}  // namespace NV::test
