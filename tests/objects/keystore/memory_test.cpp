// What stays on the C heap: nothing of a thousand operations, and of the lists exactly the copies of
// the names that are handed out without an owner.

#include <malloc.h>

#include <cwchar>

#include "heap_count.h"
#include "key_store_fixture.h"
#include "modern_mode.h"
#include "provider_fixture.h"

namespace NV::test {

namespace {

// How many more blocks live after the work than before, once the work has run a hundred times.
template <typename Work>
long blocksLeftBy(int times, const Work& work)
{
    loggerSettings().types = 0;
    for (int i = 0; i < 100; ++i)
        work();
    const long before = liveHeapBlocks();
    for (int i = 0; i < times; ++i)
        work();
    return liveHeapBlocks() - before;
}

class MemoryTest : public KeyTest {
protected:
    long leftBy(Run what)
    {
        if (what.operation == Operation::rsaVerify)
            what.signature = signatureOf(CKM_RSA_PKCS, what.input, 256);
        if (what.operation == Operation::rsaDecrypt)
            what.input = run({.operation = Operation::rsaEncrypt,
                              .flags = what.flags,
                              .padding = what.padding,
                              .input = someBytes(4)})
                             .output;
        long failures = 0;
        const long left = blocksLeftBy(250, [&] {
            const Result result = run(what);
            failures += result.status != ERROR_SUCCESS ? 1 : 0;
        });
        EXPECT_EQ(0, failures);
        return left;
    }

    BCRYPT_PSS_PADDING_INFO pss{L"SHA256", 32};
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA1", nullptr, 0};
};

class KeyStoreMemoryTest : public KeyStoreTest {
protected:
    // Another unknown handle each time.
    long leftByUnknownHandles(int times)
    {
        return blocksLeftBy(times, [this] { EXPECT_FALSE(store.close(++unknown_)); });
    }

private:
    NCRYPT_KEY_HANDLE unknown_ = 0x1000;
};

using ProviderMemoryTest = ProviderTest;

}  // namespace

// Otherwise the other tests could not fail.
TEST(MemoryCountTest, seesWhatIsLeft)
{
    EXPECT_EQ(0, blocksLeftBy(10, [] { delete new int; }));
    std::vector<std::unique_ptr<int>> kept;
    kept.reserve(200);
    EXPECT_EQ(10, blocksLeftBy(10, [&] { kept.push_back(std::make_unique<int>(1)); }));
    std::vector<void*> blocks;
    blocks.reserve(200);
    EXPECT_EQ(10, blocksLeftBy(10, [&] { blocks.push_back(std::malloc(1)); }));
    for (void* block : blocks)
        std::free(block);
}

TEST_F(MemoryTest, aThousandTokenOperationsLeaveNothing)
{
    EXPECT_EQ(0, leftBy({.operation = Operation::rsaSign, .flags = 0x8, .padding = &pss}));
    EXPECT_EQ(0, leftBy({.operation = Operation::rsaVerify}));
    EXPECT_EQ(0, leftBy({.operation = Operation::rsaEncrypt, .flags = 0x4, .padding = &oaep}));
    EXPECT_EQ(0, leftBy({.operation = Operation::rsaDecrypt, .flags = 0x4, .padding = &oaep}));
    EXPECT_EQ(0, leftBy({.operation = Operation::ecSign}));
}

TEST_F(MemoryTest, failingOperationsLeaveNothing)
{
    for (const char* function :
         {"C_OpenSession", "C_Login", "C_FindObjects", "C_SignInit", "C_Sign"}) {
        token.fail(function, CKR_DEVICE_ERROR);
        EXPECT_EQ(
            0,
            blocksLeftBy(
                50, [&] { run({.operation = Operation::rsaSign, .flags = 0x8, .padding = &pss}); }))
            << function;
        token.clearFaults();
    }
}

TEST_F(MemoryTest, anUnknownHashLeavesNoParameterBlock)
{
    BCRYPT_PSS_PADDING_INFO md5{L"MD5", 32};
    EXPECT_EQ(0, blocksLeftBy(50, [&] {
                  run({.operation = Operation::rsaSign, .flags = 0x8, .padding = &md5});
              }));
}

TEST_F(KeyStoreMemoryTest, aThousandOpenedAndFreedKeysLeaveNothing)
{
    addRsa(L"01AB");
    addEc(L"0256", 256);
    // Closing twice leaves entries, a node for each address; the addresses come back.
    EXPECT_EQ(0, blocksLeftBy(500, [&] {
                  EXPECT_TRUE(store.close(store.open(L"01AB")));
                  EXPECT_TRUE(store.close(store.open(L"0256")));
              }));
}

TEST_F(KeyStoreMemoryTest, anUnknownHandleLeavesAnEntryInClassicAndNothingInModern)
{
    EXPECT_EQ(50, leftByUnknownHandles(50));
    const ModernMode modern;
    EXPECT_EQ(0, leftByUnknownHandles(50));
}

TEST_F(KeyStoreMemoryTest, destructionOfAStoreWithOpenKeysLeavesNothing)
{
    EXPECT_EQ(0, blocksLeftBy(50, [&] {
                  KeyStore own;
                  own.addPublicKey(slot, L"01AB", L"1.2.840.113549.1.1.1", "AAEC", 2048);
                  own.open(L"01AB");
                  own.open(L"unknown");
              }));
}

TEST_F(ProviderMemoryTest, aThousandOpenedAndFreedKeysLeaveNothing)
{
    EXPECT_EQ(0, blocksLeftBy(1000, [&] {
                  NCRYPT_KEY_HANDLE key = 0;
                  EXPECT_EQ(ERROR_SUCCESS, provider->OpenKey(&key, L"01AB", 0, 0));
                  EXPECT_EQ(ERROR_SUCCESS, provider->FreeKey(key));
              }));
}

TEST_F(ProviderMemoryTest, anEnumeratedKeyLeavesItsTwoNames)
{
    EXPECT_EQ(2 * 1000, blocksLeftBy(1000, [&] {
                  NCryptKeyName* name = nullptr;
                  void* state = nullptr;
                  EXPECT_EQ(ERROR_SUCCESS, provider->EnumKeys(nullptr, &name, &state, 0));
                  std::free(name);
                  std::free(state);
              }));
}

TEST_F(ProviderMemoryTest, aNameIsCopiedToItsTerminatorAndNoFurther)
{
    NCryptKeyName* name = nullptr;
    void* state = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, provider->EnumKeys(nullptr, &name, &state, 0));
    EXPECT_STREQ(L"01AB", name->pszName);
    EXPECT_EQ(sizeof L"01AB", _msize(name->pszName));
    EXPECT_EQ((std::wcslen(name->pszAlgid) + 1) * sizeof(wchar_t), _msize(name->pszAlgid));
    for (void* block : {static_cast<void*>(name->pszName), static_cast<void*>(name->pszAlgid),
                        static_cast<void*>(name), state})
        std::free(block);
}

