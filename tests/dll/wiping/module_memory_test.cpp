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

// A property's value is wiped; its name is not. The copies that are made on the way show, too.
TEST_F(ModuleMemoryTest, FindsWhatTheModuleHoldsAndLaterLetsGo)
{
    const std::wstring name = L"an odd name of a property";
    memory().forget();
    memory().lookFor("the name", std::string_view(reinterpret_cast<const char*>(name.data()),
                                                  name.size() * sizeof(wchar_t)));
    BYTE value[] = {1};
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(ERROR_SUCCESS, table().OpenKey(provider(), &key, L"0256", 0, 0));
    ASSERT_EQ(ERROR_SUCCESS, table().SetKeyProperty(provider(), key, name.c_str(), value, 1, 0));
    EXPECT_EQ("the name in a block still held\nthe name in a released block\n", memory().found());
    EXPECT_EQ("the name in a block still held\n", memory().found());
    ASSERT_EQ(ERROR_SUCCESS, table().FreeKey(provider(), key));
    EXPECT_EQ("the name in a released block\n", memory().found());
    EXPECT_EQ("", memory().found());
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
