// Reading certificates from the token and writing them into the system's store.

#include "certstore/certstore.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "base/curve.h"
#include "base/scope_exit.h"
#include "base/text.h"
#include "config/mode.h"

namespace NV {

namespace {

constexpr DWORD anyEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
// CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID, which MinGW-w64 does not declare.
constexpr DWORD bitLengthProperty = 92;

struct ContextFreer {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using CertContext = std::unique_ptr<const CERT_CONTEXT, ContextFreer>;

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, CERT_CLOSE_STORE_FORCE_FLAG); }
};
using SystemStore = std::unique_ptr<void, StoreCloser>;

CertContext createContext(const std::string& base64)
{
    const Bytes der = base64Decode(base64);
    return CertContext(
        CertCreateCertificateContext(anyEncoding, der.data(), static_cast<DWORD>(der.size())));
}

// The named curve in the parameters of an elliptic-curve key (RFC 5480, 2.1.1). Empty for anything else.
std::string namedCurve(const CRYPT_OBJID_BLOB& parameters)
{
    // The buffer begins with a pointer to the decoded text, which follows in the same buffer.
    DWORD size = 0;
    if (!CryptDecodeObject(X509_ASN_ENCODING, X509_OBJECT_IDENTIFIER, parameters.pbData,
                           parameters.cbData, 0, nullptr, &size))
        return {};
    std::vector<LPSTR> buffer(size / sizeof(LPSTR) + 1);
    if (!CryptDecodeObject(X509_ASN_ENCODING, X509_OBJECT_IDENTIFIER, parameters.pbData,
                           parameters.cbData, 0, buffer.data(), &size))
        return {};
    return buffer.front();
}

uint32_t keyBits(const CERT_CONTEXT& certificate)
{
    DWORD bits = 0;
    DWORD size = sizeof bits;
    if (CertGetCertificateContextProperty(&certificate, bitLengthProperty, &bits, &size))
        return bits;
    // Older systems do not have the property.
    CERT_PUBLIC_KEY_INFO& key = certificate.pCertInfo->SubjectPublicKeyInfo;
    if (widenBytes(key.Algorithm.pszObjId) == rsaOid)
        return CertGetPublicKeyLength(X509_ASN_ENCODING, &key);
    const Curve* curve = findNamedCurve(namedCurve(key.Algorithm.Parameters));
    return curve != nullptr ? curve->keyLength : 0;
}

// The size of the coordinates of a public point in bytes; 0 for what is none (SEC 1, 2.3.3).
uint32_t coordinateSize(const Bytes& point)
{
    if (point.empty() || point.front() < 2 || point.front() > 4)
        return 0;
    const auto rest = static_cast<uint32_t>(point.size() - 1);
    return point.front() == 4 ? rest / 2 : rest;
}

// C_FindObjectsInit. A search that the token has not ended is still active in its session, so the next
// one needs another session. The session is 0 if the token gave none.
CK_RV beginSearch(Pkcs11& p11, const P11Slot& slot, CK_SESSION_HANDLE& session,
                  std::span<CK_ATTRIBUTE> search)
{
    const auto count = static_cast<CK_ULONG>(search.size());
    if (session != 0) {
        const CK_RV rv = p11.C_FindObjectsInit(session, search.data(), count);
        if (rv != CKR_OPERATION_ACTIVE)
            return rv;
        p11.C_CloseSession(std::exchange(session, CK_SESSION_HANDLE{0}));
    }
    const CK_RV opened =
        p11.C_OpenSession(slot.id(), CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    return opened == CKR_OK ? p11.C_FindObjectsInit(session, search.data(), count) : opened;
}

// Whether the token has a public key object that can be seen without a login.
bool hasPublicKey(Pkcs11& p11, const P11Slot& slot, CK_SESSION_HANDLE& session, const Bytes& id)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_ID, id.data(), id.size())};
    if (beginSearch(p11, slot, session, search) != CKR_OK)
        return false;
    std::vector<CK_OBJECT_HANDLE> found;
    const bool searched = findObjects(p11, session, found) == CKR_OK;
    p11.C_FindObjectsFinal(session);
    return searched && !found.empty();
}

}  // namespace

// The bytes of an attribute, read in two calls: the length, then the value. Nothing when either
// fails. Calls `found` with the length between the two.
template <typename Found>
std::optional<Bytes> P11CertObject::readAttribute(Search& search, CK_OBJECT_HANDLE object,
                                                  CK_ATTRIBUTE_TYPE type, const Found& found)
{
    CK_ATTRIBUTE request{type, nullptr, 0};
    if (askForAttribute(search.p11, search.session, object, request) != CKR_OK ||
        request.ulValueLen > search.room)
        return std::nullopt;
    search.room -= request.ulValueLen;
    found(static_cast<int>(request.ulValueLen));
    Bytes value(request.ulValueLen);
    request.pValue = value.data();
    if (askForAttribute(search.p11, search.session, object, request) != CKR_OK)
        return std::nullopt;
    value.resize(std::min<size_t>(value.size(), request.ulValueLen));
    return value;
}

