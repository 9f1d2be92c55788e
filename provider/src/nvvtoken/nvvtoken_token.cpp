// The provider's operations on the token with a key: signing, verification, encryption, decryption.
// Here are the operations of the table, and how classic does them; nvvtoken_checked.cpp has modern.

#include "nvvtoken/nvvtoken.h"

#include <mutex>
#include <span>

#include "base/text.h"
#include "config/mode.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_work.h"

namespace NV {

namespace {

// A flag that chooses a padding, and the lines that it writes.
struct Padding {
    DWORD flag;
    const char* enabled;
    void (*logInfo)(const Site& site, const VOID* pPaddingInfo);
    const char* missingInfo;
    bool needsInfo;
};

void logPkcs1(const Site& site, const VOID* pPaddingInfo)
{
    const auto* info = static_cast<const BCRYPT_PKCS1_PADDING_INFO*>(pPaddingInfo);
    NV_UNDER(DBG, site, "pkcs1PaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
}

void logPss(const Site& site, const VOID* pPaddingInfo)
{
    const auto* info = static_cast<const BCRYPT_PSS_PADDING_INFO*>(pPaddingInfo);
    NV_UNDER(DBG, site, "pssPaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
    NV_UNDER(DBG, site, "pssPaddingInfo->cbSalt=%d", static_cast<int>(info->cbSalt));
}

void logOaep(const Site& site, const VOID* pPaddingInfo)
{
    const auto* info = static_cast<const BCRYPT_OAEP_PADDING_INFO*>(pPaddingInfo);
    NV_UNDER(DBG, site, "oaepPaddingInfo->pszAlgId=%s", printable(info->pszAlgId).c_str());
}

constexpr Padding signaturePaddings[] = {
    {BCRYPT_PAD_PKCS1, "BCRYPT_PAD_PKCS1 is enabled", logPkcs1,
     "There is no padding info for BCRYPT_PAD_PKCS1", true},
    {BCRYPT_PAD_PSS, "BCRYPT_PAD_PSS is enabled", logPss,
     "There is no padding info for BCRYPT_PAD_PSS", true},
};

// Compat: unlike a signature, encryption does not need the information for PKCS #1.
constexpr Padding cipherPaddings[] = {
    {BCRYPT_PAD_PKCS1, "BCRYPT_PAD_PKCS1 is enabled", logPkcs1,
     "There is no padding info for BCRYPT_PAD_PKCS1", false},
    {BCRYPT_PAD_OAEP, "BCRYPT_PAD_OAEP is enabled", logOaep,
     "There is no padding info for BCRYPT_PAD_OAEP", true},
};

// Logs the paddings that the flags choose. False if one of them lacks information that it needs.
bool checkPadding(const Site& site, std::span<const Padding> paddings, DWORD dwFlags,
                  const VOID* pPaddingInfo)
{
    bool valid = true;
    for (const Padding& padding : paddings) {
        if ((dwFlags & padding.flag) == 0)
            continue;
        NV_UNDER(DBG, site, "%s", padding.enabled);
        if (pPaddingInfo != nullptr) {
            padding.logInfo(site, pPaddingInfo);
        } else if (padding.needsInfo) {
            NV_UNDER(ERR, site, "%s", padding.missingInfo);
            valid = false;
        } else {
            NV_UNDER(WRN, site, "%s", padding.missingInfo);
        }
    }
    return valid;
}

bool checkSignaturePadding(const Site& site, DWORD dwFlags, const VOID* pPaddingInfo)
{
    return checkPadding(site, signaturePaddings, dwFlags, pPaddingInfo);
}

bool checkCipherPadding(const Site& site, DWORD dwFlags, const VOID* pPaddingInfo)
{
    // Compat: the flag for no padding turns off the checks of the other flags.
    if ((dwFlags & BCRYPT_PAD_NONE) != 0) {
        NV_UNDER(DBG, site, "BCRYPT_PAD_NONE is enabled");
        return true;
    }
    return checkPadding(site, cipherPaddings, dwFlags, pPaddingInfo);
}

bool isInput(const BYTE* data, DWORD size)
{
    return data != nullptr && size != 0;
}

// A null buffer asks for the length.
bool isOutput(const BYTE* buffer, DWORD size)
{
    return buffer == nullptr || size != 0;
}

void logSilentFlag(const Site& site, DWORD dwFlags)
{
    if ((dwFlags & NCRYPT_SILENT_FLAG) != 0)
        NV_UNDER(DBG, site, "NCRYPT_SILENT_FLAG is enabled");
}

}  // namespace

const Provider::TokenWays& Provider::tokenWays()
{
    static constexpr TokenWays asGiven = {&Provider::sign, &Provider::encrypt, &Provider::decrypt};
    static constexpr TokenWays checked = {&Provider::signChecked, &Provider::encryptChecked,
                                          &Provider::decryptChecked};
    return mode().tellsLengthsFirst() ? checked : asGiven;
}

SECURITY_STATUS Provider::reportSignatureLength(const Site& site, DWORD length, DWORD* pcbResult)
{
    if (length == 0) {
        NV_UNDER(ERR, site, "The length of the signature is not known");
        return NTE_INTERNAL_ERROR;
    }
    *pcbResult = length;
    return ERROR_SUCCESS;
}

SECURITY_STATUS Provider::SignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                   DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), pointer("pPaddingInfo", pPaddingInfo),
                    pointer("pbHashValue", pbHashValue), number("cbHashValue", cbHashValue),
                    pointer("pbSignature", pbSignature), number("cbSignature", cbSignature),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    const bool buffersValid = isInput(pbHashValue, cbHashValue) &&
                              isOutput(pbSignature, cbSignature) && pcbResult != nullptr;
    logSilentFlag(here, dwFlags);
    if (!checkSignaturePadding(here, dwFlags, pPaddingInfo) || !buffersValid)
        return trace.end(NTE_INVALID_PARAMETER);
    return trace.end((this->*tokenWays().sign)(
        {here, guard, hKey},
        {nullptr, pPaddingInfo, pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags},
        pcbResult));
}

SECURITY_STATUS Provider::sign(const KeyUse& use, const SignatureCall& call, DWORD* pcbResult)
{
    return withKey(use.site, use.held, use.hKey, [&](P11KeyObject& key) {
        return call.pbSignature == nullptr
                   ? reportSignatureLength(use.site, key.signatureLength(), pcbResult)
                   : signWithPIN(use.site, key, call, pcbResult);
    });
}

SECURITY_STATUS Provider::signWithPIN(const Site& site, P11KeyObject& key,
                                      const SignatureCall& call, DWORD* pcbResult)
{
    return withPIN(site, key, [&](Pkcs11& p11, const SecretBytes& pin) {
        DWORD length = 0;
        const SECURITY_STATUS status =
            key.sign(&p11, call.pPaddingInfo, call.pbHashValue, call.cbHashValue, call.pbSignature,
                     call.cbSignature, &length, call.dwFlags, pin);
        if (status != ERROR_SUCCESS)
            return status;
        // The token's own length is for a key whose length the certificate does not tell.
        return reportSignatureLength(site, key.keyLength() != 0 ? key.signatureLength() : length,
                                     pcbResult);
    });
}

SECURITY_STATUS Provider::VerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                          DWORD cbSignature, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), pointer("pPaddingInfo", pPaddingInfo),
                    pointer("pbHashValue", pbHashValue), number("cbHashValue", cbHashValue),
                    pointer("pbSignature", pbSignature), number("cbSignature", cbSignature),
                    flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    const bool buffersValid =
        isInput(pbHashValue, cbHashValue) && isOutput(pbSignature, cbSignature);
    if (!checkSignaturePadding(here, dwFlags, pPaddingInfo) || !buffersValid)
        return trace.end(NTE_INVALID_PARAMETER);
    const SignatureCall call{nullptr,     pPaddingInfo, pbHashValue, cbHashValue,
                             pbSignature, cbSignature,  dwFlags};
    return trace.end(mode().verifiesAsItSigns() ? verifyChecked({here, guard, hKey}, call)
                                                : verify({here, guard, hKey}, call));
}

