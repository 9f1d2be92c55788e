// That PINs, agreed secrets and derivation inputs are overwritten before their memory goes back to
// the heap. A program of its own, linked with free and its kin wrapped: every block is looked at while
// it is still allocated, at the moment of its release, whoever of the linked objects releases it.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "config/config.h"
#include "dialog_driver.h"
#include "folder.h"
#include "nvvtoken/nvvtoken.h"
#include "profile.h"
#include "provider_module.h"
#include "secret_fixture.h"

namespace {

// What is looked for, on which thread, and what came of it. Plain memory: the wrapped functions must
// not allocate.
struct Watch {
    DWORD thread = 0;  // 0: none
    const unsigned char* needles[6] = {};
    size_t sizes[6] = {};
    int blocks = 0;          // released
    int found[6] = {};       // blocks that held the needle when they were released
    size_t refusedFrom = 0;  // requests of this size and more fail; 0: none
};

Watch watch;

void inspect(void* block)
{
    if (block == nullptr || watch.thread != GetCurrentThreadId())
        return;
    const auto* begin = static_cast<const unsigned char*>(block);
    const auto* end = begin + _msize(block);
    ++watch.blocks;
    for (size_t i = 0; i < std::size(watch.needles); ++i) {
        const unsigned char* needle = watch.needles[i];
        if (needle != nullptr && std::search(begin, end, needle, needle + watch.sizes[i]) != end)
            ++watch.found[i];
    }
}

bool refused(size_t size)
{
    return watch.refusedFrom != 0 && size >= watch.refusedFrom &&
           watch.thread == GetCurrentThreadId();
}

}  // namespace

// The linker's names for the wrapped and the wrapping functions.
extern "C" {
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size);
void* __wrap_realloc(void* block, size_t size);
void __wrap_free(void* block);

// Filled, so that what another owner left in the memory is not seen again.
void* __wrap_malloc(size_t size)
{
    void* block = refused(size) ? nullptr : __real_malloc(size);
    if (block != nullptr)
        std::memset(block, 0xCD, size);
    return block;
}

// May move the block and release the old place unseen, so it counts as a release.
void* __wrap_realloc(void* block, size_t size)
{
    inspect(block);
    return refused(size) ? nullptr : __real_realloc(block, size);
}

void __wrap_free(void* block)
{
    inspect(block);
    __real_free(block);
}
}

