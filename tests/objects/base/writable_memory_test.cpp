// Write access to read-only memory, and the protection afterwards.

#include "base/writable_memory.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace NV::test {

namespace {

constexpr size_t pageSize = 4096;
constexpr size_t listSize = 546;  // CK_FUNCTION_LIST's, bytes

// Three pages of their own.
class Pages {
public:
    Pages()
        : memory_(static_cast<unsigned char*>(
              VirtualAlloc(nullptr, 3 * pageSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)))
    {
    }
    ~Pages() { VirtualFree(memory_, 0, MEM_RELEASE); }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    unsigned char* at(size_t offset) const { return memory_ + offset; }

    void protect(size_t page, DWORD protection) const
    {
        DWORD old = 0;
        ASSERT_TRUE(VirtualProtect(at(page * pageSize), pageSize, protection, &old));
    }

    DWORD protection(size_t page) const
    {
        MEMORY_BASIC_INFORMATION information{};
        VirtualQuery(at(page * pageSize), &information, sizeof information);
        return information.Protect;
    }

private:
    unsigned char* memory_;
};

TEST(WritableMemory, IsReadOnlyAgainAfterwards)
{
    const Pages pages;
    pages.protect(1, PAGE_READONLY);
    {
        const WritableMemory block(pages.at(pageSize + 100), listSize);
        ASSERT_TRUE(block.writable());
        *pages.at(pageSize + 100) = 0x77;
    }
    EXPECT_EQ(DWORD{PAGE_READONLY}, pages.protection(1));
    EXPECT_EQ(0x77, *pages.at(pageSize + 100));
}

TEST(WritableMemory, PutsTheProtectionOfEachPageBack)
{
    const Pages pages;
    pages.protect(0, PAGE_READONLY);
    pages.protect(1, PAGE_EXECUTE_READ);
    {
        const WritableMemory block(pages.at(pageSize - 100), listSize);
        ASSERT_TRUE(block.writable());
        *pages.at(pageSize - 1) = 1;
        *pages.at(pageSize) = 2;
        EXPECT_EQ(DWORD{PAGE_EXECUTE_READWRITE}, pages.protection(1));
    }
    EXPECT_EQ(DWORD{PAGE_READONLY}, pages.protection(0));
    EXPECT_EQ(DWORD{PAGE_EXECUTE_READ}, pages.protection(1));
    EXPECT_EQ(DWORD{PAGE_READWRITE}, pages.protection(2));
}

TEST(WritableMemory, LeavesWritableMemoryAsItIs)
{
    const Pages pages;
    const WritableMemory block(pages.at(10), listSize);
    EXPECT_TRUE(block.writable());
    EXPECT_EQ(DWORD{PAGE_READWRITE}, pages.protection(0));
}

TEST(WritableMemory, SaysWhenTheSystemRefuses)
{
    // No memory can be there.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    auto* nowhere = reinterpret_cast<void*>(uintptr_t{16});
    EXPECT_FALSE(WritableMemory(nowhere, 1).writable());
}

}  // namespace

}  // namespace NV::test
