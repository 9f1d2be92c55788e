// The whole log of one signature, from the entry point's ENTER to its LEAVE: when all goes well, when
// the dialog is cancelled, when the login fails, and when the key is missing.

#include <regex>

#include "dialog_driver.h"
#include "module_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class SignTraceTest : public ServedKeysTest {
protected:
    static std::wstring rightPin() { return {kPin.begin(), kPin.end()}; }

    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, DWORD room, DWORD flags = 0,
                         void* padding = nullptr)
    {
        return table()->SignHash(handle(), key, padding, hash.data(), 32, output.at(), room,
                                 &output.length, flags);
    }

    // The lines since the last look. The dialog's size and place depend on fonts and screen; they
    // become "#".
    LogLines comparableLines()
    {
        static const std::regex size(R"(GetWindowRect\(\) w=\d+, h=\d+)");
        static const std::regex place(R"(cordination x=-?\d+, y=-?\d+)");
        LogLines lines = takeLines();
        for (LogLine& line : lines) {
            line.message = std::regex_replace(line.message, size, "GetWindowRect() w=#, h=#");
            line.message = std::regex_replace(line.message, place, "cordination x=#, y=#");
        }
        return lines;
    }

    Output output;
};

}  // namespace

TEST_F(SignTraceTest, ofASignature)
{
    BCRYPT_PKCS1_PADDING_INFO sha256{L"SHA256"};
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin()));
        EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 256, 0x2, &sha256));
    }
    const Bytes signature(output.at(), output.at() + 256);
    expectTrace(comparableLines(), "dll/keys/sign",
                {{"HASH", hexEncode(hash)}, {"SIGNATURE", hexEncode(signature)}});
}

TEST_F(SignTraceTest, ofACancelledDialog)
{
    {
        const DialogDriver dialog(DialogDriver::cancelling());
        EXPECT_EQ(status(NTE_USER_CANCELLED), sign(rsa, 256));
    }
    expectTrace(comparableLines(), "dll/keys/sign_cancelled");
}

TEST_F(SignTraceTest, ofAFailingLogin)
{
    {
        const DialogDriver dialog(DialogDriver::entering(L"wrong-pin"));
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(ec, 256));
    }
    expectTrace(comparableLines(), "dll/keys/sign_wrong_pin");
}

TEST_F(SignTraceTest, ofAMissingKey)
{
    token.clearObjects();
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin()));
        EXPECT_EQ(status(NTE_INTERNAL_ERROR), sign(rsa, 256));
    }
    expectTrace(comparableLines(), "dll/keys/sign_missing_key");
}

}  // namespace NV::test
