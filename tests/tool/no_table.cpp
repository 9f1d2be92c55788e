// no_table.dll: a module whose GetKeyStorageInterface succeeds and gives no table.

#include "base/cng.h"

extern "C" __declspec(dllexport) SECURITY_STATUS WINAPI
    GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** table, DWORD)
{
    *table = nullptr;
    return ERROR_SUCCESS;
}
