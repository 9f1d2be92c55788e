// Dialogs that cannot be shown: the request fails, where classic gives an empty PIN. And the
// initialization of the common controls, which comes before the first dialog.

#include "naming_dialog.h"

#include <commctrl.h>

#include <atomic>
#include <memory>
#include <type_traits>

namespace {

std::atomic<int> controlInitializations = 0;

BOOL WINAPI countInitialization(const INITCOMMONCONTROLSEX* controls)
{
    EXPECT_EQ(controls->dwSize, sizeof *controls);
    ++controlInitializations;
    return TRUE;
}

}  // namespace

// In the place of the pointer through which the function of comctl32 is called.
// NOLINTNEXTLINE(readability-identifier-naming,bugprone-reserved-identifier)
extern "C" const void* const __imp_InitCommonControlsEx =
    reinterpret_cast<const void*>(&countInitialization);

namespace NV::test {
namespace {

class UnshownDialog : public NamingDialog {
protected:
    // The code with which the request fails; 0 if it gives a PIN.
    uint32_t failure()
    {
        try {
            EXPECT_TRUE(requestPIN(&request_).empty());
            return 0;
        } catch (const PINDialogException& error) {
            return error.code();
        }
    }

    // That the request fails in modern, with a line in the log, and gives an empty PIN in classic.
    void expectFailure()
    {
        log_.takeLines();
        EXPECT_EQ(failure(), PINDialogException::openFailed);
        EXPECT_TRUE(
            hasLine(log_.takeLines(), "ERR NV::PINDialog::open:The dialog cannot be shown"));
        setMode(Mode());
        EXPECT_EQ(failure(), 0u);
        EXPECT_TRUE(ofLevel(log_.takeLines(), "ERR").empty());
        setMode(Mode(Behaviour::modern));
    }
};

TEST_F(UnshownDialog, withoutAnInstance)
{
    request_.instance = nullptr;
    expectFailure();
}

TEST_F(UnshownDialog, withoutTheTemplate)
{
    request_.instance = GetModuleHandleW(nullptr);
    expectFailure();
}

TEST_F(UnshownDialog, withAnOwnerThatIsGone)
{
    HWND owner = CreateWindowExW(0, L"STATIC", L"Odd owner", WS_POPUP, 0, 0, 9, 9, nullptr, nullptr,
                                 nullptr, nullptr);
    DestroyWindow(owner);
    request_.parent = owner;
    expectFailure();
}

struct StationCloser {
    void operator()(HWINSTA station) const { CloseWindowStation(station); }
};
using Station = std::unique_ptr<std::remove_pointer_t<HWINSTA>, StationCloser>;

// A service's windows are on a station that nobody sees. There the dialog would wait forever.
TEST_F(UnshownDialog, onAStationWithoutAScreen)
{
    HWINSTA before = GetProcessWindowStation();
    {
        const Station service(CreateWindowStationW(L"odd-station", 0, WINSTA_ALL_ACCESS, nullptr));
        ASSERT_NE(service, nullptr);
        ASSERT_TRUE(SetProcessWindowStation(service.get()));
        EXPECT_EQ(failure(), PINDialogException::openFailed);
        ASSERT_TRUE(SetProcessWindowStation(before));
    }
    EXPECT_EQ(ask(DialogDriver::entering(L"pin-73")), "pin-73");
}

// Something else than the user closes it. It was shown, so that this is no failure to open.
TEST_F(UnshownDialog, aDialogThatIsClosedByAnotherGivesNoPin)
{
    const DialogDriver driver([](const PinDialogWindow& dialog) {
        dialog.type(L"pin-73");
        EndDialog(dialog.handle(), 0);
        PostMessageW(dialog.handle(), WM_NULL, 0, 0);
    });
    EXPECT_EQ(failure(), 0u);
}

TEST_F(UnshownDialog, aNullRequestGivesNoPin)
{
    EXPECT_TRUE(requestPIN(nullptr).empty());
}

TEST_F(UnshownDialog, commonControlsAreInitializedOnceAndOnlyInModern)
{
    const int before = controlInitializations;
    setMode(Mode());
    look([](const PinDialogWindow&) {});
    EXPECT_EQ(controlInitializations, before);
    setMode(Mode(Behaviour::modern));
    look([](const PinDialogWindow&) {});
    look([](const PinDialogWindow&) {});
    EXPECT_EQ(controlInitializations, 1);
}

}  // namespace
}  // namespace NV::test
