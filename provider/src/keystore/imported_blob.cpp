// Reading the blobs, and the DER of an RSA key.

#include "keystore/imported_blob.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "keystore/keystore_blob.h"

namespace NV {

namespace {

constexpr uint32_t rsaPublicMagic = 0x31415352;  // BCRYPT_RSAPUBLIC_MAGIC
constexpr uint32_t longestModulus = 16384;       // bits; BCrypt takes no longer one

std::span<const unsigned char> withoutLeadingZeros(std::span<const unsigned char> number)
{
    const auto first = std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; });
    return {first, number.end()};
}

void appendLength(Bytes& der, size_t length)
{
    if (length < 0x80) {
        der.push_back(static_cast<unsigned char>(length));
        return;
    }
    const auto bytes = static_cast<unsigned>((std::bit_width(length) + 7) / 8);
    der.push_back(static_cast<unsigned char>(0x80 | bytes));
    for (unsigned i = bytes; i-- > 0;)
        der.push_back(static_cast<unsigned char>(length >> (8 * i)));
}

// A number that is not negative: a zero comes before a first byte whose highest bit is set.
void appendInteger(Bytes& der, std::span<const unsigned char> number)
{
    const bool zero = number.front() > 0x7F;
    der.push_back(0x02);
    appendLength(der, number.size() + (zero ? 1 : 0));
    if (zero)
        der.push_back(0);
    der.insert(der.end(), number.begin(), number.end());
}

}  // namespace

ImportedEccKey readImportedEccBlob(std::span<const unsigned char> blob)
{
    if (blob.size() < sizeof(EccBlobHead))
        return {};
    const EccBlob read = readEccBlob(blob);
    if (read.curve == nullptr)
        return {BlobVerdict::foreign, nullptr, {}};
    if (read.coordinateSize != read.curve->coordinateSize() || !read.coordinates)
        return {};
    return {BlobVerdict::accepted, read.curve, *read.coordinates};
}

uint32_t ImportedRsaKey::bits() const
{
    return static_cast<uint32_t>(8 * (modulus.size() - 1)) +
           static_cast<uint32_t>(std::bit_width(modulus.front()));
}

ImportedRsaKey readImportedRsaBlob(std::span<const unsigned char> blob)
{
    RsaBlobHead head{};
    if (blob.size() < sizeof head)
        return {};
    std::memcpy(&head, blob.data(), sizeof head);
    if (head.magic != rsaPublicMagic || head.bitLength > longestModulus)
        return {BlobVerdict::foreign, {}, {}};
    const auto numbers = blob.subspan(sizeof head);
    const uint64_t size = uint64_t{head.exponentSize} + head.modulusSize;
    if (size > numbers.size() || head.modulusSize != (head.bitLength + 7) / 8)
        return {};
    ImportedRsaKey key;
    key.exponent = withoutLeadingZeros(numbers.first(head.exponentSize));
    key.modulus = withoutLeadingZeros(numbers.subspan(head.exponentSize, head.modulusSize));
    if (!key.exponent.empty() && !key.modulus.empty())
        key.verdict = BlobVerdict::accepted;
    return key;
}

Bytes encodeRsaPublicKey(std::span<const unsigned char> modulus,
                         std::span<const unsigned char> exponent)
{
    Bytes numbers;
    appendInteger(numbers, modulus);
    appendInteger(numbers, exponent);
    Bytes der{0x30};
    appendLength(der, numbers.size());
    der.insert(der.end(), numbers.begin(), numbers.end());
    return der;
}

}  // namespace NV
