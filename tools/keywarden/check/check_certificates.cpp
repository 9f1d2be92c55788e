// Steps on the certificates of the chosen token: their content, whether their keys can be used, and
// whether they are in "My".

#include <algorithm>
#include <set>

#include "certstore/certstore.h"
#include "check/check.h"
#include "config/mode.h"
#include "failure.h"
#include "formats/certificate.h"
#include "nvvtoken/nvvtoken_name.h"
#include "p11/p11text.h"
#include "system/public_session.h"
#include "text.h"

namespace NV::tool {

namespace {

struct TokenCertificate {
    std::wstring keyName;
    std::string algorithmOid;
    uint32_t bits = 0;
    bool hasPublicKey = false;
    Bytes der;
};

std::vector<TokenCertificate> readCertificates(Findings& findings, PublicSession& session)
{
    std::vector<TokenCertificate> found;
    for (const auto& [handle, object] :
         P11CertObject::FindCertificates(*findings.p11, *findings.slot, session.handle())) {
        TokenCertificate certificate{object->keyName(), toUtf8(object->algorithmOid()),
                                     object->keyLength(), false,
                                     base64Decode(object->certificate())};
        certificate.hasPublicKey = !certificate.keyName.empty() &&
                                   session.hasPublicKey(hexDecode(toUtf8(certificate.keyName)));
        found.push_back(std::move(certificate));
    }
    return found;
}

Certificate contextOf(const TokenCertificate& certificate)
{
    return Certificate(CertCreateCertificateContext(X509_ASN_ENCODING, certificate.der.data(),
                                                    static_cast<DWORD>(certificate.der.size())));
}

std::string nameOf(const TokenCertificate& certificate)
{
    return certificate.keyName.empty() ? "(no CKA_ID)" : toUtf8(certificate.keyName);
}

// "RSA" or "EC". Empty for another algorithm, whose keys cannot be used.
std::string algorithmOf(const TokenCertificate& certificate)
{
    if (certificate.algorithmOid == szOID_RSA_RSA)
        return "RSA";
    return certificate.algorithmOid == szOID_ECC_PUBLIC_KEY ? "EC" : "";
}

std::string describe(const TokenCertificate& certificate)
{
    const Certificate context = contextOf(certificate);
    const std::string name = nameOf(certificate);
    if (context == nullptr)
        return name + ": not a certificate that the system can read";
    const std::string algorithm = algorithmOf(certificate);
    return name + ": " + subjectOf(*context) + ", " +
           (algorithm.empty() ? certificate.algorithmOid : algorithm) + " " +
           std::to_string(certificate.bits) + ", " +
           (isExpired(*context) ? "expired " : "valid to ") + expiryOf(*context);
}

// Reports the worst problem of the certificates themselves.
void judge(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "certificates";
    size_t unnamed = 0;
    size_t unknown = 0;
    size_t expired = 0;
    size_t repeated = 0;
    std::set<std::wstring> names;
    for (const TokenCertificate& certificate : certificates) {
        const Certificate context = contextOf(certificate);
        unnamed += certificate.keyName.empty() ? 1U : 0U;
        unknown += algorithmOf(certificate).empty() ? 1U : 0U;
        expired += context != nullptr && isExpired(*context) ? 1U : 0U;
        repeated +=
            !certificate.keyName.empty() && !names.insert(certificate.keyName).second ? 1U : 0U;
    }
    const std::string count = std::to_string(certificates.size());
    if (certificates.empty())
        findings.fail(name, "the token has no visible certificate, so the provider has no keys",
                      "The provider finds keys by their certificates. Write a certificate to the "
                      "token. A private certificate object is visible only after a login, and the "
                      "provider does not log in when it opens.");
    else if (unnamed > 0)
        findings.fail(name,
                      std::to_string(unnamed) + " of " + count + " certificates have no CKA_ID",
                      "Give certificate and keys the same CKA_ID. It becomes the key's name.");
    else if (unknown > 0)
        findings.warn(
            name, std::to_string(unknown) + " of " + count + " certificates are neither RSA nor EC",
            "Their keys cannot be used.");
    else if (repeated > 0)
        findings.warn(name,
                      std::to_string(repeated) + " of " + count +
                          " certificates have a duplicate CKA_ID",
                      "The provider uses the first certificate of each CKA_ID.");
    else if (expired > 0)
        findings.warn(name, std::to_string(expired) + " of " + count + " certificates have expired",
                      "Programs may reject them. Renew the certificates.");
    else
        findings.ok(name, count + " on the token");
    for (const TokenCertificate& certificate : certificates)
        findings.detail(describe(certificate));
}

void judgePublicKeys(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "public-keys";
    std::vector<std::string> without;
    for (const TokenCertificate& certificate : certificates) {
        if (!certificate.hasPublicKey && !certificate.keyName.empty())
            without.push_back(toUtf8(certificate.keyName));
    }
    if (without.empty()) {
        findings.ok(name, "each certificate has a public key object with its CKA_ID");
    } else if (mode().usesCertificateKeys()) {
        findings.ok(name, std::to_string(without.size()) +
                              " certificates have no public key object with their CKA_ID; the "
                              "provider uses the keys in the certificates");
    } else {
        findings.warn(
            name,
            std::to_string(without.size()) +
                " certificates have no public key object with their CKA_ID",
            "Verification and encryption on the token fail for these certificates. Signing "
            "does not need a public key object.");
    }
    for (const std::string& keyName : without)
        findings.detail(keyName);
    findings.detail("Private keys are visible only after a login, so they were not checked.");
}

void judgePublication(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "published";
    const std::vector<StoredCertificate> stored = certificatesInMy();
    std::vector<std::string> foreign;
    std::vector<std::string> missing;
    for (const TokenCertificate& certificate : certificates) {
        const auto same = std::ranges::find_if(stored, [&](const StoredCertificate& entry) {
            return Bytes(entry.certificate->pbCertEncoded,
                         entry.certificate->pbCertEncoded + entry.certificate->cbCertEncoded) ==
                   certificate.der;
        });
        if (same == stored.end())
            missing.push_back(nameOf(certificate));
        else if (same->provider != providerName)
            foreign.push_back(nameOf(certificate) + ": \"" + toUtf8(same->provider) + "\"");
    }
    if (!foreign.empty())
        findings.warn(
            name,
            std::to_string(foreign.size()) + " certificates in \"My\" name another "
                                             "provider",
            "Two products publish the certificates of the same token. This provider takes "
            "them over when it next opens. Turn off publication in the other product.");
    else if (!missing.empty())
        findings.warn(
            name, std::to_string(missing.size()) + " certificates are not in \"My\" yet",
            "The provider publishes them when it opens. Run \"keywarden keys\" to open it.");
    else
        findings.ok(name, "all certificates are in \"My\" with this provider");
    for (const std::string& text : foreign.empty() ? missing : foreign)
        findings.detail(text);
}

}  // namespace

void checkCertificates(Findings& findings)
{
    if (findings.slot == nullptr) {
        findings.skip("certificates", "there is no token to check");
        return;
    }
    std::vector<TokenCertificate> certificates;
    {
        PublicSession session(*findings.p11, findings.slot->id());
        if (!session.isOpen()) {
            findings.fail("certificates",
                          std::string("the token does not open a session: ") +
                              returnValueText(session.result()),
                          "Another program may be using the token. See the library's log.");
            return;
        }
        certificates = readCertificates(findings, session);
    }
    judge(findings, certificates);
    if (certificates.empty())
        return;
    judgePublicKeys(findings, certificates);
    judgePublication(findings, certificates);
}

}  // namespace NV::tool
