// The blobs that an application imports with the modern behaviour, and the DER of an imported RSA key.

#include "keystore/imported_blob.h"
#include "target.h"

namespace NV::fuzz {

namespace {

uint32_t coordinateSizeOf(uint32_t magic)
{
    switch (magic) {
    case 0x314B4345:  // ECK1
        return 32;
    case 0x334B4345:
        return 48;
    case 0x354B4345:
        return 66;
    default:
        return 0;
    }
}

BlobVerdict expectedOfEcc(const Bytes& blob)
{
    if (blob.size() < 8)
        return BlobVerdict::damaged;
    const uint32_t size = coordinateSizeOf(numberAt(blob, 0));
    if (size == 0)
        return BlobVerdict::foreign;
    return numberAt(blob, 4) == size && blob.size() >= 8 + 2 * size_t{size} ? BlobVerdict::accepted
                                                                            : BlobVerdict::damaged;
}

void checkEcc(const Bytes& blob)
{
    const ImportedEccKey key = readImportedEccBlob(blob);
    HOLDS(key.verdict == expectedOfEcc(blob));
    if (key.verdict != BlobVerdict::accepted)
        return;
    HOLDS(key.curve->ecdhMagic == numberAt(blob, 0));
    HOLDS(key.coordinates.data() == blob.data() + 8);
    HOLDS(key.coordinates.size() == 2 * size_t{key.curve->coordinateSize()});
}

bool hasNonZero(const Bytes& blob, uint64_t begin, uint64_t size)
{
    for (uint64_t i = begin; i < begin + size; ++i) {
        if (blob[i] != 0)
            return true;
    }
    return false;
}

BlobVerdict expectedOfRsa(const Bytes& blob)
{
    if (blob.size() < 24)
        return BlobVerdict::damaged;
    const uint32_t bits = numberAt(blob, 4);
    if (numberAt(blob, 0) != 0x31415352 || bits > 16384)
        return BlobVerdict::foreign;
    const uint64_t exponent = numberAt(blob, 8);
    const uint64_t modulus = numberAt(blob, 12);
    const bool whole = 24 + exponent + modulus <= blob.size();
    return whole && modulus == (bits + 7) / 8 && hasNonZero(blob, 24, exponent) &&
                   hasNonZero(blob, 24 + exponent, modulus)
               ? BlobVerdict::accepted
               : BlobVerdict::damaged;
}

// Takes the length and the content of an element from the beginning of the DER.
Bytes takeElement(Bytes& der, unsigned char tag)
{
    HOLDS(der.size() >= 2 && der[0] == tag);
    size_t length = der[1];
    size_t head = 2;
    if (length > 0x80) {
        const size_t count = length - 0x80;
        HOLDS(count <= 4 && der.size() >= 2 + count);
        length = 0;
        for (size_t i = 0; i < count; ++i)
            length = length << 8 | der[2 + i];
        // The shortest form.
        HOLDS(length > 0x7F && der[2] != 0);
        head += count;
    }
    HOLDS(der.size() >= head + length);
    const auto begin = der.begin() + static_cast<std::ptrdiff_t>(head);
    Bytes content(begin, begin + static_cast<std::ptrdiff_t>(length));
    der.erase(der.begin(), begin + static_cast<std::ptrdiff_t>(length));
    return content;
}

Bytes positive(Bytes integer)
{
    HOLDS(!integer.empty() && integer[0] < 0x80);
    if (integer[0] == 0 && integer.size() > 1) {
        HOLDS(integer[1] > 0x7F);
        integer.erase(integer.begin());
    }
    return integer;
}

void checkRsa(const Bytes& blob)
{
    const ImportedRsaKey key = readImportedRsaBlob(blob);
    HOLDS(key.verdict == expectedOfRsa(blob));
    if (key.verdict != BlobVerdict::accepted)
        return;
    HOLDS(key.numbers.bits() <= numberAt(blob, 4) + 7);
    Bytes der = encodeRsaPublicKey(key.numbers);
    Bytes numbers = takeElement(der, 0x30);
    HOLDS(der.empty());
    HOLDS(positive(takeElement(numbers, 0x02)) == key.numbers.modulus);
    HOLDS(positive(takeElement(numbers, 0x02)) == key.numbers.exponent);
    HOLDS(numbers.empty());
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    const NV::Bytes blob = Input(data, size).rest();
    checkEcc(blob);
    checkRsa(blob);
    return 0;
}
