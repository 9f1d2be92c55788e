// The scripted token's memory and the rules for its parts.

#include "token.h"

#include <algorithm>
#include <cstring>

namespace NV::scripted {

namespace {

template <typename Map, typename Condemned>
void eraseWhere(Map& map, Condemned condemned)
{
    std::erase_if(map, [&](const auto& entry) { return condemned(entry.second); });
}

}  // namespace

std::mutex& tokenMutex()
{
    static std::mutex mutex;
    return mutex;
}

Token& token()
{
    static Token theToken;
    return theToken;
}

Bytes valueOf(const CK_ATTRIBUTE& attribute)
{
    if (attribute.pValue == nullptr)
        return {};
    const auto* bytes = static_cast<const CK_BYTE*>(attribute.pValue);
    return Bytes(bytes, bytes + attribute.ulValueLen);
}

bool equals(const Bytes& value, const CK_ATTRIBUTE& attribute)
{
    const auto* bytes = static_cast<const CK_BYTE*>(attribute.pValue);
    return std::ranges::equal(value, std::span(bytes, bytes != nullptr ? attribute.ulValueLen : 0));
}

Bytes numberBytes(CK_ULONG value)
{
    Bytes bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

Object objectFrom(const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    Object object;
    for (CK_ULONG i = 0; attributes != nullptr && i < count; ++i)
        object.attributes[CK_ATTRIBUTE_TYPE{attributes[i].type}] = valueOf(attributes[i]);
    return object;
}

const Bytes* Object::find(CK_ATTRIBUTE_TYPE type) const
{
    const auto found = attributes.find(type);
    return found == attributes.end() ? nullptr : &found->second;
}

CK_ULONG Object::number(CK_ATTRIBUTE_TYPE type, CK_ULONG otherwise) const
{
    const Bytes* bytes = find(type);
    if (bytes == nullptr || bytes->size() != sizeof(CK_ULONG))
        return otherwise;
    CK_ULONG value = 0;
    std::memcpy(&value, bytes->data(), sizeof(value));
    return value;
}

bool Object::flag(CK_ATTRIBUTE_TYPE type, bool otherwise) const
{
    const Bytes* bytes = find(type);
    return bytes == nullptr || bytes->empty() ? otherwise : bytes->front() != CK_FALSE;
}

CK_OBJECT_CLASS Object::objectClass() const
{
    return number(CKA_CLASS, CKO_VENDOR_DEFINED);
}

bool Object::isPrivate() const
{
    return flag(CKA_PRIVATE, objectClass() == CKO_PRIVATE_KEY);
}

bool Object::reveals(CK_ATTRIBUTE_TYPE type) const
{
    const bool secretPart =
        type == CKA_VALUE || (type >= CKA_PRIVATE_EXPONENT && type <= CKA_COEFFICIENT);
    const bool secretObject = objectClass() == CKO_PRIVATE_KEY || objectClass() == CKO_SECRET_KEY;
    return !secretPart || !secretObject ||
           (!flag(CKA_SENSITIVE, false) && flag(CKA_EXTRACTABLE, true));
}

CK_ULONG Object::modulusLength() const
{
    const Bytes* modulus = find(CKA_MODULUS);
    if (modulus != nullptr)
        return static_cast<CK_ULONG>(modulus->size());
    return (number(CKA_MODULUS_BITS, 0) + 7) / 8;
}

CK_ULONG Object::coordinateSize() const
{
    const Bytes* parameters = find(CKA_EC_PARAMS);
    for (const test::CurveRow& curve : test::kCurves) {
        if (parameters != nullptr && std::ranges::equal(*parameters, curve.parameters))
            return curve.coordinateSize;
    }
    return 0;
}

void Token::reset()
{
    finalise();
    initArguments = {};
    initArgumentsGiven = false;
    objects.clear();
    slots = {{test::kSlot, test::kSlotFlags, test::kTokenFlags},
             {test::kOtherSlot, test::kEmptySlotFlags, 0}};
    secretPattern.assign(std::begin(test::kSecretPattern), std::end(test::kSecretPattern));
    parametersReread = false;
    holdsMutex = false;
    nextSession_ = test::kFirstSession;
    nextObject_ = test::kFirstObject;
    nextSessionObject_ = test::kFirstSessionObject;
}

void Token::finalise()
{
    initialised = false;
    heldMutex = nullptr;
    sessions.clear();
    eraseWhere(objects, [](const Object& object) { return object.session != 0; });
    for (Slot& each : slots)
        each.login = Login::nobody;
}

Slot* Token::slot(CK_SLOT_ID id)
{
    const auto found = std::ranges::find(slots, id, &Slot::id);
    return found == slots.end() ? nullptr : &*found;
}

CK_RV Token::checkToken(CK_SLOT_ID id)
{
    const Slot* found = slot(id);
    if (found == nullptr)
        return CKR_SLOT_ID_INVALID;
    return found->present() ? CKR_OK : CKR_TOKEN_NOT_PRESENT;
}

Session* Token::session(CK_SESSION_HANDLE handle)
{
    const auto found = sessions.find(handle);
    return found == sessions.end() ? nullptr : &found->second;
}

Session& Token::openSession(CK_SLOT_ID id, CK_FLAGS flags)
{
    const CK_SESSION_HANDLE handle = nextSession_++;
    return sessions.emplace(handle, Session{handle, id, flags, {}, {}}).first->second;
}

void Token::closeSession(CK_SESSION_HANDLE handle)
{
    const auto found = sessions.find(handle);
    if (found == sessions.end())
        return;
    const CK_SLOT_ID id = found->second.slot;
    sessions.erase(found);
    eraseWhere(objects, [handle](const Object& object) { return object.session == handle; });
    Slot* emptied = slot(id);
    if (emptied != nullptr && sessionCount(id, false) == 0)
        emptied->login = Login::nobody;
}

CK_ULONG Token::sessionCount(CK_SLOT_ID id, bool readWriteOnly) const
{
    return static_cast<CK_ULONG>(std::ranges::count_if(sessions, [=](const auto& entry) {
        return entry.second.slot == id && !(readWriteOnly && entry.second.readOnly());
    }));
}

void Token::logOut(Slot& from)
{
    from.login = Login::nobody;
    // Private session objects and operations with private keys end with the login.
    for (auto& [handle, each] : sessions) {
        for (std::optional<Operation>& operation : each.operations) {
            const Object* key = operation ? object(operation->key) : nullptr;
            if (each.slot == from.id && key != nullptr && !visible(*key))
                operation.reset();
        }
    }
    eraseWhere(objects, [&from](const Object& each) {
        return each.slot == from.id && each.session != 0 && each.isPrivate();
    });
}

bool Token::visible(const Object& seen)
{
    if (!seen.isPrivate())
        return true;
    const Slot* holder = slot(seen.slot);
    return holder != nullptr &&
           (holder->login == Login::user || (holder->tokenFlags & CKF_LOGIN_REQUIRED) == 0);
}

Object* Token::object(CK_OBJECT_HANDLE handle)
{
    const auto found = objects.find(handle);
    return found == objects.end() ? nullptr : &found->second;
}

CK_OBJECT_HANDLE Token::addTokenObject(Object added)
{
    added.session = 0;
    objects.emplace(nextObject_, std::move(added));
    return nextObject_++;
}

CK_OBJECT_HANDLE Token::addSessionObject(Session& owner, Object added)
{
    added.slot = owner.slot;
    added.session = added.flag(CKA_TOKEN, false) ? 0 : owner.handle;
    objects.emplace(nextSessionObject_, std::move(added));
    return nextSessionObject_++;
}

std::vector<CK_OBJECT_HANDLE> Token::search(const Session& session,
                                            std::span<const CK_ATTRIBUTE> wanted)
{
    std::vector<CK_OBJECT_HANDLE> found;
    for (const auto& entry : objects) {
        const Object& candidate = entry.second;
        const auto matches = [&candidate](const CK_ATTRIBUTE& attribute) {
            const Bytes* value = candidate.find(attribute.type);
            return value != nullptr && equals(*value, attribute);
        };
        if (candidate.slot == session.slot && visible(candidate) &&
            std::ranges::all_of(wanted, matches))
            found.push_back(entry.first);
    }
    return found;
}

}  // namespace NV::scripted
