// The modern PIN dialog, linked into the test, with the template of the module.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "dialog_driver.h"
#include "log_capture.h"
#include "modern_mode.h"
#include "pindialog/pindialog.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

// Identifiers of the template.
inline constexpr int pinField = 1001;
inline constexpr int iconControl = 1002;
inline constexpr int showButton = 1008;
enum class DialogLine { program, window, key, token, warning };
inline constexpr DialogLine dialogLines[] = {DialogLine::program, DialogLine::window,
                                             DialogLine::key, DialogLine::token,
                                             DialogLine::warning};

inline int labelOf(DialogLine line)
{
    return 1011 + static_cast<int>(line);
}

inline int valueOf(DialogLine line)
{
    return 1021 + static_cast<int>(line);
}

inline bool isShown(const PinDialogWindow& dialog, DialogLine line)
{
    const bool label = IsWindowVisible(dialog.control(labelOf(line))) != FALSE;
    const bool value = IsWindowVisible(dialog.control(valueOf(line))) != FALSE;
    EXPECT_EQ(label, value) << labelOf(line);
    return value;
}

// The rectangle of a window, in the coordinates of another one.
inline RECT placeIn(HWND other, HWND window)
{
    RECT place{};
    GetWindowRect(window, &place);
    MapWindowPoints(nullptr, other, reinterpret_cast<POINT*>(&place), 2);
    return place;
}

struct WindowDestroyer {
    void operator()(HWND window) const { DestroyWindow(window); }
};
using OwnedWindow = std::unique_ptr<std::remove_pointer_t<HWND>, WindowDestroyer>;

inline OwnedWindow makeWindow(const std::wstring& title, DWORD style = WS_POPUP | WS_VISIBLE,
                              HWND parent = nullptr)
{
    return OwnedWindow(CreateWindowExW(0, L"STATIC", title.c_str(), style, 40, 40, 300, 200, parent,
                                       nullptr, nullptr, nullptr));
}

class NamingDialog : public testing::Test {
protected:
    NamingDialog()
    {
        profile_.writeConfigFor(ScriptedToken::widePath());
        module_.emplace();
        request_ = {module_->handle(),
                    nullptr,
                    4,
                    8,
                    {L"Erika Mustermann", L"01AB", L"Work card", PINWarning::none}};
    }

    // Runs the dialog with the script; the PIN as bytes.
    std::string ask(DialogDriver::Script script)
    {
        const DialogDriver driver(std::move(script));
        const SecretBytes pin = requestPIN(&request_);
        return {pin.begin(), pin.end()};
    }

    // Runs the dialog with the script and cancels it.
    void look(const DialogDriver::Script& script)
    {
        EXPECT_THROW(ask([&](const PinDialogWindow& dialog) {
                         script(dialog);
                         dialog.pressCancel();
                     }),
                     PINDialogException);
    }

    // The text of a line; nothing if the line is not there.
    std::optional<std::wstring> shown(DialogLine line)
    {
        std::optional<std::wstring> text;
        look([&](const PinDialogWindow& dialog) {
            if (isShown(dialog, line))
                text = dialog.text(valueOf(line));
        });
        return text;
    }

    ModernMode modern_;
    Profile profile_;
    std::optional<ProviderModule> module_;
    LogCapture log_;
    PINRequest request_{};
};

}  // namespace NV::test
