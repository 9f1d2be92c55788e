// partial_exports.dll: a PKCS#11 library with a complete function list, whose C_Initialize differs
// from the export of that name, and with only five exports: C_GetFunctionList, C_Initialize,
// C_Finalize, C_GetInfo and C_GetSlotList. In a list that is repaired from the exports, the other
// 63 entries are null. The library has no slots; the version of its list is 2.11.

#include <cstring>

#include "export.h"
#include "p11/cryptoki.h"

#define NV_EXPORT extern "C" NV_EXPORTED

namespace {

CK_FUNCTION_LIST theList;

CK_RV NV_CK_CALL otherInitialize(CK_VOID_PTR)
{
    return CKR_OK;
}

template <typename... Arguments>
CK_RV NV_CK_CALL notSupported(Arguments...)
{
    return CKR_FUNCTION_NOT_SUPPORTED;
}

template <size_t size>
void blank(CK_BYTE (&field)[size])
{
    std::memset(field, ' ', size);
}

}  // namespace

NV_EXPORT CK_RV NV_CK_CALL C_Initialize(CK_VOID_PTR)
{
    return CKR_OK;
}

NV_EXPORT CK_RV NV_CK_CALL C_Finalize(CK_VOID_PTR)
{
    return CKR_OK;
}

NV_EXPORT CK_RV NV_CK_CALL C_GetInfo(CK_INFO_PTR pInfo)
{
    *pInfo = {};
    pInfo->cryptokiVersion = {2, 11};
    blank(pInfo->manufacturerID);
    blank(pInfo->libraryDescription);
    return CKR_OK;
}

NV_EXPORT CK_RV NV_CK_CALL C_GetSlotList(CK_BBOOL, CK_SLOT_ID_PTR, CK_ULONG_PTR pulCount)
{
    *pulCount = 0;
    return CKR_OK;
}

NV_EXPORT CK_RV NV_CK_CALL C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    theList.version = {2, 11};
#define NV_FILL(name, parameters) theList.name = notSupported;
    NV_CK_FUNCTIONS(NV_FILL)
#undef NV_FILL
    theList.C_Initialize = otherInitialize;
    theList.C_Finalize = C_Finalize;
    theList.C_GetInfo = C_GetInfo;
    theList.C_GetFunctionList = C_GetFunctionList;
    theList.C_GetSlotList = C_GetSlotList;
    *ppFunctionList = &theList;
    return CKR_OK;
}
