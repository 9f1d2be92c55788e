// The module inside the benchmark program: its shipped objects behind its operation table, without
// the DLL, so that the benchmark can replace the PIN dialog and exclude parts from a figure.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <stdexcept>
#include <string>

#include "folder.h"
#include "profile.h"

namespace NV::bench {

// While it exists, the module's configuration names this PKCS#11 library, the log is off, and the
// PIN dialog returns the PIN at once.
class LinkedModule {
public:
    LinkedModule(const std::filesystem::path& library, const std::string& pin);

    // The operation table, from GetKeyStorageInterface.
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* operator->() const { return table_; }

private:
    NV::test::Profile profile_;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_ = nullptr;
};

// Throws std::runtime_error that names what failed; a benchmark must not time failures.
void expectSuccess(SECURITY_STATUS status, const char* what);

// A provider of the linked module; the destructor frees it.
class OpenProvider {
public:
    explicit OpenProvider(const LinkedModule& module);
    ~OpenProvider();
    OpenProvider(const OpenProvider&) = delete;
    OpenProvider& operator=(const OpenProvider&) = delete;

    NCRYPT_PROV_HANDLE handle() const { return handle_; }
    NCRYPT_KEY_HANDLE openKey(const wchar_t* name) const;

private:
    const LinkedModule& module_;
    NCRYPT_PROV_HANDLE handle_ = 0;
};

}  // namespace NV::bench
