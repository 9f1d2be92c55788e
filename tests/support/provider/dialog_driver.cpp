#include "dialog_driver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace NV::test {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 15s;
// For a dialog of a call on another thread than that of the driver's owner, once he waits.
constexpr auto lastPatience = 1s;
constexpr auto pollTime = 4ms;

constexpr wchar_t dialogCaption[] = L"Norvanta Software KeyStore Provider Logon";
constexpr int pinField = 1001;

// True as soon as the condition is met; false when it is not met in time.
template <typename Condition>
bool waitUntil(const Condition& condition, Clock::duration time = patience)
{
    const auto end = Clock::now() + time;
    while (!condition()) {
        if (Clock::now() >= end)
            return false;
        std::this_thread::sleep_for(pollTime);
    }
    return true;
}

// Never waits for ever for a thread that does not read its messages.
LRESULT send(HWND window, UINT message, WPARAM wParam = 0, LPARAM lParam = 0)
{
    constexpr UINT timeout = std::chrono::milliseconds(patience).count();
    DWORD_PTR result = 0;
    if (SendMessageTimeoutW(window, message, wParam, lParam, SMTO_NORMAL, timeout, &result) == 0)
        throw std::runtime_error("a window of the PIN dialog does not answer message " +
                                 std::to_string(message));
    return static_cast<LRESULT>(result);
}

void post(HWND window, UINT message, WPARAM wParam = 0, LPARAM lParam = 0)
{
    if (!PostMessageW(window, message, wParam, lParam))
        throw std::runtime_error("the PIN dialog is not there any more");
}

