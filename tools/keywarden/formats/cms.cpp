// The structures of CMS, from the inside outwards. The names are those of RFC 5652.

#include "formats/cms.h"

#include <algorithm>
#include <span>
#include <string_view>
#include <vector>

#include "failure.h"
#include "formats/der.h"
#include "formats/hashing.h"

namespace NV::tool {

namespace {

constexpr std::string_view idData = "1.2.840.113549.1.7.1";
constexpr std::string_view idSignedData = "1.2.840.113549.1.7.2";
constexpr std::string_view idContentType = "1.2.840.113549.1.9.3";
constexpr std::string_view idMessageDigest = "1.2.840.113549.1.9.4";
constexpr std::string_view idSigningTime = "1.2.840.113549.1.9.5";
constexpr std::string_view idRsaEncryption = "1.2.840.113549.1.1.1";
constexpr std::string_view idMgf1 = "1.2.840.113549.1.1.8";
constexpr std::string_view idRsaPss = "1.2.840.113549.1.1.10";
constexpr unsigned char setTag = 0x31;
constexpr unsigned char firstContextTag = 0xA0;

struct HashOids {
    size_t size;  // of a hash value, in bytes
    std::string_view hash;
    std::string_view ecdsa;
};
constexpr HashOids hashOids[] = {
    {20, "1.3.14.3.2.26", "1.2.840.10045.4.1"},
    {32, "2.16.840.1.101.3.4.2.1", "1.2.840.10045.4.3.2"},
    {48, "2.16.840.1.101.3.4.2.2", "1.2.840.10045.4.3.3"},
    {64, "2.16.840.1.101.3.4.2.3", "1.2.840.10045.4.3.4"},
};

const HashOids& oidsOf(const HashAlgorithm& hash)
{
    const size_t size = hashSize(hash);
    for (const HashOids& row : hashOids) {
        if (row.size == size)
            return row;
    }
    return hashOids[0];
}

Bytes attributeOf(std::string_view type, const Bytes& value)
{
    return derSequence({derOid(type), derSet({value})});
}

// RFC 5754: the parameters of a hash are absent.
Bytes digestAlgorithm(const HashAlgorithm& hash)
{
    return derSequence({derOid(oidsOf(hash).hash)});
}

// RSASSA-PSS-params (RFC 4055, 3.1). DER leaves out values that are the default: SHA-1 and 20 bytes.
Bytes pssParameters(const CmsSigner& signer)
{
    constexpr size_t defaultSalt = 20;
    const Bytes hash = derSequence({derOid(oidsOf(signer.hash).hash), derNull()});
    std::vector<Bytes> members;
    if (hashSize(signer.hash) != defaultSalt) {
        members.push_back(derContext(0, hash));
        members.push_back(derContext(1, derSequence({derOid(idMgf1), hash})));
    }
    if (signer.saltSize != defaultSalt)
        members.push_back(derContext(2, derInteger(static_cast<uint32_t>(signer.saltSize))));
    return derSequence(members);
}

Bytes signatureAlgorithm(const CmsSigner& signer)
{
    switch (signer.algorithm) {
    case SignatureAlgorithm::rsaPkcs1:
        return derSequence({derOid(idRsaEncryption), derNull()});
    case SignatureAlgorithm::rsaPss:
        return derSequence({derOid(idRsaPss), pssParameters(signer)});
    case SignatureAlgorithm::ecdsa:
        break;
    }
    return derSequence({derOid(oidsOf(signer.hash).ecdsa)});
}

struct DerHead {
    size_t size = 0;     // of tag and length
    size_t content = 0;  // in bytes
};

// The head of the element at this place of the text, which is shorter than 4 GiB. Throws Failure if the text
// ends before the element does.
DerHead headAt(std::span<const BYTE> der, size_t place)
{
    constexpr unsigned char longForm = 0x80;
    const std::span<const BYTE> rest = der.subspan(std::min(place, der.size()));
    DerHead head{2, rest.size() < 2 ? 0U : rest[1]};
    if (head.content > longForm && head.content <= longForm + 4) {
        head.size += head.content - longForm;
        head.content = 0;
        for (size_t i = 2; i < std::min(head.size, rest.size()); ++i)
            head.content = (head.content << 8) | rest[i];
    }
    if (rest.size() < head.size || rest.size() - head.size < head.content)
        throw Failure("the certificate of the key is damaged");
    return head;
}

// The element with its tag as the certificate has it: the serial number of CERT_INFO may lack its leading
// zero byte, without which it would be negative.
Bytes serialNumber(const CERT_CONTEXT& certificate)
{
    constexpr unsigned char versionTag = 0xA0;
    const std::span<const BYTE> der(certificate.pbCertEncoded, certificate.cbCertEncoded);
    size_t place = headAt(der, 0).size;
    place += headAt(der, place).size;
    DerHead head = headAt(der, place);
    if (der[place] == versionTag) {
        place += head.size + head.content;
        head = headAt(der, place);
    }
    const auto serial = der.subspan(place, head.size + head.content);
    return {serial.begin(), serial.end()};
}

Bytes issuerAndSerialNumber(const CERT_CONTEXT& certificate)
{
    const CERT_NAME_BLOB& issuer = certificate.pCertInfo->Issuer;
    return derSequence(
        {Bytes(issuer.pbData, issuer.pbData + issuer.cbData), serialNumber(certificate)});
}

// The same element with an implicit context tag in place of its own.
Bytes implicit(unsigned number, Bytes element)
{
    element.front() = static_cast<unsigned char>(firstContextTag + number);
    return element;
}

Bytes signerInfo(const CmsSigner& signer, const Bytes& attributes, const Bytes& signature)
{
    return derSequence({derInteger(1U), issuerAndSerialNumber(signer.certificate),
                        digestAlgorithm(signer.hash), implicit(0, attributes),
                        signatureAlgorithm(signer), derOctets(signature)});
}

}  // namespace

Bytes cmsAttributes(const Bytes& digest, const SYSTEMTIME& time)
{
    return derSet({attributeOf(idContentType, derOid(idData)),
                   attributeOf(idMessageDigest, derOctets(digest)),
                   attributeOf(idSigningTime, derTime(time))});
}

Bytes cmsSignature(const CmsSigner& signer, const Bytes& attributes, const Bytes& signature)
{
    const Bytes certificate(signer.certificate.pbCertEncoded,
                            signer.certificate.pbCertEncoded + signer.certificate.cbCertEncoded);
    const Bytes signedData =
        derSequence({derInteger(1U), derSet({digestAlgorithm(signer.hash)}),
                     derSequence({derOid(idData)}), implicit(0, derElement(setTag, certificate)),
                     derSet({signerInfo(signer, attributes, signature)})});
    return derSequence({derOid(idSignedData), derContext(0, signedData)});
}

}  // namespace NV::tool
