// hanging_attach.dll: a library whose DllMain does not come back. It exports C_GetFunctionList, so that
// it looks like a PKCS#11 library.

#include <windows.h>

#include "p11/cryptoki.h"

extern "C" __declspec(dllexport) CK_RV NV_CK_CALL C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR)
{
    return CKR_GENERAL_ERROR;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        Sleep(INFINITE);
    return TRUE;
}
