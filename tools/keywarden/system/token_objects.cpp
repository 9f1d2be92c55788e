// Searching the token by class.

#include "system/token_objects.h"

#include <array>
#include <utility>

#include "certstore/certstore.h"
#include "config/config.h"
#include "p11/p11.h"
#include "p11/p11text.h"
#include "system/configuration.h"
#include "system/public_session.h"
#include "text.h"

namespace NV::tool {

namespace {

// Empty if the object does not have it.
Bytes valueOf(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
              CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE wanted = attribute(type, nullptr, 0);
    if (askForAttribute(p11, session, object, wanted) != CKR_OK)
        return {};
    Bytes value(wanted.ulValueLen);
    wanted.pValue = value.data();
    if (askForAttribute(p11, session, object, wanted) != CKR_OK || wanted.ulValueLen > value.size())
        return {};
    value.resize(wanted.ulValueLen);
    return value;
}

std::vector<CK_OBJECT_HANDLE> objectsOf(Pkcs11& p11, CK_SESSION_HANDLE session,
                                        CK_OBJECT_CLASS objectClass)
{
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass)};
    std::vector<CK_OBJECT_HANDLE> found;
    if (p11.C_FindObjectsInit(session, search.data(), search.size()) != CKR_OK)
        return found;
    findObjects(p11, session, found);
    p11.C_FindObjectsFinal(session);
    return found;
}

}  // namespace

std::vector<TokenObject> tokenObjects()
{
    loadConfiguration();
    Pkcs11 p11;
    std::vector<TokenObject> objects;
    if (!p11.loadModule(Config::instance().get("p11File")))
        return objects;
    const P11Slot* slot = p11.module()->firstActiveSlot();
    if (slot == nullptr)
        return objects;
    const PublicSession session(p11, slot->id());
    if (!session.isOpen())
        return objects;
    for (const CK_OBJECT_CLASS objectClass : {CKO_CERTIFICATE, CKO_PUBLIC_KEY}) {
        for (const CK_OBJECT_HANDLE object : objectsOf(p11, session.handle(), objectClass)) {
            const auto value = [&](CK_ATTRIBUTE_TYPE type) {
                return valueOf(p11, session.handle(), object, type);
            };
            const Bytes label = value(CKA_LABEL);
            objects.push_back({fromUtf8(hexEncode(value(CKA_ID))),
                               {label.begin(), label.end()},
                               objectClass == CKO_CERTIFICATE ? value(CKA_VALUE) : Bytes()});
        }
    }
    return objects;
}

Certificate certificateOfKey(const std::vector<TokenObject>& objects, const std::wstring& keyName)
{
    Certificate authority;
    for (const TokenObject& object : objects) {
        if (object.keyName != keyName || object.certificate.empty())
            continue;
        Certificate certificate = certificateOf(object.certificate);
        if (certificate != nullptr && !P11CertObject::isAuthority(base64Encode(object.certificate)))
            return certificate;
        if (authority == nullptr)
            authority = std::move(certificate);
    }
    return authority != nullptr ? std::move(authority) : publishedCertificate(keyName);
}

Certificate certificateOf(const Bytes& der)
{
    return Certificate(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                    static_cast<DWORD>(der.size())));
}

}  // namespace NV::tool
