// The module's table, of the entry points that are linked into the test.

#pragma once

#include "base/cng.h"

#include "nvvtoken/nvvtoken_name.h"

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                                  NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppTable,
                                                  DWORD dwFlags);

namespace NV::test {

inline const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* moduleTable()
{
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    GetKeyStorageInterface(providerName, &table, 0);
    return table;
}

}  // namespace NV::test
