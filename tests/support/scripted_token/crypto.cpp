// The computations of the scripted token, in place of cryptography.

#include "crypto.h"

#include <cstring>

namespace NV::scripted {

namespace {

using test::MechanismFamily;

constexpr size_t kHeaderLength = 8;  // of a padded block: the mark, the length, four check bytes
constexpr CK_BYTE kMark = 0x2E;
constexpr CK_BYTE kFiller = 0xD7;
constexpr CK_ULONG kPkcsPadding = 11;   // the minimum number of padding bytes of PKCS #1 v1.5
constexpr CK_ULONG kLeastModulus = 16;  // bytes

// The attribute that allows a key to do this work; if it is absent, the key may.
CK_ATTRIBUTE_TYPE permissionFor(Work work)
{
    switch (work) {
    case Work::encrypt:
        return CKA_ENCRYPT;
    case Work::decrypt:
        return CKA_DECRYPT;
    case Work::sign:
        return CKA_SIGN;
    case Work::signRecover:
        return CKA_SIGN_RECOVER;
    case Work::verify:
        return CKA_VERIFY;
    default:
        return CKA_VERIFY_RECOVER;
    }
}

bool needsPrivateHalf(Work work)
{
    return work == Work::decrypt || work == Work::sign || work == Work::signRecover;
}

bool keySuits(const Object& key, MechanismFamily family, Work work)
{
    if (family == MechanismFamily::hmac)
        return key.objectClass() == CKO_SECRET_KEY;
    if (key.objectClass() != (needsPrivateHalf(work) ? CKO_PRIVATE_KEY : CKO_PUBLIC_KEY))
        return false;
    const CK_KEY_TYPE type = key.number(CKA_KEY_TYPE, CKK_GENERIC_SECRET);
    return family == MechanismFamily::rsa ? type == CKK_RSA && key.modulusLength() >= kLeastModulus
                                          : type == CKK_EC && key.coordinateSize() != 0;
}

CK_RV checkKey(Token& token, const Session& session, CK_OBJECT_HANDLE handle,
               MechanismFamily family, Work work)
{
    const Object* key = token.object(handle);
    if (key == nullptr || key->slot != session.slot)
        return CKR_KEY_HANDLE_INVALID;
    if (!token.visible(*key))
        return CKR_USER_NOT_LOGGED_IN;
    if (!keySuits(*key, family, work))
        return CKR_KEY_TYPE_INCONSISTENT;
    return key->flag(permissionFor(work), true) ? CKR_OK : CKR_KEY_FUNCTION_NOT_PERMITTED;
}

// The parameter block and the data that it points to, as bytes that can be compared.
Bytes parameterBytes(const CK_MECHANISM& mechanism)
{
    if (mechanism.pParameter == nullptr)
        return {};
    const auto* block = static_cast<const CK_BYTE*>(mechanism.pParameter);
    Bytes bytes(block, block + mechanism.ulParameterLen);
    if (mechanism.mechanism == CKM_RSA_PKCS_OAEP &&
        bytes.size() == sizeof(CK_RSA_PKCS_OAEP_PARAMS)) {
        CK_RSA_PKCS_OAEP_PARAMS oaep{};
        std::memcpy(&oaep, bytes.data(), sizeof(oaep));
        const auto* label = static_cast<const CK_BYTE*>(oaep.pSourceData);
        // Compares the content of the label, not its address.
        oaep.pSourceData = nullptr;
        std::memcpy(bytes.data(), &oaep, sizeof(oaep));
        if (label != nullptr)
            bytes.insert(bytes.end(), label, label + oaep.ulSourceDataLen);
    }
    return bytes;
}

size_t parameterLength(CK_MECHANISM_TYPE type)
{
    if (type == CKM_RSA_PKCS_PSS)
        return sizeof(CK_RSA_PKCS_PSS_PARAMS);
    return type == CKM_RSA_PKCS_OAEP ? sizeof(CK_RSA_PKCS_OAEP_PARAMS) : 0;
}

template <typename Parameters>
Parameters parametersOf(const Operation& operation)
{
    Parameters parameters{};
    std::memcpy(&parameters, operation.parameter.data(),
                std::min(sizeof(parameters), operation.parameter.size()));
    return parameters;
}

// The maximum number of data bytes for an RSA operation with a modulus of `modulus` bytes.
CK_ULONG maxData(const Operation& operation, CK_ULONG modulus)
{
    CK_ULONG padding = kPkcsPadding;
    if (operation.mechanism->type == CKM_RSA_X_509)
        padding = 0;
    if (operation.mechanism->type == CKM_RSA_PKCS_OAEP)
        padding =
            2 + 2 * test::hashLengthOf(parametersOf<CK_RSA_PKCS_OAEP_PARAMS>(operation).hashAlg);
    return modulus > padding ? modulus - padding : 0;
}

CK_RV checkSignedLength(const Operation& operation, const Object& key)
{
    const size_t length = operation.data.size();
    const test::MechanismRow& row = *operation.mechanism;
    if (row.type == CKM_RSA_PKCS_PSS) {
        const auto pss = parametersOf<CK_RSA_PKCS_PSS_PARAMS>(operation);
        return length == test::hashLengthOf(pss.hashAlg) ? CKR_OK : CKR_DATA_LEN_RANGE;
    }
    const bool bounded = row.family == MechanismFamily::rsa && row.hashLength == 0;
    return bounded && length > maxData(operation, key.modulusLength()) ? CKR_DATA_LEN_RANGE
                                                                       : CKR_OK;
}

// With parametersReread, a caller must keep the block until the operation ends. Only its leading
// numbers are read again: a pointer in a released block must not be followed.
CK_RV checkParameters(const Token& token, const Operation& operation)
{
    constexpr size_t kLeadingNumbers = 12;  // of the PSS and of the OAEP block
    if (!token.parametersReread || operation.given.pParameter == nullptr)
        return CKR_OK;
    const size_t length = std::min(kLeadingNumbers, operation.parameter.size());
    return std::memcmp(operation.given.pParameter, operation.parameter.data(), length) == 0
               ? CKR_OK
               : CKR_MECHANISM_PARAM_INVALID;
}

// The four bytes with which decryption checks that it has the parameters of the encryption.
Bytes checkBytes(const Operation& operation)
{
    return test::pattern(operation.mechanism->type, operation.parameter, 4);
}

void mask(Bytes& block)
{
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<CK_BYTE>(block[i] ^ (0x5A + 3 * i));
}

}  // namespace

CK_RV begin(Token& token, Session& session, Work work, const CK_MECHANISM* mechanism,
            CK_OBJECT_HANDLE key, CK_FLAGS flag)
{
    if (session.operation(work))
        return CKR_OPERATION_ACTIVE;
    if (mechanism == nullptr)
        return CKR_ARGUMENTS_BAD;
    const test::MechanismRow* row = test::mechanismRow(mechanism->mechanism);
    if (row == nullptr || (row->flags & flag) == 0)
        return CKR_MECHANISM_INVALID;
    const bool parameterGiven = mechanism->pParameter != nullptr && mechanism->ulParameterLen != 0;
    const size_t wanted = parameterLength(row->type);
    if (wanted != (parameterGiven ? mechanism->ulParameterLen : 0))
        return CKR_MECHANISM_PARAM_INVALID;
    if (work != Work::digest) {
        const CK_RV rv = checkKey(token, session, key, row->family, work);
        if (rv != CKR_OK)
            return rv;
    }
    session.operation(work) = Operation{row, parameterBytes(*mechanism), *mechanism, key, {}};
    return CKR_OK;
}

CK_RV signature(Token& token, const Operation& operation, Bytes& output)
{
    const Object* key = token.object(operation.key);
    if (key == nullptr)
        return CKR_KEY_HANDLE_INVALID;
    const test::MechanismRow& row = *operation.mechanism;
    CK_RV rv = checkParameters(token, operation);
    if (rv == CKR_OK)
        rv = checkSignedLength(operation, *key);
    if (rv != CKR_OK)
        return rv;
    if (row.family == MechanismFamily::hmac) {
        const Bytes* secret = key->find(CKA_VALUE);
        Bytes input = secret == nullptr ? Bytes{} : *secret;
        input.insert(input.end(), operation.data.begin(), operation.data.end());
        output = test::pattern(row.type, input, row.hashLength);
        return CKR_OK;
    }
    const CK_ULONG length =
        row.family == MechanismFamily::rsa ? key->modulusLength() : 2 * key->coordinateSize();
    output = test::pattern(row.type, operation.data, length);
    return CKR_OK;
}

CK_RV digest(Token&, const Operation& operation, Bytes& output)
{
    output =
        test::pattern(operation.mechanism->type, operation.data, operation.mechanism->hashLength);
    return CKR_OK;
}

CK_RV ciphertext(Token& token, const Operation& operation, Bytes& output)
{
    const Object* key = token.object(operation.key);
    if (key == nullptr)
        return CKR_KEY_HANDLE_INVALID;
    const CK_RV rv = checkParameters(token, operation);
    if (rv != CKR_OK)
        return rv;
    const CK_ULONG modulus = key->modulusLength();
    const size_t length = operation.data.size();
    if (length > maxData(operation, modulus))
        return CKR_DATA_LEN_RANGE;

    const bool raw = operation.mechanism->type == CKM_RSA_X_509;
    output.assign(modulus, raw ? CK_BYTE{0} : kFiller);
    if (!raw) {
        const Bytes check = checkBytes(operation);
        output[0] = kMark;
        output[1] = static_cast<CK_BYTE>(operation.mechanism->type);
        output[2] = static_cast<CK_BYTE>(length >> 8);
        output[3] = static_cast<CK_BYTE>(length);
        std::ranges::copy(check, output.begin() + 4);
    }
    std::ranges::copy(operation.data, output.end() - static_cast<std::ptrdiff_t>(length));
    mask(output);
    return CKR_OK;
}

CK_RV plaintext(Token& token, const Operation& operation, Bytes& output)
{
    const Object* key = token.object(operation.key);
    if (key == nullptr)
        return CKR_KEY_HANDLE_INVALID;
    const CK_RV rv = checkParameters(token, operation);
    if (rv != CKR_OK)
        return rv;
    Bytes block = operation.data;
    if (block.size() != key->modulusLength())
        return CKR_ENCRYPTED_DATA_LEN_RANGE;
    mask(block);
    if (operation.mechanism->type == CKM_RSA_X_509) {
        output = std::move(block);
        return CKR_OK;
    }
    const size_t length = (size_t{block[2]} << 8) + block[3];
    const bool whole = block[0] == kMark &&
                       block[1] == static_cast<CK_BYTE>(operation.mechanism->type) &&
                       std::ranges::equal(std::span(block).subspan(4, 4), checkBytes(operation)) &&
                       length + kHeaderLength <= block.size();
    if (!whole)
        return CKR_ENCRYPTED_DATA_INVALID;
    output.assign(block.end() - static_cast<std::ptrdiff_t>(length), block.end());
    return CKR_OK;
}

}  // namespace NV::scripted
