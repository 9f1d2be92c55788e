// Bytes put together from pieces. For the tests of formats.

#pragma once

#include <initializer_list>

#include "base/encoding.h"

namespace NV::test {

inline Bytes joined(std::initializer_list<Bytes> pieces)
{
    Bytes whole;
    for (const Bytes& piece : pieces)
        whole.insert(whole.end(), piece.begin(), piece.end());
    return whole;
}

}  // namespace NV::test
