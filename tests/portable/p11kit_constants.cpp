// p11-kit's constants as a table.

#include "p11kit_constants.h"

#include <p11-kit/pkcs11.h>

#include <p11-kit/pkcs11x.h>

namespace NV::test {

namespace {

// The header's values are unsigned long, some made with casts of C.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#define NV_TEST_ROW(name) {#name, static_cast<uint32_t>(name)},
constexpr P11KitConstant constants[] = {
#include "p11kit_names.inc"
};
#undef NV_TEST_ROW
#pragma GCC diagnostic pop

}  // namespace

std::span<const P11KitConstant> p11kitConstants()
{
    return constants;
}

}  // namespace NV::test
