// A thousand keys and a thousand operations in one process leave its memory and its handles where
// they were. memory_test.cpp of the object tests counts blocks exactly; this one looks at the module
// as the system sees it.

#include <windows.h>

#include "module_fixture.h"

namespace NV::test {

namespace {

// A block of a few hundred bytes a time would be more.
constexpr size_t tolerance = size_t{32} * 1024;
// Handle values are multiples of this.
constexpr uintptr_t handleStep = 4;

struct Usage {
    size_t heapBytes;      // in use, of all heaps of the process
    uintptr_t lowestFree;  // the value of a new handle: the lowest that is free
};

size_t heapBytes()
{
    std::vector<HANDLE> heaps(100);
    heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    size_t bytes = 0;
    for (HANDLE heap : heaps) {
        PROCESS_HEAP_ENTRY entry{};
        HeapLock(heap);
        while (HeapWalk(heap, &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0)
                bytes += entry.cbData;
        }
        HeapUnlock(heap);
    }
    return bytes;
}

Usage usage()
{
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const auto lowestFreeHandle = reinterpret_cast<uintptr_t>(event);
    CloseHandle(event);
    return {heapBytes(), lowestFreeHandle};
}

class UsageTest : public ServedKeysTest {
protected:
    UsageTest() : ServedKeysTest(false) {}

    // Runs the work a hundred times, then a thousand times more.
    template <typename Work>
    void expectSteady(const Work& work)
    {
        const auto run = [&](int times) {
            for (int i = 0; i < times; ++i) {
                work();
                token.clearCalls();
            }
        };
        run(100);
        const Usage before = usage();
        run(1000);
        const Usage after = usage();
        EXPECT_LE(after.heapBytes, before.heapBytes + tolerance);
        EXPECT_LE(after.lowestFree, before.lowestFree + 2 * handleStep);
    }
};

}  // namespace

// Otherwise the others could not fail.
TEST_F(UsageTest, theCountersSeeWhatIsHeld)
{
    const Usage before = usage();
    std::vector<Bytes> held;
    std::vector<HANDLE> events;
    for (int i = 0; i < 1000; ++i) {
        held.emplace_back(400, static_cast<unsigned char>(1));
        events.push_back(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    }
    const Usage after = usage();
    for (HANDLE event : events)
        CloseHandle(event);
    EXPECT_GE(after.heapBytes, before.heapBytes + size_t{400} * 1000);
    EXPECT_GE(after.lowestFree, before.lowestFree + 900 * handleStep);
}

TEST_F(UsageTest, aThousandKeysOpenedAndFreed)
{
    expectSteady([&] {
        EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), openKey(L"01AB")));
        EXPECT_EQ(status(ERROR_SUCCESS), table()->FreeKey(handle(), openKey(L"0256")));
    });
}

TEST_F(UsageTest, aThousandOperations)
{
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA1", nullptr, 0};
    expectSteady([&] {
        Output output;
        EXPECT_EQ(status(ERROR_SUCCESS), table()->Encrypt(handle(), rsa, hash.data(), 4, &oaep,
                                                          output.at(), 256, &output.length, 0x4));
    });
}

}  // namespace NV::test
