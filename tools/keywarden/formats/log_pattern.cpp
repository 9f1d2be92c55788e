// Matching, with the shortest text first.

#include "formats/log_pattern.h"

#include <algorithm>

#include "characters.h"

namespace NV::tool {

namespace {

bool isNameCharacter(char c)
{
    return isDigit(c) || isLetter(c) || c == '_';
}

size_t lengthOf(std::string_view text, bool (*belongs)(char))
{
    return static_cast<size_t>(std::ranges::find_if_not(text, belongs) - text.begin());
}

// 0 if the text does not begin with a decimal number.
size_t numberLength(std::string_view text)
{
    const size_t sign = text.starts_with('-') ? 1 : 0;
    const size_t digits = lengthOf(text.substr(sign), isDigit);
    return digits > 0 && digits <= 20 ? sign + digits : 0;
}

size_t fractionLength(std::string_view text)
{
    const size_t whole = numberLength(text);
    if (whole == 0 || whole >= text.size() || text[whole] != '.')
        return 0;
    const size_t digits = lengthOf(text.substr(whole + 1), isDigit);
    return digits > 0 && digits <= 9 ? whole + 1 + digits : 0;
}

size_t resultLength(std::string_view text)
{
    constexpr std::string_view unknown = "UNKNOWN";
    if (text.starts_with(unknown))
        return unknown.size();
    const size_t number = lengthOf(text, isHexDigit);
    if (number != 8 || !text.substr(number).starts_with("(CKR_"))
        return 0;
    const size_t name = lengthOf(text.substr(number + 1), isNameCharacter);
    const size_t end = number + 1 + name;
    return end < text.size() && text[end] == ')' ? end + 1 : 0;
}

// How much of the text is a value of that kind; 0 if it is none. For kinds whose end is certain.
size_t valueLength(char kind, std::string_view text)
{
    constexpr size_t longestPointer = 16;
    constexpr size_t longestName = 64;
    const auto atMost = [](size_t length, size_t most) { return length <= most ? length : 0; };
    switch (kind) {
    case 'd':
        return numberLength(text);
    case 'x':
        return atMost(lengthOf(text, isHexDigit), longestPointer);
    case 'f':
        return fractionLength(text);
    case 'w':
        return atMost(lengthOf(text, isNameCharacter), longestName);
    case 'r':
        return resultLength(text);
    default:
        return 0;
    }
}

}  // namespace

// The depth of the recursion is the number of values of the form.
bool hasForm(std::string_view form, std::string_view message, std::vector<LogValue>& values)
{
    const std::string_view literal = beginningOf(form);
    if (!message.starts_with(literal))
        return false;
    form.remove_prefix(literal.size());
    message.remove_prefix(literal.size());
    if (form.empty())
        return message.empty();
    const char kind = form[1];
    form.remove_prefix(2);
    const size_t before = values.size();
    const auto takes = [&](size_t length) {
        values.push_back({kind, message.substr(0, length)});
        if (hasForm(form, message.substr(length), values))
            return true;
        values.resize(before);
        return false;
    };
    if (kind != 's' && kind != '!') {
        const size_t length = valueLength(kind, message);
        return length != 0 && takes(length);
    }
    if (form.empty())
        return takes(message.size());
    // Only where the next part of the form can begin.
    const std::string_view next = beginningOf(form);
    for (size_t end = message.find(next); end != std::string_view::npos;
         end = message.find(next, end + 1)) {
        if (takes(end))
            return true;
    }
    return false;
}

std::string_view beginningOf(std::string_view form)
{
    return form.substr(0, form.find('%'));
}

}  // namespace NV::tool
