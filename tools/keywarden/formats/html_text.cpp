// The four characters that need it.

#include "formats/html_text.h"

namespace NV::tool {

std::string htmlText(std::string_view text)
{
    std::string safe;
    for (const char c : text) {
        switch (c) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += c;
        }
    }
    return safe;
}

}  // namespace NV::tool