SECURITY_STATUS Provider::verify(const KeyUse& use, const SignatureCall& call)
{
    return withKey(use.site, use.held, use.hKey,
                   [&](P11KeyObject& key) { return verifyOnToken(use.site, key, call); });
}

SECURITY_STATUS Provider::verifyOnToken(const Site& site, P11KeyObject& key,
                                        const SignatureCall& call)
{
    return onToken(site, [&](Pkcs11& p11) {
        return key.verify(&p11, call.pPaddingInfo, call.pbHashValue, call.cbHashValue,
                          call.pbSignature, call.cbSignature, call.dwFlags);
    });
}

SECURITY_STATUS Provider::Encrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), pointer("pbInput", pbInput), number("cbInput", cbInput),
                    pointer("pPaddingInfo", pPaddingInfo), pointer("pbOutput", pbOutput),
                    number("cbOutput", cbOutput), pointer("pcbResult", pcbResult),
                    flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    // Compat: the input is not checked.
    const bool buffersValid = isOutput(pbOutput, cbOutput) && pcbResult != nullptr;
    if (!checkCipherPadding(here, dwFlags, pPaddingInfo) || !buffersValid)
        return trace.end(NTE_INVALID_PARAMETER);
    return trace.end((this->*tokenWays().encrypt)(
        {here, guard, hKey},
        {nullptr, pPaddingInfo, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags}));
}