namespace NV::test {

namespace {

enum Needle { secretNeedle, pinNeedle, widePinNeedle, hmacKeyNeedle, prependNeedle, hexNeedle };

// Parts long enough not to occur by chance. The needles themselves lie in static memory.
constexpr unsigned char secretPart[] = {0xC3, 0x5A, 0x17, 0xE1, 0x8D, 0xC3, 0x5A, 0x17};
constexpr unsigned char secretHexPart[] = "C35A17E18DC35A17";
constexpr unsigned char pinPart[] = "odd-PIN-7391";
constexpr wchar_t widePinPart[] = L"odd-PIN-7391";
constexpr unsigned char hmacKeyPart[] = {0xA1, 0xA7, 0xB3, 0xC9, 0x1D, 0x2F, 0x3B, 0x47};
constexpr unsigned char prependPart[] = {0x11, 0xF7, 0x23, 0xE9, 0x3D, 0xDF, 0x4B, 0xC7};

// Watches the releases of this thread while it lives.
class Watching {
public:
    Watching()
    {
        watch = {};
        look(secretNeedle, secretPart, sizeof secretPart);
        look(pinNeedle, pinPart, sizeof pinPart - 1);
        look(widePinNeedle, reinterpret_cast<const unsigned char*>(widePinPart),
             sizeof widePinPart - sizeof(wchar_t));
        look(hmacKeyNeedle, hmacKeyPart, sizeof hmacKeyPart);
        look(prependNeedle, prependPart, sizeof prependPart);
        look(hexNeedle, secretHexPart, sizeof secretHexPart - 1);
        watch.thread = GetCurrentThreadId();
    }
    ~Watching() { watch.thread = 0; }
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;

private:
    static void look(Needle needle, const unsigned char* bytes, size_t size)
    {
        watch.needles[needle] = bytes;
        watch.sizes[needle] = size;
    }
};

template <typename Work>
void watching(const Work& work)
{
    const Watching now;
    work();
}

// Nothing of what must be wiped was released as it was, and something was released at all.
void expectWiped()
{
    EXPECT_EQ(0, watch.found[secretNeedle]);
    EXPECT_EQ(0, watch.found[pinNeedle]);
    EXPECT_EQ(0, watch.found[widePinNeedle]);
    EXPECT_EQ(0, watch.found[hmacKeyNeedle]);
    EXPECT_EQ(0, watch.found[prependNeedle]);
    EXPECT_LT(0, watch.blocks);
}

Bytes bytesOf(std::span<const unsigned char> part)
{
    return {part.begin(), part.end()};
}

TEST(Watch, seesWhatIsReleasedAsItWas)
{
    watching([] { const Bytes released = bytesOf(secretPart); });
    EXPECT_EQ(1, watch.found[secretNeedle]);
    EXPECT_EQ(1, watch.blocks);

    watching([] {
        void* block = std::malloc(sizeof pinPart);
        std::memcpy(block, pinPart, sizeof pinPart);
        std::free(block);
    });
    EXPECT_EQ(1, watch.found[pinNeedle]);

    watching([] { const std::wstring released = widePinPart; });
    EXPECT_EQ(1, watch.found[widePinNeedle]);
    watching([] { const std::string released = "C35A17E18DC35A17E18D"; });
    EXPECT_EQ(1, watch.found[hexNeedle]);
}

TEST(Wiping, ofSecretBytes)
{
    watching([] { const SecretBytes bytes(std::begin(secretPart), std::end(secretPart)); });
    EXPECT_EQ(1, watch.blocks);
    expectWiped();
}

TEST(Wiping, ofSecretBytesThatGrowShrinkAndMove)
{
    watching([] {
        SecretBytes bytes(std::begin(secretPart), std::end(secretPart));
        for (int i = 0; i < 1000; ++i)
            bytes.push_back(0x21);
        SecretBytes other(std::begin(secretPart), std::end(secretPart));
        other.clear();
        other.shrink_to_fit();
        other = bytes;
        other = std::move(bytes);
        other.resize(3);
    });
    EXPECT_LT(5, watch.blocks);
    expectWiped();
}

TEST(Wiping, ofSecretWideText)
{
    watching([] { const SecretWideText text(std::begin(widePinPart), std::end(widePinPart)); });
    EXPECT_EQ(1, watch.blocks);
    expectWiped();
}

TEST(Wiping, ofAgreedSecrets)
{
    watching([] {
        const OwnedSecret secret = makeSecret(sizeof secretPart);
        std::ranges::copy(secretPart, secret->bytes);
    });
    EXPECT_EQ(2, watch.blocks);
    expectWiped();
}

// Nothing is written to the log: what it formats is the log's.
class WipingTest : public SecretTest {
protected:
    WipingTest() { loggerSettings().types = 0; }

    SECURITY_STATUS agreed()
    {
        NCRYPT_SECRET_HANDLE handle = 0;
        P11ECKeyObject key;
        key.setSlotId(kSlot);
        key.setKeyId(L"0256");
        Bytes peer = peerPoint(32);
        const SecretBytes entered = pin();
        const SECURITY_STATUS status = key.secretAgreement(
            &p11, peer.data(), static_cast<DWORD>(peer.size()), &handle, entered);
        if (status == ERROR_SUCCESS)
            OwnedSecret(reinterpret_cast<AgreedSecret*>(handle)).reset();
        return status;
    }

