// Loads p11bridge.dll into a test and owns the module handle and the function list.
// For the bridge's own tests.

#pragma once

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "host.h"
#include "p11/cryptoki.h"

namespace NV::test {

class LoadedBridge {
public:
    LoadedBridge() : module_{LoadLibraryW(host::winelibPath("p11bridge.dll").c_str())}
    {
        if (module_ == nullptr)
            throw std::runtime_error{"cannot load p11bridge.dll"};
        const auto getFunctionList = symbol<CK_C_GetFunctionList>("C_GetFunctionList");
        if (getFunctionList == nullptr || getFunctionList(&functions_) != CKR_OK)
            throw std::runtime_error{"p11bridge.dll gives no function list"};
    }

    ~LoadedBridge() { FreeLibrary(module_); }

    LoadedBridge(const LoadedBridge&) = delete;
    LoadedBridge& operator=(const LoadedBridge&) = delete;

    const CK_FUNCTION_LIST* operator->() const { return functions_; }

    // An export as a function; null if it does not exist.
    template <typename Function>
    Function symbol(const char* name) const
    {
        const FARPROC address = GetProcAddress(module_, name);
        Function function = nullptr;
        static_assert(sizeof(function) == sizeof(address));
        std::memcpy(&function, &address, sizeof(function));
        return function;
    }

private:
    HMODULE module_;
    CK_FUNCTION_LIST* functions_ = nullptr;
};

// A character field without the blanks that pad it.
template <size_t size>
std::string trimmed(const CK_UTF8CHAR (&field)[size])
{
    std::string text(field, field + size);
    text.erase(text.find_last_not_of(std::string_view{" \0", 2}) + 1);
    return text;
}

}  // namespace NV::test
