// Opens the provider on the token of the tests and runs its operations.

#include "token_test.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>

#include "host.h"

namespace NV::test {

namespace {

constexpr unsigned char untouched = 0xA5;
constexpr size_t guardSize = 16;

// A buffer for an operation, with guard bytes after its given size.
class GuardedBuffer {
public:
    explicit GuardedBuffer(DWORD size) : size_(size), bytes_(size + guardSize, untouched) {}

    PBYTE data() { return bytes_.data(); }
    DWORD size() const { return size_; }

    // The first bytes, after a check of those after the size and after the output.
    Bytes content(DWORD written) const
    {
        const size_t end = std::min(written, size_);
        EXPECT_LE(written, size_);
        EXPECT_TRUE(std::all_of(bytes_.begin() + size_, bytes_.end(), [](unsigned char byte) {
            return byte == untouched;
        })) << "written past the end of the buffer";
        return {bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(end)};
    }

private:
    DWORD size_;
    Bytes bytes_;
};

PBYTE in(const Bytes& bytes)
{
    // CNG takes input through a pointer to non-const.
    return const_cast<PBYTE>(bytes.data());
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

}  // namespace

std::string tokenFolder()
{
    const char* other = std::getenv("KEYWARDEN_TOKEN_FOLDER");
    return other != nullptr ? other : NV_TEST_TOKEN_FOLDER;
}

std::string tokenFolderWithoutPublicKeys()
{
    return tokenFolder() + "-without-public-keys";
}

// A copy, because SoftHSM2 writes to its files at every login, and a process that reads them at
// that moment may find half of a token.
TokenProfile::TokenProfile(const std::string& made, Behaviour behaviour)
{
    const std::string tokens = host::quoted(made + "/tokens");
    const std::string folder = host::unixPath(token_.path());
    if (host::run("cp -r " + tokens + " " + host::quoted(folder)) != 0)
        throw std::runtime_error("no token: run tests/support/fixtures/make-token.sh " + made);
    writeFile(token_.path() / "softhsm2.conf", "directories.tokendir = " + folder +
                                                   "/tokens\n"
                                                   "objectstore.backend = file\n"
                                                   "log.level = ERROR\n"
                                                   "slots.removable = false\n");
    host::setEnvironment("SOFTHSM2_CONF", folder + "/softhsm2.conf");
    if (behaviour == Behaviour::modern)
        profile_.writeModernConfigFor(host::winelibPath("p11bridge.dll"));
    else
        profile_.writeConfigFor(host::winelibPath("p11bridge.dll"));
}

OpenedKey::OpenedKey(const ProviderModule& module, NCRYPT_PROV_HANDLE provider, const wchar_t* name)
    : module_(module), provider_(provider)
{
    EXPECT_EQ(module_->OpenKey(provider_, &handle_, name, 0, 0), ERROR_SUCCESS);
}

OpenedKey::~OpenedKey()
{
    EXPECT_EQ(module_->FreeKey(provider_, handle_), ERROR_SUCCESS);
}

DWORD OpenedKey::signatureLength(Padding padding, const Bytes& hash) const
{
    DWORD length = 0;
    EXPECT_EQ(module_->SignHash(provider_, handle_, padding.information(), in(hash), sizeOf(hash),
                                nullptr, 0, &length, padding.flags()),
              ERROR_SUCCESS);
    return length;
}

Outcome OpenedKey::sign(Padding padding, const Bytes& hash,
                        const DialogDriver::Script& dialog) const
{
    return signInto(signatureLength(padding, hash), padding, hash, dialog);
}

Outcome OpenedKey::signInto(DWORD cbSignature, Padding padding, const Bytes& hash,
                            const DialogDriver::Script& dialog) const
{
    GuardedBuffer signature(cbSignature);
    DWORD length = 0;
    const DialogDriver user(dialog);
    const SECURITY_STATUS status =
        module_->SignHash(provider_, handle_, padding.information(), in(hash), sizeOf(hash),
                          signature.data(), signature.size(), &length, padding.flags());
    return {status, signature.content(length)};
}

SECURITY_STATUS OpenedKey::verify(Padding padding, const Bytes& hash, const Bytes& signature) const
{
    return module_->VerifySignature(provider_, handle_, padding.information(), in(hash),
                                    sizeOf(hash), in(signature), sizeOf(signature),
                                    padding.flags());
}

Outcome OpenedKey::encrypt(Padding padding, const Bytes& plain) const
{
    DWORD length = 0;
    const SECURITY_STATUS query =
        module_->Encrypt(provider_, handle_, in(plain), sizeOf(plain), padding.information(),
                         nullptr, 0, &length, padding.flags());
    if (query != ERROR_SUCCESS)
        return {query, {}};
    GuardedBuffer cipher(length);
    const SECURITY_STATUS status =
        module_->Encrypt(provider_, handle_, in(plain), sizeOf(plain), padding.information(),
                         cipher.data(), cipher.size(), &length, padding.flags());
    return {status, status == ERROR_SUCCESS ? cipher.content(length) : Bytes{}};
}

Outcome OpenedKey::decrypt(Padding padding, const Bytes& cipher, DWORD cbOutput,
                           const DialogDriver::Script& dialog) const
{
    GuardedBuffer plain(cbOutput);
    DWORD length = 0;
    const DialogDriver user(dialog);
    const SECURITY_STATUS status =
        module_->Decrypt(provider_, handle_, in(cipher), sizeOf(cipher), padding.information(),
                         plain.data(), plain.size(), &length, padding.flags());
    return {status, plain.content(length)};
}

Outcome OpenedKey::exported(const wchar_t* blobType) const
{
    DWORD length = 0;
    const SECURITY_STATUS query =
        module_->ExportKey(provider_, handle_, 0, blobType, nullptr, nullptr, 0, &length, 0);
    if (query != ERROR_SUCCESS)
        return {query, {}};
    GuardedBuffer blob(length);
    const SECURITY_STATUS status = module_->ExportKey(provider_, handle_, 0, blobType, nullptr,
                                                      blob.data(), blob.size(), &length, 0);
    return {status, blob.content(length)};
}

Outcome OpenedKey::property(const wchar_t* name) const
{
    GuardedBuffer value(200);
    DWORD length = 0;
    const SECURITY_STATUS status =
        module_->GetKeyProperty(provider_, handle_, name, value.data(), value.size(), &length, 0);
    return {status, value.content(length)};
}

// In the order in which they depend on each other.
struct TokenTest::Opened {
    Opened(const std::string& made, Behaviour behaviour) : profile(made, behaviour), openSsl(made)
    {
    }