P11CertObject::ByHandle P11CertObject::FindCertificates(Pkcs11& p11, const P11Slot& slot,
                                                        CK_SESSION_HANDLE session)
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    ByHandle found;
    constexpr CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    constexpr CK_CERTIFICATE_TYPE certificateType = CKC_X_509;
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_CERTIFICATE_TYPE, &certificateType, sizeof certificateType)};
    std::vector<CK_OBJECT_HANDLE> handles;
    if (p11.C_FindObjectsInit(session, search.data(), search.size()) != CKR_OK ||
        findObjects(p11, session, handles) != CKR_OK) {
        return trace.leaving(std::move(found));
    }
    NV_DBG("Found %d Objects", static_cast<int>(handles.size()));
    Search reading{here, p11, session};
    for (const CK_OBJECT_HANDLE handle : handles) {
        auto certificate = std::make_unique<P11CertObject>();
        certificate->readCertificate(reading, slot.id(), handle);
        certificate->readKeyName(reading, handle);
        found.try_emplace(handle, std::move(certificate));
    }
    p11.C_FindObjectsFinal(session);
    return trace.leaving(std::move(found));
}

void P11CertObject::readCertificate(Search& search, CK_SLOT_ID slotId, CK_OBJECT_HANDLE object)
{
    const Site& find = search.site;
    const auto der = readAttribute(search, object, CKA_VALUE, [&find](int length) {
        NV_UNDER(DBG, find, "Found CKA_VALUE Attribute %d bytes", length);
    });
    if (!der)
        return;
    certificate_ = base64Encode(*der);
    NV_UNDER(DBG, find, "CKA_VALUE = %s", certificate_.c_str());
    publicKey_ = extractPublicKey(certificate_);
    NV_UNDER(DBG, find, "PUBLICKEY = %s", publicKey_.c_str());
    keyLength_ = extractKeyLength(certificate_);
    NV_UNDER(DBG, find, "KEYLENGTH = %d", static_cast<int>(keyLength_));
    algorithmOid_ = extractAlgoOid(certificate_);
    NV_UNDER(DBG, find, "ALGOObjID = %s", toUtf8(algorithmOid_).c_str());
    if (mode().tellsCurvesByIdentifier() && algorithmOid_ == ecOid)
        readCurve(find);
    slotId_ = slotId;
}

// Also corrects the length, which systems do not know for every curve.
void P11CertObject::readCurve(const Site& find)
{
    curveOid_ = extractCurveOid(certificate_);
    const Curve* curve = findNamedCurve(curveOid_);
    if (curve != nullptr)
        keyLength_ = curve->keyLength;
    else if (const uint32_t size = coordinateSize(base64Decode(publicKey_)); size != 0)
        keyLength_ = keyLengthByCoordinates(size);
    NV_UNDER(DBG, find, "CURVE = %s (%d bits)", curveOid_.c_str(), static_cast<int>(keyLength_));
}

void P11CertObject::readKeyName(Search& search, CK_OBJECT_HANDLE object)
{
    const Site& find = search.site;
    const auto id = readAttribute(search, object, CKA_ID, [&find](int length) {
        NV_UNDER(DBG, find, "Found CKA_ID Attribute %d bytes", length);
    });
    if (!id)
        return;
    keyName_ = widenBytes(hexEncode(*id));
    NV_UNDER(DBG, find, "CKA_ID = %s", toUtf8(keyName_).c_str());
}

std::string P11CertObject::extractPublicKey(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    std::string publicKey;
    if (const CertContext context = createContext(certificate)) {
        const CRYPT_BIT_BLOB& key = context->pCertInfo->SubjectPublicKeyInfo.PublicKey;
        publicKey = base64Encode(key.pbData, key.cbData);
    } else {
        NV_ERR("CertCreateCertificateContext() failed");
    }
    return trace.leaving(std::move(publicKey));
}

std::wstring P11CertObject::extractAlgoOid(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    std::wstring oid;
    if (const CertContext context = createContext(certificate))
        oid = widenBytes(context->pCertInfo->SubjectPublicKeyInfo.Algorithm.pszObjId);
    else
        NV_ERR("CertCreateCertificateContext() failed");
    return trace.leaving(std::move(oid));
}

uint32_t P11CertObject::extractKeyLength(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    uint32_t bits = 0;
    if (const CertContext context = createContext(certificate)) {
        bits = keyBits(*context);
        NV_TRC("CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID=%d", static_cast<int>(bits));
    } else {
        NV_ERR("CertCreateCertificateContext() failed");
    }
    return trace.leaving(bits);
}

std::string P11CertObject::extractCurveOid(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    std::string oid;
    if (const CertContext context = createContext(certificate))
        oid = namedCurve(context->pCertInfo->SubjectPublicKeyInfo.Algorithm.Parameters);
    else
        NV_ERR("CertCreateCertificateContext() failed");
    return trace.leaving(std::move(oid));
}

