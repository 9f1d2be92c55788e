// The token operations as rows, and the rules that say what a fault makes of one. The rules know
// nothing of how the module is built: only the calls of a good run, and which of them undoes which.

#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "config/mode.h"
#include "fault_table.h"

namespace NV::test {

enum class TokenOperation {
    rsaSign,
    rsaVerify,
    rsaEncrypt,
    rsaDecrypt,
    ecSign,
    ecVerify,
    agreement,
    hashDerivation,
    hmacDerivation
};

// When *pcbResult is written.
enum class Told { never, onSuccess, withTheOutput };

struct OperationRow {
    TokenOperation operation = TokenOperation::rsaSign;
    const char* name = nullptr;
    const char* calls = nullptr;   // of a good run in classic, in order
    const char* output = nullptr;  // the call that fills the output buffer; null: there is none
    DWORD room = 0;                // of the output buffer, in bytes
    DWORD length = 0;              // of the true output
    Told told = Told::never;
    // Of the module's own buffer, which modern gives to the token; 0: the caller's.
    DWORD ownRoom = 0;
};

inline constexpr OperationRow operationRows[] = {
    {TokenOperation::rsaSign, "rsaSign",
     "C_Initialize C_OpenSession C_Login C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_SignInit C_Sign C_Logout C_CloseSession C_Finalize",
     "C_Sign", 300, 256, Told::onSuccess},
    {TokenOperation::rsaVerify, "rsaVerify",
     "C_Initialize C_OpenSession C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_VerifyInit C_Verify C_CloseSession C_Finalize",
     nullptr, 0, 0, Told::never},
    {TokenOperation::rsaEncrypt, "rsaEncrypt",
     "C_Initialize C_OpenSession C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_EncryptInit C_Encrypt C_CloseSession C_Finalize",
     "C_Encrypt", 300, 256, Told::onSuccess},
    {TokenOperation::rsaDecrypt, "rsaDecrypt",
     "C_Initialize C_OpenSession C_Login C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_DecryptInit C_Decrypt C_Logout C_CloseSession C_Finalize",
     "C_Decrypt", 60, 32, Told::onSuccess, 256},
    {TokenOperation::ecSign, "ecSign",
     "C_Initialize C_OpenSession C_Login C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_SignInit C_Sign C_Logout C_CloseSession C_Finalize",
     "C_Sign", 80, 64, Told::onSuccess},
    {TokenOperation::ecVerify, "ecVerify",
     "C_Initialize C_OpenSession C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_VerifyInit C_Verify C_CloseSession C_Finalize",
     nullptr, 0, 0, Told::never},
    {TokenOperation::agreement, "agreement",
     "C_Initialize C_OpenSession C_Login C_FindObjectsInit C_FindObjects C_FindObjectsFinal "
     "C_DeriveKey C_GetAttributeValue C_GetAttributeValue C_Logout C_CloseSession C_Finalize",
     nullptr, 0, 0, Told::never},
    {TokenOperation::hashDerivation, "hashDerivation",
     "C_Initialize C_OpenSession C_DigestInit C_Digest C_CloseSession C_Finalize", "C_Digest", 64,
     32, Told::withTheOutput, 32},
    {TokenOperation::hmacDerivation, "hmacDerivation",
     "C_Initialize C_OpenSession C_CreateObject C_SignInit C_Sign C_CloseSession C_Finalize",
     "C_Sign", 64, 32, Told::withTheOutput, 32},
};

// For the names of test cases.
inline void PrintTo(const OperationRow& row, std::ostream* out)
{
    *out << row.name;
}

// The calls of a good run. In modern, the library is initialized all the time.
std::string callsOf(const OperationRow& row, Behaviour behaviour);

struct ExpectedOutcome {
    SECURITY_STATUS status;
    std::string calls;            // that the token sees, in order
    bool output;                  // the buffer holds the true output; otherwise it is untouched
    std::optional<DWORD> length;  // *pcbResult; none: untouched
    bool secret;                  // an agreed secret is handed out
    bool initialised;             // how the operation leaves the library
    uint32_t sessionsFinalized;   // sessions that only C_Finalize has ended
    uint32_t sessionsLeft;        // sessions that are open until the library is finalized
    DWORD zeros;                  // bytes behind the true output that the token has only claimed
    bool byCertificate;           // the output is one of the certificate's key, and not the token's
};

ExpectedOutcome expectedOutcome(Behaviour behaviour, const OperationRow& row, const Sequence& good,
                                const FaultCase& fault);

}  // namespace NV::test
