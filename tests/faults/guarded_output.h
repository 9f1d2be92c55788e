// An output buffer with guard bytes before and behind it. Used by the tests of this folder.

#pragma once

#include <algorithm>

#include "scripted_token.h"

namespace NV::test {

class GuardedOutput {
public:
    static constexpr CK_BYTE untouched = 0xEE;

    explicit GuardedOutput(size_t room) : bytes_(guard + room + guard, untouched) {}

    CK_BYTE* data() { return bytes_.data() + guard; }
    CK_ULONG room() const { return static_cast<CK_ULONG>(bytes_.size() - 2 * guard); }

    // The output at the buffer's beginning, and every other byte as it was, guards included.
    bool holdsExactly(const Bytes& output) const
    {
        Bytes expected(bytes_.size(), untouched);
        std::ranges::copy(output, expected.begin() + guard);
        return bytes_ == expected;
    }

private:
    static constexpr std::ptrdiff_t guard = 64;

    Bytes bytes_;
};

}  // namespace NV::test
