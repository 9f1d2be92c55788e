// The token operations in modern: what a call lacks is told before the user and the token are asked.
// nvvtoken_token.cpp has the operations of the table, and how classic does the same.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <optional>

#include "config/mode.h"
#include "keystore/keystore_public.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_work.h"

namespace NV {

namespace {

// Whether the output is all that the caller gets: for a null output the length needed, for one that is
// too small also NTE_BUFFER_TOO_SMALL. Nothing for an output that is large enough, and for a length
// that is not known.
std::optional<SECURITY_STATUS> answerFromLength(const Site& site, DWORD needed, const BYTE* output,
                                                DWORD size, DWORD* pcbResult)
{
    if (needed == 0 || (output != nullptr && size >= needed))
        return std::nullopt;
    *pcbResult = needed;
    if (output == nullptr)
        return ERROR_SUCCESS;
    NV_UNDER(ERR, site, "The allocated buffer length is too short: %d of %d (bytes)",
             static_cast<int>(size), static_cast<int>(needed));
    return NTE_BUFFER_TOO_SMALL;
}

// A null signature has no length.
bool hasSignatureLength(const Site& site, const P11KeyObject& key, const SignatureCall& call)
{
    const DWORD expected = key.signatureLength();
    const bool known = expected != 0;
    if (call.pbSignature != nullptr && (!known || call.cbSignature == expected))
        return true;
    NV_UNDER(ERR, site, "The signature has not the length of the key's: %d (bytes)",
             static_cast<int>(expected));
    return false;
}

}  // namespace

bool Provider::mustStaySilent(const Site& site, DWORD dwFlags)
{
    if ((dwFlags & NCRYPT_SILENT_FLAG) == 0 || !mode().obeysSilentFlag())
        return false;
    NV_UNDER(ERR, site, "The PIN is needed, and NCRYPT_SILENT_FLAG forbids the dialog");
    return true;
}

SECURITY_STATUS Provider::signChecked(const KeyUse& use, const SignatureCall& call,
                                      DWORD* pcbResult)
{
    return withKey(use.site, use.held, use.hKey, [&](P11KeyObject& key) -> SECURITY_STATUS {
        if (const SECURITY_STATUS status = key.checkSignature(use.site, call);
            status != ERROR_SUCCESS)
            return status;
        const DWORD needed = key.signatureLength();
        if (const auto answer =
                answerFromLength(use.site, needed, call.pbSignature, call.cbSignature, pcbResult))
            return *answer;
        if (call.pbSignature == nullptr)
            return reportSignatureLength(use.site, needed, pcbResult);
        if (mustStaySilent(use.site, call.dwFlags))
            return NTE_SILENT_CONTEXT;
        return signWithPIN(use.site, key, call, pcbResult);
    });
}

SECURITY_STATUS Provider::verifyChecked(const KeyUse& use, const SignatureCall& call)
{
    const auto checked = [&](P11KeyObject& key, const auto& work) -> SECURITY_STATUS {
        if (const SECURITY_STATUS status = key.checkSignature(use.site, call);
            status != ERROR_SUCCESS)
            return status;
        return hasSignatureLength(use.site, key, call) ? work(key) : NTE_BAD_SIGNATURE;
    };
    if (const auto imported = keyStore_.importedRSAKey(use.hKey)) {
        use.held.unlock();
        return checked(*logFound(use.site, imported.get()), [&](P11KeyObject& key) {
            return verifyWithoutToken(use.site, key, call).value_or(NTE_NOT_SUPPORTED);
        });
    }
    return withKey(use.site, use.held, use.hKey, [&](P11KeyObject& opened) {
        return checked(opened,
                       [&](P11KeyObject& key) { return verifyOnToken(use.site, key, call); });
    });
}

SECURITY_STATUS Provider::encryptChecked(const KeyUse& use, const CipherCall& call)
{
    const auto checked = [&](P11KeyObject& key, const auto& work) -> SECURITY_STATUS {
        if (const SECURITY_STATUS status = key.checkCipher(use.site, call); status != ERROR_SUCCESS)
            return status;
        // The length of the modulus.
        const auto answer = answerFromLength(use.site, key.signatureLength(), call.pbOutput,
                                             call.cbOutput, call.pcbResult);
        return answer ? *answer : work(key);
    };
    if (const auto imported = keyStore_.importedRSAKey(use.hKey)) {
        use.held.unlock();
        return checked(*logFound(use.site, imported.get()), [&](P11KeyObject& key) {
            return encryptWithoutToken(use.site, key, call).value_or(NTE_NOT_SUPPORTED);
        });
    }
    return withKey(use.site, use.held, use.hKey, [&](P11KeyObject& opened) {
        return checked(opened,
                       [&](P11KeyObject& key) { return encryptOnToken(use.site, key, call); });
    });
}

SECURITY_STATUS Provider::decryptChecked(const KeyUse& use, const CipherCall& call)
{
    return withKey(use.site, use.held, use.hKey, [&](P11KeyObject& key) -> SECURITY_STATUS {
        if (const SECURITY_STATUS status = key.checkCipher(use.site, call); status != ERROR_SUCCESS)
            return status;
        // The cipher text is as long as the modulus, if the certificate does not tell its length.
        const DWORD modulus = key.signatureLength() != 0 ? key.signatureLength() : call.cbInput;
        if (call.pbOutput == nullptr) {
            *call.pcbResult = modulus;
            return ERROR_SUCCESS;
        }
        if (mustStaySilent(use.site, call.dwFlags))
            return NTE_SILENT_CONTEXT;
        return decryptIntoOwnBuffer(use.site, key, call, modulus);
    });
}

SECURITY_STATUS Provider::decryptIntoOwnBuffer(const Site& site, P11KeyObject& key,
                                               const CipherCall& call, DWORD modulus)
{
    SecretBytes plain(modulus);
    DWORD length = 0;
    CipherCall own = call;
    own.pbOutput = plain.data();
    own.cbOutput = modulus;
    own.pcbResult = &length;
    const SECURITY_STATUS status = decryptWithPIN(site, key, own);
    if (status != ERROR_SUCCESS)
        return status;
    if (const auto answer =
            answerFromLength(site, length, call.pbOutput, call.cbOutput, call.pcbResult))
        return *answer;
    std::copy_n(plain.begin(), length, call.pbOutput);
    *call.pcbResult = length;
    return ERROR_SUCCESS;
}

}  // namespace NV
