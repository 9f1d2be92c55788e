// Paths of the configuration file as the modern behaviour reads them: quotes around them, and the names
// of environment variables in them. Portable, without logging.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace NV {

// The value of an environment variable, or nothing if there is none of that name.
using EnvironmentVariables = std::function<std::optional<std::string>(const std::string& name)>;

// The longest path of Windows, in characters.
inline constexpr size_t longestPath = 32767;

// The text without the quotes at its ends, if it has both.
std::string_view withoutQuotes(std::string_view text);

// The text with the value of the variable in place of each %NAME%. What has no variable stays as it is.
// Values are not expanded again. Nothing is expanded if the result would be longer than any path.
std::string expandVariables(std::string_view text, const EnvironmentVariables& variables);

// p11File: without quotes, expanded. The result is UTF-8.
std::string expandLibraryPath(const std::string& value, const std::string& profile);

// logStore: without quotes, expanded, and with the profile in place of each "~" of the value. All in
// the ANSI code page.
std::string expandLogFolder(const std::string& value, const std::string& profile);

}  // namespace NV
