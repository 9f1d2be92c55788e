// The scripted token's encryption, digest, signature and verification functions: C_EncryptInit to
// C_DecryptVerifyUpdate. crypto.cpp has their computations.

#include "calls.h"
#include "crypto.h"

namespace NV::scripted {

namespace {

using Computation = CK_RV (*)(Token&, const Operation&, Bytes&);

struct Input {
    const char* name;
    const CK_BYTE* data;
    CK_ULONG length;

    bool missing() const { return data == nullptr && length != 0; }
    std::span<const CK_BYTE> bytes() const { return {data, data == nullptr ? 0 : length}; }
};

struct Output {
    const char* name;
    CK_BYTE* buffer;
    CK_ULONG* length;
};

Line lineOf(CK_SESSION_HANDLE session, const Input& input)
{
    return sessionLine(session).bytes(input.name, input.data, input.length);
}

Line lineOf(CK_SESSION_HANDLE session, const Input& input, const Output& output)
{
    return lineOf(session, input).room(output.name, output.buffer, output.length);
}

// Returns the result. Every result ends the operation, except a successful length query and a
// buffer that was too small.
CK_RV finish(Token& token, std::optional<Operation>& operation, Computation compute,
             const Output& output, Lie lie)
{
    Bytes result;
    CK_RV rv = compute(token, *operation, result);
    if (rv == CKR_OK)
        rv = giveBytes(result, output.buffer, output.length, lie);
    if (rv != CKR_BUFFER_TOO_SMALL && !(rv == CKR_OK && output.buffer == nullptr))
        operation.reset();
    return rv;
}

CK_RV keyInit(const char* function, CK_SESSION_HANDLE handle, const CK_MECHANISM* mechanism,
              CK_OBJECT_HANDLE key, Work work, CK_FLAGS flag)
{
    const Line line = sessionLine(handle).mechanism(mechanism).hex("key", key);
    return serveSession(function, handle, line, nullptr, [&](Token& token, Session& session, Lie) {
        return begin(token, session, work, mechanism, key, flag);
    });
}

// Data in one piece, with an output.
CK_RV whole(const char* function, CK_SESSION_HANDLE handle, const Input& input,
            const Output& output, Work work, Computation compute)
{
    return serveSession(function, handle, lineOf(handle, input, output), output.buffer,
                        [&](Token& token, Session& session, Lie lie) {
                            std::optional<Operation>& operation = session.operation(work);
                            if (!operation)
                                return CKR_OPERATION_NOT_INITIALIZED;
                            if (input.missing())
                                return CKR_ARGUMENTS_BAD;
                            operation->data.assign(input.bytes().begin(), input.bytes().end());
                            return finish(token, operation, compute, output, lie);
                        });
}

CK_RV collect(Session& session, Work work, const Input& input)
{
    std::optional<Operation>& operation = session.operation(work);
    if (!operation)
        return CKR_OPERATION_NOT_INITIALIZED;
    if (input.missing())
        return CKR_ARGUMENTS_BAD;
    operation->data.insert(operation->data.end(), input.bytes().begin(), input.bytes().end());
    return CKR_OK;
}

CK_RV part(const char* function, CK_SESSION_HANDLE handle, const Input& input, Work work)
{
    return serveSession(
        function, handle, lineOf(handle, input), nullptr,
        [&](Token&, Session& session, Lie) { return collect(session, work, input); });
}

// All output comes with the last part.
CK_RV partWithOutput(const char* function, CK_SESSION_HANDLE handle, const Input& input,
                     const Output& output, Work work)
{
    return serveSession(function, handle, lineOf(handle, input, output), output.buffer,
                        [&](Token&, Session& session, Lie lie) {
                            const CK_RV rv = giveBytes({}, output.buffer, output.length, lie);
                            if (!session.operation(work))
                                return CKR_OPERATION_NOT_INITIALIZED;
                            const bool query = output.buffer == nullptr;
                            return rv == CKR_OK && !query ? collect(session, work, input) : rv;
                        });
}

CK_RV last(const char* function, CK_SESSION_HANDLE handle, const Output& output, Work work,
           Computation compute)
{
    const Line line = sessionLine(handle).room(output.name, output.buffer, output.length);
    return serveSession(function, handle, line, output.buffer,
                        [&](Token& token, Session& session, Lie lie) {
                            std::optional<Operation>& operation = session.operation(work);
                            return operation ? finish(token, operation, compute, output, lie)
                                             : CKR_OPERATION_NOT_INITIALIZED;
                        });
}

// Compares with the signature that C_Sign makes from the same data, and ends the operation.
CK_RV compare(Token& token, std::optional<Operation>& operation, const Input& given)
{
    if (given.missing())
        return CKR_ARGUMENTS_BAD;
    Bytes right;
    CK_RV rv = signature(token, *operation, right);
    operation.reset();
    if (rv == CKR_OK && given.length != right.size())
        rv = CKR_SIGNATURE_LEN_RANGE;
    if (rv == CKR_OK && !std::ranges::equal(given.bytes(), right))
        rv = CKR_SIGNATURE_INVALID;
    return rv;
}

// Two operations at once: accepted in any state, with a fixed output.
CK_RV dual(const char* function, CK_SESSION_HANDLE handle, const Input& input, const Output& output)
{
    return serveSession(function, handle, lineOf(handle, input, output), output.buffer,
                        [&](Token&, Session&, Lie lie) {
                            return giveBytes(test::kDualOutput, output.buffer, output.length, lie);
                        });
}

CK_RV recovered(Token&, const Operation&, Bytes& output)
{
    output.assign(std::begin(test::kRecoveredData), std::end(test::kRecoveredData));
    return CKR_OK;
}

}  // namespace

}  // namespace NV::scripted

