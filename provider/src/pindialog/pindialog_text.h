// Texts of the PIN dialog: names from outside on one line, and what it says about the length of a PIN.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace NV {

// A name from a token, a certificate, a file or a window, for a line of its own. Blanks of all kinds and
// control characters become one space each run, none at the ends. Characters that are not seen and
// those that change the direction of the writing are left out, so that a name cannot look like another
// line or like more than one name. A surrogate without its partner becomes U+FFFD. Can be empty.
std::wstring displayName(std::wstring_view name);

// The longest text that fits and has the beginning and the end of the given one, with an ellipsis
// between them; the given text if it fits. `fits` is not asked about texts longer than longestMeasured.
// Surrogate pairs and characters with combining marks stay whole. If nothing fits: the ellipsis.
std::wstring cutInMiddle(std::wstring_view text,
                         const std::function<bool(const std::wstring&)>& fits);

// In UTF-16 units. No line of the dialog has room for so many.
inline constexpr size_t longestMeasured = 512;

// The lengths that a token takes, in bytes. The largest number means that it does not say.
struct PINBounds {
    uint32_t minimum;
    uint32_t maximum;
};

// Messages for a PIN that is too short or too long. With `wide`, the PIN has characters of more than a
// byte, and the message says so.
std::wstring tooShortMessage(const PINBounds& bounds, bool wide);
std::wstring tooLongMessage(const PINBounds& bounds, bool wide);

}  // namespace NV
