// The dialog's PIN field keeps its text in memory of the window system, which does not wipe it. So
// the field is overwritten before it goes, whichever way the dialog ends.

#include <atomic>

#include "wiping_fixture.h"

namespace NV::test {

namespace {

constexpr wchar_t typedPin[] = L"odd-PIN-7391";
constexpr int pinField = 1001;

// What the field held when its window was destroyed; the window procedure that was there before.
std::wstring lastText;
std::atomic<bool> destroyed;
WNDPROC previousProcedure;

LRESULT CALLBACK lookAtTheEnd(HWND field, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_DESTROY) {
        std::wstring text(100, L'\0');
        text.resize(
            static_cast<size_t>(CallWindowProcW(previousProcedure, field, WM_GETTEXT, text.size(),
                                                reinterpret_cast<LPARAM>(text.data()))));
        lastText = text;
        destroyed = true;
    }
    return CallWindowProcW(previousProcedure, field, message, wParam, lParam);
}

void watchTheField(const PinDialogWindow& dialog)
{
    HWND field = dialog.control(pinField);
    previousProcedure = reinterpret_cast<WNDPROC>(GetWindowLongPtrW(field, GWLP_WNDPROC));
    SetWindowLongPtrW(field, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&lookAtTheEnd));
}

class PinFieldTest : public WatchedTest {
protected:
    PinFieldTest()
    {
        lastText = L"not looked at";
        destroyed = false;
    }

    SECURITY_STATUS sign(const DialogDriver::Script& script)
    {
        const DialogDriver driver([script](const PinDialogWindow& dialog) {
            watchTheField(dialog);
            dialog.type(typedPin);
            script(dialog);
        });
        BYTE hash[32] = {7, 3, 9, 1};
        BYTE signature[64];
        DWORD written = 0;
        return table().SignHash(provider(), ecKey(), nullptr, hash, sizeof hash, signature,
                                sizeof signature, &written, 0);
    }
};

TEST_F(PinFieldTest, IsEmptyWhenTheDialogWasAccepted)
{
    EXPECT_EQ(ERROR_SUCCESS, sign([](const PinDialogWindow& dialog) { dialog.pressOk(); }));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(L"", lastText);
}

TEST_F(PinFieldTest, IsEmptyWhenTheDialogWasCancelled)
{
    EXPECT_EQ(NTE_USER_CANCELLED,
              sign([](const PinDialogWindow& dialog) { dialog.pressCancel(); }));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(L"", lastText);
}

// The watching shows what it is for: a field of another dialog keeps its text to the end.
TEST_F(PinFieldTest, AnotherFieldKeepsItsText)
{
    HWND field = CreateWindowExW(0, L"EDIT", L"", WS_POPUP, 0, 0, 100, 20, nullptr, nullptr,
                                 nullptr, nullptr);
    ASSERT_NE(nullptr, field);
    previousProcedure = reinterpret_cast<WNDPROC>(GetWindowLongPtrW(field, GWLP_WNDPROC));
    SetWindowLongPtrW(field, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&lookAtTheEnd));
    SetWindowTextW(field, typedPin);
    DestroyWindow(field);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(typedPin, lastText);
}

}  // namespace

}  // namespace NV::test
