// The table. A row for each line, in the order of the page.

#include "formats/secret_lines.h"

namespace NV::tool {

namespace {

// clang-format off
constexpr SecretLine secretTable[] = {
    {"NV::P11ECKeyObject::secretAgreement", "Agreed SharedSecret(%d bytes)=[%!],", Shown::secret, "the secret of an ECDH agreement"},
    {"NV::KeyStore::derive", "Retrieved SharedSecret(%d bytes)=[%!]", Shown::secret, "the same, when a key is derived from it"},
    {"NV::KeyStore::derive", "KDFInputData(%d bytes)=[%!]", Shown::secret, "what is hashed: prepended bytes, secret, appended bytes"},
    {"NV::KeyStore::derive", "HMAC_KEY(%d bytes)=[%!]", Shown::secret, "the key of an HMAC derivation"},
    {"NV::KeyStore::derive", "Derived Key(%d bytes): [%!]", Shown::secret, "the derived key"},
    {"NVEnterPIN", "Entered Pin=%!", Shown::secret, "a PIN; no operation of the provider calls this function"},
    {"NV::Provider::enterPIN", "Entered Pin is %! bytes", Shown::length, "the length of the PIN"},
    {"", "Success to retrive the entered pin = %! (bytes)", Shown::length, "the length of the PIN"},
    {"NV::PINDialog::Procedure", "WM_COMMAND[IDOK]: verified password(%!:bytes)", Shown::length, "the length of the PIN"},
    {"", "ARG[%d]:pin=%!(bytes)", Shown::length, "the length of the PIN"},
    {"NV::Pkcs11::C_Login NV::Pkcs11::C_InitToken NV::Pkcs11::C_InitPIN", "ARG[%d]:ulPinLen=%!", Shown::length, "the length of the PIN"},
    {"NV::Pkcs11::C_SetPIN", "ARG[%d]:ulOldLen=%!", Shown::length, "the length of the PIN"},
    {"NV::Pkcs11::C_SetPIN", "ARG[%d]:ulNewLen=%!", Shown::length, "the length of the PIN"},
    {"NV::Provider::SetKeyProperty NV::Provider::SetProviderProperty", "ARG[%d]:cbInput=%!", Shown::length, "the length of a property, which can be a PIN"},
    {"NV::Provider::GetKeyProperty NV::Provider::GetProviderProperty", "ARG[%d]:cbOutput=%!", Shown::length, "the length of a property, which can be a PIN"},
    {"NV::Provider::GetKeyProperty NV::Provider::GetProviderProperty", "Store the value into output buffer (%! bytes)", Shown::length, "the length of a property, which can be a PIN"},
    {"NV::P11KeyObject::addProperty", "ARG[%d]:size = %!", Shown::length, "the length of a property, which can be a PIN"},
    {"NV::Property::Property", "src._data = %! (bytes)", Shown::length, "the length of a property, which can be a PIN"},
    {"NV::P11RSAKeyObject::sign NV::P11ECKeyObject::sign", "pbHashValue = %!", Shown::hash, "the hash that is signed"},
    {"NV::P11RSAKeyObject::sign NV::P11ECKeyObject::sign", "pbSignature = %!", Shown::signature, "the signature"},
    {"NV::P11CertObject::FindCertificates", "CKA_VALUE = %!", Shown::publicKey, "a certificate of the token"},
    {"NV::P11CertObject::FindCertificates", "PUBLICKEY = %!", Shown::publicKey, "its public key"},
    {"NV::P11CertObject::AddToLocalStore", "ARG[%d]:base64=%!", Shown::publicKey, "a certificate of the token"},
    {"NV::KeyStore::addPublicKey", "ARG[%d]:base64 = %!", Shown::publicKey, "a public key of the token"},
    {"NV::P11RSAKeyObject::getPubkeyBlob", "RSA PublicKey = %! (%d bytes)", Shown::publicKey, "a public key of the token"},
    {"NV::P11RSAKeyObject::getPubkeyBlob", "RSA PublicKey Blob = %!", Shown::publicKey, "the same as a blob"},
    {"NV::P11ECKeyObject::getPubkeyBlob", "EC PublicKey = %!(%d bytes)", Shown::publicKey, "a public key of the token"},
    {"NV::P11ECKeyObject::getPubkeyBlob", "EC PublicKey Blob = %!(%d bytes)", Shown::publicKey, "the same as a blob"},
    {"NV::P11ECKeyObject::ECPoint::toBlob", "blob = %!(%d bytes)", Shown::publicKey, "the same as a blob"},
    {"NV::P11ECKeyObject::getPointFromPublicKey", "x = %!(%d bytes)", Shown::publicKey, "its coordinates"},
    {"NV::P11ECKeyObject::getPointFromPublicKey", "y = %!(%d bytes)", Shown::publicKey, "its coordinates"},
    {"NV::KeyStore::addEphemeralKey", "X=[%!]", Shown::publicKey, "the coordinates of an imported key"},
    {"NV::KeyStore::addEphemeralKey", "Y=[%!]", Shown::publicKey, "the coordinates of an imported key"},
    {"NV::KeyStore::addEphemeralKey", "pubKey(Uncompressed)=[%!]", Shown::publicKey, "an imported key"},
    {"NV::KeyStore::addEphemeralKey", "pubKey(B64)=[%!]", Shown::publicKey, "an imported key"},
    {"NV::Provider::SecretAgreement", "Peer's public key(b64)=[%!]", Shown::publicKey, "the other party's public key"},
    {"NV::Provider::SecretAgreement", "Peer's public key=[%!], %d bytes", Shown::publicKey, "the other party's public key"},
    {"DllMain", "Invalid line[%d]: %!", Shown::configuration, "a line of the configuration file that is not read"},
};
// clang-format on

}  // namespace

std::span<const SecretLine> secretLines()
{
    return secretTable;
}

}  // namespace NV::tool
