// Reading certificates and public key objects, and comparing their keys.

#include "system/token_contents.h"

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <utility>

#include "base/curve.h"
#include "base/text.h"
#include "certstore/certstore.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "config/mode.h"
#include "formats/certificate_key.h"
#include "system/configuration.h"
#include "system/library_guard.h"
#include "system/public_session.h"

namespace NV::tool {

namespace {

// Attributes of a public key object; those that it lacks are empty.
struct KeyAttributes {
    Bytes id = {};
    std::string label = {};
    Bytes modulus = {};
    Bytes exponent = {};
    Bytes point = {};
};

Bytes readAttribute(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                    CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE wanted{type, nullptr, 0};
    if (askForAttribute(p11, session, object, wanted) != CKR_OK || wanted.ulValueLen == 0)
        return {};
    Bytes value(wanted.ulValueLen);
    wanted.pValue = value.data();
    if (askForAttribute(p11, session, object, wanted) != CKR_OK)
        return {};
    value.resize(std::min<size_t>(value.size(), wanted.ulValueLen));
    return value;
}

std::string readLabel(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    const Bytes label = readAttribute(p11, session, object, CKA_LABEL);
    return {label.begin(), label.end()};
}

// The public key objects whose CKA_ID is one of the names, in one search.
std::vector<KeyAttributes> readPublicKeys(Pkcs11& p11, CK_SESSION_HANDLE session,
                                          const std::set<Bytes>& ids)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass)};
    std::vector<CK_OBJECT_HANDLE> handles;
    if (p11.C_FindObjectsInit(session, search.data(), search.size()) != CKR_OK)
        return {};
    findObjects(p11, session, handles);
    p11.C_FindObjectsFinal(session);
    std::vector<KeyAttributes> found;
    for (const CK_OBJECT_HANDLE handle : handles) {
        KeyAttributes key{.id = readAttribute(p11, session, handle, CKA_ID)};
        if (!ids.contains(key.id))
            continue;
        key.label = readLabel(p11, session, handle);
        key.modulus = readAttribute(p11, session, handle, CKA_MODULUS);
        if (key.modulus.empty())
            key.point = readAttribute(p11, session, handle, CKA_EC_POINT);
        else
            key.exponent = readAttribute(p11, session, handle, CKA_PUBLIC_EXPONENT);
        found.push_back(std::move(key));
    }
    return found;
}

PublicKeyObject compareRsa(const KeyAttributes& object, const Bytes& certificateKey)
{
    const auto numbers = rsaNumbers(certificateKey);
    if (!numbers || object.modulus.empty())
        return PublicKeyObject::unknown;
    const bool sameExponent =
        object.exponent.empty() || withoutLeadingZeros(object.exponent) == numbers->exponent;
    return withoutLeadingZeros(object.modulus) == numbers->modulus && sameExponent
               ? PublicKeyObject::same
               : PublicKeyObject::different;
}

// CKA_EC_POINT is the point in a DER OCTET STRING. Some libraries give the point alone.
PublicKeyObject compareEc(const KeyAttributes& object, const Bytes& point)
{
    constexpr unsigned char octetString = 0x04;
    constexpr size_t longestHead = 3;
    const size_t size = object.point.size();
    const bool alone = size == point.size();
    const bool wrapped = size > point.size() && size <= point.size() + longestHead &&
                         object.point.front() == octetString;
    if (point.empty() || (!alone && !wrapped))
        return PublicKeyObject::unknown;
    return std::ranges::equal(std::span(object.point).last(point.size()), point)
               ? PublicKeyObject::same
               : PublicKeyObject::different;
}

// The public key objects of the certificate, which has a name.
PublicKeyObject compare(const TokenCertificate& certificate, const Bytes& certificateKey,
                        const std::vector<KeyAttributes>& objects)
{
    PublicKeyObject result = PublicKeyObject::none;
    for (const KeyAttributes& object : objects) {
        const PublicKeyObject one = certificate.isRsa()  ? compareRsa(object, certificateKey)
                                    : certificate.isEc() ? compareEc(object, certificateKey)
                                                         : PublicKeyObject::unknown;
        if (one == PublicKeyObject::same)
            return one;
        // Another key cannot be ruled out while one of the objects is not known.
        if (result != PublicKeyObject::unknown)
            result = one;
    }
    return result;
}

// The objects with the CKA_ID of the certificate.
std::vector<KeyAttributes> publicKeysOf(const TokenCertificate& certificate,
                                        const std::vector<KeyAttributes>& all)
{
    std::vector<KeyAttributes> own;
    if (!certificate.keyName.empty())
        std::ranges::copy_if(all, std::back_inserter(own),
                             [id = hexDecode(toUtf8(certificate.keyName))](
                                 const KeyAttributes& object) { return object.id == id; });
    return own;
}

