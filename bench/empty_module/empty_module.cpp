// A DLL that does nothing but answer for its one export, with the imports of the module: what loading
// the module costs beyond them is the module's own.

#include "base/cng.h"

extern "C" __declspec(dllexport) NTSTATUS WINAPI
    GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD)
{
    *ppFunctionTable = nullptr;
    return 0;
}
