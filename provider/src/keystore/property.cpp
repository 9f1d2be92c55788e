// Making, copying and emptying a property.

#include "keystore/property.h"

#include <chrono>
#include <utility>

#include "base/text.h"
#include "config/mode.h"
#include "logger/trace.h"

namespace NV {

uint32_t creationStamp()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

Property::Property(std::wstring name, uint32_t type, const void* data, int32_t size)
    : stamp_(creationStamp()), _type(type), _id(std::move(name)),
      _data(std::make_shared<SecretBytes>(static_cast<const unsigned char*>(data),
                                          static_cast<const unsigned char*>(data) + size))
{
}

Property::Property(const Property& source)
    : stamp_(creationStamp()), _type(source._type), _id(source._id),
      _data(mode().sharesPropertyValues() ? source._data
                                          : std::make_shared<SecretBytes>(*source._data))
{
    NV_TRC("src._id = %s", toUtf8(source._id).c_str());
    NV_TRC("src._type = %d", static_cast<int>(source._type));
    NV_TRC("src._data = %d (bytes)", static_cast<int>(source._data->size()));
}

Property::~Property()
{
    // Unlike clear, this releases the bytes, and so wipes them.
    if (_data != nullptr)
        SecretBytes().swap(*_data);
}

}  // namespace NV