using namespace NV::scripted;  // the definitions below are C functions outside every namespace

// The standard declares input data without const.
// NOLINTBEGIN(readability-non-const-parameter)

CK_RV C_EncryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_EncryptInit", hSession, pMechanism, hKey, Work::encrypt,
                   NV::test::CKF_ENCRYPT);
}

CK_RV C_Encrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                CK_BYTE_PTR pEncryptedData, CK_ULONG_PTR pulEncryptedDataLen)
{
    return whole("C_Encrypt", hSession, {"data", pData, ulDataLen},
                 {"encryptedData", pEncryptedData, pulEncryptedDataLen}, Work::encrypt, ciphertext);
}

CK_RV C_EncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                      CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return partWithOutput("C_EncryptUpdate", hSession, {"part", pPart, ulPartLen},
                          {"encryptedPart", pEncryptedPart, pulEncryptedPartLen}, Work::encrypt);
}

CK_RV C_EncryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastEncryptedPart,
                     CK_ULONG_PTR pulLastEncryptedPartLen)
{
    return last("C_EncryptFinal", hSession,
                {"lastEncryptedPart", pLastEncryptedPart, pulLastEncryptedPartLen}, Work::encrypt,
                ciphertext);
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_DecryptInit", hSession, pMechanism, hKey, Work::decrypt,
                   NV::test::CKF_DECRYPT);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedData, CK_ULONG ulEncryptedDataLen,
                CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen)
{
    return whole("C_Decrypt", hSession, {"encryptedData", pEncryptedData, ulEncryptedDataLen},
                 {"data", pData, pulDataLen}, Work::decrypt, plaintext);
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                      CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen)
{
    return partWithOutput("C_DecryptUpdate", hSession,
                          {"encryptedPart", pEncryptedPart, ulEncryptedPartLen},
                          {"part", pPart, pulPartLen}, Work::decrypt);
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pLastPart, CK_ULONG_PTR pulLastPartLen)
{
    return last("C_DecryptFinal", hSession, {"lastPart", pLastPart, pulLastPartLen}, Work::decrypt,
                plaintext);
}

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    const Line line = sessionLine(hSession).mechanism(pMechanism);
    return serveSession(
        "C_DigestInit", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            return begin(token, session, Work::digest, pMechanism, 0, NV::test::CKF_DIGEST);
        });
}

CK_RV C_Digest(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
               CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    return whole("C_Digest", hSession, {"data", pData, ulDataLen},
                 {"digest", pDigest, pulDigestLen}, Work::digest, digest);
}

CK_RV C_DigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return part("C_DigestUpdate", hSession, {"part", pPart, ulPartLen}, Work::digest);
}

CK_RV C_DigestKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hKey)
{
    const Line line = sessionLine(hSession).hex("key", hKey);
    return serveSession(
        "C_DigestKey", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            std::optional<Operation>& operation = session.operation(Work::digest);
            if (!operation)
                return CKR_OPERATION_NOT_INITIALIZED;
            const Object* key = token.object(hKey);
            if (key == nullptr || !token.visible(*key))
                return CKR_KEY_HANDLE_INVALID;
            const Bytes* value = key->find(CKA_VALUE);
            if (value == nullptr)
                return CKR_KEY_INDIGESTIBLE;
            operation->data.insert(operation->data.end(), value->begin(), value->end());
            return CKR_OK;
        });
}

