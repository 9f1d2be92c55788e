// How the modern dialog is used: the PIN and its bounds, the keyboard, and what a screen reader finds.

#include "naming_dialog.h"

#include <map>
#include <string>
#include <vector>

namespace NV::test {
namespace {

constexpr wchar_t bullet = 0x2022;

// The first message that the dialog shows for the text; the dialog stays open, with the text in it.
class PinRules : public NamingDialog {
protected:
    std::wstring refusal(const std::wstring& text)
    {
        std::wstring message;
        look([&](const PinDialogWindow& dialog) {
            dialog.type(text);
            dialog.pressOk();
            std::wstring title;
            message = dialog.dismissMessageBox(&title);
            EXPECT_EQ(title, L"Error");
            EXPECT_TRUE(dialog.isOpen());
            EXPECT_EQ(dialog.text(pinField), text);
        });
        return message;
    }
};

TEST_F(PinRules, aPinIsUtf8)
{
    EXPECT_EQ(ask(DialogDriver::entering(L"pin-73")), "pin-73");
    EXPECT_EQ(ask(DialogDriver::entering(L"\u00E4\u20AC\u0141")), "\xC3\xA4\xE2\x82\xAC\xC5\x81");
    EXPECT_EQ(ask(DialogDriver::entering(L"ab\U0001F600")), "ab\xF0\x9F\x98\x80");
}

TEST_F(PinRules, theLengthIsThatOfTheBytes)
{
    request_.minimumLength = request_.maximumLength = 6;
    EXPECT_EQ(ask(DialogDriver::entering(L"\u00E4\u00F6\u00FC")), "\xC3\xA4\xC3\xB6\xC3\xBC");
    EXPECT_EQ(
        refusal(L"\u00E4\u00F6\u00FCx"),
        L"The PIN is too long. A PIN of this token has exactly 6 characters. Accented letters "
        L"and characters of other scripts count as two to four.");
    EXPECT_EQ(
        refusal(L"\u00E4\u00F6x"),
        L"The PIN is too short. A PIN of this token has exactly 6 characters. Accented letters "
        L"and characters of other scripts count as two to four.");
    EXPECT_TRUE(refusal(L"12345").ends_with(L"has exactly 6 characters."));
    EXPECT_TRUE(refusal(L"1234567").ends_with(L"has exactly 6 characters."));
}

TEST_F(PinRules, theBoundsThemselvesAreAllowed)
{
    EXPECT_EQ(ask(DialogDriver::entering(L"1234")), "1234");
    EXPECT_EQ(ask(DialogDriver::entering(L"12345678")), "12345678");
    EXPECT_EQ(refusal(L"123"), L"The PIN is too short. A PIN of this token has 4 to 8 characters.");
    EXPECT_EQ(refusal(L"123456789"),
              L"The PIN is too long. A PIN of this token has 4 to 8 characters.");
}

TEST_F(PinRules, theLargestBoundIsNone)
{
    request_.maximumLength = 0xFFFFFFFF;
    EXPECT_EQ(ask(DialogDriver::entering(std::wstring(300, L'7'))), std::string(300, '7'));
    EXPECT_EQ(refusal(L"123"),
              L"The PIN is too short. A PIN of this token has at least 4 characters.");
}

TEST_F(PinRules, noCharactersAreRefusedAsInClassic)
{
    EXPECT_EQ(refusal(L""), L"No characters entered.");
}

TEST_F(PinRules, theLogShowsNoPin)
{
    ask(DialogDriver::entering(L"pi\u00F1-73"));
    EXPECT_TRUE(hasLine(log_.lines(), "TRC NV::PINDialog::Procedure:WM_COMMAND[IDOK]: verified "
                                      "password(7:bytes)"));
    for (const LogLine& line : log_.lines())
        EXPECT_EQ(line.raw.find("-73"), std::string::npos) << line.raw;
}

TEST_F(PinRules, theCharactersAreShownAndHidden)
{
    EXPECT_EQ(ask([](const PinDialogWindow& dialog) {
                  EXPECT_EQ(dialog.maskCharacter(), bullet);
                  EXPECT_EQ(dialog.text(showButton), L"Show");
                  dialog.type(L"pin-73");
                  dialog.press(showButton);
                  dialog.waitForText(showButton, L"Hide");
                  EXPECT_EQ(dialog.maskCharacter(), 0);
                  dialog.press(showButton);
                  dialog.waitForText(showButton, L"Show");
                  EXPECT_EQ(dialog.maskCharacter(), bullet);
                  dialog.pressOk();
              }),
              "pin-73");
}

TEST_F(PinRules, enterAcceptsAndEscapeCancels)
{
    EXPECT_EQ(ask([](const PinDialogWindow& dialog) {
                  dialog.type(L"pin-73");
                  dialog.pressKey(VK_RETURN);
              }),
              "pin-73");
    try {
        ask([](const PinDialogWindow& dialog) {
            dialog.type(L"pin-73");
            dialog.pressKey(VK_ESCAPE);
        });
        ADD_FAILURE() << "gave a PIN";
    } catch (const PINDialogException& error) {
        EXPECT_EQ(error.code(), PINDialogException::userCanceled);
    }
}

// With Tab from the field, which has the focus at the beginning.
TEST_F(PinRules, theKeyboardReachesEveryControl)
{
    look([](const PinDialogWindow& dialog) {
        std::vector<int> reached;
        HWND control = dialog.control(pinField);
        do {
            reached.push_back(GetDlgCtrlID(control));
            control = GetNextDlgTabItem(dialog.handle(), control, FALSE);
        } while (control != dialog.control(pinField) && reached.size() < 20);
        EXPECT_EQ(reached, (std::vector<int>{pinField, showButton, IDCANCEL, IDOK}));
        GUITHREADINFO thread{};
        thread.cbSize = sizeof thread;
        GetGUIThreadInfo(GetWindowThreadProcessId(dialog.handle(), nullptr), &thread);
        EXPECT_EQ(thread.hwndFocus, dialog.control(pinField));
    });
}

TEST_F(PinRules, spaceOnTheButtonShowsTheCharacters)
{
    look([](const PinDialogWindow& dialog) {
        dialog.type(L"pin-73");
        for (const UINT message : {UINT{WM_KEYDOWN}, UINT{WM_KEYUP}})
            PostMessageW(dialog.control(showButton), message, VK_SPACE, 1);
        dialog.waitForText(showButton, L"Hide");
    });
}

struct Control {
    HWND window = nullptr;
    int id = 0;
    std::wstring className;
    DWORD style = 0;
    std::wstring text;
};

// In the order of the dialog, which is that of the keyboard and of a screen reader.
std::vector<Control> controlsOf(const PinDialogWindow& dialog)
{
    std::vector<Control> controls;
    for (HWND window = GetWindow(dialog.handle(), GW_CHILD); window != nullptr;
         window = GetWindow(window, GW_HWNDNEXT)) {
        wchar_t className[20] = {};
        wchar_t text[200] = {};
        GetClassNameW(window, className, 20);
        SendMessageW(window, WM_GETTEXT, 200, reinterpret_cast<LPARAM>(text));
        controls.push_back({window, GetDlgCtrlID(window), className,
                            static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE)), text});
    }
    return controls;
}

