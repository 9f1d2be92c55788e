// The steps of signing and verifying.

#include "keystore/keystore_sign.h"

#include "keystore/keystore_public.h"

namespace NV {

namespace {

// Returns the length that the token reported, limited to the buffer. 0 after a failure, which is
// logged.
CK_ULONG sign(TokenSequence& token, const Site& operation, const SignatureCall& call,
              SignInput input)
{
    if (!token.check(call.p11->C_SignInit(token.session(), input.mechanism.get(), token.key()),
                     "Failed to initialize Sign Process "))
        return 0;
    NV_UNDER(TRC, operation, "Success to initialize sign process");
    CK_ULONG length = call.cbSignature;
    const CK_RV rv =
        call.p11->C_Sign(token.session(), input.data.data(),
                         static_cast<CK_ULONG>(input.data.size()), call.pbSignature, &length);
    if (!token.check(rv, "Failed to sign Process "))
        return 0;
    length = lengthWithin(call.pbSignature, call.cbSignature, length);
    NV_UNDER(TRC, operation, "Success to sign data %d(bytes) for Signature",
             static_cast<int>(length));
    NV_UNDER(TRC, operation, "pbHashValue = %s",
             hexEncode(call.pbHashValue, static_cast<int>(call.cbHashValue)).c_str());
    NV_UNDER(TRC, operation, "pbSignature = %s",
             hexEncode(call.pbSignature, static_cast<int>(length)).c_str());
    return length;
}

void verify(TokenSequence& token, const Site& operation, const SignatureCall& call, SignInput input)
{
    if (!token.check(call.p11->C_VerifyInit(token.session(), input.mechanism.get(), token.key()),
                     "Failed to initialize verify process "))
        return;
    NV_UNDER(TRC, operation, "Success to initialize verify process");
    const CK_RV rv = call.p11->C_Verify(token.session(), input.data.data(),
                                        static_cast<CK_ULONG>(input.data.size()), call.pbSignature,
                                        call.cbSignature);
    if (token.check(rv, "Failed to verify Process "))
        NV_UNDER(TRC, operation, "Success to verify signature");
}

}  // namespace

SignInput hashAsItIs(const P11KeyObject& key, const SignatureCall& call)
{
    return {key.mechanismSignature(call.pPaddingInfo, call.dwFlags),
            {call.pbHashValue, call.pbHashValue + call.cbHashValue}};
}

SECURITY_STATUS signOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                            const SignatureCall& call, const SecretBytes& pin,
                            const TokenSequence::CleanUp& cleanUp, MakeInput input,
                            DWORD* pcbResult)
{
    Trace trace(operation);
    logArguments(trace, call, &pin);
    CK_ULONG length = 0;
    TokenSequence token(*call.p11, key.slotId(), operation);
    if (token.initialize() && token.openSession() && token.login(pin) &&
        token.findKey(3, CKO_PRIVATE_KEY, keyType, key.tokenId())) {
        NV_UNDER(TRC, operation, "4) Try to sign the given hash by private key");
        length = sign(token, operation, call, input(key, call));
    }
    const SECURITY_STATUS status = token.finish(cleanUp);
    if (status == ERROR_SUCCESS)
        *pcbResult = length;
    return trace.leaving(status);
}

SECURITY_STATUS verifyOnToken(const Site& operation, const P11KeyObject& key, CK_KEY_TYPE keyType,
                              const SignatureCall& call, MakeInput input)
{
    Trace trace(operation);
    logArguments(trace, call, nullptr);
    TokenSequence token(*call.p11, key.slotId(), operation);
    if (token.initialize() && token.openSession() &&
        token.findKey(2, CKO_PUBLIC_KEY, keyType, key.tokenId())) {
        NV_UNDER(TRC, operation, "3) Try to verify the given signature by public key");
        verify(token, operation, call, input(key, call));
    }
    SECURITY_STATUS status = token.finish({.logout = 0, .close = 4, .finalize = 5});
    if (needsCertificateKey(token.failure()))
        status = verifyWithoutToken(operation, key, call).value_or(status);
    return trace.leaving(status);
}

}  // namespace NV
