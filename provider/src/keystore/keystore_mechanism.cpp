// The parameter block of a mechanism.

#include "keystore/keystore_mechanism.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace NV {

void OwnedMechanism::Freer::operator()(void* block) const
{
    std::free(block);
}

OwnedMechanism::Block OwnedMechanism::copyOf(const void* data, size_t size)
{
    Block block(std::malloc(size));
    if (block == nullptr)
        throw std::bad_alloc();
    std::memcpy(block.get(), data, size);
    return block;
}

}  // namespace NV
