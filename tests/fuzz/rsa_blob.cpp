// The legacy blob of an RSA public key, as the system's certificate functions return it, and the
// CNG blob that is made from it.

#include "keystore/keystore_blob.h"
#include "target.h"

namespace NV::fuzz {

namespace {

void checkBlob(const Bytes& legacy, const Bytes& blob)
{
    const uint32_t modulusSize = numberAt(legacy, 12) / 8;
    if (legacy.size() - 20 < modulusSize) {
        HOLDS(blob.empty());
        return;
    }
    HOLDS(blob.size() == size_t{27} + modulusSize);
    HOLDS(numberAt(blob, 0) == numberAt(legacy, 8));
    HOLDS(numberAt(blob, 4) == numberAt(legacy, 12));
    HOLDS(numberAt(blob, 8) == 3);
    HOLDS(numberAt(blob, 12) == modulusSize);
    HOLDS(numberAt(blob, 16) == 0 && numberAt(blob, 20) == 0);
    HOLDS(blob[24] == 1 && blob[25] == 0 && blob[26] == 1);
    for (size_t i = 0; i < modulusSize; ++i)
        HOLDS(blob[27 + i] == legacy[20 + modulusSize - 1 - i]);
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    const NV::Bytes legacy = Input(data, size).rest();
    const auto head = NV::readLegacyRsaHead(legacy);
    HOLDS(head.has_value() == (legacy.size() >= 20));
    if (!head)
        return 0;
    HOLDS(head->magic == numberAt(legacy, 8));
    HOLDS(head->bitLength == numberAt(legacy, 12));
    HOLDS(head->exponent == numberAt(legacy, 16));
    HOLDS(head->modulusSize() == numberAt(legacy, 12) / 8);
    checkBlob(legacy, NV::rsaPublicKeyBlob(*head, legacy));
    return 0;
}
