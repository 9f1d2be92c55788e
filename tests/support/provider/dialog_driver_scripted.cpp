// Answers the module's requests for the PIN on this machine, where no window is shown: the script runs
// on the thread of the operation, and what it does to the dialog decides the answer.

#include "dialog_driver.h"

#include <gtest/gtest.h>

#include <exception>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

#include "dialog.h"

namespace {

// A dialog that a script works on. Its address is its window's handle.
struct ScriptedDialog {
    NV::SecretWideText pin;
    int pressed = 0;  // IDOK or IDCANCEL
};

struct OpenDialogs {
    std::mutex lock;
    std::set<HWND> windows;
};

OpenDialogs& openDialogs()
{
    static OpenDialogs dialogs;
    return dialogs;
}

HWND windowOf(ScriptedDialog& dialog)
{
    return reinterpret_cast<HWND>(&dialog);
}

ScriptedDialog& dialogOf(HWND window)
{
    return *reinterpret_cast<ScriptedDialog*>(window);
}

// Lists the dialog's window while it is open.
class OpenWindow {
public:
    explicit OpenWindow(HWND window) : window_(window)
    {
        const std::lock_guard guard(openDialogs().lock);
        openDialogs().windows.insert(window_);
    }
    ~OpenWindow()
    {
        const std::lock_guard guard(openDialogs().lock);
        openDialogs().windows.erase(window_);
    }
    OpenWindow(const OpenWindow&) = delete;
    OpenWindow& operator=(const OpenWindow&) = delete;

private:
    HWND window_;
};

[[noreturn]] void throwWithoutWindows()
{
    throw std::logic_error("there are no windows on this machine");
}

// Guards the drivers' errors.
std::mutex errorLock;

std::atomic<const NV::test::DialogDriver*> newestDriver = nullptr;

}  // namespace

BOOL IsWindow(HWND window)
{
    const std::lock_guard guard(openDialogs().lock);
    return openDialogs().windows.contains(window) ? TRUE : FALSE;
}

namespace NV::test {

HWND PinDialogWindow::control(int) const
{
    throwWithoutWindows();
}

void PinDialogWindow::type(std::wstring_view pin) const
{
    dialogOf(dialog_).pin.assign(pin.begin(), pin.end());
}

void PinDialogWindow::press(int id) const
{
    dialogOf(dialog_).pressed = id;
}

void PinDialogWindow::pressKey(WORD) const
{
    throwWithoutWindows();
}

std::wstring PinDialogWindow::text(int) const
{
    throwWithoutWindows();
}

wchar_t PinDialogWindow::maskCharacter() const
{
    throwWithoutWindows();
}

std::wstring PinDialogWindow::dismissMessageBox(std::wstring*) const
{
    throwWithoutWindows();
}

void PinDialogWindow::waitForText(int, std::wstring_view) const
{
    throwWithoutWindows();
}

DialogDriver::DialogDriver(Script script, int times) : script_(std::move(script)), times_(times)
{
    newestDriver = this;
    stand_in::setPinAnswer([this](const PINRequest*) {
        ScriptedDialog dialog;
        answer(windowOf(dialog));
        if (dialog.pressed != IDOK)
            throw PINDialogException("User canceled", PINDialogException::userCanceled);
        return SecretBytes(dialog.pin.begin(), dialog.pin.end());
    });
}

DialogDriver::~DialogDriver()
{
    const DialogDriver* self = this;
    if (newestDriver.compare_exchange_strong(self, nullptr))
        stand_in::setPinAnswer(nullptr);
    const std::lock_guard guard(errorLock);
    if (error_.empty() && answered_ < times_)
        error_ = "it did not open";
    if (!error_.empty())
        ADD_FAILURE() << "PIN dialog: " << error_;
}

DialogDriver::Script DialogDriver::entering(std::wstring pin)
{
    return [pin = std::move(pin)](const PinDialogWindow& dialog) {
        dialog.type(pin);
        dialog.pressOk();
    };
}

DialogDriver::Script DialogDriver::cancelling()
{
    return [](const PinDialogWindow& dialog) { dialog.pressCancel(); };
}

void DialogDriver::answer(HWND dialog)
{
    const auto fail = [&](const char* error) {
        const std::lock_guard guard(errorLock);
        error_ = error;
        dialogOf(dialog).pressed = IDCANCEL;
    };
    if (++answered_ > times_)
        return fail("it opened more often than expected");
    const OpenWindow open(dialog);
    try {
        script_(PinDialogWindow(dialog));
    } catch (const std::exception& error) {
        return fail(error.what());
    }
    if (dialogOf(dialog).pressed == 0)
        fail("the script is done, and the dialog is still open");
}

}  // namespace NV::test
