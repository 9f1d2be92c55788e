// Reading and building public key blobs.

#include "keystore/keystore_blob.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace NV {

namespace {

static_assert(std::endian::native == std::endian::little, "the heads are copied as they lie");
static_assert(sizeof(EccBlobHead) == 8);
static_assert(sizeof(LegacyRsaHead) == 20 && sizeof(RsaBlobHead) == 24);

constexpr unsigned char uncompressedMark = 0x04;

// BCRYPT_RSAPUBLIC_MAGIC, of both blobs of an RSA public key; PUBLICKEYBLOB, CUR_BLOB_VERSION and
// CALG_RSA_KEYX.
constexpr uint32_t rsaMagic = 0x31415352;
constexpr uint8_t legacyPublicKey = 6;
constexpr uint8_t legacyVersion = 2;
constexpr uint32_t legacyKeyExchange = 0xA400;

// The first bytes as a record. If there are too few, the rest of the record is zero.
template <typename Record>
Record beginningOf(std::span<const unsigned char> bytes)
{
    Record record{};
    if (!bytes.empty())
        std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

// A big-endian number from its first byte that is not zero.
Bytes withoutZeros(std::span<const unsigned char> number)
{
    const auto first = std::ranges::find_if(number, [](unsigned char byte) { return byte != 0; });
    return {first, number.end()};
}

template <typename Record>
void append(Bytes& bytes, const Record& record)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(&record);
    bytes.insert(bytes.end(), begin, begin + sizeof record);
}

}  // namespace

EccBlob readEccBlob(std::span<const unsigned char> blob)
{
    // The curve is reported even for a blob that ends after the magic.
    const auto head = beginningOf<EccBlobHead>(blob);
    EccBlob key;
    key.coordinateSize = head.coordinateSize;
    if (blob.size() >= sizeof head.magic)
        key.curve = findCngCurve(&Curve::ecdhMagic, head.magic);
    if (blob.size() >= sizeof head && (blob.size() - sizeof head) / 2 >= head.coordinateSize)
        key.coordinates = blob.subspan(sizeof head, 2 * size_t{head.coordinateSize});
    return key;
}

Bytes uncompressedPoint(std::span<const unsigned char> coordinates)
{
    Bytes point;
    point.reserve(1 + coordinates.size());
    point.push_back(uncompressedMark);
    point.insert(point.end(), coordinates.begin(), coordinates.end());
    return point;
}

PointCoordinates splitPoint(std::span<const unsigned char> point, size_t coordinateSize)
{
    if (point.size() < 1 + 2 * coordinateSize || point.front() != uncompressedMark)
        return {};
    const auto x = point.subspan(1, coordinateSize);
    const auto y = point.subspan(1 + coordinateSize, coordinateSize);
    return {Bytes(x.begin(), x.end()), Bytes(y.begin(), y.end())};
}

std::optional<LegacyRsaHead> readLegacyRsaHead(std::span<const unsigned char> legacy)
{
    if (legacy.size() < sizeof(LegacyRsaHead))
        return std::nullopt;
    return beginningOf<LegacyRsaHead>(legacy);
}

Bytes rsaPublicKeyBlob(const LegacyRsaHead& head, std::span<const unsigned char> legacy)
{
    const uint32_t modulusSize = head.modulusSize();
    if (legacy.size() < sizeof head || legacy.size() - sizeof head < modulusSize)
        return {};
    // Compat: the exponent is always written as 65537; the key's own is only logged.
    const unsigned char exponent[] = {0x01, 0x00, 0x01};
    Bytes blob;
    append(blob, RsaBlobHead{head.magic, head.bitLength, sizeof exponent, modulusSize, 0, 0});
    append(blob, exponent);
    const auto modulus = legacy.subspan(sizeof head, modulusSize);
    blob.insert(blob.end(), modulus.rbegin(), modulus.rend());
    return blob;
}

uint32_t RsaNumbers::bits() const
{
    if (modulus.empty())
        return 0;
    return static_cast<uint32_t>(8 * modulus.size()) -
           static_cast<uint32_t>(std::countl_zero(modulus.front()));
}

std::optional<RsaNumbers> readRsaBlob(std::span<const unsigned char> blob)
{
    const auto head = beginningOf<RsaBlobHead>(blob);
    if (blob.size() < sizeof head || head.magic != rsaMagic)
        return std::nullopt;
    const auto rest = blob.subspan(sizeof head);
    if (rest.size() < uint64_t{head.exponentSize} + head.modulusSize)
        return std::nullopt;
    RsaNumbers numbers{withoutZeros(rest.subspan(head.exponentSize, head.modulusSize)),
                       withoutZeros(rest.first(head.exponentSize))};
    if (numbers.modulus.empty() || numbers.exponent.empty())
        return std::nullopt;
    return numbers;
}

Bytes rsaBlob(const RsaNumbers& numbers)
{
    const auto& [modulus, exponent] = numbers;
    Bytes blob;
    append(blob, RsaBlobHead{rsaMagic, numbers.bits(), static_cast<uint32_t>(exponent.size()),
                             static_cast<uint32_t>(modulus.size()), 0, 0});
    blob.insert(blob.end(), exponent.begin(), exponent.end());
    blob.insert(blob.end(), modulus.begin(), modulus.end());
    return blob;
}

Bytes legacyRsaBlob(const RsaNumbers& numbers)
{
    const auto& [modulus, exponent] = numbers;
    if (exponent.size() > sizeof LegacyRsaHead::exponent)
        return {};
    uint32_t number = 0;
    for (const unsigned char byte : exponent)
        number = number << 8 | byte;
    Bytes blob;
    // The length is that of whole bytes: CryptoAPI takes the size of the modulus from it.
    append(blob, LegacyRsaHead{legacyPublicKey, legacyVersion, 0, legacyKeyExchange, rsaMagic,
                               static_cast<uint32_t>(8 * modulus.size()), number});
    blob.insert(blob.end(), modulus.rbegin(), modulus.rend());
    return blob;
}

}  // namespace NV