// A button has its own text. Other controls are named by the label before them.
TEST_F(PinRules, aScreenReaderFindsANameForEachControl)
{
    request_.subject.warning = PINWarning::lastTry;
    look([](const PinDialogWindow& dialog) {
        std::map<int, std::wstring> names;
        std::wstring before;
        for (const Control& control : controlsOf(dialog)) {
            const bool named = _wcsicmp(control.className.c_str(), L"Button") == 0;
            names[control.id] = named ? control.text : before;
            before = control.text;
        }
        const std::map<int, std::wstring> expected = {
            {valueOf(DialogLine::program), L"Program"},
            {valueOf(DialogLine::window), L"Window"},
            {valueOf(DialogLine::key), L"Key"},
            {valueOf(DialogLine::token), L"Token"},
            {valueOf(DialogLine::warning), L"Warning"},
            {pinField, L"Token &PIN"},
            {showButton, L"Show"},
            {IDCANCEL, L"Cancel"},
            {IDOK, L"OK"},
        };
        for (const auto& [id, name] : expected)
            EXPECT_EQ(names[id], name) << id;
    });
}

// What the two dialogs have in common.
TEST_F(PinRules, theControlsOfClassicAreTheSame)
{
    const auto shared = [&] {
        std::map<int, Control> controls;
        std::map<int, RECT> places;
        look([&](const PinDialogWindow& dialog) {
            for (const Control& control : controlsOf(dialog)) {
                controls[control.id] = control;
                GetClientRect(control.window, &places[control.id]);
            }
        });
        return std::pair(controls, places);
    };
    const auto [modern, modernPlaces] = shared();
    setMode(Mode());
    const auto [classic, classicPlaces] = shared();
    for (const int id : {pinField, iconControl, showButton, IDCANCEL, IDOK}) {
        ASSERT_TRUE(modern.contains(id) && classic.contains(id)) << id;
        EXPECT_EQ(modern.at(id).className, classic.at(id).className) << id;
        EXPECT_EQ(modern.at(id).style, classic.at(id).style) << id;
        EXPECT_EQ(modern.at(id).text, classic.at(id).text) << id;
        EXPECT_EQ(modernPlaces.at(id).right, classicPlaces.at(id).right) << id;
        EXPECT_EQ(modernPlaces.at(id).bottom, classicPlaces.at(id).bottom) << id;
    }
}

// No control lies over another one or outside the dialog, with all lines and with the fewest.
TEST_F(PinRules, theControlsDoNotOverlap)
{
    for (const PINWarning warning : {PINWarning::none, PINWarning::fewTries}) {
        request_.subject.warning = warning;
        look([](const PinDialogWindow& dialog) {
            RECT room{};
            GetClientRect(dialog.handle(), &room);
            std::vector<RECT> places;
            for (const Control& control : controlsOf(dialog)) {
                if ((control.style & WS_VISIBLE) == 0)
                    continue;
                const RECT place = placeIn(dialog.handle(), control.window);
                EXPECT_TRUE(place.left >= 0 && place.top >= 0 && place.right <= room.right &&
                            place.bottom <= room.bottom)
                    << control.id;
                for (const RECT& other : places) {
                    RECT common{};
                    EXPECT_FALSE(IntersectRect(&common, &place, &other)) << control.id;
                }
                places.push_back(place);
            }
            EXPECT_GE(places.size(), 13u);
        });
    }
}

}  // namespace
}  // namespace NV::test
