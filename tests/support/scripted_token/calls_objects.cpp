// The scripted token's object functions: C_CreateObject to C_FindObjectsFinal.

#include "call.h"
#include "calls.h"

namespace NV::scripted {

namespace {

constexpr CK_ULONG kUnavailable = static_cast<CK_ULONG>(-1);

// CKR_OK: the session may add the object.
CK_RV checkNew(Token& token, const Session& session, Object& added)
{
    added.slot = session.slot;
    if (added.find(CKA_CLASS) == nullptr)
        return CKR_TEMPLATE_INCOMPLETE;
    if (session.readOnly() && added.flag(CKA_TOKEN, false))
        return CKR_SESSION_READ_ONLY;
    return token.visible(added) ? CKR_OK : CKR_USER_NOT_LOGGED_IN;
}

// CKR_OK: `handle` is an object that this session may use now.
CK_RV checkObject(Token& token, const Session& session, CK_OBJECT_HANDLE handle)
{
    const Object* object = token.object(handle);
    if (object == nullptr || object->slot != session.slot)
        return CKR_OBJECT_HANDLE_INVALID;
    return token.visible(*object) ? CKR_OK : CKR_USER_NOT_LOGGED_IN;
}

CK_RV checkChange(Token& token, const Session& session, CK_OBJECT_HANDLE handle)
{
    const CK_RV rv = checkObject(token, session, handle);
    if (rv == CKR_OK && session.readOnly() && token.object(handle)->session == 0)
        return CKR_SESSION_READ_ONLY;
    return rv;
}

CK_RV readAttribute(const Object& object, CK_ATTRIBUTE& wanted, Lie lie)
{
    if (lie == test::Fault::valueUnavailable) {
        wanted.ulValueLen = kUnavailable;
        return CKR_OK;
    }
    const Bytes* value = object.find(wanted.type);
    const bool revealed = object.reveals(wanted.type);
    if (value == nullptr || !revealed) {
        wanted.ulValueLen = kUnavailable;
        return value == nullptr ? CKR_ATTRIBUTE_TYPE_INVALID : CKR_ATTRIBUTE_SENSITIVE;
    }
    auto* buffer = static_cast<CK_BYTE*>(wanted.pValue);
    // A member of the packed structure may lie at any address.
    CK_ULONG length = wanted.ulValueLen;
    const CK_RV rv = giveBytes(*value, buffer, &length, lie);
    wanted.ulValueLen = rv == CKR_BUFFER_TOO_SMALL ? kUnavailable : length;
    return rv;
}

// Processes every attribute; the first failure determines the result.
CK_RV readAttributes(const Object& object, std::span<CK_ATTRIBUTE> wanted, Lie lie)
{
    CK_RV result = CKR_OK;
    for (CK_ATTRIBUTE& each : wanted) {
        const CK_RV rv = readAttribute(object, each, lie);
        if (result == CKR_OK)
            result = rv;
    }
    return result;
}

// The first buffer of a template, or null for a length query.
const void* firstBuffer(const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    for (CK_ULONG i = 0; attributes != nullptr && i < count; ++i) {
        if (attributes[i].pValue != nullptr)
            return attributes[i].pValue;
    }
    return nullptr;
}

CK_RV tellFound(Search& search, CK_OBJECT_HANDLE* objects, CK_ULONG capacity, CK_ULONG& count,
                Lie lie)
{
    if (lie == test::Fault::bufferTooSmall)
        return CKR_BUFFER_TOO_SMALL;
    const size_t told = std::min<size_t>(capacity, search.found.size() - search.told);
    std::copy_n(search.found.begin() + static_cast<std::ptrdiff_t>(search.told), told, objects);
    search.told += told;
    count = static_cast<CK_ULONG>(told);
    if (lie == test::Fault::secondCountLarger)
        count += test::kLieExcess;
    if (lie == test::Fault::lengthPastBuffer)
        count = capacity + test::kLieExcess;
    if (lie == test::Fault::claims)
        count = lie.value;
    return CKR_OK;
}

}  // namespace

}  // namespace NV::scripted

using namespace NV::scripted;  // the definitions below are C functions outside every namespace

CK_RV C_CreateObject(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                     CK_OBJECT_HANDLE_PTR phObject)
{
    const Line line = sessionLine(hSession).attributes("template", pTemplate, ulCount);
    return serveSession("C_CreateObject", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            if (pTemplate == nullptr || phObject == nullptr)
                                return CKR_ARGUMENTS_BAD;
                            Object added = objectFrom(pTemplate, ulCount);
                            const CK_RV rv = checkNew(token, session, added);
                            if (rv == CKR_OK)
                                *phObject = token.addSessionObject(session, std::move(added));
                            return rv;
                        });
}

