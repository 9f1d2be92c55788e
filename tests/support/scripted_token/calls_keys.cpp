// The scripted token's key management and random number functions: C_GenerateKey to
// C_GenerateRandom.

#include <cstring>

#include "calls.h"
#include "crypto.h"

namespace NV::scripted {

namespace {

constexpr CK_ULONG kGeneratedLength = 24;  // bytes of a generated or unwrapped key

CK_RV checkMechanism(const CK_MECHANISM* mechanism, CK_FLAGS flag)
{
    if (mechanism == nullptr)
        return CKR_ARGUMENTS_BAD;
    const test::MechanismRow* row = test::mechanismRow(mechanism->mechanism);
    return row == nullptr || (row->flags & flag) == 0 ? CKR_MECHANISM_INVALID : CKR_OK;
}

// A key as the template describes it; the class is added where the template leaves it out.
Object keyFrom(const CK_ATTRIBUTE* attributes, CK_ULONG count, CK_OBJECT_CLASS objectClass)
{
    Object key = objectFrom(attributes, count);
    key.attributes.emplace(CKA_CLASS, numberBytes(objectClass));
    return key;
}

Object secretKeyFrom(const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    Object key = keyFrom(attributes, count, CKO_SECRET_KEY);
    key.attributes[CKA_VALUE] =
        test::pattern(test::kKeyTag, {}, key.number(CKA_VALUE_LEN, kGeneratedLength));
    return key;
}

// The peer's point, as it is or inside a DER OCTET STRING.
bool isPoint(std::span<const CK_BYTE> data, CK_ULONG coordinateSize)
{
    const size_t length = 1 + 2 * size_t{coordinateSize};
    for (const size_t header : {size_t{0}, size_t{2}, size_t{3}}) {
        const bool right = header == 0 || (data.size() > header && data[0] == 0x04);
        if (right && data.size() == header + length && data[header] == 0x04)
            return true;
    }
    return false;
}

CK_RV checkAgreement(Token& token, const Session& session, const CK_MECHANISM& mechanism,
                     CK_OBJECT_HANDLE handle)
{
    const Object* key = token.object(handle);
    if (key == nullptr || key->slot != session.slot)
        return CKR_KEY_HANDLE_INVALID;
    if (!token.visible(*key))
        return CKR_USER_NOT_LOGGED_IN;
    if (key->objectClass() != CKO_PRIVATE_KEY || key->coordinateSize() == 0)
        return CKR_KEY_TYPE_INCONSISTENT;
    if (!key->flag(CKA_DERIVE, true))
        return CKR_KEY_FUNCTION_NOT_PERMITTED;

    CK_ECDH1_DERIVE_PARAMS parameters{};
    if (mechanism.pParameter == nullptr || mechanism.ulParameterLen != sizeof(parameters))
        return CKR_MECHANISM_PARAM_INVALID;
    std::memcpy(&parameters, mechanism.pParameter, sizeof(parameters));
    const bool right =
        parameters.kdf == CKD_NULL && parameters.pPublicData != nullptr &&
        isPoint({parameters.pPublicData, parameters.ulPublicDataLen}, key->coordinateSize());
    return right ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

Object agreedSecret(const Token& token, const Object& privateKey, const CK_ATTRIBUTE* attributes,
                    CK_ULONG count)
{
    Object secret = keyFrom(attributes, count, CKO_SECRET_KEY);
    const CK_ULONG length = secret.number(CKA_VALUE_LEN, privateKey.coordinateSize());
    secret.attributes[CKA_VALUE] = test::repeated(token.secretPattern, length);
    return secret;
}

}  // namespace

}  // namespace NV::scripted

using namespace NV::scripted;  // the definitions below are C functions outside every namespace

CK_RV C_GenerateKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                    CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phKey)
{
    const Line line =
        sessionLine(hSession).mechanism(pMechanism).attributes("template", pTemplate, ulCount);
    return serveSession(
        "C_GenerateKey", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            const CK_RV rv = checkMechanism(pMechanism, NV::test::CKF_GENERATE);
            if (rv == CKR_OK && phKey != nullptr)
                *phKey = token.addSessionObject(session, secretKeyFrom(pTemplate, ulCount));
            return rv;
        });
}

