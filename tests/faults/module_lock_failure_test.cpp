// The lock of the library's own mutex callbacks when the log fails: after an exception the mutex is
// free, whichever of the two functions it has left.

#include <gtest/gtest.h>

#include <filesystem>

#include "log_event.h"
#include "p11/module.h"

namespace NV::test {

namespace {

int created = 0;
int depth = 0;

CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR handle)
{
    ++created;
    *handle = &created;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR)
{
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR)
{
    ++depth;
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR)
{
    --depth;
    return CKR_OK;
}

class ModuleLockFailureTest : public testing::Test {
protected:
    ModuleLockFailureTest()
    {
        created = 0;
        depth = 0;
    }

    // Runs the work until the event is not reached. After an exception nothing is locked; without one
    // `heldAfter` locks are.
    template <typename Prepare, typename Work>
    void everyRecord(Extent extent, int heldAfter, const Prepare& prepare, const Work& work)
    {
        LogEvent event(LogCause::clock);
        bool reached = true;
        for (size_t nth = 1; reached; ++nth) {
            SCOPED_TRACE("record " + std::to_string(nth));
            CK_C_INITIALIZE_ARGS args{createMutex, destroyMutex, lockMutex, unlockMutex,
                                      0,           nullptr};
            P11Module module("");
            module.replaceInitArgs(args);
            depth = 0;
            prepare(module);
            bool thrown = false;
            event.arm(nth, extent);
            try {
                work(module);
            } catch (const std::filesystem::filesystem_error&) {
                thrown = true;
            }
            reached = event.disarm();
            EXPECT_EQ(thrown ? 0 : heldAfter, depth);
            ASSERT_LT(nth, 100U);
        }
    }
};

void prepareNothing(P11Module&) {}

void lock(P11Module& module)
{
    EXPECT_TRUE(module.lock());
}

void unlock(P11Module& module)
{
    EXPECT_TRUE(module.unlock());
}

}  // namespace

TEST_F(ModuleLockFailureTest, aLockThatCannotBeToldIsReleased)
{
    everyRecord(Extent::once, 1, prepareNothing, lock);
    everyRecord(Extent::fromThenOn, 1, prepareNothing, lock);
    EXPECT_LT(0, created);
}

TEST_F(ModuleLockFailureTest, anUnlockThatCannotBeToldIsDone)
{
    everyRecord(Extent::once, 0, lock, unlock);
    everyRecord(Extent::fromThenOn, 0, lock, unlock);
}

}  // namespace NV::test
