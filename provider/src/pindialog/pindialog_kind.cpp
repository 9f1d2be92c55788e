// The dialogs of the two behaviours.

#include "pindialog/pindialog_kind.h"

#include <array>
#include <memory>
#include <type_traits>

#include "pindialog/pindialog_text.h"

namespace NV {

namespace {

// A line of template 103: a label, and the text that it names. The lines stand one below the other in
// this order. A line without a text is taken out.
struct Line {
    int label;
    int value;
    std::wstring (*text)(const PINRequest& request);
};

// In dialog units: from one line of template 103 to the next.
constexpr LONG lineHeight = 12;

std::wstring firstNotEmpty(const std::wstring& text, const wchar_t* otherwise)
{
    return text.empty() ? otherwise : text;
}

// The file name of the process.
std::wstring programText(const PINRequest&)
{
    constexpr DWORD longestPath = 32767;  // characters, of Windows
    std::wstring path(longestPath, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), longestPath));
    path.erase(0, path.find_last_of(L"\\/") + 1);
    return firstNotEmpty(displayName(path), L"(unknown)");
}

// The title of the window that owns the dialog.
std::wstring windowText(const PINRequest& request)
{
    HWND window = GetAncestor(request.parent, GA_ROOT);
    if (window == nullptr || !IsWindowVisible(window))
        return {};
    // Sends no message: the window's thread may be busy, or wait for this one.
    std::wstring title(longestMeasured, L'\0');
    const int length = InternalGetWindowText(window, title.data(), static_cast<int>(title.size()));
    title.resize(static_cast<size_t>(length));
    return displayName(title);
}

std::wstring keyText(const PINRequest& request)
{
    return firstNotEmpty(displayName(request.subject.certificate),
                         displayName(request.subject.keyName).c_str());
}

std::wstring tokenText(const PINRequest& request)
{
    return firstNotEmpty(displayName(request.subject.tokenLabel), L"(without a label)");
}

std::wstring warningText(const PINRequest& request)
{
    switch (request.subject.warning) {
    case PINWarning::lastTry:
        return L"This is the last try. A wrong PIN locks the token.";
    case PINWarning::fewTries:
        return L"Wrong PINs were entered before. Few tries are left.";
    case PINWarning::none:
        break;
    }
    return {};
}

constexpr Line lines[] = {
    {1011, 1021, programText}, {1012, 1022, windowText},  {1013, 1023, keyText},
    {1014, 1024, tokenText},   {1015, 1025, warningText},
};

// Measures texts in the font of a control.
class TextMeasure {
public:
    explicit TextMeasure(HWND control)
        : control_(control), context_(GetDC(control)),
          before_(
              SelectObject(context_, reinterpret_cast<HFONT>(  // NOLINT(performance-no-int-to-ptr)
                                         SendMessageW(control, WM_GETFONT, 0, 0))))
    {
    }
    ~TextMeasure()
    {
        SelectObject(context_, before_);
        ReleaseDC(control_, context_);
    }
    TextMeasure(const TextMeasure&) = delete;
    TextMeasure& operator=(const TextMeasure&) = delete;

    // In pixels.
    LONG width(const std::wstring& text) const
    {
        SIZE size{};
        GetTextExtentPoint32W(context_, text.c_str(), static_cast<int>(text.size()), &size);
        return size.cx;
    }

private:
    HWND control_;
    HDC context_;
    HGDIOBJ before_;
};

void showName(HWND control, const std::wstring& name)
{
    RECT room{};
    GetClientRect(control, &room);
    std::wstring shown;
    {
        const TextMeasure measure(control);
        shown = cutInMiddle(
            name, [&](const std::wstring& text) { return measure.width(text) <= room.right; });
    }
    SetWindowTextW(control, shown.c_str());
}

// The position of a control in its dialog.
RECT placeOf(HWND hDlg, HWND control)
{
    RECT place{};
    GetWindowRect(control, &place);
    MapWindowPoints(nullptr, hDlg, reinterpret_cast<POINT*>(&place), 2);
    return place;
}

// Hides a line, moves what is below it up, and makes the dialog smaller around its middle.
void takeOut(HWND hDlg, const Line& line)
{
    RECT step{0, 0, 0, lineHeight};
    MapDialogRect(hDlg, &step);
    const LONG top = placeOf(hDlg, GetDlgItem(hDlg, line.value)).top;
    ShowWindow(GetDlgItem(hDlg, line.label), SW_HIDE);
    ShowWindow(GetDlgItem(hDlg, line.value), SW_HIDE);
    constexpr UINT keepOrder = SWP_NOZORDER | SWP_NOACTIVATE;
    for (HWND control = GetWindow(hDlg, GW_CHILD); control != nullptr;
         control = GetWindow(control, GW_HWNDNEXT)) {
        if (const RECT place = placeOf(hDlg, control); place.top > top)
            SetWindowPos(control, nullptr, place.left, place.top - step.bottom, 0, 0,
                         SWP_NOSIZE | keepOrder);
    }
    RECT frame{};
    GetWindowRect(hDlg, &frame);
    SetWindowPos(hDlg, nullptr, frame.left, frame.top + step.bottom / 2, frame.right - frame.left,
                 frame.bottom - frame.top - step.bottom, keepOrder);
}

void showNames(HWND hDlg, const PINRequest& given)
{
    PINRequest request = given;
    if (request.readSubject)
        request.subject = request.readSubject();
    for (const Line& line : lines) {
        if (const std::wstring text = line.text(request); !text.empty())
            showName(GetDlgItem(hDlg, line.value), text);
        else
            takeOut(hDlg, line);
    }
}

// Compat: the PIN is the low byte of each UTF-16 unit, without a code page.
SecretBytes lowBytes(const SecretWideText& typed)
{
    SecretBytes pin;
    pin.reserve(typed.size());
    for (const wchar_t unit : typed)
        pin.push_back(static_cast<unsigned char>(unit));
    return pin;
}

// A surrogate without its partner becomes U+FFFD.
SecretBytes utf8Bytes(const SecretWideText& typed)
{
    const int length = static_cast<int>(typed.size());
    const auto convert = [&](char* output, int size) {
        return WideCharToMultiByte(CP_UTF8, 0, typed.data(), length, output, size, nullptr,
                                   nullptr);
    };
    SecretBytes pin(static_cast<size_t>(convert(nullptr, 0)));
    convert(reinterpret_cast<char*>(pin.data()), static_cast<int>(pin.size()));
    return pin;
}

PINBounds boundsOf(const PINRequest& request)
{
    return {request.minimumLength, request.maximumLength};
}

}  // namespace

const PINDialogKind plainDialog = {
    101,
    [](HWND, const PINRequest&) {},
    lowBytes,
    [](const PINRequest&, bool) -> std::wstring { return L"Too short characters."; },
    [](const PINRequest&, bool) -> std::wstring { return L"Too many characters."; },
};

const PINDialogKind namingDialog = {
    103,
    showNames,
    utf8Bytes,
    [](const PINRequest& request, bool wide) { return tooShortMessage(boundsOf(request), wide); },
    [](const PINRequest& request, bool wide) { return tooLongMessage(boundsOf(request), wide); },
};

}  // namespace NV
