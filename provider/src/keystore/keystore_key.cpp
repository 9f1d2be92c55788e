// Construction, copying and properties of key objects.

#include "keystore/keystore_key.h"

#include "base/scope_exit.h"
#include "config/mode.h"

#include <utility>

namespace NV {

P11KeyObject::P11KeyObject() : stamp_(creationStamp())
{
    const Trace trace(NV_HERE);
    trace.leave();
}

P11KeyObject::P11KeyObject(const P11KeyObject& source, WithoutProperties)
    : P11Object(source), stamp_(creationStamp()), slotId_(source.slotId_), keyId_(source.keyId_),
      algorithm_(source.algorithm_), publicKey_(source.publicKey_),
      algorithmOid_(source.algorithmOid_), keyLength_(source.keyLength_),
      curveOid_(source.curveOid_), emptiesValues_(false)
{
}

// Delegates, so that the destructor runs when the copying throws.
P11KeyObject::P11KeyObject(const P11KeyObject& source) : P11KeyObject(source, WithoutProperties{})
{
    const Trace trace(NV_HERE);
    NV_TRC("Copy all the members");
    if (!source.properties_.empty()) {
        NV_TRC("Copy all the properties (%d)", static_cast<int>(source.properties_.size()));
        for (const auto& [name, property] : source.properties_) {
            // The entry first: a copy that cannot be filed would empty the value.
            const auto entry = properties_.try_emplace(name).first;
            entry->second = std::make_shared<Property>(*property);
        }
    }
    trace.leave();
}

P11KeyObject::~P11KeyObject()
{
    const Trace trace = Trace::ofCleanUp(NV_HERE);
    if (!emptiesValues_) {
        for (const auto& [name, property] : properties_) {
            if (property != nullptr)
                property->abandon();
        }
    }
    properties_.clear();
    trace.leave();
}

void P11KeyObject::addProperty(const std::wstring& name, const void* data, int32_t size,
                               IfPresent ifPresent)
{
    Trace trace(NV_HERE);
    trace.arguments(spaced(text("id", name.c_str())), spaced(pointer("data", data)),
                    spaced(number("size", size)));
    NV_TRC("Size of Properties = %d", static_cast<int>(properties_.size()));
    if (data == nullptr || size < 1) {
        NV_ERR("Failed to allocate memory");
    } else {
        auto property = std::make_shared<Property>(name, 0, data, size);
        if (ifPresent == IfPresent::replace)
            properties_.insert_or_assign(name, std::move(property));
        else
            properties_.try_emplace(name, std::move(property));
    }
    trace.leave();
}

const Property* P11KeyObject::findProperty(const std::wstring& name) const
{
    const auto entry = properties_.find(name);
    return entry != properties_.end() ? entry->second.get() : nullptr;
}

const Curve* P11KeyObject::curve() const
{
    if (algorithm_ != "ECDSA")
        return nullptr;
    return mode().tellsCurvesByIdentifier() ? findCngCurve(&Curve::oid, curveOid_)
                                            : findCngCurve(&Curve::keyLength, keyLength_);
}

Bytes P11KeyObject::tokenId() const
{
    std::string narrow;
    for (const wchar_t c : keyId_)
        narrow.push_back(static_cast<char>(c));
    return hexDecode(narrow);
}

}  // namespace NV