CK_RV C_GenerateKeyPair(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                        CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
                        CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
                        CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey)
{
    const Line line =
        sessionLine(hSession)
            .mechanism(pMechanism)
            .attributes("publicKeyTemplate", pPublicKeyTemplate, ulPublicKeyAttributeCount)
            .attributes("privateKeyTemplate", pPrivateKeyTemplate, ulPrivateKeyAttributeCount);
    return serveSession(
        "C_GenerateKeyPair", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            const CK_RV rv = checkMechanism(pMechanism, NV::test::CKF_GENERATE_KEY_PAIR);
            if (rv == CKR_OK && phPublicKey != nullptr)
                *phPublicKey = token.addSessionObject(
                    session,
                    keyFrom(pPublicKeyTemplate, ulPublicKeyAttributeCount, CKO_PUBLIC_KEY));
            if (rv == CKR_OK && phPrivateKey != nullptr)
                *phPrivateKey = token.addSessionObject(
                    session,
                    keyFrom(pPrivateKeyTemplate, ulPrivateKeyAttributeCount, CKO_PRIVATE_KEY));
            return rv;
        });
}

// Wrapping looks at no key: the wrapped form is a fixed text, and any text unwraps to a new key.

CK_RV C_WrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                CK_OBJECT_HANDLE hWrappingKey, CK_OBJECT_HANDLE hKey, CK_BYTE_PTR pWrappedKey,
                CK_ULONG_PTR pulWrappedKeyLen)
{
    const Line line = sessionLine(hSession)
                          .mechanism(pMechanism)
                          .hex("wrappingKey", hWrappingKey)
                          .hex("key", hKey)
                          .room("wrappedKey", pWrappedKey, pulWrappedKeyLen);
    return serveSession("C_WrapKey", hSession, line, pWrappedKey, [&](Token&, Session&, Lie lie) {
        const CK_RV rv = checkMechanism(pMechanism, NV::test::CKF_WRAP);
        return rv == CKR_OK ? giveBytes(NV::test::kWrappedKey, pWrappedKey, pulWrappedKeyLen, lie)
                            : rv;
    });
}

CK_RV C_UnwrapKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_OBJECT_HANDLE hUnwrappingKey, CK_BYTE_PTR pWrappedKey,
                  CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                  CK_OBJECT_HANDLE_PTR phKey)
{
    const Line line = sessionLine(hSession)
                          .mechanism(pMechanism)
                          .hex("unwrappingKey", hUnwrappingKey)
                          .bytes("wrappedKey", pWrappedKey, ulWrappedKeyLen)
                          .attributes("template", pTemplate, ulAttributeCount);
    return serveSession(
        "C_UnwrapKey", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            const CK_RV rv = checkMechanism(pMechanism, NV::test::CKF_UNWRAP);
            if (rv == CKR_OK && phKey != nullptr)
                *phKey =
                    token.addSessionObject(session, secretKeyFrom(pTemplate, ulAttributeCount));
            return rv;
        });
}

CK_RV C_DeriveKey(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
                  CK_OBJECT_HANDLE hBaseKey, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount,
                  CK_OBJECT_HANDLE_PTR phKey)
{
    const Line line = sessionLine(hSession)
                          .mechanism(pMechanism)
                          .hex("baseKey", hBaseKey)
                          .attributes("template", pTemplate, ulAttributeCount);
    return serveSession(
        "C_DeriveKey", hSession, line, nullptr, [&](Token& token, Session& session, Lie) {
            CK_RV rv = checkMechanism(pMechanism, NV::test::CKF_DERIVE);
            if (rv == CKR_OK)
                rv = checkAgreement(token, session, *pMechanism, hBaseKey);
            if (rv == CKR_OK && phKey == nullptr)
                rv = CKR_ARGUMENTS_BAD;
            if (rv == CKR_OK)
                *phKey =
                    token.addSessionObject(session, agreedSecret(token, *token.object(hBaseKey),
                                                                 pTemplate, ulAttributeCount));
            return rv;
        });
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pSeed, CK_ULONG ulSeedLen)
{
    const Line line = sessionLine(hSession).bytes("seed", pSeed, ulSeedLen);
    return serveSession("C_SeedRandom", hSession, line, nullptr,
                        [](Token&, Session&, Lie) { return CKR_OK; });
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE hSession, CK_BYTE_PTR RandomData, CK_ULONG ulRandomLen)
{
    const Line line = sessionLine(hSession).room("randomData", RandomData, &ulRandomLen);
    return serveSession("C_GenerateRandom", hSession, line, nullptr, [&](Token&, Session&, Lie) {
        if (RandomData == nullptr && ulRandomLen != 0)
            return CKR_ARGUMENTS_BAD;
        std::ranges::copy(NV::test::pattern(NV::test::kRandomTag, {}, ulRandomLen), RandomData);
        return CKR_OK;
    });
}
