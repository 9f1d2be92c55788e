// Elliptic curves: the public key blob, and ECDSA on the token.

#include "keystore/keystore_ec.h"

#include <utility>

#include "base/curve.h"
#include "keystore/keystore_blob.h"
#include "keystore/keystore_sign.h"

namespace NV {

namespace {

static_assert(curves[0].ecdsaMagic == BCRYPT_ECDSA_PUBLIC_P256_MAGIC &&
              curves[0].ecdhMagic == BCRYPT_ECDH_PUBLIC_P256_MAGIC);
static_assert(curves[1].ecdsaMagic == BCRYPT_ECDSA_PUBLIC_P384_MAGIC &&
              curves[1].ecdhMagic == BCRYPT_ECDH_PUBLIC_P384_MAGIC);
static_assert(curves[2].ecdsaMagic == BCRYPT_ECDSA_PUBLIC_P521_MAGIC &&
              curves[2].ecdhMagic == BCRYPT_ECDH_PUBLIC_P521_MAGIC);
static_assert(sizeof(EccBlobHead) == sizeof(BCRYPT_ECCKEY_BLOB));

}  // namespace

Bytes P11ECKeyObject::ECPoint::toBlob() const
{
    const Trace trace(NV_HERE);
    Bytes blob(x);
    blob.insert(blob.end(), y.begin(), y.end());
    NV_TRC("blob = %s(%d bytes)", hexEncode(blob).c_str(), static_cast<int>(blob.size()));
    return trace.leaving(std::move(blob));
}

P11ECKeyObject::P11ECKeyObject()
{
    const Trace trace(NV_HERE);
    setAlgorithm("ECDSA");
    trace.leave();
}

P11ECKeyObject::P11ECKeyObject(const P11ECKeyObject& source) : P11KeyObject(source)
{
    const Trace trace(NV_HERE);
    setAlgorithm("ECDSA");
    trace.leave();
}

P11ECKeyObject::ECPoint P11ECKeyObject::getPointFromPublicKey(const Bytes& publicKeyBytes) const
{
    const Trace trace(NV_HERE);
    ECPoint point;
    if (const Curve* known = curve()) {
        PointCoordinates coordinates = splitPoint(publicKeyBytes, known->coordinateSize());
        point = {std::move(coordinates.x), std::move(coordinates.y)};
    }
    NV_TRC("x = %s(%d bytes)", hexEncode(point.x).c_str(), static_cast<int>(point.x.size()));
    NV_TRC("y = %s(%d bytes)", hexEncode(point.y).c_str(), static_cast<int>(point.y.size()));
    return trace.leaving(std::move(point));
}

Bytes P11ECKeyObject::getPubkeyBlob() const
{
    const Trace trace(NV_HERE);
    Bytes blob;
    if (algorithm() == "ECDSA") {
        const Bytes publicKeyBytes = base64Decode(publicKey());
        NV_TRC("EC PublicKey = %s(%d bytes)", hexEncode(publicKeyBytes).c_str(),
               static_cast<int>(publicKeyBytes.size()));
        const ECPoint point = getPointFromPublicKey(publicKeyBytes);
        if (const Curve* known = curve()) {
            const EccBlobHead header{known->ecdsaMagic, known->coordinateSize()};
            const auto* begin = reinterpret_cast<const unsigned char*>(&header);
            blob.assign(begin, begin + sizeof header);
            const Bytes coordinates = point.toBlob();
            blob.insert(blob.end(), coordinates.begin(), coordinates.end());
            NV_TRC("EC PublicKey Blob = %s(%d bytes)", hexEncode(blob).c_str(),
                   static_cast<int>(blob.size()));
        }
    }
    return trace.leaving(std::move(blob));
}

DWORD P11ECKeyObject::signatureLength() const
{
    const size_t bits = keyLength();
    if (bits != 0)
        return static_cast<DWORD>((bits + 7) / 8 * 2);
    // r and s have the size of the coordinates, unless the curve is an exotic one.
    const Bytes point = base64Decode(publicKey());
    constexpr unsigned char uncompressed = 4;
    if (point.empty())
        return 0;
    const size_t rest = point.size() - 1;
    return static_cast<DWORD>(point.front() == uncompressed ? rest : 2 * rest);
}

OwnedMechanism P11ECKeyObject::mechanismSignature(VOID* pPaddingInfo, DWORD dwFlags) const
{
    Trace trace(NV_HERE);
    logPadding(trace, pPaddingInfo, dwFlags);
    return trace.leaving(OwnedMechanism(CKM_ECDSA));
}

OwnedMechanism P11ECKeyObject::mechanismEncryption(VOID* pPaddingInfo, DWORD dwFlags) const
{
    Trace trace(NV_HERE);
    logPadding(trace, pPaddingInfo, dwFlags);
    return trace.leaving(OwnedMechanism(CKM_ECDSA));
}

SECURITY_STATUS P11ECKeyObject::checkSignature(const Site&, const SignatureCall&) const
{
    return ERROR_SUCCESS;
}

SECURITY_STATUS P11ECKeyObject::checkCipher(const Site&, const CipherCall&) const
{
    return NTE_NOT_SUPPORTED;
}

SECURITY_STATUS P11ECKeyObject::sign(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                     DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                     DWORD* pcbResult, DWORD dwFlags, const SecretBytes& pin)
{
    const SignatureCall call{p11,         pPaddingInfo, pbHashValue, cbHashValue,
                             pbSignature, cbSignature,  dwFlags};
    // Compat: the finalize step has the number 5 again; people search logs for it.
    return signOnToken(NV_HERE, *this, CKK_EC, call, pin, {.logout = 5, .close = 6, .finalize = 5},
                       hashAsItIs, pcbResult);
}

SECURITY_STATUS P11ECKeyObject::verify(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbHashValue,
                                       DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                       DWORD dwFlags)
{
    const SignatureCall call{p11,         pPaddingInfo, pbHashValue, cbHashValue,
                             pbSignature, cbSignature,  dwFlags};
    return verifyOnToken(NV_HERE, *this, CKK_EC, call, hashAsItIs);
}

SECURITY_STATUS P11ECKeyObject::encrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput,
                                        DWORD cbInput, PBYTE pbOutput, DWORD cbOutput,
                                        DWORD* pcbResult, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    logArguments(
        trace,
        CipherCall{p11, pPaddingInfo, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags},
        nullptr);
    return trace.leaving(NTE_NOT_SUPPORTED);
}

SECURITY_STATUS P11ECKeyObject::decrypt(Pkcs11* p11, VOID* pPaddingInfo, PBYTE pbInput,
                                        DWORD cbInput, PBYTE pbOutput, DWORD cbOutput,
                                        DWORD* pcbResult, DWORD dwFlags, const SecretBytes& pin)
{
    Trace trace(NV_HERE);
    logArguments(
        trace,
        CipherCall{p11, pPaddingInfo, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags},
        &pin);
    return trace.leaving(NTE_NOT_SUPPORTED);
}

}  // namespace NV
