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
#include "system/published.h"
#include "system/token_contents.h"
#include "text.h"

namespace NV::tool {

namespace {

Certificate contextOf(const TokenCertificate& certificate)
{
    return certificateFrom(certificate.der);
}

std::string nameOf(const TokenCertificate& certificate)
{
    return certificate.keyName.empty() ? "(no CKA_ID)" : toUtf8(certificate.keyName);
}

std::string subjectText(const TokenCertificate& certificate)
{
    const Certificate context = contextOf(certificate);
    return context != nullptr ? subjectOf(*context) : "not a certificate that the system can read";
}

// "RSA", "EC", or the OID of an algorithm whose keys cannot be used.
std::string algorithmOf(const TokenCertificate& certificate)
{
    if (certificate.isRsa())
        return "RSA";
    return certificate.isEc() ? "EC" : certificate.algorithmOid;
}

std::string describe(const TokenCertificate& certificate)
{
    const Certificate context = contextOf(certificate);
    const std::string name = nameOf(certificate);
    if (context == nullptr)
        return name + ": not a certificate that the system can read";
    return name + ": " + subjectOf(*context) + ", " + algorithmOf(certificate) + " " +
           std::to_string(certificate.bits) + ", " + validityOf(*context);
}

// "2 of 5 certificates have expired".
struct CertificateProblem {
    bool fatal;
    const char* text;
    const char* advice;
    bool (*applies)(const TokenCertificate& certificate, const CERT_CONTEXT* context);
};

// In the order of their weight. What modern leaves out has a step of its own.
constexpr CertificateProblem certificateProblems[] = {
    {true, "have no CKA_ID",
     "Give certificate and keys the same CKA_ID. It becomes the key's name.",
     [](const TokenCertificate& certificate, const CERT_CONTEXT*) {
         return certificate.isKey && certificate.keyName.empty();
     }},
    {false, "are neither RSA nor EC", "Their keys cannot be used.",
     [](const TokenCertificate& certificate, const CERT_CONTEXT*) {
         return certificate.isKey && !certificate.isRsa() && !certificate.isEc();
     }},
    {false, "have expired", "Programs may reject them. Renew the certificates.",
     [](const TokenCertificate& certificate, const CERT_CONTEXT* context) {
         return certificate.isKey && context != nullptr && isExpired(*context);
     }},
    {false, "are not valid yet",
     "Programs may reject them until then. Check the date of this computer.",
     [](const TokenCertificate& certificate, const CERT_CONTEXT* context) {
         return certificate.isKey && context != nullptr && isNotValidYet(*context);
     }},
};

size_t countOf(const std::vector<TokenCertificate>& certificates, const CertificateProblem& problem)
{
    return static_cast<size_t>(std::ranges::count_if(certificates, [&](const auto& certificate) {
        return problem.applies(certificate, contextOf(certificate).get());
    }));
}

// Certificates with the name of an earlier one.
size_t countRepeated(const std::vector<TokenCertificate>& certificates)
{
    std::set<std::wstring> names;
    return static_cast<size_t>(std::ranges::count_if(certificates, [&](const auto& certificate) {
        return certificate.isKey && !certificate.keyName.empty() &&
               !names.insert(certificate.keyName).second;
    }));
}

// Each problem of the certificates themselves. The first one is the result of the step.
void judge(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "certificates";
    const std::string of = " of " + std::to_string(certificates.size()) + " certificates ";
    std::vector<std::string> more;
    bool reported = false;
    const auto report = [&](size_t count, bool fatal, const char* text, const char* advice) {
        if (count == 0)
            return;
        const std::string line = std::to_string(count) + of + text;
        if (reported)
            more.push_back(line + ". " + advice);
        else if (fatal)
            findings.fail(name, line, advice);
        else
            findings.warn(name, line, advice);
        reported = true;
    };
    for (const CertificateProblem& problem : certificateProblems)
        report(countOf(certificates, problem), problem.fatal, problem.text, problem.advice);
    report(countRepeated(certificates), false, "have a duplicate CKA_ID",
           "The provider uses the first certificate of each CKA_ID.");
    if (!reported)
        findings.ok(name, std::to_string(certificates.size()) + " on the token");
    for (const TokenCertificate& certificate : certificates)
        findings.detail(describe(certificate));
    for (const std::string& line : more)
        findings.detail(line);
}

constexpr const char* noCertificateAdvice =
    "The provider finds keys by their certificates. Write a certificate to the token. A private "
    "certificate object is visible only after a login, and the provider does not log in when it opens.";

// Certificates of authorities among the keys, in classic; in modern, the certificates that are no keys.
void judgeAuthorities(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "authorities";
    std::vector<std::string> authorities;
    std::vector<std::string> leftOut;
    for (const TokenCertificate& certificate : certificates) {
        if (!certificate.isKey)
            leftOut.push_back(nameOf(certificate) + ": " + subjectText(certificate) +
                              (certificate.keyName.empty() ? ", no CKA_ID" : ", an authority"));
        else if (certificate.authority && certificate.publicKey == PublicKeyObject::none)
            authorities.push_back(nameOf(certificate) + ": " + subjectText(certificate));
    }
    if (!leftOut.empty())
        findings.warn(name,
                      std::to_string(leftOut.size()) +
                          " certificates are no keys, and the provider leaves them out",
                      "Nothing to do if the token carries the certificates of its issuers. A key "
                      "needs a CKA_ID; a key with the certificate of an authority also needs a "
                      "public key object with the same CKA_ID.");
    else if (!authorities.empty())
        findings.warn(
            name,
            std::to_string(authorities.size()) +
                " certificates among the keys are those of authorities, without a public "
                "key object",
            "Programs offer them as keys of the user. If the token has no private keys for "
            "them, set mode=modern, which leaves them out, or remove them from the token.");
    else
        findings.ok(name, "no certificate of an authority without a key");
    for (const auto* group : {&leftOut, &authorities}) {
        for (const std::string& line : *group)
            findings.detail(line);
    }
}

std::vector<std::string> namesOf(const std::vector<TokenCertificate>& certificates,
                                 PublicKeyObject kind)
{
    std::vector<std::string> names;
    for (const TokenCertificate& certificate : certificates) {
        if (certificate.isKey && certificate.publicKey == kind && !certificate.keyName.empty())
            names.push_back(toUtf8(certificate.keyName));
    }
    return names;
}

void judgePublicKeys(Findings& findings, const std::vector<TokenCertificate>& certificates)
{
    constexpr const char* name = "public-keys";
    const std::vector<std::string> different = namesOf(certificates, PublicKeyObject::different);
    const std::vector<std::string> without = namesOf(certificates, PublicKeyObject::none);
    const std::string lacking = std::to_string(without.size()) +
                                " certificates have no public key object with their CKA_ID";
    if (!different.empty())
        findings.fail(
            name,
            std::to_string(different.size()) +
                " certificates do not belong to the public key object with their CKA_ID",
            "Signatures of such a key do not verify with its certificate. Write the "
            "certificate that was issued for the key to the token, or give the certificate "
            "the CKA_ID of its own key.");
    else if (without.empty())
        findings.ok(name, "each certificate has a public key object with its CKA_ID");
    else if (mode().usesCertificateKeys())
        findings.ok(name, lacking + "; the provider uses the keys in the certificates");
    else
        findings.warn(
            name, lacking,
            "Verification and encryption on the token fail for these certificates. Signing "
            "does not need a public key object.");
    for (const std::string& keyName : different)
        findings.detail(keyName + ": another key than in the certificate");
    for (const std::string& keyName : without)
        findings.detail(keyName);
    findings.detail(
        "Private keys are visible only after a login, so they were not checked. \"keywarden "
        "check --sign\" checks them.");
}

Bytes derOf(const StoredCertificate& entry)
{
    return {entry.certificate->pbCertEncoded,
            entry.certificate->pbCertEncoded + entry.certificate->cbCertEncoded};
}

void judgePublication(Findings& findings, const std::vector<TokenCertificate>& certificates,
                      const std::vector<StoredCertificate>& stored)
{
    constexpr const char* name = "published";
    std::vector<std::string> foreign;
    std::vector<std::string> missing;
    for (const TokenCertificate& certificate : certificates) {
        if (!certificate.isKey)
            continue;
        const auto same = std::ranges::find(stored, certificate.der, derOf);
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

// Entries of this provider whose certificate is not on the token: of another card, or of an earlier
// key.
void judgeStaleEntries(Findings& findings, const std::vector<TokenCertificate>& certificates,
                       const std::vector<StoredCertificate>& stored)
{
    constexpr const char* name = "stale-entries";
    const std::vector<const StoredCertificate*> stale = staleEntries(stored, certificates);
    if (stale.empty()) {
        findings.ok(name, "\"My\" has no other certificates of this provider");
        return;
    }
    findings.warn(
        name,
        std::to_string(stale.size()) +
            " certificates in \"My\" name this provider, but are not on the token",
        "They belong to another token or to an earlier key, and cannot be used with this "
        "token. If there is no such token any more, delete them in the certificate manager "
        "(certmgr.msc, Personal).");
    for (const StoredCertificate* entry : stale)
        findings.detail(toUtf8(entry->container) + ": " + subjectOf(*entry->certificate) + ", " +
                        validityOf(*entry->certificate) + ", thumbprint " +
                        thumbprintOf(*entry->certificate));
}

}  // namespace

void checkCertificates(Findings& findings)
{
    constexpr const char* name = "certificates";
    if (findings.slot == nullptr) {
        findings.skip(name, "there is no token to check");
        return;
    }
    findings.begin(name);
    {
        PublicSession session(*findings.p11, findings.slot->id());
        if (!session.isOpen()) {
            findings.fail(name,
                          std::string("the token does not open a session: ") +
                              returnValueText(session.result()),
                          "Another program may be using the token. See the library's log.");
            return;
        }
        findings.certificates = readCertificates(*findings.p11, *findings.slot, session);
    }
    const std::vector<TokenCertificate>& certificates = findings.certificates;
    const bool anyKey = std::ranges::any_of(certificates, &TokenCertificate::isKey);
    if (certificates.empty())
        findings.fail(name, "the token has no visible certificate, so the provider has no keys",
                      noCertificateAdvice);
    else if (!anyKey)
        findings.fail(name, "none of the token's certificates is that of a key",
                      noCertificateAdvice);
    else
        judge(findings, certificates);
    if (!certificates.empty())
        judgeAuthorities(findings, certificates);
    const std::vector<StoredCertificate> stored = certificatesInMy();
    if (anyKey) {
        judgePublicKeys(findings, certificates);
        judgePublication(findings, certificates, stored);
    }
    judgeStaleEntries(findings, certificates, stored);
}

}  // namespace NV::tool
