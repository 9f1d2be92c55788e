// Makes certificates from those of the fixtures, and tokens that contain them.

#include "certified_token.h"

#include "base/cng.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include <wincrypt.h>

#include "base/encoding.h"
#include "config/config.h"
#include "folder.h"
#include "logger/logger.h"

namespace NV::bench {

namespace {

constexpr size_t variedBytes = 8;
constexpr size_t idBytes = 20;  // as long as a SHA-1 digest, which many tokens take

// A bijection that removes any order: one step of splitmix64.
uint64_t mixed(uint64_t number)
{
    uint64_t value = number + 0x9E3779B97F4A7C15;
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

void writeNumber(Bytes& bytes, size_t offset, uint64_t value)
{
    for (size_t i = 0; i < variedBytes; ++i)
        bytes[offset + i] = static_cast<unsigned char>(value >> 8 * i);
}

// The position of the part in the whole, which must contain it.
size_t offsetOf(const Bytes& part, const Bytes& whole)
{
    const auto found = std::search(whole.begin(), whole.end(), part.begin(), part.end());
    if (found == whole.end())
        throw std::runtime_error("a fixture's certificate is not as expected");
    return static_cast<size_t>(found - whole.begin());
}

std::string fixtureFile(const std::string& name)
{
    const std::filesystem::path programFolder(test::widePathBesideTest(L""));
    return test::readFile(programFolder.parent_path().parent_path() / "fixtures" / name);
}

struct ContextFreer {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using Context = std::unique_ptr<const CERT_CONTEXT, ContextFreer>;

Context parsed(const Bytes& der)
{
    Context context(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                 static_cast<DWORD>(der.size())));
    if (context == nullptr)
        throw std::runtime_error("the system does not read the certificate");
    return context;
}

// A certificate of the fixtures, with the places in which its copies differ.
class Pattern {
public:
    explicit Pattern(const std::string& name)
    {
        const std::string content = fixtureFile(name + ".der");
        der_.assign(content.begin(), content.end());
        const Bytes key = hexDecode(fixtureFile(name + ".spki.hex"));
        // Inside the modulus, and inside a coordinate: 32 bytes before the key's end.
        key_ = offsetOf(key, der_) + key.size() - 32;
        const Context context = parsed(der_);
        const CRYPT_INTEGER_BLOB& serial = context->pCertInfo->SerialNumber;
        Bytes number(serial.pbData, serial.pbData + serial.cbData);
        std::ranges::reverse(number);
        serial_ = offsetOf(number, der_) + number.size() - variedBytes;
    }

    Bytes copy(uint64_t number) const
    {
        Bytes der = der_;
        writeNumber(der, key_, number);
        writeNumber(der, serial_, number);
        return der;
    }

private:
    Bytes der_;
    size_t key_ = 0;
    size_t serial_ = 0;
};

Bytes keyId(size_t number)
{
    Bytes id(idBytes, 0x5A);
    writeNumber(id, 0, mixed(number));
    return id;
}

std::filesystem::path copiedLibrary(const std::filesystem::path& folder, size_t certificates)
{
    std::filesystem::path file = folder / ("token-of-" + std::to_string(certificates) + ".dll");
    std::filesystem::copy_file(test::ScriptedToken::widePath(), file);
    return file;
}

}  // namespace

CertifiedToken::CertifiedToken(const std::filesystem::path& folder, size_t certificates)
    : certificates_(certificates), library_(copiedLibrary(folder, certificates)),
      token_(library_.wstring()),
      configuration_(folder / ("provider-" + std::to_string(certificates) + ".conf"))
{
    static const Pattern patterns[] = {Pattern("rsa2048"), Pattern("p256")};
    for (size_t i = 0; i < certificates; ++i) {
        const Bytes der = patterns[i % std::size(patterns)].copy(mixed(i));
        parsed(der);
        token_.addCertificate(keyId(i), der);
    }
    token_.setRecording(false);
    test::writeFile(configuration_, "p11File=" + test::narrowPath(library_) + "\n");
}

void CertifiedToken::choose() const
{
    loggerSettings().types = 0;
    Config::instance().load(test::narrowPath(configuration_));
}

std::wstring CertifiedToken::keyName(size_t number)
{
    const std::string name = hexEncode(keyId(number));
    return {name.begin(), name.end()};
}

}  // namespace NV::bench
