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

// The functions of one shape: the names of their data in the recorded lines, and their work.
#define NV_INIT(function, work, flag)                                                              \
    CK_RV function(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key)    \
    {                                                                                              \
        return keyInit(#function, session, mechanism, key, Work::work, NV::test::flag);            \
    }
#define NV_IN_OUT(function, call, input, output, ...)                                              \
    CK_RV function(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length,                   \
                   CK_BYTE_PTR buffer, CK_ULONG_PTR room)                                          \
    {                                                                                              \
        return call(#function, session, {input, data, length},                                     \
                    {output, buffer, room} __VA_OPT__(, ) __VA_ARGS__);                            \
    }
#define NV_PART(function, work)                                                                    \
    CK_RV function(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG length)                   \
    {                                                                                              \
        return part(#function, session, {"part", data, length}, Work::work);                       \
    }
#define NV_LAST(function, output, work, compute)                                                   \
    CK_RV function(CK_SESSION_HANDLE session, CK_BYTE_PTR buffer, CK_ULONG_PTR room)               \
    {                                                                                              \
        return last(#function, session, {output, buffer, room}, Work::work, compute);              \
    }

// The standard declares input data without const.
// NOLINTBEGIN(readability-non-const-parameter)

NV_INIT(C_EncryptInit, encrypt, CKF_ENCRYPT)
NV_IN_OUT(C_Encrypt, whole, "data", "encryptedData", Work::encrypt, ciphertext)
NV_IN_OUT(C_EncryptUpdate, partWithOutput, "part", "encryptedPart", Work::encrypt)
NV_LAST(C_EncryptFinal, "lastEncryptedPart", encrypt, ciphertext)

NV_INIT(C_DecryptInit, decrypt, CKF_DECRYPT)
NV_IN_OUT(C_Decrypt, whole, "encryptedData", "data", Work::decrypt, plaintext)
NV_IN_OUT(C_DecryptUpdate, partWithOutput, "encryptedPart", "part", Work::decrypt)
NV_LAST(C_DecryptFinal, "lastPart", decrypt, plaintext)

CK_RV C_DigestInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism)
{
    const Line line = sessionLine(hSession).mechanism(pMechanism);
    return serveSession(
        "C_DigestInit", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            return begin(token, session, Work::digest, pMechanism, 0, NV::test::CKF_DIGEST);
        });
}

NV_IN_OUT(C_Digest, whole, "data", "digest", Work::digest, digest)
NV_PART(C_DigestUpdate, digest)

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

NV_LAST(C_DigestFinal, "digest", digest, digest)

NV_INIT(C_SignInit, sign, CKF_SIGN)
NV_IN_OUT(C_Sign, whole, "data", "signature", Work::sign, signature)
NV_PART(C_SignUpdate, sign)
NV_LAST(C_SignFinal, "signature", sign, signature)
NV_INIT(C_SignRecoverInit, signRecover, CKF_SIGN_RECOVER)
NV_IN_OUT(C_SignRecover, whole, "data", "signature", Work::signRecover, signature)

NV_INIT(C_VerifyInit, verify, CKF_VERIFY)

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

NV_PART(C_VerifyUpdate, verify)

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

NV_INIT(C_VerifyRecoverInit, verifyRecover, CKF_VERIFY_RECOVER)
NV_IN_OUT(C_VerifyRecover, whole, "signature", "data", Work::verifyRecover, recovered)

NV_IN_OUT(C_DigestEncryptUpdate, dual, "part", "encryptedPart")
NV_IN_OUT(C_DecryptDigestUpdate, dual, "encryptedPart", "part")
NV_IN_OUT(C_SignEncryptUpdate, dual, "part", "encryptedPart")
NV_IN_OUT(C_DecryptVerifyUpdate, dual, "encryptedPart", "part")

// NOLINTEND(readability-non-const-parameter)

#undef NV_INIT
#undef NV_IN_OUT
#undef NV_PART
#undef NV_LAST
