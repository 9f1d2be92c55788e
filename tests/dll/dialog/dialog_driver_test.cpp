// The driver of the dialog itself: what it does when things go another way than the test expects.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "dialog_driver.h"
#include "log_capture.h"
#include "pindialog/pindialog.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

namespace {

// EXPECT_NONFATAL_FAILURE takes no variable of the function around it.
PINRequest request{};

class DriverTest : public testing::Test {
protected:
    DriverTest()
    {
        profile_.writeConfigFor(ScriptedToken::widePath());
        module_.emplace();
        request = {module_->handle(), nullptr, 4, 8};
    }

    Profile profile_;
    std::optional<ProviderModule> module_;
    LogCapture log_;
};

void askWith(DialogDriver::Script script, int dialogs = 1)
{
    const DialogDriver driver(std::move(script));
    for (int i = 0; i < dialogs; ++i) {
        try {
            requestPIN(&request);
        } catch (const PINDialogException&) {
            // Cancelled by the driver.
        }
    }
}

TEST_F(DriverTest, FailsWhenNoDialogOpens)
{
    EXPECT_NONFATAL_FAILURE(askWith(DialogDriver::cancelling(), 0), "it did not open");
}

TEST_F(DriverTest, CancelsTheDialogWhenTheScriptThrows)
{
    EXPECT_NONFATAL_FAILURE(
        askWith([](const PinDialogWindow&) { throw std::runtime_error("the script gave up"); }),
        "the script gave up");
}

TEST_F(DriverTest, CancelsTheDialogBehindAMessageBoxToo)
{
    EXPECT_NONFATAL_FAILURE(askWith([](const PinDialogWindow& dialog) {
                                dialog.pressOk();
                                throw std::runtime_error("the script gave up");
                            }),
                            "the script gave up");
}

TEST_F(DriverTest, CancelsADialogTooMany)
{
    EXPECT_NONFATAL_FAILURE(askWith(DialogDriver::cancelling(), 2),
                            "it opened more often than expected");
}

TEST_F(DriverTest, FailsForAControlThatIsNotThere)
{
    EXPECT_NONFATAL_FAILURE(askWith([](const PinDialogWindow& dialog) { dialog.press(7391); }),
                            "no control 7391");
}

TEST_F(DriverTest, LeavesTheDialogsOfALaterDriverAlone)
{
    const DialogDriver first(DialogDriver::cancelling());
    EXPECT_THROW(requestPIN(&request), PINDialogException);
    const DialogDriver second(DialogDriver::entering(L"pin-73"), 2);
    EXPECT_EQ(requestPIN(&request).size(), 6u);
    EXPECT_EQ(requestPIN(&request).size(), 6u);
    EXPECT_EQ(first.answered(), 1);
}

}  // namespace

}  // namespace NV::test
