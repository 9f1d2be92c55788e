// Expansion of paths.

#include "config/config_expansion.h"

#include <cstdlib>

#include "base/text.h"

namespace NV {

namespace {

std::optional<std::string> ansiVariable(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::optional<std::string> utf8Variable(const std::string& name)
{
#if defined(_WIN32)
    const wchar_t* value = _wgetenv(fromUtf8(name).c_str());
    return value != nullptr ? std::optional<std::string>(toUtf8(value)) : std::nullopt;
#else
    return ansiVariable(name);
#endif
}

}  // namespace

std::string_view withoutQuotes(std::string_view text)
{
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

std::string expandVariables(std::string_view text, const EnvironmentVariables& variables)
{
    std::string result;
    std::string_view rest = text;
    while (result.size() <= longestPath) {
        const size_t begin = rest.find('%');
        result += rest.substr(0, begin);
        if (begin == std::string_view::npos)
            return result;
        rest.remove_prefix(begin);
        const size_t end = rest.find('%', 1);
        if (end == std::string_view::npos)
            return result.append(rest);
        const auto value = variables(std::string(rest.substr(1, end - 1)));
        // Without a variable, the second sign may begin the next name.
        result += value ? *value : rest.substr(0, end);
        rest.remove_prefix(value ? end + 1 : end);
    }
    return std::string(text);
}

std::string expandLibraryPath(const std::string& value, const std::string&)
{
    return expandVariables(withoutQuotes(value), utf8Variable);
}

// In pieces, so that neither looks at what the other has put in: a profile's path can contain "%", and
// the short name of a folder contains "~".
std::string expandLogFolder(const std::string& value, const std::string& profile)
{
    std::string result;
    std::string_view rest = withoutQuotes(value);
    while (result.size() <= longestPath) {
        const size_t tilde = rest.find('~');
        result += expandVariables(rest.substr(0, tilde), ansiVariable);
        if (tilde == std::string_view::npos)
            return result;
        result += profile;
        rest.remove_prefix(tilde + 1);
    }
    return value;
}

}  // namespace NV
