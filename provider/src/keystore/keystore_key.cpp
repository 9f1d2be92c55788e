// Life and properties of key objects, and the course of signing and verifying that both key types
// share.

#include "keystore/keystore_key.h"

#include <utility>

namespace NV {

P11KeyObject::P11KeyObject() : stamp_(creationStamp())
{
    const Trace trace(NV_HERE);
    trace.leave();
}

P11KeyObject::P11KeyObject(const P11KeyObject& source)
    : P11Object(source), stamp_(creationStamp()), slotId_(source.slotId_), keyId_(source.keyId_),
      algorithm_(source.algorithm_), publicKey_(source.publicKey_),
      algorithmOid_(source.algorithmOid_), keyLength_(source.keyLength_)
{
    const Trace trace(NV_HERE);
    NV_TRC("Copy all the members");
    if (!source.properties_.empty()) {
        NV_TRC("Copy all the properties (%d)", static_cast<int>(source.properties_.size()));
        for (const auto& [name, property] : source.properties_)
            properties_.emplace(name, std::make_shared<Property>(*property));
    }
    trace.leave();
}

P11KeyObject::~P11KeyObject()
{
    quietly([this] {
        const Trace trace(NV_HERE);
        properties_.clear();
        trace.leave();
    });
}

void P11KeyObject::addProperty(const std::wstring& name, const void* data, int32_t size)
{
    Trace trace(NV_HERE);
    NV_ARG(trace, "id = %ls", name.c_str());
    NV_ARG(trace, "data = %p", data);
    NV_ARG(trace, "size = %d", static_cast<int>(size));
    NV_TRC("Size of Properties = %d", static_cast<int>(properties_.size()));
    if (data == nullptr || size < 1)
        NV_ERR("Failed to allocate memory");
    else
        properties_.try_emplace(name, std::make_shared<Property>(name, 0, data, size));
    trace.leave();
}

const Property* P11KeyObject::findProperty(const std::wstring& name) const
{
    const auto entry = properties_.find(name);
    return entry != properties_.end() ? entry->second.get() : nullptr;
}

Bytes P11KeyObject::tokenId() const
{
    std::string narrow;
    for (const wchar_t c : keyId_)
        narrow.push_back(static_cast<char>(c));
    return hexDecode(narrow);
}

void P11KeyObject::logArguments(const Site& site, const SignatureCall& call, const SecretBytes* pin)
{
    NV_AT(TRC, site, "ARG[0]:p11=%p", static_cast<const void*>(call.p11));
    NV_AT(TRC, site, "ARG[1]:pPaddingInfo=%p", call.pPaddingInfo);
    NV_AT(TRC, site, "ARG[2]:pbHashValue=%p", static_cast<const void*>(call.pbHashValue));
    NV_AT(TRC, site, "ARG[3]:cbHashValue=%d", static_cast<int>(call.cbHashValue));
    NV_AT(TRC, site, "ARG[4]:pbSignature=%p", static_cast<const void*>(call.pbSignature));
    NV_AT(TRC, site, "ARG[5]:cbSignature=%d", static_cast<int>(call.cbSignature));
    NV_AT(TRC, site, "ARG[6]:dwFlags=0x%x", static_cast<unsigned>(call.dwFlags));
    if (pin != nullptr)
        NV_AT(TRC, site, "ARG[7]:pin=%d(bytes)", static_cast<int>(pin->size()));
}

void P11KeyObject::logArguments(const Site& site, const CipherCall& call, const SecretBytes* pin)
{
    NV_AT(TRC, site, "ARG[0]:p11=%p", static_cast<const void*>(call.p11));
    NV_AT(TRC, site, "ARG[1]:pPaddingInfo=%p", call.pPaddingInfo);
    NV_AT(TRC, site, "ARG[2]:pbInput=%p", static_cast<const void*>(call.pbInput));
    NV_AT(TRC, site, "ARG[3]:cbInput=%d", static_cast<int>(call.cbInput));
    NV_AT(TRC, site, "ARG[4]:pbOutput=%p", static_cast<const void*>(call.pbOutput));
    NV_AT(TRC, site, "ARG[5]:cbOutput=%d", static_cast<int>(call.cbOutput));
    NV_AT(TRC, site, "ARG[6]:pcbResult=%p", static_cast<const void*>(call.pcbResult));
    NV_AT(TRC, site, "ARG[7]:dwFlags=0x%x", static_cast<unsigned>(call.dwFlags));
    if (pin != nullptr)
        NV_AT(TRC, site, "ARG[8]:pin=%d(bytes)", static_cast<int>(pin->size()));
}

void P11KeyObject::logArguments(const Site& site, const AgreementCall& call, const SecretBytes& pin)
{
    NV_AT(TRC, site, "ARG[0]:p11=%p", static_cast<const void*>(call.p11));
    NV_AT(TRC, site, "ARG[1]:pbPeerPubkey=%p", static_cast<const void*>(call.pbPeerPubkey));
    NV_AT(TRC, site, "ARG[2]:cbPeerPubkey=%d", static_cast<int>(call.cbPeerPubkey));
    NV_AT(TRC, site, "ARG[3]:phAgreedSecret=%p", static_cast<const void*>(call.phAgreedSecret));
    NV_AT(TRC, site, "ARG[4]:pin=%d(bytes)", static_cast<int>(pin.size()));
}

void P11KeyObject::logPadding(const Site& site, const VOID* pPaddingInfo, DWORD dwFlags)
{
    NV_AT(TRC, site, "ARG[0]:pPaddingInfo=%p", pPaddingInfo);
    NV_AT(TRC, site, "ARG[1]:dwFlags=0x%x", static_cast<unsigned>(dwFlags));
}

SECURITY_STATUS P11KeyObject::signOnToken(const Site& site, const SignatureCall& call,
                                          const SecretBytes& pin, CK_KEY_TYPE keyType,
                                          const TokenSequence::CleanUp& cleanUp,
                                          const std::function<SignInput()>& input) const
{
    const Trace trace(site);
    logArguments(site, call, &pin);
    TokenSequence token(*call.p11, slotId_, site);
    if (token.initialize() && token.openSession() && token.login(pin) &&
        token.findKey(3, CKO_PRIVATE_KEY, keyType, tokenId())) {
        NV_AT(TRC, site, "4) Try to sign the given hash by private key");
        SignInput signing = input();
        OwnedMechanism mechanism(signing.mechanism);
        if (token.check(call.p11->C_SignInit(token.session(), mechanism.get(), token.key()),
                        "Failed to initialize Sign Process ")) {
            NV_AT(TRC, site, "Success to initialize sign process");
            runSign(token, site, call, signing.data);
        }
    }
    const SECURITY_STATUS status = token.finish(cleanUp);
    trace.leave(site.line);
    return status;
}

void P11KeyObject::runSign(TokenSequence& token, const Site& site, const SignatureCall& call,
                           Bytes& data)
{
    CK_ULONG length = call.cbSignature;
    const CK_RV rv =
        call.p11->C_Sign(token.session(), data.data(), static_cast<CK_ULONG>(data.size()),
                         call.pbSignature, &length);
    if (!token.check(rv, "Failed to sign Process "))
        return;
    length = lengthWithin(call.pbSignature, call.cbSignature, length);
    NV_AT(TRC, site, "Success to sign data %d(bytes) for Signature", static_cast<int>(length));
    NV_AT(TRC, site, "pbHashValue = %s",
          hexEncode(call.pbHashValue, static_cast<int>(call.cbHashValue)).c_str());
    NV_AT(TRC, site, "pbSignature = %s",
          hexEncode(call.pbSignature, static_cast<int>(length)).c_str());
}

SECURITY_STATUS P11KeyObject::verifyOnToken(const Site& site, const SignatureCall& call,
                                            CK_KEY_TYPE keyType) const
{
    const Trace trace(site);
    logArguments(site, call, nullptr);
    TokenSequence token(*call.p11, slotId_, site);
    if (token.initialize() && token.openSession() &&
        token.findKey(2, CKO_PUBLIC_KEY, keyType, tokenId())) {
        NV_AT(TRC, site, "3) Try to verify the given signature by public key");
        OwnedMechanism mechanism(mechanismSignature(call.pPaddingInfo, call.dwFlags));
        if (token.check(call.p11->C_VerifyInit(token.session(), mechanism.get(), token.key()),
                        "Failed to initialize verify process ")) {
            NV_AT(TRC, site, "Success to initialize verify process");
            const CK_RV rv = call.p11->C_Verify(token.session(), call.pbHashValue, call.cbHashValue,
                                                call.pbSignature, call.cbSignature);
            if (token.check(rv, "Failed to verify Process "))
                NV_AT(TRC, site, "Success to verify signature");
        }
    }
    const SECURITY_STATUS status = token.finish({.logout = 0, .close = 4, .finalize = 5});
    trace.leave(site.line);
    return status;
}

}  // namespace NV
