// A named value of a provider or a key, which CNG's property functions return.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/secret.h"

namespace NV {

// The creation time of an object: the low 32 bits of the system clock in milliseconds.
uint32_t creationStamp();

// Compat: copies share one value buffer, and the destructor of any copy empties it. The others then
// have the name and no bytes. An application sees that after it has freed the first handle of a key.
// In modern, each copy has bytes of its own.
//
// The value is wiped when it is released: callers store PINs in properties.
class Property {
public:
    // Copies the `size` bytes at `data`. Only CNG interprets the type.
    Property(std::wstring name, uint32_t type, const void* data, int32_t size);
    Property(const Property& source);
    Property& operator=(const Property&) = delete;
    virtual ~Property();

    // Gives up the value without emptying it. Only the destructor may follow.
    void abandon() { _data.reset(); }

    const std::wstring& name() const { return _id; }
    uint32_t type() const { return _type; }
    const SecretBytes& value() const { return *_data; }
    uint32_t stamp() const { return stamp_; }

private:
    uint32_t stamp_;
    uint32_t _type;
    std::wstring _id;
    std::shared_ptr<SecretBytes> _data;
};

}  // namespace NV
