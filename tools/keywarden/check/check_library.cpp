// Steps on the PKCS#11 library: the file, its dependencies, loading it, its function list.

#include <algorithm>
#include <iterator>
#include <memory>

#include "base/loaded_library.h"
#include "check/check.h"
#include "config/config_path.h"
#include "config/mode.h"
#include "failure.h"
#include "formats/pe_file.h"
#include "p11/library_file.h"
#include "text.h"

namespace NV::tool {

namespace {

std::string machineName(uint16_t machine)
{
    switch (machine) {
    case machineAmd64:
        return "64-bit x86";
    case machineI386:
        return "32-bit x86";
    case machineArm64:
        return "64-bit ARM";
    default:
        return "machine type " + std::to_string(machine);
    }
}

// Virtual DLLs; the system maps them to real ones.
bool isApiSet(const std::string& name)
{
    return name.starts_with("api-ms-") || name.starts_with("ext-ms-");
}

// In the program's folder, in the system's, and in PATH. Does not run code of the DLL.
bool isInPath(const std::string& name, const std::filesystem::path&)
{
    return LoadedLibrary(LoadLibraryExW(fromUtf8(name).c_str(), nullptr,
                                        LOAD_LIBRARY_AS_DATAFILE)) != nullptr;
}

// In the folder of the library or the system's. Each program that loads the provider has a folder of its
// own, so this program's does not count.
bool isInTrustedFolder(const std::string& name, const std::filesystem::path& library)
{
    wchar_t system[MAX_PATH] = L"";
    GetSystemDirectoryW(system, static_cast<UINT>(std::size(system)));
    std::error_code error;
    return std::filesystem::is_regular_file(library.parent_path() / toPath(name), error) ||
           std::filesystem::is_regular_file(std::filesystem::path(system) / toPath(name), error);
}

// What else a behaviour's way of loading means (libraryLoading).
struct LoadingRules {
    bool anyName;  // characters outside ASCII, too
    // Whether a DLL that the library requires is found.
    bool (*finds)(const std::string& name, const std::filesystem::path& library);
    const char* advice;  // if it is not
};

constexpr LoadingRules classicRules = {
    false, isInPath,
    "Install the vendor's prerequisites, or add their folder to PATH. The library's own folder is not "
    "searched."};
constexpr LoadingRules modernRules = {
    true, isInTrustedFolder,
    "Install the vendor's prerequisites, or put the DLLs into the library's own folder. PATH is not "
    "searched."};

const LoadingRules& loadingRules()
{
    return mode().restrictsLibrarySearch() ? modernRules : classicRules;
}

bool canBeFound(const std::string& name, const std::filesystem::path& library)
{
    return GetModuleHandleW(fromUtf8(name).c_str()) != nullptr || isApiSet(name) ||
           loadingRules().finds(name, library);
}

bool checkFile(Findings& findings)
{
    constexpr const char* name = "library-file";
    const std::string& path = findings.library;
    std::error_code error;
    if (!std::filesystem::is_regular_file(toPath(path), error)) {
        findings.fail(name, "there is no file " + path,
                      "p11File must contain the full path and nothing else, not even a comment.");
        return false;
    }
    if (!loadingRules().anyName && !isAscii(path)) {
        findings.fail(name,
                      path + " has characters outside ASCII, so the provider does not load it",
                      "Set mode=modern, or copy the library to a path that has only ASCII "
                      "characters.");
        return false;
    }
    if (libraryLoading().absolutePathAlone && !isAbsolutePath(toPath(path).wstring())) {
        findings.fail(name, path + " is not a full path, so the provider does not load it",
                      "Set p11File to a path with a drive and a folder.");
        return false;
    }
    if (!isAbsolutePath(toPath(path).wstring()))
        findings.warn(
            name, path + " is not a full path, so each program looks for it in a different place",
            "Set p11File to a path with a drive and a folder.");
    else
        findings.ok(name, path);
    return true;
}

bool checkArchitecture(Findings& findings, std::vector<std::string>& imports)
{
    constexpr const char* name = "library-architecture";
    const auto image = readPeFile(toPath(findings.library));
    if (!image) {
        findings.fail(name, "the file is not a Windows DLL",
                      "p11File must name the vendor's PKCS#11 DLL.");
        return false;
    }
    if (image->machine != machineAmd64) {
        findings.fail(name, "the library is for " + machineName(image->machine),
                      "The provider is 64-bit x86. Install the vendor's 64-bit library.");
        return false;
    }
    findings.ok(name, machineName(image->machine));
    imports = image->imports;
    return true;
}

void checkDependencies(Findings& findings, const std::vector<std::string>& imports)
{
    constexpr const char* name = "library-dependencies";
    std::vector<std::string> missing;
    const std::filesystem::path library = toPath(findings.library);
    std::ranges::remove_copy_if(
        imports, std::back_inserter(missing),
        [&](const std::string& import) { return canBeFound(import, library); });
    if (missing.empty())
        findings.ok(name, "all " + std::to_string(imports.size()) + " required DLLs were found");
    else
        findings.fail(name, "required DLLs were not found: " + joined(missing),
                      loadingRules().advice);
}

size_t missingExports(HMODULE library)
{
    size_t missing = 0;
#define NV_COUNT(name, parameters)                                                                 \
    if (GetProcAddress(library, #name) == nullptr)                                                 \
        ++missing;
    NV_CK_FUNCTIONS(NV_COUNT)
#undef NV_COUNT
    return missing;
}

// The provider repairs a list that does not match the exports.
void checkFunctionList(Findings& findings, const P11Module& unrepaired)
{
    constexpr const char* name = "function-list";
    const HMODULE library = GetModuleHandleW(toPath(findings.library).c_str());
    const auto exported = reinterpret_cast<void*>(GetProcAddress(library, "C_Initialize"));
    if (exported == reinterpret_cast<void*>(unrepaired.functionList()->C_Initialize)) {
        findings.ok(name, "matches the library's exports");
        return;
    }
    const size_t missing = missingExports(library);
    if (missing == 0)
        findings.ok(name, "does not match the library's exports; the provider repairs it");
    else
        findings.warn(name,
                      "does not match the library's exports; the provider uses the exports, and " +
                          std::to_string(missing) + " of 68 are missing",
                      "Calls of the missing functions fail. Ask the vendor for a complete "
                      "library.");
}

bool checkLoading(Findings& findings)
{
    constexpr const char* name = "library-loads";
    findings.begin(name);
    findings.call("LoadLibrary");
    const LoadedLibrary library = libraryLoading().load(findings.library);
    const DWORD error = GetLastError();
    findings.call("C_GetFunctionList");
    P11Module module(findings.library);
    module.setRepairFunctionList(false);
    if (!module.load()) {
        if (library == nullptr)
            findings.fail(name, "the system cannot load it: " + errorText(error),
                          "See the library's documentation for its requirements.");
        else if (GetProcAddress(library.get(), "C_GetFunctionList") == nullptr)
            findings.fail(name, "it does not export C_GetFunctionList",
                          "This is not a PKCS#11 library. p11File must name one.");
        else
            findings.fail(name, "its C_GetFunctionList returns no list",
                          "See the library's documentation and log.");
        return false;
    }
    findings.ok(name, "PKCS#11 " + std::to_string(module.cryptokiVersion().major) + "." +
                          std::to_string(module.cryptokiVersion().minor));
    checkFunctionList(findings, module);
    return true;
}

// As the provider does it. The calls of the steps that follow can then be named.
void loadForUse(Findings& findings)
{
    findings.call("C_GetFunctionList");
    auto module = std::make_shared<P11Module>(findings.library);
    if (!module->load())
        return;
    findings.watch = std::make_unique<CallWatch>(
        module, [&findings](const char* function) { findings.call(function); });
    findings.p11 = std::make_unique<Pkcs11>(module);
}

}  // namespace

void checkLibrary(Findings& findings)
{
    if (findings.library.empty()) {
        findings.skip("library-file", "no library is configured");
        return;
    }
    std::vector<std::string> imports;
    if (!checkFile(findings) || !checkArchitecture(findings, imports))
        return;
    checkDependencies(findings, imports);
    if (!checkLoading(findings))
        return;
    loadForUse(findings);
}

void checkUnloading(Findings& findings)
{
    constexpr const char* name = "library-unloads";
    if (findings.p11 == nullptr) {
        findings.skip(name, "no library was loaded");
        return;
    }
    findings.begin(name);
    findings.slot = nullptr;
    findings.call("C_Finalize");
    findings.watch.reset();
    findings.p11.reset();
    findings.ok(name, "finalised and unloaded");
}

}  // namespace NV::tool
