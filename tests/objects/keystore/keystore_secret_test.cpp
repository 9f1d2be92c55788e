// The list of agreed secrets: what is in it, and its use on several threads.

#include <atomic>
#include <thread>

#include "secret_fixture.h"
#include "start_line.h"

namespace NV::test {

namespace {

TEST(SecretListTest, makesZeroFilledRecords)
{
    const OwnedSecret secret = makeSecret(5);
    EXPECT_EQ(5u, secret->length);
    EXPECT_EQ(Bytes(5), Bytes(secret->bytes, secret->bytes + 5));
}

TEST(SecretListTest, givesWhatWasPutInOnce)
{
    SecretList& list = SecretList::instance();
    const auto first = addToList({1, 2, 3});
    const auto second = addToList({4});
    ASSERT_TRUE(list.copy(first));
    EXPECT_EQ((SecretBytes{1, 2, 3}), *list.copy(first));
    EXPECT_EQ((SecretBytes{4}), *list.copy(second));
    EXPECT_FALSE(list.copy(first + 1));

    size_t size = 0;
    const OwnedSecret removed = list.remove(first, size);
    EXPECT_EQ(2u, size);
    EXPECT_EQ(first, reinterpret_cast<NCRYPT_SECRET_HANDLE>(removed.get()));
    EXPECT_FALSE(list.copy(first));
    EXPECT_EQ(nullptr, list.remove(first, size));
    EXPECT_EQ(1u, size);
    EXPECT_NE(nullptr, list.remove(second, size));
    EXPECT_EQ(0u, listSize());
}

// Secrets that are made before, so that the threads meet in the list and not in the heap.
std::vector<OwnedSecret> madeSecrets(size_t count)
{
    std::vector<OwnedSecret> secrets;
    secrets.reserve(count);
    for (size_t i = 0; i < count; ++i)
        secrets.push_back(makeSecret(1));
    return secrets;
}

TEST(SecretListTest, losesNothingOnManyThreads)
{
    constexpr size_t threads = 4;
    constexpr size_t each = 2000;
    std::vector<std::vector<OwnedSecret>> secrets;
    std::vector<NCRYPT_SECRET_HANDLE> handles;
    for (size_t i = 0; i < threads; ++i) {
        secrets.push_back(madeSecrets(each));
        for (const OwnedSecret& secret : secrets.back())
            handles.push_back(reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get()));
    }
    {
        StartLine start(threads);
        std::vector<std::jthread> running;
        for (auto& own : secrets) {
            running.emplace_back([&] {
                start.wait();
                for (OwnedSecret& secret : own)
                    SecretList::instance().add(std::move(secret));
            });
        }
    }
    EXPECT_EQ(threads * each, listSize());
    size_t lost = 0;
    for (const auto handle : handles) {
        size_t size = 0;
        lost += SecretList::instance().remove(handle, size) == nullptr ? 1U : 0U;
    }
    EXPECT_EQ(0u, lost);
    EXPECT_EQ(0u, listSize());
}

// Each thread adds, reads and removes its own secrets, no matter what the others do.
TEST(SecretListTest, worksOnManyThreads)
{
    constexpr int threads = 4;
    constexpr int rounds = 500;
    std::atomic<int> wrong = 0;
    StartLine start(threads);
    const auto work = [&](unsigned char mark) {
        start.wait();
        for (int i = 0; i < rounds; ++i) {
            const auto handle = addToList({mark, static_cast<unsigned char>(i)});
            const auto bytes = SecretList::instance().copy(handle);
            wrong += !bytes || bytes->front() != mark ? 1 : 0;
            size_t size = 0;
            wrong += SecretList::instance().remove(handle, size) == nullptr ? 1 : 0;
        }
    };
    {
        std::vector<std::jthread> running;
        for (unsigned char mark = 1; mark <= threads; ++mark)
            running.emplace_back(work, mark);
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0u, listSize());
}

}  // namespace

}  // namespace NV::test
