// Makes the calls, one after the other.

#include "bare_opening.h"

#include <stdexcept>
#include <vector>

#include "opened_provider.h"

namespace NV::bench {

namespace {

constexpr CK_ULONG mostObjects = 1024;

void expectSuccess(CK_RV rv)
{
    if (rv != CKR_OK)
        throw std::runtime_error("a bare call fails");
}

void readMechanisms(const CK_FUNCTION_LIST& library, CK_SLOT_ID slot)
{
    CK_ULONG count = 0;
    expectSuccess(library.C_GetMechanismList(slot, nullptr, &count));
    std::vector<CK_MECHANISM_TYPE> types(count);
    expectSuccess(library.C_GetMechanismList(slot, types.data(), &count));
    for (const CK_MECHANISM_TYPE type : types) {
        CK_MECHANISM_INFO info{};
        expectSuccess(library.C_GetMechanismInfo(slot, type, &info));
    }
}

// Reads all that the library has. Returns the slot that the provider would choose.
CK_SLOT_ID discover(const CK_FUNCTION_LIST& library)
{
    // Fails, unless another part of the process has left the library initialized.
    library.C_Finalize(nullptr);
    expectSuccess(library.C_Initialize(nullptr));
    CK_INFO libraryInfo{};
    expectSuccess(library.C_GetInfo(&libraryInfo));
    CK_ULONG count = 0;
    expectSuccess(library.C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    expectSuccess(library.C_GetSlotList(CK_TRUE, slots.data(), &count));
    for (const CK_SLOT_ID slot : slots) {
        CK_SLOT_INFO slotInfo{};
        expectSuccess(library.C_GetSlotInfo(slot, &slotInfo));
        CK_TOKEN_INFO tokenInfo{};
        expectSuccess(library.C_GetTokenInfo(slot, &tokenInfo));
        readMechanisms(library, slot);
    }
    expectSuccess(library.C_Finalize(nullptr));
    return slots.at(0);
}

void readAttribute(const CK_FUNCTION_LIST& library, CK_SESSION_HANDLE session,
                   CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE wanted{type, nullptr, 0};
    expectSuccess(library.C_GetAttributeValue(session, object, &wanted, 1));
    test::Bytes value(wanted.ulValueLen);
    wanted.pValue = value.data();
    expectSuccess(library.C_GetAttributeValue(session, object, &wanted, 1));
}

void readCertificates(const CK_FUNCTION_LIST& library, CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE certificateType = CKC_X_509;
    CK_ATTRIBUTE search[] = {
        {CKA_CLASS, &objectClass, sizeof objectClass},
        {CKA_CERTIFICATE_TYPE, &certificateType, sizeof certificateType},
    };
    std::vector<CK_OBJECT_HANDLE> objects(mostObjects);
    CK_ULONG count = 0;
    expectSuccess(library.C_FindObjectsInit(session, search, 2));
    expectSuccess(library.C_FindObjects(session, objects.data(), mostObjects, &count));
    objects.resize(count);
    for (const CK_OBJECT_HANDLE object : objects) {
        readAttribute(library, session, object, CKA_VALUE);
        readAttribute(library, session, object, CKA_ID);
    }
    expectSuccess(library.C_FindObjectsFinal(session));
}

}  // namespace

void openBare(const CK_FUNCTION_LIST& library)
{
    CK_FUNCTION_LIST* list = nullptr;
    expectSuccess(library.C_GetFunctionList(&list));
    const CK_SLOT_ID slot = discover(library);
    expectSuccess(library.C_Initialize(nullptr));
    CK_SESSION_HANDLE session = 0;
    expectSuccess(library.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    readCertificates(library, session);
    expectSuccess(library.C_CloseSession(session));
    expectSuccess(library.C_Finalize(nullptr));
    // The module finalizes a library again before it unloads it, which fails.
    library.C_Finalize(nullptr);
}

void expectSameCalls(test::ScriptedToken& token)
{
    const CK_FUNCTION_LIST library = token.exports();
    token.setRecording(true);
    {
        const OpenedProvider provider;
    }
    const std::vector<std::string> ofProvider = token.callNames();
    token.clearCalls();
    openBare(library);
    const bool same = token.callNames() == ofProvider;
    token.clearCalls();
    token.setRecording(false);
    if (!same)
        throw std::runtime_error("the bare calls are not those of a provider's opening");
}

}  // namespace NV::bench
