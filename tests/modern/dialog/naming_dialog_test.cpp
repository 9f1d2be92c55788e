// What the modern dialog says: which program, which key of which token, and the token's warning.

#include "naming_dialog.h"

#include <string>

namespace NV::test {
namespace {

TEST_F(NamingDialog, saysWhichProgramKeyAndToken)
{
    look([](const PinDialogWindow& dialog) {
        EXPECT_EQ(dialog.text(labelOf(DialogLine::program)), L"Program");
        EXPECT_EQ(dialog.text(valueOf(DialogLine::program)), L"modern_dialog_test.exe");
        EXPECT_EQ(dialog.text(labelOf(DialogLine::key)), L"Key");
        EXPECT_EQ(dialog.text(valueOf(DialogLine::key)), L"Erika Mustermann");
        EXPECT_EQ(dialog.text(labelOf(DialogLine::token)), L"Token");
        EXPECT_EQ(dialog.text(valueOf(DialogLine::token)), L"Work card");
        EXPECT_TRUE(isShown(dialog, DialogLine::program) && isShown(dialog, DialogLine::key) &&
                    isShown(dialog, DialogLine::token));
    });
}

TEST_F(NamingDialog, isTheOneOfModernOnly)
{
    setMode(Mode());
    look([](const PinDialogWindow& dialog) {
        EXPECT_EQ(GetDlgItem(dialog.handle(), valueOf(DialogLine::key)), nullptr);
        EXPECT_NE(GetDlgItem(dialog.handle(), pinField), nullptr);
    });
}

TEST_F(NamingDialog, namesTheKeyWithoutASubjectByItsName)
{
    for (const wchar_t* subject : {L"", L"  \t ", L"\u202E\u200B"}) {
        request_.subject.certificate = subject;
        EXPECT_EQ(shown(DialogLine::key), L"01AB");
    }
}

TEST_F(NamingDialog, saysThatATokenHasNoLabel)
{
    request_.subject.tokenLabel = std::wstring(32, L' ');
    EXPECT_EQ(shown(DialogLine::token), L"(without a label)");
    request_.subject.tokenLabel = std::wstring(32, L'\0');
    EXPECT_EQ(shown(DialogLine::token), L"(without a label)");
}

TEST_F(NamingDialog, takesNoOtherLineFromAName)
{
    request_.subject.certificate = L"Erika\r\nToken: Other card\u2028x \u202Exe.dab";
    request_.subject.tokenLabel = std::wstring(L"Work\0card  ", 11);
    EXPECT_EQ(shown(DialogLine::key), L"Erika Token: Other card x xe.dab");
    EXPECT_EQ(shown(DialogLine::token), L"Work card");
}

TEST_F(NamingDialog, showsNamesOfAllScripts)
{
    for (const std::wstring name :
         {L"J\u00FCrgen M\u00FCller-L\u00FCdenscheidt", L"\u5C71\u7530\u592A\u90CE (\u7F72\u540D)",
          L"\u0628\u0637\u0627\u0642\u0629 12", L"\u05DB\u05E8\u05D8\u05D9\u05E1 (A)",
          L"\U0001F511 key", L"R&D && more", L"a\\b%s"}) {
        request_.subject.certificate = name;
        EXPECT_EQ(shown(DialogLine::key), name);
    }
}

// An ampersand would make the next character a shortcut.
TEST_F(NamingDialog, drawsAmpersandsAsTheyAre)
{
    look([](const PinDialogWindow& dialog) {
        for (const DialogLine line : dialogLines)
            EXPECT_NE(GetWindowLongW(dialog.control(valueOf(line)), GWL_STYLE) & SS_NOPREFIX, 0);
    });
}

// The width of a control's text in its font, in pixels.
LONG textWidth(HWND control, const std::wstring& text)
{
    HDC context = GetDC(control);
    HGDIOBJ before =
        SelectObject(context, reinterpret_cast<HFONT>(SendMessageW(control, WM_GETFONT, 0, 0)));
    SIZE size{};
    GetTextExtentPoint32W(context, text.c_str(), static_cast<int>(text.size()), &size);
    SelectObject(context, before);
    ReleaseDC(control, context);
    return size.cx;
}

TEST_F(NamingDialog, cutsLongNamesInTheMiddle)
{
    request_.subject.certificate = L"Begin " + std::wstring(490, L'x') + L" end";
    request_.subject.tokenLabel = std::wstring(500, L'\u5C71');
    look([](const PinDialogWindow& dialog) {
        for (const DialogLine line : {DialogLine::key, DialogLine::token}) {
            const std::wstring text = dialog.text(valueOf(line));
            HWND control = dialog.control(valueOf(line));
            RECT room{};
            GetClientRect(control, &room);
            EXPECT_LE(textWidth(control, text), room.right);
            // No more than two characters are missing.
            EXPECT_GT(textWidth(control, text) + 2 * textWidth(control, text.substr(8, 1)),
                      room.right);
            EXPECT_NE(text.find(L'\u2026'), std::wstring::npos);
        }
        const std::wstring key = dialog.text(valueOf(DialogLine::key));
        EXPECT_TRUE(key.starts_with(L"Begin xxx") && key.ends_with(L"xxx end"));
    });
}

TEST_F(NamingDialog, survivesAnEndlessName)
{
    request_.subject.certificate = std::wstring(1000000, L'w');
    const auto text = shown(DialogLine::key);
    ASSERT_TRUE(text);
    EXPECT_LT(text->size(), 200u);
}

TEST_F(NamingDialog, saysWhichWindowAsks)
{
    const OwnedWindow window = makeWindow(L"R&D\t\u2013 Inbox");
    request_.parent = window.get();
    EXPECT_EQ(shown(DialogLine::window), L"R&D \u2013 Inbox");
    // A part of a window stands for the whole.
    const OwnedWindow part = makeWindow(L"a part", WS_CHILD | WS_VISIBLE, window.get());
    request_.parent = part.get();
    EXPECT_EQ(shown(DialogLine::window), L"R&D \u2013 Inbox");
}

TEST_F(NamingDialog, hasNoWindowLineForNoWindowAHiddenOneOrOneWithoutATitle)
{
    EXPECT_EQ(shown(DialogLine::window), std::nullopt);
    const OwnedWindow hidden = makeWindow(L"hidden", WS_POPUP);
    request_.parent = hidden.get();
    EXPECT_EQ(shown(DialogLine::window), std::nullopt);
    const OwnedWindow untitled = makeWindow(L"");
    request_.parent = untitled.get();
    EXPECT_EQ(shown(DialogLine::window), std::nullopt);
}

TEST_F(NamingDialog, warnsOfTheLastTries)
{
    EXPECT_EQ(shown(DialogLine::warning), std::nullopt);
    request_.subject.warning = PINWarning::fewTries;
    EXPECT_EQ(shown(DialogLine::warning), L"Wrong PINs were entered before. Few tries are left.");
    request_.subject.warning = PINWarning::lastTry;
    EXPECT_EQ(shown(DialogLine::warning), L"This is the last try. A wrong PIN locks the token.");
}

// Each line that is missing makes the dialog smaller, and leaves no hole.
TEST_F(NamingDialog, closesTheGapOfMissingLines)
{
    const OwnedWindow window = makeWindow(L"Inbox");
    struct Looks {
        LONG height, middle, field, lastLine, distance;
    };
    const auto measure = [&] {
        Looks looks{};
        look([&](const PinDialogWindow& dialog) {
            const RECT frame = placeIn(nullptr, dialog.handle());
            looks = {frame.bottom - frame.top, frame.bottom + frame.top,
                     placeIn(dialog.handle(), dialog.control(pinField)).top,
                     placeIn(dialog.handle(), dialog.control(valueOf(DialogLine::token))).top, 0};
            looks.distance = looks.lastLine -
                             placeIn(dialog.handle(), dialog.control(valueOf(DialogLine::key))).top;
        });
        return looks;
    };
    const Looks none = measure();
    request_.subject.warning = PINWarning::fewTries;
    const Looks warning = measure();
    request_.parent = window.get();
    const Looks both = measure();

    const LONG step = warning.height - none.height;
    EXPECT_EQ(step, both.distance);
    EXPECT_EQ(warning.field - none.field, step);
    EXPECT_EQ(warning.lastLine, none.lastLine);
    EXPECT_EQ(both.height - warning.height, step);
    EXPECT_EQ(both.field - warning.field, step);
    EXPECT_EQ(both.lastLine - warning.lastLine, step);
    EXPECT_NEAR(both.middle, none.middle, 4);
}

}  // namespace
}  // namespace NV::test
