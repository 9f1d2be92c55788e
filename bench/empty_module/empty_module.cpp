// An empty DLL with the module's export and imports. The difference in loading time is the module's
// own cost.

#include "base/cng.h"

extern "C" __declspec(dllexport) NTSTATUS WINAPI
    GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD)
{
    *ppFunctionTable = nullptr;
    return 0;
}
