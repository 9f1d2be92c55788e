// No copy of the PIN is left in what the module owns after an operation, however it went: neither
// in the 8-bit form that the token gets nor in the 16-bit form of the dialog, in UTF-8 or in
// hexadecimal.

#include <functional>
#include <vector>

#include "wiping_fixture.h"

namespace NV::test {

namespace {

constexpr wchar_t rightPin[] = L"odd-PIN-7391";
constexpr wchar_t wrongPin[] = L"bad-PIN-4862";

struct Operation {
    const char* name;
    // The token functions between C_Initialize and C_Finalize that are its own.
    std::vector<const char*> functions;
    SECURITY_STATUS(*run)
    (const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table, NCRYPT_PROV_HANDLE provider,
     NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer);
    bool onRsaKey;
};

void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

using Table = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;

SECURITY_STATUS sign(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                     void* padding, DWORD flags, DWORD size)
{
    BYTE hash[32] = {7, 3, 9, 1};
    BYTE signature[256];
    DWORD written = 0;
    return table.SignHash(provider, key, padding, hash, sizeof hash, signature, size, &written,
                          flags);
}

SECURITY_STATUS signPkcs1(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                          NCRYPT_KEY_HANDLE)
{
    BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
    return sign(table, provider, key, &padding, BCRYPT_PAD_PKCS1, 256);
}

SECURITY_STATUS signPss(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                        NCRYPT_KEY_HANDLE)
{
    BCRYPT_PSS_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM, 32};
    return sign(table, provider, key, &padding, BCRYPT_PAD_PSS, 256);
}

SECURITY_STATUS signEcdsa(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                          NCRYPT_KEY_HANDLE)
{
    return sign(table, provider, key, nullptr, 0, 64);
}

SECURITY_STATUS decrypt(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                        void* padding, DWORD flags)
{
    BYTE plain[16] = {7, 3, 9, 1};
    BYTE input[256];
    BYTE output[256];
    DWORD written = 0;
    EXPECT_EQ(ERROR_SUCCESS, table.Encrypt(provider, key, plain, sizeof plain, padding, input,
                                           sizeof input, &written, flags));
    return table.Decrypt(provider, key, input, written, padding, output, sizeof output, &written,
                         flags);
}

SECURITY_STATUS decryptPkcs1(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                             NCRYPT_KEY_HANDLE)
{
    return decrypt(table, provider, key, nullptr, BCRYPT_PAD_PKCS1);
}

SECURITY_STATUS decryptOaep(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                            NCRYPT_KEY_HANDLE)
{
    BYTE label[] = {7, 3, 9, 1};
    BCRYPT_OAEP_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM, label, sizeof label};
    return decrypt(table, provider, key, &padding, BCRYPT_PAD_OAEP);
}

SECURITY_STATUS agree(const Table& table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key,
                      NCRYPT_KEY_HANDLE peer)
{
    NCRYPT_SECRET_HANDLE secret = 0;
    const SECURITY_STATUS status = table.SecretAgreement(provider, key, peer, &secret, 0);
    if (status == ERROR_SUCCESS)
        table.FreeSecret(provider, secret);
    return status;
}

const Operation operations[] = {
    {"SignPkcs1", {"C_SignInit", "C_Sign"}, signPkcs1, true},
    {"SignPss", {"C_SignInit", "C_Sign"}, signPss, true},
    {"DecryptPkcs1", {"C_DecryptInit", "C_Decrypt"}, decryptPkcs1, true},
    {"DecryptOaep", {"C_DecryptInit", "C_Decrypt"}, decryptOaep, true},
    {"SignEcdsa", {"C_SignInit", "C_Sign"}, signEcdsa, false},
    {"Agree", {"C_DeriveKey", "C_GetAttributeValue"}, agree, false},
};

std::string utf8(std::wstring_view text)
{
    const int size = static_cast<int>(text.size());
    std::string bytes(4 * text.size(), '\0');
    bytes.resize(
        static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), size, bytes.data(),
                                                static_cast<int>(bytes.size()), nullptr, nullptr)));
    return bytes;
}

class PinWiping : public WatchedTest, public testing::WithParamInterface<Operation> {
protected:
    SECURITY_STATUS run(DialogDriver::Script script)
    {
        const DialogDriver driver(std::move(script));
        return GetParam().run(table(), provider(), GetParam().onRsaKey ? rsaKey() : ecKey(),
                              peer());
    }

    // With a token that is spoilt while the dialog is open, and whole again afterwards.
    SECURITY_STATUS runSpoilt(const std::function<void()>& spoil)
    {
        const SECURITY_STATUS status = run([&](const PinDialogWindow& dialog) {
            spoil();
            dialog.type(rightPin);
            dialog.pressOk();
        });
        token().clearFaults();
        if (token().initialised())
            token().exports().C_Finalize(nullptr);
        return status;
    }

