// Counts the PKCS#11 calls of each operation of a provider, as the scripted token records them. The
// operations are those of the Provider object. The PIN is given at once, without the dialog, and
// certificates are published in memory.

#include "base/cng.h"

#include <array>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "certificate_fixture.h"
#include "linked_module.h"
#include "nvvtoken/nvvtoken.h"
#include "peer_key.h"
#include "results.h"
#include "scripted_token.h"

namespace NV::bench {

namespace {

using test::ScriptedToken;

constexpr DWORD rsaBytes = 256;
constexpr DWORD ecBytes = 64;
constexpr DWORD hashBytes = 32;

// The names in order of their first call, each with its number of calls: "C_Finalize 2".
std::string listed(const std::vector<std::string>& names)
{
    std::vector<std::string> order;
    std::map<std::string, size_t> counts;
    for (const std::string& name : names) {
        if (++counts[name] == 1)
            order.push_back(name);
    }
    std::string text;
    for (const std::string& name : order) {
        text += text.empty() ? name : ", " + name;
        if (counts[name] > 1)
            text += " " + std::to_string(counts[name]);
    }
    return text.empty() ? "none" : text;
}

class Counter {
public:
    Counter(ScriptedToken& token, Results& results) : token_(token), results_(results) {}

    // Writes the row of the calls since the last row. The counted operation must have succeeded.
    void row(const std::string& name, bool worked, std::optional<double> size = {})
    {
        if (!worked)
            throw std::runtime_error(name + " failed");
        const std::vector<std::string> names = token_.callNames();
        const auto count = static_cast<double>(names.size());
        results_.value({"PKCS#11 calls of an operation", name, listed(names), size},
                       {count, count, count}, "calls", report);
        token_.clearCalls();
    }

private:
    ScriptedToken& token_;
    Results& results_;
};

std::unique_ptr<Provider> opened(Counter& counter, const std::string& name,
                                 std::optional<double> size = {})
{
    auto provider = std::make_unique<Provider>();
    counter.row(name, provider->init(), size);
    return provider;
}

// The calls of opening: the fixed part, those for each certificate, and those for each further
// slot.
void countOpening(ScriptedToken& token, Counter& counter)
{
    const Bytes der = certificateFixture("rsa2048");
    for (const unsigned certificates : {0U, 1U, 2U, 10U, 100U}) {
        token.reset();
        for (unsigned i = 0; i < certificates; ++i)
            token.addCertificate(Bytes{0x01, static_cast<unsigned char>(i)}, der);
        std::unique_ptr<Provider> provider =
            opened(counter, "open a provider, by certificates", certificates);
        provider.reset();
        counter.row("free a provider, by certificates", true, certificates);
    }
    token.reset();
    token.addSlot(test::kOtherSlot);
    opened(counter, "open a provider, two slots with a token and no certificate");
}

NCRYPT_KEY_HANDLE openKey(Provider& provider, const wchar_t* name)
{
    NCRYPT_KEY_HANDLE key = 0;
    if (provider.OpenKey(&key, name, 0, 0) != ERROR_SUCCESS)
        throw std::runtime_error("a key cannot be opened");
    return key;
}

void countRsa(Provider& provider, Counter& counter)
{
    const NCRYPT_KEY_HANDLE key = openKey(provider, L"01AB");
    counter.row("open a key", true);
    std::array<BYTE, hashBytes> hash{};
    std::array<BYTE, rsaBytes> out{};
    std::array<BYTE, rsaBytes> plain{};
    DWORD length = 0;
    const auto sign = [&](PBYTE output) {
        return provider.SignHash(key, nullptr, hash.data(), hashBytes, output, rsaBytes, &length,
                                 0) == ERROR_SUCCESS;
    };
    counter.row("RSA sign, length query", sign(nullptr));
    counter.row("RSA sign", sign(out.data()));
    counter.row("RSA verify", provider.VerifySignature(key, nullptr, hash.data(), hashBytes,
                                                       out.data(), rsaBytes, 0) == ERROR_SUCCESS);
    const auto encrypt = [&](PBYTE output) {
        return provider.Encrypt(key, hash.data(), hashBytes, nullptr, output, rsaBytes, &length,
                                BCRYPT_PAD_PKCS1) == ERROR_SUCCESS;
    };
    counter.row("RSA encrypt, length query", encrypt(nullptr));
    counter.row("RSA encrypt", encrypt(out.data()));
    counter.row("RSA decrypt",
                provider.Decrypt(key, out.data(), rsaBytes, nullptr, plain.data(), rsaBytes,
                                 &length, BCRYPT_PAD_PKCS1) == ERROR_SUCCESS);
    provider.FreeKey(key);
    counter.row("free a key", true);
}

void countDerivation(Provider& provider, NCRYPT_SECRET_HANDLE secret, Counter& counter)
{
    std::array<BYTE, hashBytes> out{};
    DWORD length = 0;
    wchar_t hash[] = BCRYPT_SHA256_ALGORITHM;
    BYTE hmacKey[] = {0x73, 0x91};
    NCryptBuffer buffers[] = {{sizeof hash, KDF_HASH_ALGORITHM, hash},
                              {sizeof hmacKey, KDF_HMAC_KEY, hmacKey}};
    const auto derive = [&](const wchar_t* function, ULONG parameters) {
        NCryptBufferDesc list{NCRYPTBUFFER_VERSION, parameters, buffers};
        return provider.DeriveKey(secret, function, &list, out.data(), hashBytes, &length, 0) ==
               ERROR_SUCCESS;
    };
    counter.row("key derivation, hash", derive(BCRYPT_KDF_HASH, 1));
    counter.row("key derivation, HMAC", derive(BCRYPT_KDF_HMAC, 2));
}

void countEc(Provider& provider, Counter& counter)
{
    const NCRYPT_KEY_HANDLE key = openKey(provider, L"0256");
    std::array<BYTE, hashBytes> hash{};
    std::array<BYTE, ecBytes> signature{};
    DWORD length = 0;
    counter.row("ECDSA sign",
                provider.SignHash(key, nullptr, hash.data(), hashBytes, signature.data(), ecBytes,
                                  &length, 0) == ERROR_SUCCESS);
    counter.row("ECDSA verify",
                provider.VerifySignature(key, nullptr, hash.data(), hashBytes, signature.data(),
                                         ecBytes, 0) == ERROR_SUCCESS);

    Bytes blob = test::peerBlob(test::ecdhP256, hashBytes);
    NCRYPT_KEY_HANDLE peer = 0;
    const SECURITY_STATUS imported = provider.ImportKey(
        0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer, blob.data(), static_cast<DWORD>(blob.size()), 0);
    counter.row("import of a public key", imported == ERROR_SUCCESS);
    NCRYPT_SECRET_HANDLE secret = 0;
    counter.row("secret agreement",
                provider.SecretAgreement(key, peer, &secret, 0) == ERROR_SUCCESS);
    countDerivation(provider, secret, counter);
    provider.FreeSecret(secret);
    provider.FreeKey(peer);
    provider.FreeKey(key);
}

void benchmark(Results& results, const Plan&)
{
    const LinkedModule module(ScriptedToken::widePath(), std::string(test::kPin));
    ScriptedToken token;
    Counter counter(token, results);
    countOpening(token, counter);

    token.reset();
    token.addCertificate(Bytes{0x01, 0xAB}, certificateFixture("rsa2048"));
    token.addCertificate(Bytes{0x02, 0x56}, certificateFixture("p256"));
    token.addRsaKeyPair({0x01, 0xAB}, 8 * rsaBytes);
    token.addEcKeyPair({0x02, 0x56}, hashBytes);
    const std::unique_ptr<Provider> provider = opened(counter, "open a provider, two keys");
    countRsa(*provider, counter);
    countEc(*provider, counter);
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, &NV::bench::benchmark);
}
