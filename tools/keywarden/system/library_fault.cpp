// The texts, and whose fault a crash is.

#include "system/library_fault.h"

#include <cstdio>

#include "system/program.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

bool isOurs(const std::filesystem::path& module)
{
    return module == ownProgram() || module.filename() == registeredImage;
}

std::string crashText(unsigned long code, const std::filesystem::path& module,
                      const std::string& place)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lX", code);
    return std::string(isOurs(module) ? "a crash" : "the vendor's library crashed") + place + " (" +
           number + (module.empty() ? "" : " in " + toUtf8(module)) + ")";
}

std::string hangText(const std::string& call, std::chrono::milliseconds limit)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit).count();
    return "the vendor's library did not come back" + (call.empty() ? "" : " from " + call) +
           " within " + std::to_string(seconds) + " s; is its service running?";
}

std::string exitText(const std::string& place)
{
    return "the vendor's library ended the process" + place;
}

}  // namespace NV::tool