    // Both halves of each form, because a copy may have lost its beginning or its end.
    void lookForPin(std::wstring_view pin)
    {
        const size_t half = pin.size() < 8 ? pin.size() : 8;
        const std::wstring_view halves[] = {pin.substr(0, half), pin.substr(pin.size() - half)};
        for (const std::wstring_view part : halves) {
            Bytes narrow;
            for (const wchar_t unit : part)
                narrow.push_back(static_cast<unsigned char>(unit));
            lookForBytes("8-bit PIN", narrow);
            const auto* wide = reinterpret_cast<const unsigned char*>(part.data());
            lookForBytes("16-bit PIN", std::span(wide, part.size() * sizeof(wchar_t)));
            memory().lookFor("UTF-8 PIN", utf8(part));
        }
    }

    void expectWiped(const std::string& what)
    {
        EXPECT_EQ("", memory().found()) << what;
        EXPECT_LT(0u, memory().released()) << what;
    }
};

INSTANTIATE_TEST_SUITE_P(Operations, PinWiping, testing::ValuesIn(operations),
                         [](const auto& row) { return row.param.name; });

TEST_P(PinWiping, AfterSuccess)
{
    lookForPin(rightPin);
    EXPECT_EQ(ERROR_SUCCESS, run(DialogDriver::entering(rightPin)));
    expectWiped("right PIN");
}

TEST_P(PinWiping, AfterAWrongPin)
{
    lookForPin(wrongPin);
    EXPECT_EQ(NTE_INTERNAL_ERROR, run(DialogDriver::entering(wrongPin)));
    expectWiped("wrong PIN");
}

TEST_P(PinWiping, AfterTypingAndCancelling)
{
    lookForPin(rightPin);
    EXPECT_EQ(NTE_USER_CANCELLED, run([](const PinDialogWindow& dialog) {
                  dialog.type(rightPin);
                  dialog.pressCancel();
              }));
    expectWiped("cancelled");
}

// Whatever function of the token fails, by its answer or by an exception.
TEST_P(PinWiping, AfterEveryFailureOfTheToken)
{
    lookForPin(rightPin);
    std::vector<const char*> functions = {"C_Initialize",   "C_OpenSession",      "C_Login",
                                          "C_FindObjects",  "C_FindObjectsFinal", "C_Logout",
                                          "C_CloseSession", "C_Finalize"};
    functions.insert(functions.end(), GetParam().functions.begin(), GetParam().functions.end());
    for (const char* function : functions) {
        for (const bool throwing : {false, true}) {
            const std::string what = std::string(function) + (throwing ? " throws" : " fails");
            const auto spoil = [&] {
                throwing ? token().throwFrom(function, 1)
                         : token().fail(function, CKR_DEVICE_ERROR, 1);
            };
            EXPECT_EQ(NTE_INTERNAL_ERROR, runSpoilt(spoil)) << what;
            expectWiped(what);
        }
    }
}

class RefusedPin : public PinWiping {};

INSTANTIATE_TEST_SUITE_P(Operations, RefusedPin, testing::Values(operations[0], operations[4]),
                         [](const auto& row) { return row.param.name; });

// The token takes 5 to 15 bytes.
TEST_P(RefusedPin, AfterAnEmptyAShortAndALongOne)
{
    constexpr std::wstring_view shortPin = L"#w7Q";
    constexpr std::wstring_view longPin = L"16 are too many!";
    lookForPin(longPin);
    lookForPin(rightPin);
    // Eight bytes in the form of the dialog; four would be met by chance.
    memory().lookFor("short PIN", std::span(reinterpret_cast<const unsigned char*>(shortPin.data()),
                                            shortPin.size() * sizeof(wchar_t)));
    EXPECT_EQ(ERROR_SUCCESS, run([=](const PinDialogWindow& dialog) {
                  dialog.pressOk();
                  EXPECT_EQ(L"No characters entered.", dialog.dismissMessageBox());
                  dialog.type(shortPin);
                  dialog.pressOk();
                  EXPECT_EQ(L"Too short characters.", dialog.dismissMessageBox());
                  dialog.type(longPin);
                  dialog.pressOk();
                  EXPECT_EQ(L"Too many characters.", dialog.dismissMessageBox());
                  dialog.type(rightPin);
                  dialog.pressOk();
              }));
    expectWiped("refused PINs");
}

TEST_P(RefusedPin, AfterOneOutsideAscii)
{
    constexpr wchar_t pin[] = L"\u0150dd-\u20AC\u00E9-7\u0439\u4E1C1";
    lookForPin(pin);
    EXPECT_EQ(NTE_INTERNAL_ERROR, run(DialogDriver::entering(pin)));
    expectWiped("PIN outside ASCII");
}

}  // namespace

}  // namespace NV::test
