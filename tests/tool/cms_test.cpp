// How a CMS signature names its certificate. tests/tool/file_commands.sh lets OpenSSL verify whole
// signatures.

#include <gtest/gtest.h>

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstddef>

#include "failure.h"
#include "formats/cms.h"
#include "formats/der.h"
#include "keystore/keystore_hash.h"

namespace NV::test {

namespace {

using namespace tool;

const Bytes issuer = derSequence({derOctets({'i', 's', 's', 'u', 'e', 'r'})});

// The beginning of a certificate, up to the issuer, with more content than a length of one byte can say.
Bytes certificateWith(const Bytes& serial, bool version)
{
    const Bytes padding = derOctets(Bytes(300, 0x55));
    const Bytes contents =
        version ? derSequence({derContext(0, derInteger(2U)), serial, issuer, padding})
                : derSequence({serial, issuer, padding});
    return derSequence({contents});
}

// The CMS of a context whose serial number lacks leading zero bytes.
Bytes cmsOf(Bytes certificate)
{
    Bytes name = issuer;
    unsigned char shortened[] = {0x01, 0x9A};
    CERT_INFO info{};
    info.SerialNumber = {sizeof shortened, shortened};
    info.Issuer = {static_cast<DWORD>(name.size()), name.data()};
    const CERT_CONTEXT context{X509_ASN_ENCODING, certificate.data(),
                               static_cast<DWORD>(certificate.size()), &info, nullptr};
    const HashAlgorithm& hash = *findHashAlgorithm(L"SHA256");
    return cmsSignature({context, hash, SignatureAlgorithm::rsaPkcs1, 0}, derSet({derNull()}),
                        Bytes(8, 0x11));
}

bool hasPart(const Bytes& whole, const Bytes& part)
{
    return std::search(whole.begin(), whole.end(), part.begin(), part.end()) != whole.end();
}

TEST(Cms, NamesTheCertificateByItsSerialNumberAsItIs)
{
    const Bytes numbers[] = {{0x02, 0x03, 0x00, 0x9A, 0x01},  // positive, with the top bit set
                             {0x02, 0x02, 0x9A, 0x01},        // negative
                             {0x02, 0x02, 0x1A, 0x01}};
    for (const Bytes& serial : numbers) {
        for (const bool version : {true, false})
            EXPECT_TRUE(
                hasPart(cmsOf(certificateWith(serial, version)), derSequence({issuer, serial})));
    }
}

TEST(Cms, RefusesADamagedCertificate)
{
    const Bytes whole = certificateWith({0x02, 0x02, 0x1A, 0x01}, true);
    for (const ptrdiff_t size : {1, 5, 12, 100})
        EXPECT_THROW(cmsOf(Bytes(whole.begin(), whole.begin() + size)), Failure) << size;
}

}  // namespace

}  // namespace NV::test
