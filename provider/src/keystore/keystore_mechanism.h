// A PKCS#11 mechanism with its parameters. The key objects make one from CNG's padding information
// and keep it until the token has done the work.

#pragma once

#include <cstddef>
#include <memory>

#include "p11/cryptoki.h"

namespace NV {

// Owns a copy of the parameters on the C heap. Destroy it only after the work call: a token may keep
// the pointer that it got from the init call. After a move, the source can only be assigned to or
// destroyed.
class OwnedMechanism {
public:
    // Without parameters.
    explicit OwnedMechanism(CK_MECHANISM_TYPE type) : mechanism_{type, nullptr, 0} {}

    // With a copy of a CK_*_PARAMS structure. What the structure points at stays the caller's. Throws
    // std::bad_alloc.
    template <typename Parameters>
    OwnedMechanism(CK_MECHANISM_TYPE type, const Parameters& parameters)
        : parameters_(copyOf(&parameters, sizeof parameters)), mechanism_{type, parameters_.get(),
                                                                          sizeof parameters}
    {
    }

    CK_MECHANISM* get() { return &mechanism_; }
    CK_MECHANISM_TYPE type() const { return mechanism_.mechanism; }

private:
    struct Freer {
        void operator()(void* block) const;
    };
    using Block = std::unique_ptr<void, Freer>;

    static Block copyOf(const void* data, size_t size);

    Block parameters_;
    CK_MECHANISM mechanism_;
};

}  // namespace NV
