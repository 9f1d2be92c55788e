// The export, the layout of the table, and what all entry points have in common.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "registry_fixture.h"

namespace NV::test {

namespace {

class Interface : public RegistryTest {
protected:
    // Every entry point takes at most ten arguments of at most pointer size, which the 64-bit
    // calling convention passes alike.
    SECURITY_STATUS callSlot(size_t slot, uintptr_t firstArgument)
    {
        using Entry =
            SECURITY_STATUS(WINAPI*)(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t,
                                     uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);
        const void* address = slots().at(slot);
        Entry entry = nullptr;
        std::memcpy(&entry, &address, sizeof entry);
        return entry(firstArgument, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    }

    // All pointers behind the version, as they lie in memory.
    std::vector<const void*> slots()
    {
        const auto* table = reinterpret_cast<const char*>(module().operator->());
        std::vector<const void*> pointers(29);
        std::memcpy(pointers.data(), table + 8, pointers.size() * sizeof(void*));
        return pointers;
    }

    static bool takesProvider(const std::string& operation)
    {
        return operation != "OpenProvider" && operation != "FreeProvider" &&
               operation != "FreeBuffer";
    }
};

TEST_F(Interface, IsTheSameTableForEveryNameAndFlags)
{
    const auto* table = module().operator->();
    const auto getInterface = module().getKeyStorageInterface();
    takeLines();
    for (const wchar_t* name :
         {kProviderName, L"", L"Another provider", static_cast<const wchar_t*>(nullptr)}) {
        for (const DWORD flags : {0UL, 0x40UL, 0xFFFFFFFFUL}) {
            NCRYPT_KEY_STORAGE_FUNCTION_TABLE* answer = nullptr;
            EXPECT_EQ(getInterface(name, &answer, flags), 0);
            EXPECT_EQ(answer, table);
        }
    }
    EXPECT_TRUE(takeLines().empty());
}

TEST_F(Interface, TableBeginsWithItsVersion)
{
    constexpr unsigned char expected[8] = {2, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(module().operator->(), expected, sizeof expected), 0);
    EXPECT_EQ(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE), 8 + 29 * sizeof(void*));
}

TEST_F(Interface, TableHoldsTwentySixOperationsAndThreeNulls)
{
    const auto pointers = slots();
    for (size_t slot = 0; slot < pointers.size(); ++slot)
        EXPECT_EQ(pointers[slot] == nullptr, slot >= kOperations.size()) << "slot " << slot;
}

// The log shows which function is in which slot.
TEST_F(Interface, EverySlotHoldsItsOperation)
{
    module()->FreeProvider(kStrangeHandle);  // known from now on
    takeLines();
    for (size_t slot = 0; slot < kOperations.size(); ++slot) {
        const std::string name = kOperations[slot];
        callSlot(slot, takesProvider(name) ? kStrangeHandle : 0);
        const LogLines lines = takeLines();
        ASSERT_FALSE(lines.empty()) << name;
        EXPECT_EQ(render(lines.front()), "TRC NVKSP" + name + ":ENTER");
        EXPECT_EQ(render(lines.back()), "TRC NVKSP" + name + ":LEAVE");
        EXPECT_EQ(lines.front().file, "dll.cpp");
    }
}

TEST_F(Interface, EveryEntryPointRefusesAHandleWithoutProvider)
{
    EXPECT_EQ(module()->FreeProvider(kStrangeHandle), NTE_INVALID_HANDLE);
    takeLines();
    int tried = 0;
    for (size_t slot = 0; slot < kOperations.size(); ++slot) {
        const std::string name = kOperations[slot];
        if (!takesProvider(name))
            continue;
        ++tried;
        EXPECT_EQ(callSlot(slot, kStrangeHandle), NTE_INVALID_HANDLE) << name;
        expectBlock(takeLines(), "TRC NVKSP" + name + ":ENTER\nTRC NVKSP" + name + ":LEAVE");
    }
    EXPECT_EQ(tried, 23);
}

TEST_F(Interface, EveryEntryPointRaisesForAnUnknownHandle)
{
    module();
    for (size_t slot = 0; slot < kOperations.size(); ++slot) {
        const std::string name = kOperations[slot];
        if (!takesProvider(name))
            continue;
        try {
            callSlot(slot, kUnknownHandle);
            ADD_FAILURE() << name << " returned";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid map<K, T> key") << name;
        }
        expectBlock(takeLines(), "TRC NVKSP" + name + ":ENTER");
    }
}

// The handle 0 is as unknown as any other until a provider was opened into a variable that held 0.
TEST_F(Interface, NullHandleIsUnknownUntilAnOpening)
{
    EXPECT_THROW(use(0), std::out_of_range);
    EXPECT_EQ(module()->FreeProvider(0), NTE_INVALID_HANDLE);
    EXPECT_THROW(use(0), std::out_of_range);
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(open(handle), ERROR_SUCCESS);
    EXPECT_EQ(use(0), NTE_INVALID_HANDLE);
    EXPECT_EQ(module()->FreeProvider(handle), ERROR_SUCCESS);
}

TEST_F(Interface, EveryEntryPointReachesItsProvider)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    takeLines();
    for (size_t slot = 0; slot < kOperations.size(); ++slot) {
        const std::string name = kOperations[slot];
        if (!takesProvider(name))
            continue;
        callSlot(slot, handle);
        const LogLines lines = takeLines();
        ASSERT_GE(lines.size(), 4u) << name;
        EXPECT_EQ(render(lines[0]), "TRC NVKSP" + name + ":ENTER");
        EXPECT_EQ(render(lines[1]), "TRC NV::Provider::" + name + ":ENTER");
        EXPECT_EQ(render(lines[lines.size() - 2]), "TRC NV::Provider::" + name + ":LEAVE");
        EXPECT_EQ(render(lines.back()), "TRC NVKSP" + name + ":LEAVE");
        // The entry point itself says nothing more.
        EXPECT_EQ(ofFunction(lines, "NVKSP" + name).size(), 2u);
    }
    EXPECT_EQ(module()->FreeProvider(handle), ERROR_SUCCESS);
}

TEST_F(Interface, FreeBufferReleasesTheHeapsBlocks)
{
    EXPECT_EQ(module()->FreeBuffer(nullptr), NTE_INVALID_PARAMETER);
    expectBlock(takeLines(), "TRC NVKSPFreeBuffer:ENTER\nTRC NVKSPFreeBuffer:LEAVE");
    EXPECT_EQ(module()->FreeBuffer(std::malloc(7)), ERROR_SUCCESS);
    expectBlock(takeLines(), "TRC NVKSPFreeBuffer:ENTER\nTRC NVKSPFreeBuffer:LEAVE");

    const OpenedProvider provider(module());
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    ASSERT_EQ(module()->EnumAlgorithms(provider.handle(), NCRYPT_HASH_OPERATION, &count, &list, 0),
              ERROR_SUCCESS);
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(module()->FreeBuffer(list), ERROR_SUCCESS);
}

// A block of this size has pages of its own, which go back to the system with it.
TEST_F(Interface, FreeBufferGivesTheMemoryBack)
{
    std::unique_ptr<void, decltype(&std::free)> owned(std::malloc(size_t{64} << 20), &std::free);
    ASSERT_NE(owned, nullptr);
    void* const block = owned.release();
    const auto stateOfPages = [block] {
        MEMORY_BASIC_INFORMATION pages{};
        EXPECT_EQ(VirtualQuery(block, &pages, sizeof pages), sizeof pages);
        return pages.State;
    };
    EXPECT_EQ(stateOfPages(), static_cast<DWORD>(MEM_COMMIT));
    EXPECT_EQ(module()->FreeBuffer(block), ERROR_SUCCESS);
    EXPECT_EQ(stateOfPages(), static_cast<DWORD>(MEM_FREE));
}

}  // namespace

}  // namespace NV::test
