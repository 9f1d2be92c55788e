// The modal dialog that asks the user for the token's PIN. It does not depend on the provider: the
// caller passes the owner window, the length limits, and what the user is to know about the key.

#pragma once

#include <windows.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "base/secret.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"

namespace NV {

// What the token says about the tries that are left.
enum class PINWarning : uint8_t { none, fewTries, lastTry };

// What the user is to know. The texts come from the token, as they are: the dialog cleans and shortens
// them.
struct PINSubject {
    std::wstring certificate;  // the name of its subject; empty: the key's name stands for it
    std::wstring keyName;
    std::wstring tokenLabel;
    PINWarning warning = PINWarning::none;
};

// What the caller passes to the dialog.
struct PINRequest {
    HINSTANCE instance = nullptr;  // of the module that contains the template
    HWND parent = nullptr;         // null: the desktop window
    CK_ULONG minimumLength = 0;    // bytes, CK_TOKEN_INFO.ulMinPinLen
    CK_ULONG maximumLength = 0;    // bytes, CK_TOKEN_INFO.ulMaxPinLen
    // Only modern shows it.
    PINSubject subject{};
    // Takes the place of the subject, if there is one. Called when the dialog has been made, so that the
    // token is not asked for a dialog that cannot be shown.
    std::function<PINSubject()> readSubject{};
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

struct PINDialogKind;

// Shows the dialog and returns the PIN: in classic one byte for each UTF-16 unit, in modern as UTF-8.
// Throws PINDialogException if the user cancels, and in modern if the dialog cannot be shown. The PIN is
// empty for a null request, and if something closes the dialog without an answer. Compat: it is also
// empty if the dialog cannot be shown, in classic.
SecretBytes requestPIN(const PINRequest* request);

// One run of the dialog, on the calling thread, until the user answers.
class PINDialog {
public:
    // The request must outlive the dialog.
    explicit PINDialog(const PINRequest& request);
    virtual ~PINDialog() = default;
    PINDialog(const PINDialog&) = delete;
    PINDialog& operator=(const PINDialog&) = delete;

    // Runs the dialog. False if it cannot be shown. Compat: always true in classic; a failure of
    // DialogBoxParamW is only logged.
    bool open();

    const SecretBytes& pin() const { return pin_; }
    bool canceled() const { return canceled_; }

private:
    static INT_PTR CALLBACK DialogProc(HWND hDlg, UINT message, WPARAM wParam, LPARAM lParam);

    INT_PTR run(HWND parent);

    // The steps of the dialog procedure. They log under its name.
    INT_PTR forward(const Site& site, HWND hDlg, UINT message, WPARAM wParam,
                    LPARAM lParam) noexcept;
    INT_PTR Procedure(HWND hDlg, UINT message, WPARAM wParam, LPARAM lParam);
    void prepare(const Site& site, HWND hDlg) const;
    void accept(const Site& site, HWND hDlg);
    void cancel(const Site& site, HWND hDlg);
    void toggleMask(HWND hDlg);
    void refuse(const std::wstring& text) const;

    const PINDialogKind& kind_;
    const PINRequest& request_;
    HWND dialog_ = nullptr;
    SecretBytes pin_;
    bool masked_ = true;
    bool canceled_ = false;
    // An exception must not pass through the frames of the window manager, so open throws it again.
    std::exception_ptr error_;
};

}  // namespace NV
