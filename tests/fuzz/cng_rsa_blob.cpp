// CNG's blob of an RSA public key, as the system's certificate functions return it, and the blobs that
// are made from its numbers.

#include <optional>

#include "keystore/keystore_blob.h"
#include "target.h"

namespace NV::fuzz {

namespace {

constexpr size_t headSize = 24;

// The same, byte by byte from the end: nothing for a blob that is not whole.
std::optional<RsaNumbers> simpleReader(const Bytes& blob)
{
    if (blob.size() < headSize || numberAt(blob, 0) != 0x31415352)
        return std::nullopt;
    const uint64_t exponentSize = numberAt(blob, 8);
    const uint64_t modulusSize = numberAt(blob, 12);
    if (blob.size() - headSize < exponentSize + modulusSize)
        return std::nullopt;
    RsaNumbers numbers;
    for (uint64_t i = 0; i < exponentSize + modulusSize; ++i) {
        Bytes& number = i < exponentSize ? numbers.exponent : numbers.modulus;
        const unsigned char byte = blob[headSize + i];
        if (byte != 0 || !number.empty())
            number.push_back(byte);
    }
    if (numbers.exponent.empty() || numbers.modulus.empty())
        return std::nullopt;
    return numbers;
}

void checkBlobs(const RsaNumbers& numbers)
{
    const uint32_t bits = numbers.bits();
    const auto modulusBits = static_cast<uint32_t>(8 * numbers.modulus.size());
    HOLDS(bits <= modulusBits && bits + 8 > modulusBits);
    HOLDS(numbers.modulus.front() >> ((bits - 1) % 8) == 1);

    const Bytes blob = rsaBlob(numbers);
    HOLDS(numberAt(blob, 4) == bits);
    const auto again = readRsaBlob(blob);
    HOLDS(again && again->modulus == numbers.modulus && again->exponent == numbers.exponent);

    const Bytes legacy = legacyRsaBlob(numbers);
    HOLDS(legacy.empty() == (numbers.exponent.size() > 4));
    if (legacy.empty())
        return;
    const auto head = readLegacyRsaHead(legacy);
    HOLDS(head && head->modulusSize() == numbers.modulus.size());
    HOLDS(legacy.size() == sizeof *head + numbers.modulus.size());
    uint32_t exponent = 0;
    for (const unsigned char byte : numbers.exponent)
        exponent = exponent * 256 + byte;
    HOLDS(head->exponent == exponent);
    HOLDS(std::equal(numbers.modulus.rbegin(), numbers.modulus.rend(), legacy.begin() + 20));
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    const NV::Bytes blob = Input(data, size).rest();
    const auto numbers = NV::readRsaBlob(blob);
    const auto expected = simpleReader(blob);
    HOLDS(numbers.has_value() == expected.has_value());
    if (!numbers)
        return 0;
    HOLDS(numbers->modulus == expected->modulus && numbers->exponent == expected->exponent);
    checkBlobs(*numbers);
    return 0;
}
