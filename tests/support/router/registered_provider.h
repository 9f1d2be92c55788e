// Registers the module under test with the router, for tests that call it through ncrypt.dll.

#pragma once

#include <filesystem>
#include <string>

#include "folder.h"

namespace NV::test {

// While it lives, the router knows the module under test, and the DLLs that were added.
class RegisteredProvider {
public:
    RegisteredProvider();
    ~RegisteredProvider();
    RegisteredProvider(const RegisteredProvider&) = delete;
    RegisteredProvider& operator=(const RegisteredProvider&) = delete;

    // Another name for a DLL, which need not exist.
    void add(const std::wstring& name, const std::filesystem::path& dll);

private:
    TemporaryFolder folder_;
    std::string lines_;
};

}  // namespace NV::test