CK_RV C_CopyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                   CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject)
{
    const Line line =
        sessionLine(hSession).hex("object", hObject).attributes("template", pTemplate, ulCount);
    return serveSession("C_CopyObject", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            CK_RV rv = checkObject(token, session, hObject);
                            if (rv != CKR_OK)
                                return rv;
                            if (phNewObject == nullptr)
                                return CKR_ARGUMENTS_BAD;
                            Object copy = *token.object(hObject);
                            copy.attributes[CKA_TOKEN] = {CK_FALSE};
                            Object changes = objectFrom(pTemplate, ulCount);
                            for (auto& [type, value] : changes.attributes)
                                copy.attributes[type] = std::move(value);
                            rv = checkNew(token, session, copy);
                            if (rv == CKR_OK)
                                *phNewObject = token.addSessionObject(session, std::move(copy));
                            return rv;
                        });
}

CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject)
{
    const Line line = sessionLine(hSession).hex("object", hObject);
    return serveSession("C_DestroyObject", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            const CK_RV rv = checkChange(token, session, hObject);
                            if (rv == CKR_OK)
                                token.objects.erase(hObject);
                            return rv;
                        });
}

CK_RV C_GetObjectSize(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize)
{
    const Line line = sessionLine(hSession).hex("object", hObject).pointer("size", pulSize);
    return serveSession("C_GetObjectSize", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            const CK_RV rv = checkObject(token, session, hObject);
                            if (rv != CKR_OK)
                                return rv;
                            if (pulSize == nullptr)
                                return CKR_ARGUMENTS_BAD;
                            *pulSize = NV::test::kObjectOverhead;
                            for (const auto& [type, value] : token.object(hObject)->attributes)
                                *pulSize += static_cast<CK_ULONG>(value.size());
                            return CKR_OK;
                        });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    const Line line =
        sessionLine(hSession).hex("object", hObject).wanted("template", pTemplate, ulCount);
    return serveSession(
        "C_GetAttributeValue", hSession, line, firstBuffer(pTemplate, ulCount),
        [&](Token& token, Session& session, Lie lie) {
            const CK_RV rv = checkObject(token, session, hObject);
            if (rv != CKR_OK)
                return rv;
            if (pTemplate == nullptr)
                return CKR_ARGUMENTS_BAD;
            return readAttributes(*token.object(hObject), {pTemplate, ulCount}, lie);
        });
}

CK_RV C_SetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                          CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    const Line line =
        sessionLine(hSession).hex("object", hObject).attributes("template", pTemplate, ulCount);
    return serveSession("C_SetAttributeValue", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            const CK_RV rv = checkChange(token, session, hObject);
                            if (rv != CKR_OK)
                                return rv;
                            Object changes = objectFrom(pTemplate, ulCount);
                            for (auto& [type, value] : changes.attributes)
                                token.object(hObject)->attributes[type] = std::move(value);
                            return CKR_OK;
                        });
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount)
{
    const Line line = sessionLine(hSession).attributes("template", pTemplate, ulCount);
    return serveSession("C_FindObjectsInit", hSession, line, nullptr,
                        [&](Token& token, Session& session, Lie) {
                            if (session.search)
                                return CKR_OPERATION_ACTIVE;
                            if (pTemplate == nullptr && ulCount != 0)
                                return CKR_ARGUMENTS_BAD;
                            session.search = Search{token.search(session, {pTemplate, ulCount})};
                            return CKR_OK;
                        });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject,
                    CK_ULONG ulMaxObjectCount, CK_ULONG_PTR pulObjectCount)
{
    const Line line = sessionLine(hSession)
                          .decimal("max", ulMaxObjectCount)
                          .pointer("objects", phObject)
                          .pointer("count", pulObjectCount);
    return serveSession(
        "C_FindObjects", hSession, line, phObject, [&](Token&, Session& session, Lie lie) {
            if (!session.search)
                return CKR_OPERATION_NOT_INITIALIZED;
            if (phObject == nullptr || pulObjectCount == nullptr)
                return CKR_ARGUMENTS_BAD;
            return tellFound(*session.search, phObject, ulMaxObjectCount, *pulObjectCount, lie);
        });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession)
{
    return serveSession("C_FindObjectsFinal", hSession, sessionLine(hSession), nullptr,
                        [](Token&, Session& session, Lie) {
                            if (!session.search)
                                return CKR_OPERATION_NOT_INITIALIZED;
                            session.search.reset();
                            return CKR_OK;
                        });
}