    SECURITY_STATUS derived(bool hmac)
    {
        const SecretBytes secret(std::begin(secretPart), std::end(secretPart));
        const SecretBytes hmacKey(std::begin(hmacKeyPart), std::end(hmacKeyPart));
        const SecretBytes prepend(std::begin(prependPart), std::end(prependPart));
        const SecretBytes append(prepend);
        BYTE output[64] = {};
        DWORD length = 0;
        return store.derive({&p11, kSlot, 0, secret, output, sizeof output, &length,
                             *findHashAlgorithm(L"SHA256"), hmac, hmacKey, prepend, append});
    }

    // One run of everything; how many of the three failed.
    int runAll()
    {
        int failed = 0;
        for (const SECURITY_STATUS status : {agreed(), derived(false), derived(true)})
            failed += status != ERROR_SUCCESS ? 1 : 0;
        return failed;
    }
};

TEST_F(WipingTest, ofAgreement)
{
    SECURITY_STATUS status = 1;
    watching([&] { status = agreed(); });
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, status);
    expectWiped();
}

TEST_F(WipingTest, ofDerivation)
{
    for (const bool hmac : {false, true}) {
        SECURITY_STATUS status = 1;
        watching([&] { status = derived(hmac); });
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, status);
        expectWiped();
    }
}

TEST_F(WipingTest, afterEveryFailure)
{
    for (const char* function :
         {"C_Initialize", "C_OpenSession", "C_Login", "C_FindObjects", "C_DeriveKey",
          "C_GetAttributeValue", "C_CreateObject", "C_SignInit", "C_Sign", "C_DigestInit",
          "C_Digest", "C_Logout", "C_CloseSession"}) {
        for (const uint32_t nth : {1u, 2u}) {
            token.fail(function, CKR_DEVICE_ERROR, nth);
            token.throwFrom(function, nth + 2);
            int failed = 0;
            watching([&] {
                for (int i = 0; i < 4; ++i)
                    failed += runAll();
            });
            expectWiped();
            EXPECT_EQ(2, failed) << function << ' ' << nth;
            token.clearFaults();
        }
    }
}

// The hexadecimal text of a secret is the secret, too. It is made for a log that is written only.
TEST_F(WipingTest, ofTheHexadecimalTexts)
{
    loggerSettings().types = logToFile;
    log.takeLines();
    watching([&] { runAll(); });
    EXPECT_EQ(0, watch.found[hexNeedle]);
    EXPECT_NE(std::string::npos, spoken(log.takeLines()).find("C35A17E18DC35A17"));
}

// A token that reports more bytes at first and fewer in the end has still written them.
CK_RV NV_CK_CALL shrinkingValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE_PTR entry,
                                CK_ULONG)
{
    CK_ATTRIBUTE attribute{};
    std::memcpy(&attribute, entry, sizeof attribute);
    if (attribute.pValue != nullptr)
        std::memcpy(attribute.pValue, secretPart, sizeof secretPart);
    attribute.ulValueLen = attribute.pValue == nullptr ? CK_ULONG{sizeof secretPart} : 0;
    std::memcpy(entry, &attribute, sizeof attribute);
    return CKR_OK;
}

TEST_F(WipingTest, ofASecretThatShrankInTheReading)
{
    library().C_GetAttributeValue = &shrinkingValue;
    watching([&] { agreed(); });
    expectWiped();
}

