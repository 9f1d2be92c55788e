// The watching of the module's memory itself: that it finds what is there. The blocks and sections
// are the module's own.

#include <cstring>

#include "wiping_fixture.h"

namespace NV::test {

namespace {

class ModuleMemoryTest : public WatchedTest {
protected:
    ModuleMemoryTest() { memory().lookFor("the text", text); }

    static constexpr std::string_view text = "odd text 7391";
};

TEST_F(ModuleMemoryTest, FindsNothingWhereNothingIs)
{
    EXPECT_EQ("", memory().found());
    EXPECT_GE(memory().sections().size(), 2u);
}

// FreeBuffer releases what it is given by the module's own free.
TEST_F(ModuleMemoryTest, FindsWhatIsReleasedAsItWas)
{
    void* block = std::malloc(100);
    std::memset(block, 0, 100);
    std::memcpy(static_cast<char*>(block) + 31, text.data(), text.size());
    table().FreeBuffer(block);
    EXPECT_EQ("the text in a released block\n", memory().found());
    EXPECT_EQ(1u, std::min<size_t>(memory().released(), 1));
    EXPECT_EQ("", memory().found());
}

TEST_F(ModuleMemoryTest, FindsWhatTheModuleHoldsAndLaterLetsGo)
{
    std::string value(text);
    auto* bytes = reinterpret_cast<PBYTE>(value.data());
    const auto size = static_cast<DWORD>(value.size());
    table().SetProviderProperty(provider(), L"odd property", bytes, size, 0);
    EXPECT_EQ("the text in a block still held\n", memory().found());
    std::ranges::fill(value, 'x');
    table().SetProviderProperty(provider(), L"odd property", bytes, size, 0);
    EXPECT_EQ("the text in a released block\n", memory().found());
}

TEST_F(ModuleMemoryTest, FindsWhatLiesInASection)
{
    // The last bytes of each section are put back.
    for (const auto& section : memory().sections()) {
        if (section.size() < 64)
            continue;
        const auto end = section.last(text.size());
        const Bytes before(end.begin(), end.end());
        std::ranges::copy(text, end.begin());
        EXPECT_EQ("the text in a section\n", memory().found());
        std::ranges::copy(before, end.begin());
    }
    EXPECT_EQ("", memory().found());
}

}  // namespace

}  // namespace NV::test