bool P11CertObject::isAuthority(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    CERT_BASIC_CONSTRAINTS2_INFO constraints{};
    DWORD size = sizeof constraints;
    if (const CertContext context = createContext(certificate)) {
        const CERT_INFO& info = *context->pCertInfo;
        const CERT_EXTENSION* extension =
            CertFindExtension(szOID_BASIC_CONSTRAINTS2, info.cExtension, info.rgExtension);
        if (extension != nullptr &&
            !CryptDecodeObject(X509_ASN_ENCODING, X509_BASIC_CONSTRAINTS2, extension->Value.pbData,
                               extension->Value.cbData, 0, &constraints, &size))
            constraints = {};
    }
    return trace.leaving(constraints.fCA != FALSE);
}

void P11CertObject::keepKeys(Pkcs11& p11, const P11Slot& slot, CK_SESSION_HANDLE& session,
                             ByHandle& certificates)
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    std::map<std::wstring, size_t> uses;
    for (const auto& [handle, certificate] : certificates)
        ++uses[certificate->keyName()];
    std::erase_if(certificates, [&](const auto& entry) {
        const P11CertObject& certificate = *entry.second;
        const std::wstring& name = certificate.keyName();
        if (name.empty()) {
            NV_UNDER(DBG, here, "Skip a certificate without CKA_ID");
            return true;
        }
        if (!isAuthority(certificate.certificate()) ||
            (uses[name] == 1 && hasPublicKey(p11, slot, session, hexDecode(toUtf8(name)))))
            return false;
        NV_UNDER(DBG, here, "Skip the certificate of an authority, CKA_ID = %s",
                 toUtf8(name).c_str());
        return true;
    });
    for (const auto& [handle, certificate] : certificates)
        certificate->subject_ = extractSubject(certificate->certificate());
    trace.leave();
}

std::wstring P11CertObject::extractSubject(const std::string& certificate)
{
    const Trace trace(NV_HERE);
    std::wstring subject;
    if (const CertContext context = createContext(certificate)) {
        const auto name = [&](wchar_t* output, DWORD size) {
            return CertGetNameStringW(context.get(), CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr,
                                      output, size);
        };
        // Sizes are in characters, with the terminating zero.
        subject.resize(name(nullptr, 0));
        subject.resize(
            std::max<DWORD>(name(subject.data(), static_cast<DWORD>(subject.size())), 1) - 1);
    } else {
        NV_ERR("CertCreateCertificateContext() failed");
    }
    return trace.leaving(std::move(subject));
}

bool P11CertObject::AddToLocalStore(const std::wstring& pwszProvName,
                                    const std::wstring& pwszContainerName,
                                    const std::string& base64)
{
    Trace trace(NV_HERE);
    // Compat: the provider name has no argument line; the numbers begin with the container.
    trace.arguments(text("pwszContainerName", pwszContainerName.c_str()),
                    text("base64", base64.c_str()));

    NV_TRC("1) Open System Store (My)");
    const SystemStore store(CertOpenSystemStoreW(0, L"MY"));
    if (store == nullptr) {
        NV_ERR("CertOpenSystemStore() failed");
        return trace.leaving(false);
    }
    NV_TRC("2) Create a certificate context");
    const CertContext context = createContext(base64);
    if (context == nullptr) {
        NV_ERR("CertCreateCertificateContext() failed");
        return trace.leaving(false);
    }
    NV_TRC("3) Add the context to the store");
    PCCERT_CONTEXT added = nullptr;
    if (!CertAddCertificateContextToStore(store.get(), context.get(),
                                          CERT_STORE_ADD_REPLACE_EXISTING, &added)) {
        NV_ERR("CertAddCertificateContextToStore() failed");
        return trace.leaving(false);
    }
    const CertContext stored(added);
    NV_TRC("4) Associate the provInfo to the context");
    std::wstring container = pwszContainerName;
    std::wstring provider = pwszProvName;
    CRYPT_KEY_PROV_INFO info{};
    info.pwszContainerName = container.data();
    info.pwszProvName = provider.data();
    info.dwKeySpec = AT_SIGNATURE;
    if (!CertSetCertificateContextProperty(stored.get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &info))
        NV_ERR("CertSetCertificateContextProperty() failed");
    return trace.leaving(true);
}

bool CertStore::loadCertificates(Pkcs11& p11, const P11Slot* slot, const std::wstring& providerName)
{
    const Trace trace(NV_HERE);
    if (slot == nullptr) {
        return trace.leaving(false);
    }
    CK_SESSION_HANDLE session = 0;
    const ScopeExit giveBack([&] { p11.giveBackSession(); });
    if (p11.C_OpenSession(slot->id(), CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK) {
        NV_ERR("Failed C_OpenSession()");
        return trace.leaving(false);
    }
    P11CertObject::ByHandle found = P11CertObject::FindCertificates(p11, *slot, session);
    if (mode().filtersCertificates())
        P11CertObject::keepKeys(p11, *slot, session, found);
    if (p11.lost())
        return trace.leaving(false);
    certificates_.clear();
    for (auto& [handle, certificate] : found) {
        const std::wstring keyName = certificate->keyName();
        const std::string base64 = certificate->certificate();
        certificates_.try_emplace(keyName, std::move(certificate));
        P11CertObject::AddToLocalStore(providerName, keyName, base64);
    }
    p11.C_CloseSession(session);
    return trace.leaving(true);
}

}  // namespace NV