TEST_F(ProviderMemoryTest, theEndOfAnEnumerationLeavesNothing)
{
    auto* index = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t)));
    *index = 1;
    void* state = index;
    EXPECT_EQ(0, blocksLeftBy(50, [&] {
                  NCryptKeyName* name = nullptr;
                  EXPECT_EQ(SECURITY_STATUS{NTE_NO_MORE_ITEMS},
                            provider->EnumKeys(nullptr, &name, &state, 0));
              }));
    std::free(index);
}

TEST_F(ProviderMemoryTest, anAlgorithmListLeavesOneNameForEachRecord)
{
    EXPECT_EQ(6 * 1000, blocksLeftBy(1000, [&] {
                  DWORD count = 0;
                  NCryptAlgorithmName* list = nullptr;
                  EXPECT_EQ(ERROR_SUCCESS, provider->EnumAlgorithms(0x14, &count, &list, 0));
                  EXPECT_EQ(6U, count);
                  std::free(list);
              }));
}

TEST_F(ProviderMemoryTest, refusedCallsLeaveNothing)
{
    EXPECT_EQ(0, blocksLeftBy(100, [&] {
                  NCRYPT_KEY_HANDLE key = 0;
                  DWORD length = 0;
                  provider->OpenKey(&key, L"unknown", 0, 0);
                  provider->FreeKey(0x77);
                  provider->SignHash(0x77, nullptr, nullptr, 0, nullptr, 0, &length, 0);
                  provider->EnumKeys(nullptr, nullptr, nullptr, 0);
                  provider->GetProviderProperty(L"nothing", nullptr, 0, &length, 0);
              }));
}

}  // namespace NV::test
