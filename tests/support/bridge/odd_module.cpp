// A native PKCS#11 library with unusual behavior: numbers beyond 32 bits, parameters that it reads
// late, more objects than one call returns. It also reports the arguments of its calls, as text in
// the library description of C_GetInfo. p11bridge.dll loads it for bridge_odd_test.cpp only.

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include <p11-kit/pkcs11.h>

namespace {

constexpr CK_ULONG beyond = CK_ULONG{1} << 32;

// What the description reports.
bool sawCallbacks = false;
CK_FLAGS sawFlags = 0;
char sawParameters[8] = "";
bool sawNotify = false;
CK_SESSION_HANDLE closedSession = 0;

std::vector<CK_ULONG> allowedMechanisms;
CK_MECHANISM_PTR signMechanism = nullptr;
CK_ULONG objectsFound = 0;

CK_RV initialize(void* arguments)
{
    if (const auto* given = static_cast<const CK_C_INITIALIZE_ARGS*>(arguments)) {
        sawCallbacks = given->CreateMutex != nullptr || given->DestroyMutex != nullptr ||
                       given->LockMutex != nullptr || given->UnlockMutex != nullptr;
        sawFlags = given->flags;
        const auto* parameters = static_cast<const char*>(given->pReserved);
        std::snprintf(sawParameters, sizeof(sawParameters), "%s",
                      parameters != nullptr ? parameters : "");
    }
    return CKR_OK;
}

CK_RV finalize(void*)
{
    return CKR_OK;
}

CK_RV getInfo(CK_INFO* info)
{
    *info = {};
    char text[sizeof(info->libraryDescription) + 1] = {};
    std::snprintf(text, sizeof(text), "cb=%d fl=%lx no=%d%s closed=%lx", sawCallbacks, sawFlags,
                  sawNotify, sawParameters, closedSession);
    std::memcpy(info->libraryDescription, text, sizeof(info->libraryDescription));
    return CKR_OK;
}

CK_RV getSlotList(CK_BBOOL, CK_SLOT_ID* list, CK_ULONG* count)
{
    *count = 2;
    if (list != nullptr) {
        list[0] = 1;
        list[1] = beyond + 1;
    }
    return CKR_OK;
}

// A return value beyond 32 bits, whose lower half is CKR_OK.
CK_RV getSlotInfo(CK_SLOT_ID, CK_SLOT_INFO*)
{
    return beyond;
}

CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info)
{
    *info = {};
    info->flags = slot == 1 ? beyond : 0;
    const CK_ULONG amounts[] = {0, 0, 5 * beyond / 4, beyond - 1, CK_UNAVAILABLE_INFORMATION};
    info->ulFreePublicMemory = amounts[slot];
    return CKR_OK;
}

CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS, void*, CK_NOTIFY notify, CK_SESSION_HANDLE* session)
{
    sawNotify = notify != nullptr;
    *session = slot == 1 ? beyond + 7 : 7;
    return CKR_OK;
}

CK_RV closeSession(CK_SESSION_HANDLE session)
{
    closedSession = session;
    return CKR_OK;
}

// Stores the list of allowed mechanisms and ignores other attributes.
CK_RV createObject(CK_SESSION_HANDLE, CK_ATTRIBUTE* attributes, CK_ULONG count,
                   CK_OBJECT_HANDLE* object)
{
    for (CK_ULONG i = 0; i < count; ++i) {
        if (attributes[i].type == CKA_ALLOWED_MECHANISMS) {
            const auto* values = static_cast<const CK_ULONG*>(attributes[i].pValue);
            allowedMechanisms.assign(values, values + attributes[i].ulValueLen / sizeof(CK_ULONG));
        }
    }
    *object = 3;
    return CKR_OK;
}

CK_RV getAttribute(CK_ATTRIBUTE& attribute)
{
    std::vector<CK_ULONG> value;
    switch (attribute.type) {
    case CKA_ALLOWED_MECHANISMS:
        value = allowedMechanisms;
        break;
    case CKA_KEY_TYPE:
        value = {beyond * 2};
        break;
    case CKA_KEY_GEN_MECHANISM:
        value = {CK_UNAVAILABLE_INFORMATION};
        break;
    case CKA_LABEL:  // an impossible length
        attribute.ulValueLen = beyond;
        return CKR_OK;
    default:
        // The bridge must not request what it cannot convert; the error shows if it does.
        return CKR_DEVICE_ERROR;
    }
    const CK_ULONG size = value.size() * sizeof(CK_ULONG);
    if (attribute.pValue != nullptr) {
        if (attribute.ulValueLen < size) {
            attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
            return CKR_BUFFER_TOO_SMALL;
        }
        std::memcpy(attribute.pValue, value.data(), size);
    }
    attribute.ulValueLen = size;
    return CKR_OK;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes,
                        CK_ULONG count)
{
    CK_RV result = CKR_OK;
    for (CK_ULONG i = 0; i < count; ++i)
        result = std::max(result, getAttribute(attributes[i]));
    return result;
}

// Reads the parameter only at the end of the operation, as a library may. Supports one session.
CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE)
{
    if (session == 7)
        signMechanism = mechanism;
    return CKR_OK;
}

CK_RV sign(CK_SESSION_HANDLE, unsigned char*, CK_ULONG, unsigned char* signature, CK_ULONG* length)
{
    *length = signMechanism->ulParameterLen;
    std::memcpy(signature, signMechanism->pParameter, signMechanism->ulParameterLen);
    return CKR_OK;
}

CK_RV findObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG)
{
    objectsFound = 0;
    return CKR_OK;
}

// 2500 objects, whose handles count up from 1.
CK_RV findObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG most, CK_ULONG* count)
{
    for (*count = 0; *count < most && objectsFound < 2500; ++*count)
        objects[*count] = ++objectsFound;
    return CKR_OK;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list)
{
    // All other entries stay null; the bridge must tolerate such a library as well.
    static CK_FUNCTION_LIST functions = [] {
        CK_FUNCTION_LIST made{};
        made.version = {2, 40};
        made.C_Initialize = initialize;
        made.C_Finalize = finalize;
        made.C_GetInfo = getInfo;
        made.C_GetFunctionList = C_GetFunctionList;
        made.C_GetSlotList = getSlotList;
        made.C_GetSlotInfo = getSlotInfo;
        made.C_GetTokenInfo = getTokenInfo;
        made.C_OpenSession = openSession;
        made.C_CloseSession = closeSession;
        made.C_CreateObject = createObject;
        made.C_GetAttributeValue = getAttributeValue;
        made.C_SignInit = signInit;
        made.C_Sign = sign;
        made.C_FindObjectsInit = findObjectsInit;
        made.C_FindObjects = findObjects;
        return made;
    }();
    *list = &functions;
    return CKR_OK;
}
