// Converts mechanisms and their parameters for the native library.

#include "mechanisms.h"

#include <cstring>
#include <map>
#include <mutex>
#include <utility>

namespace NV::bridge {

namespace {

enum class ParameterShape { bytes, pss, oaep, ecdh1, unknown };

// RC2_CBC and RC5_CBC are not in this list: their parameters are structures, not byte strings.
ParameterShape parameterShapeOf(CK_MECHANISM_TYPE type)
{
    switch (type) {
    case CKM_RSA_PKCS_PSS:
    case CKM_SHA1_RSA_PKCS_PSS:
    case CKM_SHA224_RSA_PKCS_PSS:
    case CKM_SHA256_RSA_PKCS_PSS:
    case CKM_SHA384_RSA_PKCS_PSS:
    case CKM_SHA512_RSA_PKCS_PSS:
        return ParameterShape::pss;
    case CKM_RSA_PKCS_OAEP:
        return ParameterShape::oaep;
    case CKM_ECDH1_DERIVE:
    case CKM_ECDH1_COFACTOR_DERIVE:
        return ParameterShape::ecdh1;
    case CKM_DES_CBC:
    case CKM_DES_CBC_PAD:
    case CKM_DES_OFB64:
    case CKM_DES_OFB8:
    case CKM_DES_CFB64:
    case CKM_DES_CFB8:
    case CKM_DES3_CBC:
    case CKM_DES3_CBC_PAD:
    case CKM_AES_CBC:
    case CKM_AES_CBC_PAD:
    case CKM_AES_CTS:
    case CKM_AES_OFB:
    case CKM_AES_CFB64:
    case CKM_AES_CFB8:
    case CKM_AES_CFB128:
    case CKM_AES_CFB1:
    case CKM_AES_KEY_WRAP:
    case CKM_AES_KEY_WRAP_PAD:
    case CKM_CAMELLIA_CBC:
    case CKM_CAMELLIA_CBC_PAD:
    case CKM_ARIA_CBC:
    case CKM_ARIA_CBC_PAD:
    case CKM_SEED_CBC:
    case CKM_SEED_CBC_PAD:
    case CKM_DH_PKCS_DERIVE:
        return ParameterShape::bytes;
    default:
        return ParameterShape::unknown;
    }
}

// A copy of the caller's structure, which need not be aligned.
template <typename Parameter>
Parameter read(const CK_MECHANISM& mechanism)
{
    if (mechanism.ulParameterLen != sizeof(Parameter))
        throw Failure{CKR_MECHANISM_PARAM_INVALID};
    Parameter parameter{};
    std::memcpy(&parameter, mechanism.pParameter, sizeof(parameter));
    return parameter;
}

native::CK_RSA_PKCS_PSS_PARAMS widened(const CK_RSA_PKCS_PSS_PARAMS& parameter)
{
    native::CK_RSA_PKCS_PSS_PARAMS result{};
    result.hashAlg = parameter.hashAlg;
    result.mgf = parameter.mgf;
    result.sLen = parameter.sLen;
    return result;
}

native::CK_RSA_PKCS_OAEP_PARAMS widened(const CK_RSA_PKCS_OAEP_PARAMS& parameter)
{
    native::CK_RSA_PKCS_OAEP_PARAMS result{};
    result.hashAlg = parameter.hashAlg;
    result.mgf = parameter.mgf;
    result.source = parameter.source;
    result.pSourceData = parameter.pSourceData;
    result.ulSourceDataLen = parameter.ulSourceDataLen;
    return result;
}

native::CK_ECDH1_DERIVE_PARAMS widened(const CK_ECDH1_DERIVE_PARAMS& parameter)
{
    native::CK_ECDH1_DERIVE_PARAMS result{};
    result.kdf = parameter.kdf;
    result.ulSharedDataLen = parameter.ulSharedDataLen;
    result.pSharedData = parameter.pSharedData;
    result.ulPublicDataLen = parameter.ulPublicDataLen;
    result.pPublicData = parameter.pPublicData;
    return result;
}

std::mutex keeperLock;
std::map<std::pair<CK_SESSION_HANDLE, int>, std::unique_ptr<Mechanism>> kept;

}  // namespace

Mechanism::Mechanism(const CK_MECHANISM* mechanism) : null_{mechanism == nullptr}
{
    if (mechanism == nullptr)
        return;
    mechanism_.mechanism = mechanism->mechanism;
    if (mechanism->pParameter == nullptr || mechanism->ulParameterLen == 0) {
        mechanism_.pParameter = mechanism->pParameter;
        mechanism_.ulParameterLen = mechanism->ulParameterLen;
        return;
    }

    switch (parameterShapeOf(mechanism->mechanism)) {
    case ParameterShape::bytes:
        mechanism_.pParameter = mechanism->pParameter;
        mechanism_.ulParameterLen = mechanism->ulParameterLen;
        break;
    case ParameterShape::pss:
        setParameter(widened(read<CK_RSA_PKCS_PSS_PARAMS>(*mechanism)));
        break;
    case ParameterShape::oaep:
        setParameter(widened(read<CK_RSA_PKCS_OAEP_PARAMS>(*mechanism)));
        break;
    case ParameterShape::ecdh1:
        setParameter(widened(read<CK_ECDH1_DERIVE_PARAMS>(*mechanism)));
        break;
    case ParameterShape::unknown:
        throw Failure{CKR_FUNCTION_NOT_SUPPORTED};
    }
}

template <typename Parameter>
void Mechanism::setParameter(const Parameter& parameter)
{
    mechanism_.pParameter = &parameter_.emplace<Parameter>(parameter);
    mechanism_.ulParameterLen = sizeof(Parameter);
}

native::CK_MECHANISM* Mechanism::get()
{
    return null_ ? nullptr : &mechanism_;
}

void keepMechanism(CK_SESSION_HANDLE session, int operation, std::unique_ptr<Mechanism> mechanism)
{
    const std::lock_guard guard{keeperLock};
    kept[{session, operation}] = std::move(mechanism);
}

void forgetMechanisms(CK_SESSION_HANDLE session)
{
    const std::lock_guard guard{keeperLock};
    std::erase_if(kept, [session](const auto& entry) { return entry.first.first == session; });
}

void forgetAllMechanisms()
{
    const std::lock_guard guard{keeperLock};
    kept.clear();
}

}  // namespace NV::bridge
