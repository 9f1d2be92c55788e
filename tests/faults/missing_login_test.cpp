// NVEnterPIN with a library that has no C_Login: it returns, and no block that held the PIN goes back to
// the heap as it was.

#include <gtest/gtest.h>

#include <cstring>
#include <string_view>

#include "heap_count.h"
#include "log_off.h"
#include "provider_world.h"

namespace NV::test {

namespace {

// Too long for a string that keeps its characters in the object itself.
constexpr std::string_view longPin = "a PIN that does not fit into the string object itself";

size_t blocksWithPin = 0;

void lookAt(const void* block, size_t size)
{
    const std::string_view content(static_cast<const char*>(block), size);
    // The allocator may have given more than was asked for: its beginning is what was written.
    if (content.find(longPin.substr(0, 16)) != std::string_view::npos)
        ++blocksWithPin;
}

class MissingLoginTest : public testing::Test {
protected:
    MissingLoginTest()
    {
        EXPECT_TRUE(p11.loadModule(ScriptedToken::path()));
        list = p11.module()->functionList();
        whole = *list;
        blocksWithPin = 0;
    }
    void TearDown() override { *list = whole; }

    CK_RV enterPin()
    {
        PinSource source;
        source["pin"] = longPin;
        setReleaseWatch(&lookAt);
        const CK_RV rv = NVEnterPIN(*p11.module(), 0x5E55, CKU_USER, std::move(source));
        setReleaseWatch(nullptr);
        return rv;
    }

    LogOff logOff;
    ScriptedToken token;
    Pkcs11 p11;
    CK_FUNCTION_LIST* list = nullptr;
    CK_FUNCTION_LIST whole{};
};

}  // namespace

// Otherwise the other tests could not fail.
TEST_F(MissingLoginTest, theWatchSeesAPinThatIsReleased)
{
    setReleaseWatch(&lookAt);
    {
        const std::string pin(longPin);
    }
    setReleaseWatch(nullptr);
    EXPECT_EQ(1U, blocksWithPin);
}

TEST_F(MissingLoginTest, thePinIsWipedAfterALoginThatFails)
{
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, enterPin());
    EXPECT_EQ(0U, blocksWithPin);
}

TEST_F(MissingLoginTest, aMissingEntryIsAFailedCallAndThePinIsWiped)
{
    list->C_Login = nullptr;
    EXPECT_EQ(CKR_FUNCTION_FAILED, enterPin());
    EXPECT_EQ(0U, blocksWithPin);
}

}  // namespace NV::test