SECURITY_STATUS Provider::encrypt(const KeyUse& use, const CipherCall& call)
{
    return withKey(use.site, use.held, use.hKey,
                   [&](P11KeyObject& key) { return encryptOnToken(use.site, key, call); });
}

SECURITY_STATUS Provider::encryptOnToken(const Site& site, P11KeyObject& key,
                                         const CipherCall& call)
{
    return onToken(site, [&](Pkcs11& p11) {
        return key.encrypt(&p11, call.pPaddingInfo, call.pbInput, call.cbInput, call.pbOutput,
                           call.cbOutput, call.pcbResult, call.dwFlags);
    });
}

SECURITY_STATUS Provider::Decrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), pointer("pbInput", pbInput), number("cbInput", cbInput),
                    pointer("pPaddingInfo", pPaddingInfo));
    trace.skipArgument();  // Compat: there is no ARG[4]; the next number is 5.
    trace.arguments(pointer("pbOutput", pbOutput), number("cbOutput", cbOutput),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    std::unique_lock guard(lock_);
    trace.startClock();

    const bool buffersValid =
        isInput(pbInput, cbInput) && isOutput(pbOutput, cbOutput) && pcbResult != nullptr;
    logSilentFlag(here, dwFlags);
    if (!checkCipherPadding(here, dwFlags, pPaddingInfo) || !buffersValid)
        return trace.end(NTE_INVALID_PARAMETER);
    return trace.end((this->*tokenWays().decrypt)(
        {here, guard, hKey},
        {nullptr, pPaddingInfo, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags}));
}

SECURITY_STATUS Provider::decrypt(const KeyUse& use, const CipherCall& call)
{
    return withKey(use.site, use.held, use.hKey,
                   [&](P11KeyObject& key) { return decryptWithPIN(use.site, key, call); });
}

SECURITY_STATUS Provider::decryptWithPIN(const Site& site, P11KeyObject& key,
                                         const CipherCall& call)
{
    return withPIN(site, key, [&](Pkcs11& p11, const SecretBytes& pin) {
        return key.decrypt(&p11, call.pPaddingInfo, call.pbInput, call.cbInput, call.pbOutput,
                           call.cbOutput, call.pcbResult, call.dwFlags, pin);
    });
}

}  // namespace NV
