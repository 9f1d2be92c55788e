// The log fails while another part of the process has a session of its own on the token. Its session
// keeps a login alive that the module does not end itself.

#include <gtest/gtest.h>

#include <filesystem>

#include "log_event.h"
#include "provider_world.h"

namespace NV::test {

namespace {

class SharedLibraryTest : public testing::Test {
protected:
    SharedLibraryTest() : library_(world_.token.exports())
    {
        world_.open();
        CK_SESSION_HANDLE session = 0;
        library_.C_Initialize(nullptr);
        library_.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    }
    ~SharedLibraryTest() override
    {
        library_.C_Finalize(nullptr);
        world_.close();
    }

    // Whether the nth record was reached.
    bool signWithFailingRecord(size_t nth)
    {
        world_.prepare();
        event_.arm(nth, Extent::once);
        try {
            world_.provider->SignHash(world_.ec, nullptr, world_.hash.data(), 32,
                                      world_.out.buffer.data(), ProviderWorld::room,
                                      &world_.out.length, 0);
        } catch (const std::filesystem::filesystem_error&) {
            // The log's own error may leave the operation.
        }
        return event_.disarm();
    }

    ProviderWorld world_;
    LogEvent event_{LogCause::clock};
    CK_FUNCTION_LIST library_;
};

}  // namespace

TEST_F(SharedLibraryTest, aRecordThatFailsLeavesNoLoginBehind)
{
    size_t nth = 1;
    while (signWithFailingRecord(nth)) {
        ASSERT_FALSE(world_.token.userLoggedIn()) << "record " << nth;
        ASSERT_EQ(1U, world_.token.openSessions()) << "record " << nth;
        ++nth;
    }
    EXPECT_GT(nth, 100U);
}

}  // namespace NV::test
