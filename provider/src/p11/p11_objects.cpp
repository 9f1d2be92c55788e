// The wrappers of the object functions: creation, attributes, search.

#include "p11/p11.h"

#include <algorithm>
#include <vector>

#include "p11/p11_call.h"

namespace NV {

using namespace call_layer;

CK_RV Pkcs11::C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate,
                             CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phObject)
{
    return NV_PLAIN_CALL(C_CreateObject, end, pointer("hSession", hSession),
                         pointer("pTemplate", pTemplate), number("ulCount", ulCount),
                         pointer("phObject", phObject));
}

CK_RV Pkcs11::C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                           CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                           CK_OBJECT_HANDLE_PTR phNewObject)
{
    return NV_PLAIN_CALL(C_CopyObject, end, pointer("hSession", hSession),
                         pointer("hObject", hObject), pointer("pTemplate", pTemplate),
                         number("ulCount", ulCount), pointer("phNewObject", phNewObject));
}

CK_RV Pkcs11::C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    return NV_PLAIN_CALL(C_DestroyObject, end, pointer("hSession", hSession),
                         pointer("hObject", hObject));
}

CK_RV Pkcs11::C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                              CK_ULONG_PTR pulSize)
{
    return NV_PLAIN_CALL(C_GetObjectSize, end, pointer("hSession", hSession),
                         pointer("hObject", hObject), pointer("pulSize", pulSize));
}

CK_RV Pkcs11::C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    return NV_PLAIN_CALL(C_GetAttributeValue, end, pointer("hSession", hSession),
                         pointer("hObject", hObject), pointer("pTemplate", pTemplate),
                         number("ulCount", ulCount));
}

CK_RV Pkcs11::C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                  CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    return NV_PLAIN_CALL(C_SetAttributeValue, end, pointer("hSession", hSession),
                         pointer("hObject", hObject), pointer("pTemplate", pTemplate),
                         number("ulCount", ulCount));
}

CK_RV Pkcs11::C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate,
                                CK_ULONG ulCount)
{
    constexpr Site here = NV_HERE;
    const auto logTemplate = [&] {
        for (CK_ULONG i = 0; pTemplate != nullptr && i < ulCount; ++i)
            NV_UNDER(TRC, here, "ATTR[%d]=%s", static_cast<int>(i), toText(pTemplate[i]).c_str());
    };
    return call(NV_CALL(C_FindObjectsInit, result), logTemplate, nothingAfter,
                pointer("hSession", hSession), pointer("pTemplate", pTemplate),
                number("ulCount", ulCount));
}

CK_RV Pkcs11::C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                            CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount)
{
    constexpr Site here = NV_HERE;
    const auto logObjects = [&](CK_RV rv) {
        if (rv != CKR_OK || pulObjectCount == nullptr)
            return;
        NV_UNDER(TRC, here, "OBJECT COUNT = %d", static_cast<int>(*pulObjectCount));
        // Do not read past the caller's buffer if the library reports a larger count.
        const CK_ULONG count = std::min(*pulObjectCount, ulMaxObjectCount);
        for (CK_ULONG i = 0; phObject != nullptr && i < count; ++i)
            NV_UNDER(TRC, here, "OBJECT[%d]=%p", static_cast<int>(i), asPointer(phObject[i]));
    };
    return call(NV_CALL(C_FindObjects, result), nothingBefore, logObjects,
                pointer("hSession", hSession), pointer("phObject", phObject),
                number("ulMaxObjectCount", ulMaxObjectCount),
                pointer("pulObjectCount", pulObjectCount));
}

CK_RV Pkcs11::C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return NV_PLAIN_CALL(C_FindObjectsFinal, result, pointer("hSession", hSession));
}

CK_RV askForAttribute(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                      CK_ATTRIBUTE& wanted)
{
    const bool lengthOnly = wanted.pValue == nullptr;
    const CK_RV rv = p11.C_GetAttributeValue(session, object, &wanted, 1);
    if (rv != CKR_OK)
        return rv;
    constexpr CK_ULONG unavailable = ~CK_ULONG{0};
    const bool tooLong = lengthOnly && wanted.ulValueLen > maxAttributeSize;
    return wanted.ulValueLen == unavailable || tooLong ? CKR_ATTRIBUTE_SENSITIVE : CKR_OK;
}

CK_RV findObjects(Pkcs11& p11, CK_SESSION_HANDLE session, std::vector<CK_OBJECT_HANDLE>& found)
{
    constexpr CK_ULONG maxFoundObjects = 1024;
    CK_ULONG count = 0;
    found.resize(maxFoundObjects);
    const CK_RV rv = p11.C_FindObjects(session, found.data(), maxFoundObjects, &count);
    const bool failed = rv == CKR_OK && count > maxListedEntries;
    found.resize(rv == CKR_OK && !failed ? std::min(count, maxFoundObjects) : 0);
    return failed ? CKR_GENERAL_ERROR : rv;
}

}  // namespace NV
