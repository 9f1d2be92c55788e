// Dialogs that cannot be shown, and errors of the log while one is open. Dialog and provider are
// linked into the test, so that their logger is the test's.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "config/config.h"
#include "dialog_driver.h"
#include "folder.h"
#include "log_capture.h"
#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"
#include "pindialog/pindialog.h"
#include "profile.h"
#include "provider_module.h"
#include "signing_token.h"
#include "trace_file.h"

namespace NV::test {

namespace {

// Records until the clock of the log throws; negative: never.
std::atomic<int> recordsLeft = -1;

std::chrono::system_clock::time_point failingClock()
{
    if (recordsLeft >= 0 && recordsLeft-- == 0)
        throw std::runtime_error("the clock stands still");
    return std::chrono::system_clock::now();
}

class PinFailure : public testing::Test {
protected:
    PinFailure()
    {
        loggerSettings().now = &failingClock;
        profile_.writeConfigFor(ScriptedToken::widePath());
        module_.emplace();
        Config::instance().load(narrowPath(profile_.configFile()));
    }
    void TearDown() override
    {
        recordsLeft = -1;
        Config::instance().setModuleInstance(nullptr);
    }

    // Opens a provider with the signing key; the dialog's template comes from this instance.
    void openProvider(HINSTANCE instance)
    {
        Config::instance().setModuleInstance(instance);
        ASSERT_TRUE(provider_.init());
        const std::wstring name = SigningToken::keyName();
        ASSERT_EQ(provider_.OpenKey(&key_, name.c_str(), 0, 0), ERROR_SUCCESS);
        log_.takeLines();
        signingToken_.token().clearCalls();
    }

    SECURITY_STATUS sign()
    {
        BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
        BYTE hash[32] = {7, 3, 9, 1};
        BYTE signature[256] = {};
        DWORD size = 0;
        return provider_.SignHash(key_, &padding, hash, sizeof hash, signature, sizeof signature,
                                  &size, BCRYPT_PAD_PKCS1);
    }

    Profile profile_;
    LogCapture log_;
    SigningToken signingToken_;
    std::optional<ProviderModule> module_;
    Provider provider_;
    NCRYPT_KEY_HANDLE key_ = 0;
};

TEST_F(PinFailure, NoRequestGivesNoPin)
{
    log_.takeLines();
    EXPECT_TRUE(requestPIN(nullptr).empty());
    EXPECT_TRUE(log_.takeLines().empty());
}

TEST_F(PinFailure, WithoutAnInstanceNothingIsShown)
{
    const PINRequest request{nullptr, nullptr, 4, 8};
    log_.takeLines();
    PINDialog dialog(request);
    EXPECT_TRUE(dialog.open());
    EXPECT_TRUE(dialog.pin().empty());
    EXPECT_FALSE(dialog.canceled());
    expectBlock(log_.takeLines(), R"(
TRC NV::PINDialog::open:ENTER
TRC NV::PINDialog::open:hInstance=NULL
TRC NV::PINDialog::open:hWnd(Parent)=NULL
TRC NV::PINDialog::open:LEAVE)");
    EXPECT_TRUE(requestPIN(&request).empty());
}

TEST_F(PinFailure, WithoutTheTemplateNothingIsShown)
{
    const PINRequest request{GetModuleHandleW(nullptr), nullptr, 4, 8};
    log_.takeLines();
    PINDialog dialog(request);
    EXPECT_TRUE(dialog.open());
    EXPECT_TRUE(dialog.pin().empty());
    EXPECT_FALSE(dialog.canceled());
    expectTrace(log_.takeLines(), "dll/dialog/pin_failure/without_the_template_nothing_is_shown");
    EXPECT_TRUE(requestPIN(&request).empty());
}

// What cannot be shown ends as an empty PIN: status 0, and the token is not asked.
TEST_F(PinFailure, SigningWithoutADialogDoesNothingAndSucceeds)
{
    openProvider(GetModuleHandleW(nullptr));
    EXPECT_EQ(sign(), ERROR_SUCCESS);
    EXPECT_TRUE(signingToken_.token().calls().empty());
    const LogLines lines = log_.takeLines();
    expectBlock(ofFunction(lines, "NV::Provider::enterPIN"), R"(
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
TRC NV::Provider::enterPIN:Entered Pin is 0 bytes
TRC NV::Provider::enterPIN:LEAVE)");
    EXPECT_TRUE(hasLine(
        lines, "TRC NV::Provider::SignHash:Success to retrive the entered pin = 0 (bytes)"));
}

// An exception that left the window procedure would cross the window manager.

TEST_F(PinFailure, AnErrorOnOkLeavesTheRequest)
{
    const PINRequest request{module_->handle(), nullptr, 4, 8};
    {
        const DialogDriver driver([](const PinDialogWindow& dialog) {
            dialog.type(L"pin-73");
            recordsLeft = 0;
            dialog.pressOk();
        });
        EXPECT_THROW(requestPIN(&request), std::runtime_error);
    }
    const DialogDriver driver(DialogDriver::entering(L"pin-73"));
    EXPECT_EQ(requestPIN(&request).size(), 6u);
}

TEST_F(PinFailure, AnErrorWhileTheDialogOpensLeavesTheRequest)
{
    const PINRequest request{module_->handle(), nullptr, 4, 8};
    // ENTER, hInstance, hWnd, self; then the lines of the dialog's first message.
    for (int records = 4; records < 12; ++records) {
        recordsLeft = records;
        EXPECT_THROW(requestPIN(&request), std::runtime_error) << records;
    }
    EXPECT_EQ(recordsLeft, -1);
    const DialogDriver driver(DialogDriver::entering(L"pin-73"));
    EXPECT_EQ(requestPIN(&request).size(), 6u);
}

TEST_F(PinFailure, AnErrorInTheDialogIsAnInternalError)
{
    openProvider(module_->handle());
    {
        const DialogDriver driver([](const PinDialogWindow& dialog) {
            dialog.type(signingPin);
            recordsLeft = 0;
            dialog.pressOk();
        });
        EXPECT_EQ(sign(), NTE_INTERNAL_ERROR);
    }
    EXPECT_TRUE(signingToken_.token().calls().empty());
    expectBlock(ofFunction(log_.takeLines(), "NV::Provider::enterPIN"), R"(
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
ERR NV::Provider::enterPIN:Caught Unknown Exception
TRC NV::Provider::enterPIN:LEAVE)");
    const DialogDriver driver(DialogDriver::entering(signingPin));
    EXPECT_EQ(sign(), ERROR_SUCCESS);
}

}  // namespace

}  // namespace NV::test
