// Steps on the chosen token's certificates: what they say, whether their keys can be used, and what
// became of them in "My".

#include <algorithm>
#include <set>

#include "certstore/certstore.h"
#include "check/check.h"
#include "failure.h"
#include "formats/certificate.h"
#include "p11/p11text.h"
#include "system/public_session.h"
#include "system/registration.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr std::wstring_view rsaOid = L"1.2.840.113549.1.1.1";
constexpr std::wstring_view ecOid = L"1.2.840.10045.2.1";

struct TokenCertificate {
    std::wstring keyName;
    std::wstring algorithmOid;
    uint32_t bits = 0;
    bool hasPublicKey = false;
    Bytes der;
};

std::vector<TokenCertificate> readCertificates(Findings& findings, PublicSession& session)
{
    std::vector<TokenCertificate> found;
    for (const auto& [handle, object] :
         P11CertObject::FindCertificates(*findings.p11, *findings.slot, session.handle())) {
        TokenCertificate certificate{object->keyName(), object->algorithmOid(), object->keyLength(),
                                     false, base64Decode(object->certificate())};
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

std::string describe(const TokenCertificate& certificate)
{
    const Certificate context = contextOf(certificate);
    const std::string name = nameOf(certificate);
    if (context == nullptr)
        return name + ": not a certificate that the system can read";
    const std::string algorithm = certificate.algorithmOid == rsaOid ? "RSA"
                                  : certificate.algorithmOid == ecOid
                                      ? "EC"
                                      : toUtf8(certificate.algorithmOid);
    return name + ": " + subjectOf(*context) + ", " + algorithm + " " +
           std::to_string(certificate.bits) + ", " +
           (isExpired(*context) ? "expired " : "valid to ") + expiryOf(*context);
}

// What is wrong with the certificates themselves, the worst first.
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
        unknown +=
            certificate.algorithmOid != rsaOid && certificate.algorithmOid != ecOid ? 1U : 0U;
        expired += context != nullptr && isExpired(*context) ? 1U : 0U;
        repeated +=
            !certificate.keyName.empty() && !names.insert(certificate.keyName).second ? 1U : 0U;
    }
    const std::string count = std::to_string(certificates.size());
    if (certificates.empty())
        findings.fail(name, "the token shows no certificate, so the provider serves no key",
                      "The provider finds keys by their certificates; write one to the token. A "
                      "private certificate object shows only after a login, which the provider "
                      "does not do when it opens.");
    else if (unnamed > 0)
        findings.fail(name, std::to_string(unnamed) + " of " + count + " have no CKA_ID",
                      "Give certificate and keys the same CKA_ID; the key's name is made of it.");
    else if (unknown > 0)
        findings.warn(name, std::to_string(unknown) + " of " + count + " are neither RSA nor EC",
                      "Their keys cannot be used.");
    else if (repeated > 0)
        findings.warn(name, std::to_string(repeated) + " of " + count + " repeat a CKA_ID",
                      "The provider serves the first certificate of each CKA_ID.");
    else if (expired > 0)
        findings.warn(name, std::to_string(expired) + " of " + count + " are expired",
                      "Programs may refuse them; renew the certificate.");
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
    } else {
        findings.warn(name,
                      std::to_string(without.size()) +
                          " certificates have no public key object with their CKA_ID",
                      "Verifying and encrypting on the token fail for these; signing does not "
                      "need it.");
        for (const std::string& keyName : without)
            findings.detail(keyName);
    }
    findings.detail("Private keys show only after a login, so they were not looked for.");
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
        else if (same->provider != registeredProvider)
            foreign.push_back(nameOf(certificate) + ": \"" + toUtf8(same->provider) + "\"");
    }
    if (!foreign.empty())
        findings.warn(name,
                      std::to_string(foreign.size()) + " certificates in \"My\" name another "
                                                       "provider",
                      "Two products publish the same token. The next opening of this provider "
                      "takes them over; switch the other one's publication off.");
    else if (!missing.empty())
        findings.warn(name, std::to_string(missing.size()) + " certificates are not in \"My\" yet",
                      "The first opening of the provider publishes them; \"keywarden keys\" is "
                      "one.");
    else
        findings.ok(name, "all certificates are in \"My\" with this provider");
    for (const std::string& text : foreign.empty() ? missing : foreign)
        findings.detail(text);
}

}  // namespace

void checkCertificates(Findings& findings)
{
    if (findings.slot == nullptr) {
        findings.skip("certificates", "there is no token to look at");
        return;
    }
    std::vector<TokenCertificate> certificates;
    {
        PublicSession session(*findings.p11, findings.slot->id());
        if (!session.isOpen()) {
            findings.fail("certificates",
                          std::string("the token opens no session: ") +
                              returnValueText(session.result()),
                          "Another program may hold the token; see the library's own log.");
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
