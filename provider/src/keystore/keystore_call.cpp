// The argument lines of a key object's operations.

#include "keystore/keystore_call.h"

namespace NV {

void logArguments(Trace& trace, const SignatureCall& call, const SecretBytes* pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pPaddingInfo", call.pPaddingInfo),
                    pointer("pbHashValue", call.pbHashValue),
                    number("cbHashValue", call.cbHashValue),
                    pointer("pbSignature", call.pbSignature),
                    number("cbSignature", call.cbSignature), flagBits("dwFlags", call.dwFlags));
    if (pin != nullptr)
        trace.arguments(byteCount("pin", pin->size()));
}

void logArguments(Trace& trace, const CipherCall& call, const SecretBytes* pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pPaddingInfo", call.pPaddingInfo),
                    pointer("pbInput", call.pbInput), number("cbInput", call.cbInput),
                    pointer("pbOutput", call.pbOutput), number("cbOutput", call.cbOutput),
                    pointer("pcbResult", call.pcbResult), flagBits("dwFlags", call.dwFlags));
    if (pin != nullptr)
        trace.arguments(byteCount("pin", pin->size()));
}

void logArguments(Trace& trace, const AgreementCall& call, const SecretBytes& pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pbPeerPubkey", call.pbPeerPubkey),
                    number("cbPeerPubkey", call.cbPeerPubkey),
                    pointer("phAgreedSecret", call.phAgreedSecret), byteCount("pin", pin.size()));
}

void logPadding(Trace& trace, const VOID* pPaddingInfo, DWORD dwFlags)
{
    trace.arguments(pointer("pPaddingInfo", pPaddingInfo), flagBits("dwFlags", dwFlags));
}

}  // namespace NV