// A provider in this process; only the dialog's template comes from the module.
class ProviderWipingTest : public testing::Test {
protected:
    ProviderWipingTest()
    {
        const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"p256.der");
        token.addCertificate(Bytes{0x02, 0x56}, Bytes(der.begin(), der.end()));
        token.addEcKeyPair({0x02, 0x56}, 32);
        profile.writeConfigFor(ScriptedToken::widePath());
        module.emplace();
        Config::instance().load(narrowPath(profile.configFile()));
        Config::instance().setModuleInstance(module->handle());
        provider.emplace();
        EXPECT_TRUE(provider->init());
        loggerSettings().types = 0;
    }
    void TearDown() override { Config::instance().setModuleInstance(nullptr); }

    // The agreed secret, in the list.
    NCRYPT_SECRET_HANDLE agree()
    {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, provider->OpenKey(&key, L"0256", 0, 0));
        Bytes blob = peerBlob(ecdhP256, 32);
        NCRYPT_KEY_HANDLE peer = 0;
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS},
                  provider->ImportKey(0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer, blob.data(),
                                      static_cast<DWORD>(blob.size()), 0));
        NCRYPT_SECRET_HANDLE secret = 0;
        const DialogDriver driver(DialogDriver::entering(widePinPart));
        watching([&] {
            EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS},
                      provider->SecretAgreement(key, peer, &secret, 0));
        });
        return secret;
    }

    // Everything that a list can hold, with a prepend item that makes the bytes grow.
    SECURITY_STATUS derive(NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, ULONG flags,
                           ULONG items, BCryptBuffer* extra = nullptr)
    {
        wchar_t name[] = L"SHA256";
        Bytes key = bytesOf(hmacKeyPart);
        Bytes prepend = bytesOf(prependPart);
        BCryptBuffer buffers[5] = {{sizeof name, KDF_HASH_ALGORITHM, name},
                                   {8, KDF_SECRET_PREPEND, prepend.data()},
                                   {8, KDF_SECRET_PREPEND, prepend.data()},
                                   {8, KDF_SECRET_APPEND, prepend.data()},
                                   {8, KDF_HMAC_KEY, key.data()}};
        if (extra != nullptr)
            buffers[1] = *extra;
        NCryptBufferDesc list{0, items, buffers};
        BYTE output[64] = {};
        DWORD length = 0;
        SECURITY_STATUS status = 1;
        const size_t refusedFrom = watch.refusedFrom;
        watching([&] {
            watch.refusedFrom = refusedFrom;
            status = provider->DeriveKey(secret, kdf, &list, output, sizeof output, &length, flags);
        });
        return status;
    }

    LogCapture log;
    ScriptedToken token;
    Profile profile;
    std::optional<ProviderModule> module;
    std::optional<Provider> provider;
};

TEST_F(ProviderWipingTest, ofThePinAndTheSecretFromTheDialogToTheRelease)
{
    const auto secret = agree();
    expectWiped();
    ASSERT_NE(0u, secret);

    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derive(secret, BCRYPT_KDF_HASH, 0, 4));
    expectWiped();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derive(secret, BCRYPT_KDF_HMAC, 0, 5));
    expectWiped();
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS},
              derive(secret, BCRYPT_KDF_HMAC, KDF_USE_SECRET_AS_HMAC_KEY_FLAG, 5));
    expectWiped();
    // Refused at the last buffer.
    EXPECT_EQ(SECURITY_STATUS{NTE_INVALID_PARAMETER}, derive(secret, BCRYPT_KDF_HASH, 0, 5));
    expectWiped();

    watching([&] { EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, provider->FreeSecret(secret)); });
    expectWiped();
}

// An item for which there is no memory is an internal error.
TEST_F(ProviderWipingTest, ofWhatWasReadBeforeTheMemoryRanOut)
{
    const auto secret = agree();
    constexpr ULONG large = 1 << 20;
    Bytes bytes(large, 0x33);
    for (const ULONG type : {ULONG{KDF_SECRET_PREPEND}, ULONG{KDF_SECRET_APPEND}}) {
        BCryptBuffer extra{large, type, bytes.data()};
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, derive(secret, BCRYPT_KDF_HASH, 0, 4, &extra));
        watch.refusedFrom = large;
        EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR},
                  derive(secret, BCRYPT_KDF_HASH, 0, 4, &extra));
        watch.refusedFrom = 0;
    }
    provider->FreeSecret(secret);
}

}  // namespace

}  // namespace NV::test
