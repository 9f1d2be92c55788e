// Making blobs, and what is wrong with them.

#include "import_blob.h"

#include <algorithm>
#include <iterator>

#include "base/curve.h"
#include "keystore/keystore_blob.h"
#include "operations.h"

namespace NV::fuzz {

namespace {

// What is wrong, by the upper half of an operand. The rest is nothing.
enum Fault : uint8_t { cutShort = 8, tooLong, none, moreThanThereIs, bytesBehind, partOfHead };

template <typename Head>
Bytes bytesOfHead(const Head& head)
{
    const auto* const begin = reinterpret_cast<const unsigned char*>(&head);
    return {begin, begin + sizeof head};
}

void append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

const Bytes exponent{0x01, 0x00, 0x01};

// As a certificate has it. The modulus is of 64 or 128 bytes, and its highest bit is set.
Bytes rsaPublicKey(const Bytes& modulus)
{
    Bytes der = modulus.size() == 64 ? Bytes{0x30, 0x48, 0x02, 0x41, 0x00}
                                     : Bytes{0x30, 0x81, 0x89, 0x02, 0x81, 0x81, 0x00};
    append(der, modulus);
    append(der, {0x02, 0x03});
    append(der, exponent);
    return der;
}

}  // namespace

ImportBlob::ImportBlob(uint8_t form, uint8_t fill)
{
    constexpr ULONG magics[] = {BCRYPT_ECDH_PUBLIC_P256_MAGIC, BCRYPT_ECDH_PUBLIC_P384_MAGIC,
                                BCRYPT_ECDH_PUBLIC_P521_MAGIC, BCRYPT_ECDSA_PUBLIC_P256_MAGIC,
                                BCRYPT_RSAPUBLIC_MAGIC};
    const ULONG magic = magics[form % 16 < 12 ? form % 3 : form % std::size(magics)];
    rsa_ = rules.checksBlobs && (magic == BCRYPT_RSAPUBLIC_MAGIC || form % 16 == 14);
    if (rsa_)
        makeRsa(form / 16, fill);
    else
        makeEc(magic, form / 16, fill);
}

SECURITY_STATUS ImportBlob::statusAs(std::wstring_view type) const
{
    const bool asRsa = type == BCRYPT_RSAPUBLIC_BLOB;
    if (bytes_.size() < (asRsa ? sizeof(RsaBlobHead) : sizeof(EccBlobHead)))
        return NTE_BAD_DATA;
    if (asRsa != rsa_ || foreign_)
        return NTE_NOT_SUPPORTED;
    return key_ ? ERROR_SUCCESS : NTE_BAD_DATA;
}

void ImportBlob::makeEc(ULONG magic, uint8_t fault, uint8_t fill)
{
    const Curve* const curve = findCngCurve(&Curve::ecdhMagic, magic);
    foreign_ = curve == nullptr;
    EccBlobHead head{magic, curve != nullptr ? curve->coordinateSize() : 32};
    size_t size = size_t{2} * head.coordinateSize;
    switch (fault) {
    case cutShort:
        --size;
        break;
    case tooLong:  // coordinates longer than the curve's
        head.coordinateSize += 5;
        size += 10;
        break;
    case none:
        head.coordinateSize = 0;
        break;
    case moreThanThereIs:
        head.coordinateSize = 0x80000000;
        break;
    case bytesBehind:
        size += 3;
        break;
    default:
        break;
    }
    const Bytes coordinates = someBytes(size, fill);
    bytes_ = bytesOfHead(head);
    append(bytes_, coordinates);
    if (fault == partOfHead)
        bytes_.resize(fill % sizeof head);
    const size_t wanted = size_t{2} * head.coordinateSize;
    if (curve == nullptr || fault == partOfHead || coordinates.size() < wanted)
        return;
    if (rules.checksBlobs && head.coordinateSize != curve->coordinateSize())
        return;
    key_ = KeyFacts{.bits = curve->keyLength, .publicKey = {0x04}};
    append(key_->publicKey,
           {coordinates.begin(), coordinates.begin() + static_cast<std::ptrdiff_t>(wanted)});
}

void ImportBlob::makeRsa(uint8_t fault, uint8_t fill)
{
    Bytes modulus = someBytes(fill % 2 == 0 ? 64 : 128, fill);
    modulus.front() |= 0x80;
    modulus.back() |= 0x01;
    const auto size = sizeOf(modulus);
    RsaBlobHead head{BCRYPT_RSAPUBLIC_MAGIC, 8 * size, sizeOf(exponent), size, 0, 0};
    if (fault == tooLong)
        head.bitLength = 8 * 2048 + 8;
    if (fault == none)
        head.modulusSize = 0;
    if (fault == moreThanThereIs)
        head.exponentSize = 0xFFFFFFFF;
    foreign_ = fault == tooLong;
    bytes_ = bytesOfHead(head);
    append(bytes_, exponent);
    append(bytes_, modulus);
    if (fault == cutShort)
        bytes_.pop_back();
    if (fault == bytesBehind)
        append(bytes_, {1, 2, 3});
    if (fault == partOfHead)
        bytes_.resize(fill % sizeof head);
    if (fault < cutShort || fault == bytesBehind || fault > partOfHead)
        key_ = KeyFacts{.rsa = true, .bits = 8 * size, .publicKey = rsaPublicKey(modulus)};
}

}  // namespace NV::fuzz
