// The dialog's window: what the user may type and press, and what comes of it. The dialog is linked
// into the test; its template comes from the module.

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "dialog_driver.h"
#include "log_capture.h"
#include "pindialog/pindialog.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"
#include "trace_file.h"

namespace NV::test {

namespace {

constexpr int pinField = 1001;
constexpr int showButton = 1008;
constexpr wchar_t bullet = 0x2022;

class PinDialog : public testing::Test {
protected:
    PinDialog()
    {
        profile_.writeConfigFor(ScriptedToken::widePath());
        module_.emplace();
        request_ = {module_->handle(), nullptr, 4, 8};
    }

    // Runs the dialog with the script; the PIN as text.
    std::string ask(DialogDriver::Script script)
    {
        const DialogDriver driver(std::move(script));
        const SecretBytes pin = requestPIN(&request_);
        return {pin.begin(), pin.end()};
    }

    // That the text is refused with the message, and that the dialog stays and takes another one.
    void expectRefusal(const std::wstring& text, const std::wstring& message)
    {
        const std::string pin = ask([&](const PinDialogWindow& dialog) {
            dialog.type(text);
            dialog.pressOk();
            std::wstring title;
            EXPECT_EQ(dialog.dismissMessageBox(&title), message);
            EXPECT_EQ(title, L"Error");
            EXPECT_TRUE(dialog.isOpen());
            EXPECT_EQ(dialog.text(pinField), text);
            const std::wstring good(request_.minimumLength > 0 ? request_.minimumLength : 1, L'g');
            dialog.type(good);
            dialog.pressOk();
        });
        EXPECT_EQ(pin, std::string(pin.size(), 'g'));
        EXPECT_GE(pin.size(), 1u);
    }

    static std::string numbers(const char* format, int first, int second)
    {
        char text[120];
// Both formats are in this file.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::snprintf(text, sizeof text, format, first, second);
#pragma GCC diagnostic pop
        return text;
    }

