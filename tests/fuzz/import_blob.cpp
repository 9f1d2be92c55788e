// The blob that an application imports as a public key.

#include "keystore/keystore_blob.h"
#include "target.h"

namespace NV::fuzz {

namespace {

uint32_t expectedKeyLength(uint32_t magic)
{
    switch (magic) {
    case 0x314B4345:  // ECK1
        return 256;
    case 0x334B4345:
        return 384;
    case 0x354B4345:
        return 521;
    default:
        return 0;
    }
}

// Both coordinates are inside the blob, after its header, and can be separated again.
void checkCoordinates(const Bytes& blob, std::span<const unsigned char> coordinates)
{
    const size_t size = numberAt(blob, 4);
    HOLDS(coordinates.size() == 2 * size);
    HOLDS(coordinates.data() == blob.data() + 8);
    HOLDS(coordinates.size() <= blob.size() - 8);

    const Bytes point = uncompressedPoint(coordinates);
    HOLDS(point.size() == 1 + 2 * size && point[0] == 4);
    const PointCoordinates split = splitPoint(base64Decode(base64Encode(point)), size);
    HOLDS(split.x.size() == size && split.y.size() == size);
    for (size_t i = 0; i < size; ++i)
        HOLDS(split.x[i] == blob[8 + i] && split.y[i] == blob[8 + size + i]);
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    const NV::Bytes blob = Input(data, size).rest();
    const NV::EccBlob key = NV::readEccBlob(blob);

    const uint32_t keyLength = blob.size() < 4 ? 0 : expectedKeyLength(numberAt(blob, 0));
    HOLDS((key.curve != nullptr) == (keyLength != 0));
    HOLDS(key.curve == nullptr || key.curve->keyLength == keyLength);
    for (size_t i = 4; i < 8; ++i)
        HOLDS((key.coordinateSize >> (8 * (i - 4)) & 0xFF) == (i < blob.size() ? blob[i] : 0));
    const bool whole = blob.size() >= 8 && 8 + 2 * uint64_t{numberAt(blob, 4)} <= blob.size();
    HOLDS(key.coordinates.has_value() == whole);
    if (key.coordinates)
        checkCoordinates(blob, *key.coordinates);
    return 0;
}