bool hasInitialisedToken(const P11Slot& slot)
{
    return (slot.slotInfo().flags & CKF_TOKEN_PRESENT) != 0 &&
           (slot.tokenInfo().flags & CKF_TOKEN_INITIALIZED) != 0;
}

std::vector<const P11Slot*> chosenSlots(const P11Module& module, Tokens which)
{
    std::vector<const P11Slot*> slots;
    for (const auto& slot : module.slots()) {
        if (hasInitialisedToken(*slot) && (which == Tokens::all || slots.empty()))
            slots.push_back(slot.get());
    }
    return slots;
}

TokenCertificate describe(const P11CertObject& object, bool isKey)
{
    TokenCertificate certificate{.keyName = object.keyName(),
                                 .algorithmOid = toUtf8(object.algorithmOid()),
                                 .bits = object.keyLength(),
                                 .authority = P11CertObject::isAuthority(object.certificate()),
                                 .isKey = isKey,
                                 .der = base64Decode(object.certificate())};
    if (certificate.isEc()) {
        certificate.curveOid = P11CertObject::extractCurveOid(object.certificate());
        if (const Curve* curve = findNamedCurve(certificate.curveOid))
            certificate.bits = curve->keyLength;
    }
    return certificate;
}

}  // namespace

bool TokenCertificate::isRsa() const
{
    return algorithmOid == toUtf8(rsaOid);
}

bool TokenCertificate::isEc() const
{
    return algorithmOid == toUtf8(ecOid);
}

std::string TokenCertificate::algorithm() const
{
    if (isRsa())
        return "RSA";
    if (!isEc())
        return {};
    const Curve* curve = findNamedCurve(curveOid);
    return curve != nullptr && curve->algorithmName != nullptr ? toUtf8(curve->algorithmName)
                                                               : "ECDSA";
}

std::vector<TokenCertificate> readCertificates(Pkcs11& p11, const P11Slot& slot,
                                               PublicSession& session)
{
    P11CertObject::ByHandle objects = P11CertObject::FindCertificates(p11, slot, session.handle());
    std::vector<TokenCertificate> certificates;
    std::vector<Bytes> keys;
    std::set<Bytes> ids;
    std::map<CK_OBJECT_HANDLE, size_t> positions;
    for (const auto& [handle, object] : objects) {
        positions[handle] = certificates.size();
        certificates.push_back(describe(*object, !mode().filtersCertificates()));
        certificates.back().labels = {readLabel(p11, session.handle(), handle)};
        keys.push_back(base64Decode(object->publicKey()));
        if (!object->keyName().empty())
            ids.insert(hexDecode(toUtf8(object->keyName())));
    }
    const std::vector<KeyAttributes> publicKeys = readPublicKeys(p11, session.handle(), ids);
    for (size_t i = 0; i < certificates.size(); ++i) {
        const std::vector<KeyAttributes> own = publicKeysOf(certificates[i], publicKeys);
        certificates[i].publicKey = compare(certificates[i], keys[i], own);
        for (const KeyAttributes& object : own)
            certificates[i].labels.push_back(object.label);
    }
    if (mode().filtersCertificates()) {
        P11CertObject::keepKeys(p11, slot, session.handle(), objects);
        for (const auto& [handle, object] : objects)
            certificates[positions.at(handle)].isKey = true;
    }
    return certificates;
}

const TokenCertificate* TokenContents::find(const std::wstring& keyName) const
{
    const auto found = std::ranges::find_if(certificates, [&](const TokenCertificate& one) {
        return one.isKey && one.keyName == keyName;
    });
    return found != certificates.end() ? &*found : nullptr;
}

Certificate TokenContents::certificateOf(const std::wstring& keyName) const
{
    const TokenCertificate* found = find(keyName);
    return found != nullptr ? certificateFrom(found->der) : nullptr;
}

TokenContents readToken(Tokens which)
{
    loadConfiguration();
    setMode(Config::instance().mode());
    TokenContents contents;
    const GuardedCall call("reading the token");
    Pkcs11 p11;
    contents.answers = p11.loadModule(configuredLibrary(Config::instance()));
    const std::vector<const P11Slot*> slots =
        contents.answers ? chosenSlots(*p11.module(), which) : std::vector<const P11Slot*>();
    contents.hasToken = contents.read = !slots.empty();
    for (const P11Slot* slot : slots) {
        PublicSession session(p11, slot->id());
        contents.read = contents.read && session.isOpen();
        if (session.isOpen())
            std::ranges::move(readCertificates(p11, *slot, session),
                              std::back_inserter(contents.certificates));
    }
    return contents;
}

}  // namespace NV::tool