    Profile profile_;
    std::optional<ProviderModule> module_;
    LogCapture log_;
    PINRequest request_{};
};

TEST_F(PinDialog, GivesThePinAndLogsItsSteps)
{
    RECT frame{};
    const std::string pin = ask([&](const PinDialogWindow& dialog) {
        GetWindowRect(dialog.handle(), &frame);
        dialog.type(L"pin-73");
        dialog.pressOk();
    });
    EXPECT_EQ(pin, "pin-73");

    const int width = frame.right - frame.left;
    const int height = frame.bottom - frame.top;
    const std::string size = numbers("w=%d, h=%d", width, height);
    const std::string position =
        numbers("x=%d, y=%d", GetSystemMetrics(SM_CXSCREEN) / 2 - width / 2,
                GetSystemMetrics(SM_CYSCREEN) / 2 - height / 2);
    const LogLines lines = log_.lines();
    expectTrace(lines, "dll/dialog/pindialog/gives_the_pin",
                {{"SIZE", size}, {"POSITION", position}});
    EXPECT_EQ(lines.front().file, "pindialog.cpp");
    EXPECT_EQ(render(lines).find("pin-73"), std::string::npos);
}

TEST_F(PinDialog, IsInTheMiddleOfTheScreen)
{
    ask([](const PinDialogWindow& dialog) {
        RECT frame{};
        RECT area{};
        GetWindowRect(dialog.handle(), &frame);
        SystemParametersInfoW(SPI_GETWORKAREA, 0, &area, 0);
        // Twice the middle.
        EXPECT_NEAR(frame.left + frame.right, area.left + area.right, 4);
        EXPECT_NEAR(frame.top + frame.bottom, area.top + area.bottom, 4);
        dialog.type(L"pin-73");
        dialog.pressOk();
    });
}

TEST_F(PinDialog, BeginsEmptyAndMaskedEveryTime)
{
    for (int i = 0; i < 2; ++i) {
        ask([](const PinDialogWindow& dialog) {
            EXPECT_EQ(dialog.text(pinField), L"");
            EXPECT_EQ(dialog.text(showButton), L"Show");
            EXPECT_EQ(dialog.maskCharacter(), bullet);
            dialog.type(L"pin-73");
            dialog.press(showButton);
            dialog.pressOk();
        });
    }
}

TEST_F(PinDialog, RefusesNoCharacters)
{
    expectRefusal(L"", L"No characters entered.");
    request_.minimumLength = 0;
    expectRefusal(L"", L"No characters entered.");
}

TEST_F(PinDialog, RefusesOneCharacterBelowTheMinimum)
{
    expectRefusal(L"123", L"Too short characters.");
    expectRefusal(L"1", L"Too short characters.");
}

TEST_F(PinDialog, RefusesOneCharacterAboveTheMaximum)
{
    expectRefusal(L"123456789", L"Too many characters.");
    expectRefusal(std::wstring(300, L'7'), L"Too many characters.");
}

TEST_F(PinDialog, RefusesAgainAndAgain)
{
    EXPECT_EQ(ask([](const PinDialogWindow& dialog) {
                  dialog.pressOk();
                  EXPECT_EQ(dialog.dismissMessageBox(), L"No characters entered.");
                  dialog.type(L"123");
                  dialog.pressOk();
                  EXPECT_EQ(dialog.dismissMessageBox(), L"Too short characters.");
                  dialog.type(L"123456789");
                  dialog.pressOk();
                  EXPECT_EQ(dialog.dismissMessageBox(), L"Too many characters.");
                  dialog.type(L"12345678");
                  dialog.pressOk();
              }),
              "12345678");
    // A refusal says nothing in the log.
    EXPECT_EQ(countLines(log_.lines(), "TRC NV::PINDialog::Procedure:WM_COMMAND[IDOK]: verified "
                                       "password(8:bytes)"),
              1u);
    EXPECT_EQ(ofLevel(log_.lines(), "TRC").size(), 15u);
}

TEST_F(PinDialog, TakesTheBoundsThemselves)
{
    EXPECT_EQ(ask(DialogDriver::entering(L"1234")), "1234");
    EXPECT_EQ(ask(DialogDriver::entering(L"12345678")), "12345678");
    request_.minimumLength = request_.maximumLength = 6;
    EXPECT_EQ(ask(DialogDriver::entering(L"123456")), "123456");
}

// A token that does not tell its limits may give the largest number.
TEST_F(PinDialog, ComparesTheBoundsWithoutSign)
{
    request_.minimumLength = 0;
    request_.maximumLength = 0xFFFFFFFF;
    EXPECT_EQ(ask(DialogDriver::entering(L"1")), "1");
    const std::wstring longPin(300, L'7');
    EXPECT_EQ(ask(DialogDriver::entering(longPin)), std::string(300, '7'));

    request_.minimumLength = 0xFFFFFFFF;
    EXPECT_THROW(ask([](const PinDialogWindow& dialog) {
                     dialog.type(L"12345678");
                     dialog.pressOk();
                     EXPECT_EQ(dialog.dismissMessageBox(), L"Too short characters.");
                     dialog.pressCancel();
                 }),
                 PINDialogException);
    request_.minimumLength = 0;
    request_.maximumLength = 0;
    EXPECT_THROW(ask([](const PinDialogWindow& dialog) {
                     dialog.type(L"1");
                     dialog.pressOk();
                     EXPECT_EQ(dialog.dismissMessageBox(), L"Too many characters.");
                     dialog.pressCancel();
                 }),
                 PINDialogException);
}

TEST_F(PinDialog, KeepsTheLowByteOfEachUnit)
{
    const std::string expected("\x00\x41\xE9\xAC\x7A", 5);
    EXPECT_EQ(ask(DialogDriver::entering(L"\u0100\u0141\u00E9\u20ACz")), expected);
    // A character outside the basic plane is two units.
    EXPECT_EQ(ask(DialogDriver::entering(L"ab\U0001F600")), std::string("ab\x3D\x00", 4));
    EXPECT_TRUE(hasLine(log_.lines(), "TRC NV::PINDialog::Procedure:WM_COMMAND[IDOK]: verified "
                                      "password(4:bytes)"));
}

TEST_F(PinDialog, ShowsAndHidesTheCharacters)
{
    const std::string pin = ask([](const PinDialogWindow& dialog) {
        dialog.type(L"pin-73");
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(dialog.maskCharacter(), bullet);
            EXPECT_EQ(dialog.text(showButton), L"Show");
            dialog.press(showButton);
            dialog.waitForText(showButton, L"Hide");
            EXPECT_EQ(dialog.maskCharacter(), 0);
            EXPECT_EQ(dialog.text(pinField), L"pin-73");
            dialog.press(showButton);
            dialog.waitForText(showButton, L"Show");
        }
        EXPECT_EQ(dialog.maskCharacter(), bullet);
        dialog.press(showButton);
        dialog.waitForText(showButton, L"Hide");
        dialog.pressOk();
    });
    EXPECT_EQ(pin, "pin-73");
}

TEST_F(PinDialog, EnterPressesOk)
{
    EXPECT_EQ(ask([](const PinDialogWindow& dialog) {
                  dialog.type(L"pin-73");
                  dialog.pressKey(VK_RETURN);
              }),
              "pin-73");
}

// Tabbing to another button makes that one the default; typing brings OK back.
TEST_F(PinDialog, TypingMakesOkTheDefault)
{
    EXPECT_EQ(ask([](const PinDialogWindow& dialog) {
                  SendMessageW(dialog.handle(), DM_SETDEFID, IDCANCEL, 0);
                  EXPECT_EQ(LOWORD(SendMessageW(dialog.handle(), DM_GETDEFID, 0, 0)), IDCANCEL);
                  dialog.type(L"pin-73");
                  EXPECT_EQ(LOWORD(SendMessageW(dialog.handle(), DM_GETDEFID, 0, 0)), IDOK);
                  dialog.pressKey(VK_RETURN);
              }),
              "pin-73");
}

class PinDialogCancelled : public PinDialog, public testing::WithParamInterface<bool> {};

TEST_P(PinDialogCancelled, IsAnExceptionWithCode2)
{
    try {
        ask([](const PinDialogWindow& dialog) {
            dialog.type(L"pin-73");
            GetParam() ? dialog.pressCancel() : dialog.pressKey(VK_ESCAPE);
        });
        ADD_FAILURE() << "gave a PIN";
    } catch (const PINDialogException& error) {
        EXPECT_STREQ(error.what(), "User canceled");
        EXPECT_EQ(error.code(), 2u);
    }
    const LogLines lines = log_.lines();
    expectBlock({lines.end() - 3, lines.end()}, R"(
TRC NV::PINDialog::Procedure:WM_COMMAND[IDCANCEL]: canceled
TRC NV::PINDialog::open:result = 1
TRC NV::PINDialog::open:LEAVE)");
}

INSTANTIATE_TEST_SUITE_P(ButtonOrEscape, PinDialogCancelled, testing::Bool());

TEST_F(PinDialog, ANullParentMakesADialogWithoutOwner)
{
    ask([](const PinDialogWindow& dialog) {
        EXPECT_EQ(GetWindow(dialog.handle(), GW_OWNER), nullptr);
        EXPECT_EQ(GetAncestor(dialog.handle(), GA_PARENT), GetDesktopWindow());
        dialog.type(L"pin-73");
        dialog.pressOk();
    });
}

}  // namespace

}  // namespace NV::test
