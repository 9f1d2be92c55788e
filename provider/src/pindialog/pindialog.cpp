// The dialog procedure.

#include "pindialog/pindialog.h"

#include <commctrl.h>

#include "base/lock_order.h"
#include "config/mode.h"
#include "logger/trace.h"
#include "pindialog/pindialog_kind.h"

namespace NV {

namespace {

// Identifiers of both templates in nvksprovider.rc.
constexpr int pinField = 1001;
constexpr int showButton = 1008;

constexpr WPARAM bullet = 0x2022;
constexpr WPARAM unmasked = 0;

// Reads the typed characters as one line of the field.
SecretWideText readLine(HWND field, size_t length)
{
    SecretWideText line(length + 1);
    // EM_GETLINE takes the size of the buffer from its first character.
    line[0] = static_cast<wchar_t>(line.size());
    SendMessageW(field, EM_GETLINE, 0, reinterpret_cast<LPARAM>(line.data()));
    line.pop_back();
    return line;
}

// Once for the process.
void initializeControls()
{
    constexpr INITCOMMONCONTROLSEX controls{sizeof controls, ICC_STANDARD_CLASSES};
    static const BOOL initialized = InitCommonControlsEx(&controls);
    static_cast<void>(initialized);
}

// Whether the user can see windows of this process. A service has a window station that nobody sees,
// and a dialog there would wait forever. True if the system does not say.
bool windowsAreVisible()
{
    USEROBJECTFLAGS flags{};
    return !GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof flags,
                                      nullptr) ||
           (flags.dwFlags & WSF_VISIBLE) != 0;
}

// The window system has the field's text in its own memory and does not wipe it. So this function
// overwrites each character in place before it empties the text.
void clearField(HWND field)
{
    const LRESULT length = SendMessageW(field, EM_LINELENGTH, 0, 0);
    for (LRESULT i = 0; i < length; ++i) {
        SendMessageW(field, EM_SETSEL, static_cast<WPARAM>(i), i + 1);
        SendMessageW(field, EM_REPLACESEL, FALSE, reinterpret_cast<LPARAM>(L"*"));
    }
    SendMessageW(field, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L""));
}

}  // namespace

SecretBytes requestPIN(const PINRequest* request)
{
    if (request == nullptr)
        return {};
    PINDialog dialog(*request);
    if (!dialog.open())
        throw PINDialogException("Failed to open dialog", PINDialogException::openFailed);
    if (dialog.canceled())
        throw PINDialogException("User canceled", PINDialogException::userCanceled);
    return dialog.pin();
}

PINDialog::PINDialog(const PINRequest& request)
    : kind_(mode().dialogNamesKey() ? namingDialog : plainDialog), request_(request)
{
}

bool PINDialog::open()
{
    const Trace trace(NV_HERE);
    const bool mustShow = mode().reportsMissingPin();
    HINSTANCE instance = request_.instance;
    HWND parent = request_.parent;
    NV_TRC("hInstance=%p", static_cast<const void*>(instance));
    NV_TRC("hWnd(Parent)=%p", static_cast<const void*>(parent));
    if (instance != nullptr && (!mustShow || windowsAreVisible())) {
        if (parent == nullptr)
            parent = GetDesktopWindow();
        NV_TRC("self = %p", static_cast<const void*>(this));
        const INT_PTR result = run(parent);
        if (error_ != nullptr)
            std::rethrow_exception(error_);
        NV_TRC("result = %d", static_cast<int>(result));
    }
    const bool shown = dialog_ != nullptr;
    if (mustShow && !shown)
        NV_ERR("The dialog cannot be shown");
    trace.leave();
    return shown || !mustShow;
}

INT_PTR PINDialog::run(HWND parent)
{
    if (mode().initializesControlsLate())
        initializeControls();
    // The dialog's loop also serves the thread's other windows.
    const OutsideCode outside;
    return DialogBoxParamW(request_.instance, MAKEINTRESOURCEW(kind_.resource), parent, &DialogProc,
                           reinterpret_cast<LPARAM>(this));
}

INT_PTR CALLBACK PINDialog::DialogProc(HWND hDlg, UINT message, WPARAM wParam, LPARAM lParam)
{
    constexpr Site here = NV_HERE;
    if (message == WM_INITDIALOG)
        return reinterpret_cast<PINDialog*>(lParam)->forward(here, hDlg, message, wParam, lParam);
    auto* self = reinterpret_cast<PINDialog*>(GetWindowLongPtrW(hDlg, GWLP_USERDATA));
    if (self == nullptr || self->dialog_ == nullptr)
        return FALSE;
    return self->forward(here, hDlg, message, wParam, lParam);
}

