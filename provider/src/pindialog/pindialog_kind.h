// What differs between the dialogs of the two behaviours: a table of functions each. For the dialog's own
// files.

#pragma once

#include <windows.h>

#include <string>

#include "base/secret.h"
#include "pindialog/pindialog.h"

namespace NV {

struct PINDialogKind {
    int resource;  // of the template in nvksprovider.rc

    // Completes the dialog before it is shown.
    void (*complete)(HWND hDlg, const PINRequest& request);

    // The PIN as the token gets it.
    SecretBytes (*encode)(const SecretWideText& typed);

    // The message that refuses a PIN of this length. `wide`: it has more bytes than characters.
    std::wstring (*tooShort)(const PINRequest& request, bool wide);
    std::wstring (*tooLong)(const PINRequest& request, bool wide);
};

// Resource 101: asks for the PIN.
extern const PINDialogKind plainDialog;

// Resource 103: says as well which program asks for which key of which token.
extern const PINDialogKind namingDialog;

}  // namespace NV
