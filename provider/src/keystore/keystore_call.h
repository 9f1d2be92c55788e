// The arguments of a key object's operations, and the trace lines that show them.

#pragma once

#include "base/cng.h"

#include "base/secret.h"
#include "logger/trace.h"
#include "p11/p11.h"

namespace NV {

// Of sign and verify.
struct SignatureCall {
    Pkcs11* p11;
    VOID* pPaddingInfo;
    PBYTE pbHashValue;
    DWORD cbHashValue;
    PBYTE pbSignature;
    DWORD cbSignature;
    DWORD dwFlags;
};

// Of encrypt and decrypt.
struct CipherCall {
    Pkcs11* p11;
    VOID* pPaddingInfo;
    PBYTE pbInput;
    DWORD cbInput;
    PBYTE pbOutput;
    DWORD cbOutput;
    DWORD* pcbResult;
    DWORD dwFlags;
};

// Of secretAgreement.
struct AgreementCall {
    Pkcs11* p11;
    PBYTE pbPeerPubkey;
    DWORD cbPeerPubkey;
    NCRYPT_SECRET_HANDLE* phAgreedSecret;
};

// Write the argument lines of an operation, and of a mechanism function. A PIN shows only its length;
// null means that the operation takes none.
void logArguments(Trace& trace, const SignatureCall& call, const SecretBytes* pin);
void logArguments(Trace& trace, const CipherCall& call, const SecretBytes* pin);
void logArguments(Trace& trace, const AgreementCall& call, const SecretBytes& pin);
void logPadding(Trace& trace, const VOID* pPaddingInfo, DWORD dwFlags);

}  // namespace NV
