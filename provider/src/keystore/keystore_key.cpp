// Life and properties of key objects, and the course of signing and verifying that both key types
// share.

#include "keystore/keystore_key.h"

#include "base/scope_exit.h"

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
    trace.arguments(spaced(text("id", name.c_str())), spaced(pointer("data", data)),
                    spaced(number("size", size)));
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

void P11KeyObject::logArguments(Trace& trace, const SignatureCall& call, const SecretBytes* pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pPaddingInfo", call.pPaddingInfo),
                    pointer("pbHashValue", call.pbHashValue),
                    number("cbHashValue", call.cbHashValue),
                    pointer("pbSignature", call.pbSignature),
                    number("cbSignature", call.cbSignature), flagBits("dwFlags", call.dwFlags));
    if (pin != nullptr)
        trace.arguments(byteCount("pin", pin->size()));
}

void P11KeyObject::logArguments(Trace& trace, const CipherCall& call, const SecretBytes* pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pPaddingInfo", call.pPaddingInfo),
                    pointer("pbInput", call.pbInput), number("cbInput", call.cbInput),
                    pointer("pbOutput", call.pbOutput), number("cbOutput", call.cbOutput),
                    pointer("pcbResult", call.pcbResult), flagBits("dwFlags", call.dwFlags));
    if (pin != nullptr)
        trace.arguments(byteCount("pin", pin->size()));
}

void P11KeyObject::logArguments(Trace& trace, const AgreementCall& call, const SecretBytes& pin)
{
    trace.arguments(pointer("p11", call.p11), pointer("pbPeerPubkey", call.pbPeerPubkey),
                    number("cbPeerPubkey", call.cbPeerPubkey),
                    pointer("phAgreedSecret", call.phAgreedSecret), byteCount("pin", pin.size()));
}

void P11KeyObject::logPadding(Trace& trace, const VOID* pPaddingInfo, DWORD dwFlags)
{
    trace.arguments(pointer("pPaddingInfo", pPaddingInfo), flagBits("dwFlags", dwFlags));
}

SECURITY_STATUS P11KeyObject::signOnToken(const Site& site, const SignatureCall& call,
                                          const SecretBytes& pin, CK_KEY_TYPE keyType,
                                          const TokenSequence::CleanUp& cleanUp,
                                          const std::function<SignInput()>& input) const
{
    Trace trace(site);
    logArguments(trace, call, &pin);
    TokenSequence token(*call.p11, slotId_, site);
    if (token.initialize() && token.openSession() && token.login(pin) &&
        token.findKey(3, CKO_PRIVATE_KEY, keyType, tokenId())) {
        NV_UNDER(TRC, site, "4) Try to sign the given hash by private key");
        SignInput signing = input();
        OwnedMechanism mechanism(signing.mechanism);
        if (token.check(call.p11->C_SignInit(token.session(), mechanism.get(), token.key()),
                        "Failed to initialize Sign Process ")) {
            NV_UNDER(TRC, site, "Success to initialize sign process");
            runSign(token, site, call, signing.data);
        }
    }
    const SECURITY_STATUS status = token.finish(cleanUp);
    trace.leave();
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
    NV_UNDER(TRC, site, "Success to sign data %d(bytes) for Signature", static_cast<int>(length));
    NV_UNDER(TRC, site, "pbHashValue = %s",
             hexEncode(call.pbHashValue, static_cast<int>(call.cbHashValue)).c_str());
    NV_UNDER(TRC, site, "pbSignature = %s",
             hexEncode(call.pbSignature, static_cast<int>(length)).c_str());
}

SECURITY_STATUS P11KeyObject::verifyOnToken(const Site& site, const SignatureCall& call,
                                            CK_KEY_TYPE keyType) const
{
    Trace trace(site);
    logArguments(trace, call, nullptr);
    TokenSequence token(*call.p11, slotId_, site);
    if (token.initialize() && token.openSession() &&
        token.findKey(2, CKO_PUBLIC_KEY, keyType, tokenId())) {
        NV_UNDER(TRC, site, "3) Try to verify the given signature by public key");
        OwnedMechanism mechanism(mechanismSignature(call.pPaddingInfo, call.dwFlags));
        if (token.check(call.p11->C_VerifyInit(token.session(), mechanism.get(), token.key()),
                        "Failed to initialize verify process ")) {
            NV_UNDER(TRC, site, "Success to initialize verify process");
            const CK_RV rv = call.p11->C_Verify(token.session(), call.pbHashValue, call.cbHashValue,
                                                call.pbSignature, call.cbSignature);
            if (token.check(rv, "Failed to verify Process "))
                NV_UNDER(TRC, site, "Success to verify signature");
        }
    }
    const SECURITY_STATUS status = token.finish({.logout = 0, .close = 4, .finalize = 5});
    trace.leave();
    return status;
}

}  // namespace NV
