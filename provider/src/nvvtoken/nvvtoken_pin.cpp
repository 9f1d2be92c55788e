// What the PIN dialog is told.

#include "nvvtoken/nvvtoken_pin.h"

#include "base/text.h"

namespace NV {

namespace {

CK_TOKEN_INFO tokenNow(Pkcs11& p11, const P11Slot& slot)
{
    CK_TOKEN_INFO token{};
    if (p11.C_GetTokenInfo(slot.id(), &token) == CKR_OK)
        return token;
    token = slot.tokenInfo();
    token.flags = 0;
    return token;
}

}  // namespace

PINSubject pinSubject(Pkcs11& p11, const P11Slot& slot, const P11KeyObject& key,
                      const CertStore& certStore)
{
    const CK_TOKEN_INFO token = tokenNow(p11, slot);
    PINSubject subject;
    const auto certificate = certStore.certificates().find(key.keyId());
    if (certificate != certStore.certificates().end())
        subject.certificate = certificate->second->subject();
    subject.keyName = key.keyId();
    subject.tokenLabel = fromUtf8({reinterpret_cast<const char*>(token.label), sizeof token.label});
    subject.warning = tokenWarning(token);
    return subject;
}

PINWarning tokenWarning(const CK_TOKEN_INFO& token)
{
    if ((token.flags & CKF_USER_PIN_FINAL_TRY) != 0)
        return PINWarning::lastTry;
    return (token.flags & CKF_USER_PIN_COUNT_LOW) != 0 ? PINWarning::fewTries : PINWarning::none;
}

}  // namespace NV