    TokenProfile profile;
    ProviderModule module;
    OpenedProvider provider{module};
    OpenSsl openSsl;
};

TokenTest::Opened* TokenTest::current_ = nullptr;

void TokenTest::SetUpTestSuite()
{
    openToken(tokenFolder(), Behaviour::classic);
}

void TokenTest::openToken(const std::string& made, Behaviour behaviour)
{
    current_ = std::make_unique<Opened>(made, behaviour).release();
}

void TokenTest::TearDownTestSuite()
{
    const std::unique_ptr<Opened> last(current_);
    current_ = nullptr;
}

TokenTest::Opened& TokenTest::opened()
{
    if (current_ == nullptr)
        throw std::logic_error("the suite could not be set up");
    return *current_;
}

const ProviderModule& TokenTest::module()
{
    return opened().module;
}

NCRYPT_PROV_HANDLE TokenTest::provider()
{
    return opened().provider.handle();
}

const OpenSsl& TokenTest::openSsl()
{
    return opened().openSsl;
}

LogLines TokenTest::log()
{
    return opened().profile.profile().log();
}

Bytes arbitraryBytes(size_t size, unsigned seed)
{
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

Bytes changed(Bytes bytes, size_t position)
{
    bytes.at(position) ^= 1;
    return bytes;
}

}  // namespace NV::test
