// The path, however long it is.

#include "system/program.h"

#include <windows.h>

#include <string>

namespace NV::tool {

std::filesystem::path ownProgram()
{
    std::wstring path(MAX_PATH, L'\0');
    DWORD length = 0;
    while ((length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()))) ==
           path.size())
        path.resize(path.size() * 2);
    path.resize(length);
    return path;
}

}  // namespace NV::tool