INT_PTR PINDialog::forward(const Site& site, HWND hDlg, UINT message, WPARAM wParam,
                           LPARAM lParam) noexcept
{
    try {
        if (message != WM_INITDIALOG)
            return Procedure(hDlg, message, wParam, lParam);
        NV_UNDER(TRC, site, "WM_INITDIALOG: self = %p", static_cast<const void*>(this));
        NV_UNDER(TRC, site, "WM_INITDIALOG: hDlg = %p", static_cast<const void*>(hDlg));
        if (dialog_ != nullptr)
            return FALSE;
        dialog_ = hDlg;
        SetWindowLongPtrW(hDlg, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        NV_UNDER(TRC, site, "WM_INITDIALOG: self->hDlg = %p", static_cast<const void*>(dialog_));
        const INT_PTR result = Procedure(hDlg, message, wParam, lParam);
        NV_UNDER(TRC, site, "WM_INITDIALOG: return = %d", static_cast<int>(result));
        return result;
    } catch (...) {
        error_ = std::current_exception();
        EndDialog(hDlg, -1);
        return FALSE;
    }
}

INT_PTR PINDialog::Procedure(HWND hDlg, UINT message, WPARAM wParam, LPARAM)
{
    constexpr Site here = NV_HERE;
    if (message == WM_INITDIALOG) {
        prepare(here, hDlg);
        return TRUE;
    }
    if (message == WM_DESTROY)
        clearField(GetDlgItem(hDlg, pinField));
    if (message != WM_COMMAND)
        return FALSE;
    // Enter always presses OK while the user types.
    if (HIWORD(wParam) == EN_CHANGE && LOWORD(wParam) == pinField)
        SendMessageW(hDlg, DM_SETDEFID, IDOK, 0);
    switch (LOWORD(wParam)) {
    case IDOK:
        accept(here, hDlg);
        return TRUE;
    case IDCANCEL:
        cancel(here, hDlg);
        return TRUE;
    case showButton:
        toggleMask(hDlg);
        return TRUE;
    default:
        return FALSE;
    }
}

void PINDialog::prepare(const Site& site, HWND hDlg) const
{
    if (hDlg == nullptr)
        NV_UNDER(ERR, site, "Invalid window handle = NULL");
    if (HWND field = GetDlgItem(hDlg, pinField); field != nullptr) {
        SendMessageW(field, EM_SETPASSWORDCHAR, bullet, 0);
        NV_UNDER(TRC, site, "WM_INITDIALOG: EM_SETPASSWORDCHAR hwnd=%p",
                 static_cast<const void*>(field));
    } else {
        // Compat: spelled like this, here and below, because people search the log for these texts.
        NV_UNDER(ERR, site, "Failed to change password charactor");
    }
    kind_.complete(hDlg, request_);
    RECT frame;
    if (!GetWindowRect(hDlg, &frame)) {
        NV_UNDER(ERR, site, "Failed to move to center");
        return;
    }
    // Only for the log: DS_CENTER in the template has already centered the window.
    const int width = frame.right - frame.left;
    const int height = frame.bottom - frame.top;
    NV_UNDER(TRC, site, "WM_INITDIALOG: GetWindowRect() w=%d, h=%d", width, height);
    const int x = GetSystemMetrics(SM_CXSCREEN) / 2 - width / 2;
    const int y = GetSystemMetrics(SM_CYSCREEN) / 2 - height / 2;
    NV_UNDER(TRC, site, "WM_INITDIALOG: Calcurated cordination x=%d, y=%d", x, y);
    NV_UNDER(TRC, site, "WM_INITDIALOG: Try to call SetWindowPos() hDlg=%p",
             static_cast<const void*>(hDlg));
}

void PINDialog::accept(const Site& site, HWND hDlg)
{
    HWND field = GetDlgItem(hDlg, pinField);
    const auto length = static_cast<size_t>(SendMessageW(field, EM_LINELENGTH, 0, 0));
    if (length == 0) {
        MessageBoxW(hDlg, L"No characters entered.", L"Error", MB_ICONERROR);
        return;
    }
    SecretBytes pin = kind_.encode(readLine(field, length));
    const bool wide = pin.size() > length;
    if (pin.size() < request_.minimumLength) {
        refuse(kind_.tooShort(request_, wide));
    } else if (pin.size() > request_.maximumLength) {
        refuse(kind_.tooLong(request_, wide));
    } else {
        pin_ = std::move(pin);
        NV_UNDER(TRC, site, "WM_COMMAND[IDOK]: verified password(%d:bytes)",
                 static_cast<int>(pin_.size()));
        EndDialog(hDlg, 1);
    }
}

void PINDialog::cancel(const Site& site, HWND hDlg)
{
    NV_UNDER(TRC, site, "WM_COMMAND[IDCANCEL]: canceled");
    canceled_ = true;
    EndDialog(hDlg, 1);
}

void PINDialog::toggleMask(HWND hDlg)
{
    HWND field = GetDlgItem(hDlg, pinField);
    SendMessageW(field, EM_SETPASSWORDCHAR, masked_ ? unmasked : bullet, 0);
    SendDlgItemMessageW(hDlg, showButton, WM_SETTEXT, 0,
                        reinterpret_cast<LPARAM>(masked_ ? L"Hide" : L"Show"));
    masked_ = !masked_;
    InvalidateRect(field, nullptr, TRUE);
}

void PINDialog::refuse(const std::wstring& text) const
{
    MessageBoxW(dialog_, text.c_str(), L"Error", MB_ICONERROR);
}

}  // namespace NV