CK_RV C_DigestFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pDigest, CK_ULONG_PTR pulDigestLen)
{
    return last("C_DigestFinal", hSession, {"digest", pDigest, pulDigestLen}, Work::digest, digest);
}

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_SignInit", hSession, pMechanism, hKey, Work::sign, NV::test::CKF_SIGN);
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
             CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return whole("C_Sign", hSession, {"data", pData, ulDataLen},
                 {"signature", pSignature, pulSignatureLen}, Work::sign, signature);
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return part("C_SignUpdate", hSession, {"part", pPart, ulPartLen}, Work::sign);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return last("C_SignFinal", hSession, {"signature", pSignature, pulSignatureLen}, Work::sign,
                signature);
}

CK_RV C_SignRecoverInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                        CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_SignRecoverInit", hSession, pMechanism, hKey, Work::signRecover,
                   NV::test::CKF_SIGN_RECOVER);
}

CK_RV C_SignRecover(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
                    CK_BYTE_PTR pSignature, CK_ULONG_PTR pulSignatureLen)
{
    return whole("C_SignRecover", hSession, {"data", pData, ulDataLen},
                 {"signature", pSignature, pulSignatureLen}, Work::signRecover, signature);
}

CK_RV C_VerifyInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_VerifyInit", hSession, pMechanism, hKey, Work::verify, NV::test::CKF_VERIFY);
}

CK_RV C_Verify(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen,
               CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    const Input data{"data", pData, ulDataLen};
    const Input given{"signature", pSignature, ulSignatureLen};
    const Line line = lineOf(hSession, data).bytes(given.name, given.data, given.length);
    return serveSession(
        "C_Verify", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            const CK_RV rv = collect(session, Work::verify, data);
            return rv == CKR_OK ? compare(token, session.operation(Work::verify), given) : rv;
        });
}

CK_RV C_VerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen)
{
    return part("C_VerifyUpdate", hSession, {"part", pPart, ulPartLen}, Work::verify);
}

CK_RV C_VerifyFinal(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen)
{
    const Input given{"signature", pSignature, ulSignatureLen};
    return serveSession("C_VerifyFinal", hSession, lineOf(hSession, given), nullptr,
                        [&](Token& token, Session& session, Lie) {
                            std::optional<Operation>& operation = session.operation(Work::verify);
                            return operation ? compare(token, operation, given)
                                             : CKR_OPERATION_NOT_INITIALIZED;
                        });
}

CK_RV C_VerifyRecoverInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                          CK_OBJECT_HANDLE hKey)
{
    return keyInit("C_VerifyRecoverInit", hSession, pMechanism, hKey, Work::verifyRecover,
                   NV::test::CKF_VERIFY_RECOVER);
}

CK_RV C_VerifyRecover(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSignature, CK_ULONG ulSignatureLen,
                      CK_BYTE_PTR pData, CK_ULONG_PTR pulDataLen)
{
    return whole("C_VerifyRecover", hSession, {"signature", pSignature, ulSignatureLen},
                 {"data", pData, pulDataLen}, Work::verifyRecover, recovered);
}

CK_RV C_DigestEncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                            CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return dual("C_DigestEncryptUpdate", hSession, {"part", pPart, ulPartLen},
                {"encryptedPart", pEncryptedPart, pulEncryptedPartLen});
}

CK_RV C_DecryptDigestUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                            CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen)
{
    return dual("C_DecryptDigestUpdate", hSession,
                {"encryptedPart", pEncryptedPart, ulEncryptedPartLen}, {"part", pPart, pulPartLen});
}

CK_RV C_SignEncryptUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pPart, CK_ULONG ulPartLen,
                          CK_BYTE_PTR pEncryptedPart, CK_ULONG_PTR pulEncryptedPartLen)
{
    return dual("C_SignEncryptUpdate", hSession, {"part", pPart, ulPartLen},
                {"encryptedPart", pEncryptedPart, pulEncryptedPartLen});
}

CK_RV C_DecryptVerifyUpdate(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pEncryptedPart,
                            CK_ULONG ulEncryptedPartLen, CK_BYTE_PTR pPart, CK_ULONG_PTR pulPartLen)
{
    return dual("C_DecryptVerifyUpdate", hSession,
                {"encryptedPart", pEncryptedPart, ulEncryptedPartLen}, {"part", pPart, pulPartLen});
}

// NOLINTEND(readability-non-const-parameter)
