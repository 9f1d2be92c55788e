// no_function_list.dll: a PKCS#11 library whose C_GetFunctionList fails.

#include "p11/cryptoki.h"

extern "C" __declspec(dllexport) CK_RV NV_CK_CALL C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR)
{
    return CKR_GENERAL_ERROR;
}
