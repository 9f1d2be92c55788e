// What is said when the token's library crashes, hangs or ends the process, in a command or in a step of
// "keywarden check".

#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace NV::tool {

// Whether a DLL or program belongs to this product. An unknown one (an empty path) does not.
bool isOurs(const std::filesystem::path& module);

// In these texts, `place` says when: " in C_Login", " during SignHash", or nothing. None ends with a full stop.

// "the vendor's library crashed in C_Login (0xC0000005 in C:\token.dll)", or "a crash in C_Login (...)" if
// the module is ours.
std::string crashText(unsigned long code, const std::filesystem::path& module,
                      const std::string& place);
// The call may be empty.
std::string hangText(const std::string& call, std::chrono::milliseconds limit);
std::string exitText(const std::string& place);

}  // namespace NV::tool
