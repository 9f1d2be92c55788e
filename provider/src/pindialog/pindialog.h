// The modal dialog that asks the user for the token's PIN. It does not depend on the provider: the
// caller passes the owner window and the length limits.

#pragma once

#include <windows.h>

#include <cstdint>
#include <exception>
#include <string>

#include "base/secret.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"

namespace NV {

// What the caller passes to the dialog.
struct PINRequest {
    HINSTANCE instance;      // of the module that contains the template
    HWND parent;             // null: the desktop window
    CK_ULONG minimumLength;  // bytes, CK_TOKEN_INFO.ulMinPinLen
    CK_ULONG maximumLength;  // bytes, CK_TOKEN_INFO.ulMaxPinLen
};

// No PIN was entered.
class PINDialogException : public std::exception {
public:
    static constexpr uint32_t openFailed = 1;
    static constexpr uint32_t userCanceled = 2;

    PINDialogException(std::string message, uint32_t code)
        : message_(std::move(message)), code_(code)
    {
    }

    const char* what() const noexcept override { return message_.c_str(); }
    virtual uint32_t code() const noexcept { return code_; }

private:
    std::string message_;
    uint32_t code_;
};

// Shows the dialog and returns the PIN, one byte for each character. Throws PINDialogException if
// the user cancels. Compat: the PIN is empty if the dialog cannot be shown, and for a null request.
SecretBytes requestPIN(const PINRequest* request);

// One run of the dialog, on the calling thread, until the user answers.
class PINDialog {
public:
    explicit PINDialog(const PINRequest& request);
    virtual ~PINDialog() = default;
    PINDialog(const PINDialog&) = delete;
    PINDialog& operator=(const PINDialog&) = delete;

    // Runs the dialog. Compat: always true; a failure of DialogBoxParamW is only logged.
    bool open();

    const SecretBytes& pin() const { return pin_; }
    bool canceled() const { return canceled_; }

private:
    static INT_PTR CALLBACK DialogProc(HWND hDlg, UINT message, WPARAM wParam, LPARAM lParam);

    // The steps of the dialog procedure. They log under its name.
    INT_PTR forward(const Site& site, HWND hDlg, UINT message, WPARAM wParam,
                    LPARAM lParam) noexcept;
    INT_PTR Procedure(HWND hDlg, UINT message, WPARAM wParam, LPARAM lParam);
    void prepare(const Site& site, HWND hDlg) const;
    void accept(const Site& site, HWND hDlg);
    void cancel(const Site& site, HWND hDlg);
    void toggleMask(HWND hDlg);
    void refuse(const wchar_t* text) const;

    HINSTANCE instance_;
    HWND parent_;
    HWND dialog_ = nullptr;
    SecretBytes pin_;
    bool masked_ = true;
    bool canceled_ = false;
    CK_ULONG minimumLength_;
    CK_ULONG maximumLength_;
    // An exception must not pass through the frames of the window manager, so open throws it again.
    std::exception_ptr error_;
};

}  // namespace NV
