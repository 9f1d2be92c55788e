// Reading the blobs, and the DER of an RSA key.

#include "keystore/imported_blob.h"

#include <bit>
#include <cstring>
#include <optional>
#include <utility>

namespace NV {

namespace {

constexpr uint32_t rsaPublicMagic = 0x31415352;  // BCRYPT_RSAPUBLIC_MAGIC
constexpr uint32_t longestModulus = 16384;       // bits; BCrypt takes no longer one

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
void appendInteger(Bytes& der, const Bytes& number)
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

ImportedRsaKey readImportedRsaBlob(std::span<const unsigned char> blob)
{
    RsaBlobHead head{};
    if (blob.size() < sizeof head)
        return {};
    std::memcpy(&head, blob.data(), sizeof head);
    if (head.magic != rsaPublicMagic || head.bitLength > longestModulus)
        return {BlobVerdict::foreign, {}};
    std::optional<RsaNumbers> numbers = readRsaBlob(blob);
    if (!numbers || head.modulusSize != (head.bitLength + 7) / 8)
        return {};
    return {BlobVerdict::accepted, *std::move(numbers)};
}

Bytes encodeRsaPublicKey(const RsaNumbers& numbers)
{
    Bytes content;
    appendInteger(content, numbers.modulus);
    appendInteger(content, numbers.exponent);
    Bytes der{0x30};
    appendLength(der, content.size());
    der.insert(der.end(), content.begin(), content.end());
    return der;
}

}  // namespace NV
