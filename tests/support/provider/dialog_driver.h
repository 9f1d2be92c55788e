// Answers the module's PIN dialog from a second thread, by messages to the real window. Used by
// every test of an operation that asks for the PIN.

#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace NV::test {

// The open dialog. Each step throws std::runtime_error when what it needs does not come within some
// seconds; the driver then cancels the dialog and the test fails.
class PinDialogWindow {
public:
    explicit PinDialogWindow(HWND dialog) : dialog_(dialog) {}

    HWND handle() const { return dialog_; }
    HWND control(int id) const;
    bool isOpen() const { return IsWindow(dialog_) != FALSE; }

    // Replaces the field's text, character by character as the keyboard would.
    void type(std::wstring_view pin) const;
    // Posts the press of a button; does not wait for what it does.
    void press(int id) const;
    void pressOk() const { press(IDOK); }
    void pressCancel() const { press(IDCANCEL); }
    // Sends a key to the focused control, as the message loop would get it (VK_RETURN, VK_ESCAPE).
    void pressKey(WORD virtualKey) const;

    std::wstring text(int id) const;
    // The mask character of the PIN field, 0 when the characters are shown.
    wchar_t maskCharacter() const;

    // Waits for the message box that the dialog shows, closes it and gives its text; `title`
    // receives its caption.
    std::wstring dismissMessageBox(std::wstring* title = nullptr) const;

    // Waits until a posted press has given the control this text.
    void waitForText(int id, std::wstring_view expected) const;

private:
    HWND dialog_;
};

// Waits on a thread of its own for the dialog to open and runs the script on it. Made before the
// call that opens the dialog; the destructor waits for the script and fails the test when the
// dialog never came, when the script threw, when it left the dialog open, and when a dialog more
// than `times` came. In all those cases the dialog is cancelled, so that the call returns. The
// script may use EXPECT macros.
class DialogDriver {
public:
    using Script = std::function<void(const PinDialogWindow&)>;

    // `times`: how many dialogs in a row it answers.
    explicit DialogDriver(Script script, int times = 1);
    ~DialogDriver();
    DialogDriver(const DialogDriver&) = delete;
    DialogDriver& operator=(const DialogDriver&) = delete;

    // How many dialogs it has answered so far.
    int answered() const { return answered_; }

    // Ready-made scripts.
    static Script entering(std::wstring pin);
    static Script cancelling();

private:
    void run();
    void answer(HWND dialog);
    HWND waitForDialog() const;
    bool newest() const;

    Script script_;
    int times_;
    std::atomic<int> answered_ = 0;
    std::atomic<bool> callDone_ = false;
    std::string error_;  // of the thread; read when it has ended
    std::thread thread_;
};

}  // namespace NV::test
