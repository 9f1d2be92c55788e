// Step on the module's registration with CNG.

#include "check/check.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* registerAdvice =
    "Run \"keywarden register\" in an administrator's terminal. Until then, only programs that load "
    "the module directly find its keys.";

}  // namespace

void checkRegistration(Findings& findings, const CngSystem& system)
{
    constexpr const char* name = "registered";
    const Registration now = readRegistration(system);
    std::error_code error;
    if (!now.known)
        findings.skip(name, "this system cannot report what is registered with CNG");
    else if (now.absent())
        findings.warn(name, "the module is not registered with CNG", registerAdvice);
    else if (!now.complete())
        findings.warn(name, "the module's registration with CNG is not complete", registerAdvice);
    else if (!std::filesystem::is_regular_file(now.file, error))
        findings.fail(name, "registered with CNG, but there is no " + toUtf8(now.file),
                      "Copy the module to this path, or reinstall the product.");
    else
        findings.ok(name, toUtf8(now.file));
}

void checkSystem(Findings& findings)
{
    checkRegistration(findings, thisSystem());
}

}  // namespace NV::tool