std::wstring textOf(HWND window)
{
    std::wstring text(static_cast<size_t>(send(window, WM_GETTEXTLENGTH)) + 1, L'\0');
    const LRESULT length =
        send(window, WM_GETTEXT, text.size(), reinterpret_cast<LPARAM>(text.data()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::wstring captionWithoutMessages(HWND window)
{
    wchar_t caption[100];
    const int length = InternalGetWindowText(window, caption, static_cast<int>(std::size(caption)));
    return {caption, static_cast<size_t>(length)};
}

// A top-level window of this process that fulfils the condition; null when there is none.
HWND findTopWindow(const std::function<bool(HWND)>& condition)
{
    struct Search {
        const std::function<bool(HWND)>& condition;
        HWND found;
    } search{condition, nullptr};
    EnumWindows(
        [](HWND window, LPARAM parameter) -> BOOL {
            auto& current = *reinterpret_cast<Search*>(parameter);
            DWORD process = 0;
            GetWindowThreadProcessId(window, &process);
            if (process != GetCurrentProcessId() || !current.condition(window))
                return TRUE;
            current.found = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

// Visible means that the dialog has had its first message and runs its loop.
HWND findDialog()
{
    return findTopWindow([](HWND window) {
        return IsWindowVisible(window) && captionWithoutMessages(window) == dialogCaption;
    });
}

HWND findMessageBox(HWND dialog)
{
    return findTopWindow([dialog](HWND window) {
        return IsWindowVisible(window) && GetWindow(window, GW_OWNER) == dialog;
    });
}

// The text of a message box; its control's identifier differs between systems.
std::wstring messageOf(HWND box)
{
    std::wstring message;
    for (HWND child = GetWindow(box, GW_CHILD); child != nullptr;
         child = GetWindow(child, GW_HWNDNEXT)) {
        wchar_t className[20] = {};
        GetClassNameW(child, className, static_cast<int>(std::size(className)));
        const bool icon = (GetWindowLongW(child, GWL_STYLE) & SS_TYPEMASK) == SS_ICON;
        if (_wcsicmp(className, L"Static") == 0 && !icon)
            message += textOf(child);
    }
    return message;
}

// Answers any window in front of the dialog, and the dialog, until it is gone.
void cancelDialog(HWND dialog)
{
    waitUntil([dialog] {
        if (HWND box = findMessageBox(dialog); box != nullptr)
            PostMessageW(box, WM_COMMAND, IDOK, 0);
        else
            PostMessageW(dialog, WM_COMMAND, IDCANCEL, 0);
        return !IsWindow(dialog);
    });
}

// A driver that has answered its dialogs leaves those of the next one alone.
std::atomic<const DialogDriver*> newestDriver = nullptr;

}  // namespace

HWND PinDialogWindow::control(int id) const
{
    HWND window = GetDlgItem(dialog_, id);
    if (window == nullptr)
        throw std::runtime_error("the PIN dialog has no control " + std::to_string(id));
    return window;
}

void PinDialogWindow::type(std::wstring_view pin) const
{
    HWND field = control(pinField);
    send(field, EM_SETSEL, 0, -1);
    send(field, WM_CLEAR);
    for (const wchar_t character : pin)
        send(field, WM_CHAR, character, 1);
    if (textOf(field) != pin)
        throw std::runtime_error("the PIN field does not hold what was typed");
}

void PinDialogWindow::press(int id) const
{
    post(dialog_, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(control(id)));
}

void PinDialogWindow::pressKey(WORD virtualKey) const
{
    GUITHREADINFO thread{};
    thread.cbSize = sizeof(thread);
    GetGUIThreadInfo(GetWindowThreadProcessId(dialog_, nullptr), &thread);
    // Without a window manager the dialog may lack the focus; its loop still takes the key.
    HWND focused = thread.hwndFocus != nullptr ? thread.hwndFocus : control(pinField);
    post(focused, WM_KEYDOWN, virtualKey, 1);
}

std::wstring PinDialogWindow::text(int id) const
{
    return textOf(control(id));
}

wchar_t PinDialogWindow::maskCharacter() const
{
    return static_cast<wchar_t>(send(control(pinField), EM_GETPASSWORDCHAR));
}

std::wstring PinDialogWindow::dismissMessageBox(std::wstring* title) const
{
    HWND box = nullptr;
    if (!waitUntil([&] { return (box = findMessageBox(dialog_)) != nullptr; }))
        throw std::runtime_error("the PIN dialog shows no message box");
    if (title != nullptr)
        *title = textOf(box);
    std::wstring message = messageOf(box);
    post(box, WM_COMMAND, IDOK);
    if (!waitUntil([&] { return !IsWindow(box) && IsWindowEnabled(dialog_); }))
        throw std::runtime_error("the message box does not close");
    return message;
}

void PinDialogWindow::waitForText(int id, std::wstring_view expected) const
{
    if (!waitUntil([&] { return text(id) == expected; }))
        throw std::runtime_error("a control of the PIN dialog does not change its text: " +
                                 std::to_string(id));
}

DialogDriver::DialogDriver(Script script, int times) : script_(std::move(script)), times_(times)
{
    newestDriver = this;
    thread_ = std::thread([this] { run(); });
}

DialogDriver::~DialogDriver()
{
    callDone_ = true;
    thread_.join();
    if (!error_.empty())
        ADD_FAILURE() << "PIN dialog: " << error_;
    const DialogDriver* self = this;
    newestDriver.compare_exchange_strong(self, nullptr);
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

bool DialogDriver::newest() const
{
    return newestDriver == this;
}

// Null when none comes in time.
HWND DialogDriver::waitForDialog() const
{
    HWND dialog = nullptr;
    const auto came = [&] { return (dialog = findDialog()) != nullptr; };
    waitUntil([&] { return came() || callDone_; });
    if (dialog == nullptr)
        waitUntil(came, lastPatience);
    return dialog;
}

void DialogDriver::answer(HWND dialog)
{
    try {
        script_(PinDialogWindow(dialog));
        if (!waitUntil([dialog] { return !IsWindow(dialog); }))
            error_ = "the script is done, and the dialog is still open";
        ++answered_;
    } catch (const std::exception& error) {
        error_ = error.what();
    }
    if (!error_.empty())
        cancelDialog(dialog);
}

void DialogDriver::run()
{
    while (answered_ < times_ && error_.empty()) {
        if (HWND dialog = waitForDialog(); dialog != nullptr)
            answer(dialog);
        else
            error_ = "it did not open";
    }
    // Nobody else would answer a dialog now.
    while (!callDone_ && newest()) {
        if (HWND dialog = findDialog(); dialog != nullptr && newest()) {
            if (error_.empty())
                error_ = "it opened more often than expected";
            cancelDialog(dialog);
        }
        std::this_thread::sleep_for(pollTime);
    }
}

}  // namespace NV::test
