// The step that signs with each key of the token and verifies with the key's certificate.

#include <windows.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "base/loaded_library.h"
#include "base/secret.h"
#include "check/check.h"
#include "formats/certificate.h"
#include "formats/certificate_key.h"
#include "formats/hashing.h"
#include "nvvtoken/nvvtoken_pin.h"
#include "p11/p11text.h"
#include "pindialog/pindialog.h"
#include "system/explanation.h"
#include "system/key_storage.h"
#include "system/public_session.h"
#include "system/software_verification.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr const char* stepName = "signatures";
constexpr size_t longestSignature = 1024;  // RSA with 8192 bits

struct SignatureResult {
    bool signedAndVerified = false;
    bool notVerified = false;  // signed, but the system cannot verify it
    std::string text;
    CK_RV rv = CKR_OK;  // of the call that failed
};

// Tells the parent process that its time limit does not count.
class Waiting {
public:
    explicit Waiting(const Findings& findings) : progress_(findings.progress) { tell(true); }
    ~Waiting() { tell(false); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    void tell(bool forUser) const
    {
        if (progress_ != nullptr)
            progress_->waits(forUser);
    }

    Progress* progress_;
};

// The provider's dialog. Throws PINDialogException if no PIN was entered.
SecretBytes askForPin(const Findings& findings)
{
    const Waiting waiting(findings);
    // Only the template is needed: the module itself would begin a log.
    const LoadedLibrary module(
        LoadLibraryExW(defaultModule().c_str(), nullptr,
                       LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    const CK_TOKEN_INFO& token = findings.slot->tokenInfo();
    PINRequest request{.instance = module.get(),
                       .minimumLength = token.ulMinPinLen,
                       .maximumLength = token.ulMaxPinLen};
    request.subject.certificate = L"keywarden check: all keys of the token";
    request.subject.tokenLabel =
        fromUtf8({reinterpret_cast<const char*>(token.label), sizeof token.label});
    request.subject.warning = tokenWarning(token);
    return requestPIN(&request);
}

// A token with a PIN pad of its own asks for the PIN itself.
CK_RV login(const Findings& findings, CK_SESSION_HANDLE session)
{
    const CK_FLAGS flags = findings.slot->tokenInfo().flags;
    if ((flags & CKF_LOGIN_REQUIRED) == 0)
        return CKR_OK;
    if ((flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0) {
        const Waiting waiting(findings);
        return findings.p11->module()->functionList()->C_Login(session, CKU_USER, nullptr, 0);
    }
    SecretBytes pin = askForPin(findings);
    if (pin.empty())
        throw PINDialogException("No PIN", PINDialogException::userCanceled);
    const CK_RV rv =
        findings.p11->C_Login(session, CKU_USER, pin.data(), static_cast<CK_ULONG>(pin.size()));
    return rv == CKR_USER_ALREADY_LOGGED_IN ? CKR_OK : rv;
}

std::optional<CK_OBJECT_HANDLE> findPrivateKey(Pkcs11& p11, CK_SESSION_HANDLE session,
                                               const TokenCertificate& certificate)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    const Bytes id = hexDecode(toUtf8(certificate.keyName));
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_ID, id.data(), id.size())};
    if (p11.C_FindObjectsInit(session, search.data(), search.size()) != CKR_OK)
        return std::nullopt;
    std::vector<CK_OBJECT_HANDLE> found;
    findObjects(p11, session, found);
    p11.C_FindObjectsFinal(session);
    if (found.empty())
        return std::nullopt;
    return found.front();
}

// PKCS #1 v1.5 for RSA. Empty if the system cannot use the certificate's key.
std::optional<bool> verifies(const TokenCertificate& certificate, const HashAlgorithm& hash,
                             const Bytes& digest, const Bytes& signature)
{
    const Certificate context = certificateFrom(certificate.der);
    const Bytes key = context != nullptr ? cngPublicKey(*context) : Bytes();
    if (key.empty())
        return std::nullopt;
    // The system would only say that a parameter is wrong.
    const size_t numbers = certificate.isRsa() ? 1 : 2;
    if (signature.size() != numbers * ((certificate.bits + 7) / 8))
        return false;
    return verifiesInSoftware({key, certificate.isRsa(), hash, std::nullopt}, digest, signature);
}

SignatureResult signAndVerify(Pkcs11& p11, CK_SESSION_HANDLE session,
                              const TokenCertificate& certificate)
{
    const auto key = findPrivateKey(p11, session, certificate);
    if (!key)
        return {.text = "there is no private key with this CKA_ID"};
    const HashAlgorithm& hash = hashNamed("sha256");
    // The value does not matter.
    const Bytes digest(hashSize(hash), 0x5A);
    Bytes data = certificate.isRsa() ? digestInfo(hash, digest) : digest;
    CK_MECHANISM mechanism{};
    mechanism.mechanism = certificate.isRsa() ? CKM_RSA_PKCS : CKM_ECDSA;
    CK_RV rv = p11.C_SignInit(session, &mechanism, *key);
    if (rv != CKR_OK)
        return {.text = describe(FailedCall{"C_SignInit", rv}), .rv = rv};
    Bytes signature(longestSignature);
    auto size = static_cast<CK_ULONG>(signature.size());
    rv = p11.C_Sign(session, data.data(), static_cast<CK_ULONG>(data.size()), signature.data(),
                    &size);
    if (rv != CKR_OK)
        return {.text = describe(FailedCall{"C_Sign", rv}), .rv = rv};
    signature.resize(std::min<size_t>(signature.size(), size));
    const auto good = verifies(certificate, hash, digest, signature);
    if (!good)
        return {.notVerified = true, .text = "signed; this system cannot verify with such a key"};
    return {.signedAndVerified = *good,
            .text = *good ? "signed, and verified with the certificate"
                          : "the signature does not verify with the certificate"};
}

// Not of this step, but of a key that is not for signatures or that wants the PIN for each of them.
bool saysWhatKeyIsFor(CK_RV rv)
{
    return rv == CKR_KEY_FUNCTION_NOT_PERMITTED || rv == CKR_USER_NOT_LOGGED_IN;
}

// The meaning and the advice of a result.
std::string adviceOn(CK_RV rv)
{
    if (rv == CKR_KEY_FUNCTION_NOT_PERMITTED)
        return "The token does not allow signatures with such a key. If the key is for decryption, "
               "nothing is wrong.";
    if (rv == CKR_USER_NOT_LOGGED_IN)
        return "The token wants the PIN for each use of such a key, which this step does not enter. "
               "Sign with \"keywarden sign\".";
    const Explanation* row = explain(static_cast<uint32_t>(rv));
    return row != nullptr ? std::string(row->meaning) + " " + std::string(row->advice)
                          : "See the library's log for the reason.";
}

void judgeSignatures(Findings& findings, CK_SESSION_HANDLE session)
{
    std::vector<std::string> details;
    size_t tried = 0;
    size_t failed = 0;
    size_t open = 0;
    size_t otherUse = 0;
    CK_RV firstFailure = CKR_OK;
    CK_RV firstOtherUse = CKR_OK;
    bool mismatch = false;
    for (const TokenCertificate& certificate : findings.certificates) {
        if (!certificate.isKey || certificate.keyName.empty() ||
            (!certificate.isRsa() && !certificate.isEc()))
            continue;
        const SignatureResult result = signAndVerify(*findings.p11, session, certificate);
        ++tried;
        if (saysWhatKeyIsFor(result.rv)) {
            ++otherUse;
            firstOtherUse = firstOtherUse != CKR_OK ? firstOtherUse : result.rv;
        } else if (!result.signedAndVerified && !result.notVerified) {
            ++failed;
            mismatch = mismatch || result.rv == CKR_OK;
            firstFailure = firstFailure != CKR_OK ? firstFailure : result.rv;
        }
        open += result.notVerified ? 1U : 0U;
        details.push_back(toUtf8(certificate.keyName) + ": " + result.text);
    }
    const std::string of = " of " + std::to_string(tried) + " keys ";
    if (failed > 0)
        findings.fail(stepName,
                      std::to_string(failed) + of + "do not sign, or not for their certificate",
                      mismatch ? "Certificate and private key must have the same CKA_ID and belong "
                                 "together. Write the certificate that was issued for the key to "
                                 "the token."
                               : adviceOn(firstFailure));
    else if (otherUse > 0)
        findings.warn(stepName, std::to_string(otherUse) + of + "were not tried",
                      adviceOn(firstOtherUse));
    else if (open > 0)
        findings.warn(stepName, std::to_string(open) + of + "sign, but were not verified",
                      "This system has no such curve. Verify a signature with another program.");
    else
        findings.ok(stepName, "all " + std::to_string(tried) + " keys sign for their certificates");
    for (const std::string& detail : details)
        findings.detail(detail);
}

}  // namespace

void checkSigning(Findings& findings)
{
    if (findings.slot == nullptr || findings.certificates.empty()) {
        findings.skip(stepName, "there is no key to sign with");
        return;
    }
    findings.begin(stepName);
    if ((findings.slot->tokenInfo().flags & CKF_USER_PIN_LOCKED) != 0) {
        findings.skip(stepName, "the PIN is locked");
        return;
    }
    const PublicSession session(*findings.p11, findings.slot->id());
    CK_RV rv = session.result();
    try {
        if (rv == CKR_OK)
            rv = login(findings, session.handle());
    } catch (const PINDialogException& refusal) {
        if (refusal.code() == PINDialogException::userCanceled)
            findings.skip(stepName, "no PIN was entered");
        else
            findings.fail(stepName, "the PIN dialog cannot be shown",
                          "It needs a desktop. Run the command in the session of a user.");
        return;
    }
    if (rv != CKR_OK) {
        findings.fail(stepName, std::string("the token refuses the login: ") + returnValueText(rv),
                      adviceOn(rv));
        return;
    }
    judgeSignatures(findings, session.handle());
    findings.p11->C_Logout(session.handle());
}

}  // namespace NV::tool
