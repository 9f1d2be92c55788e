// The guard of the entry points (M24): each kind of exception from inside an operation has its status. On this
// machine alone, where the logger is a part of the program: a record of the operation throws, as it can in
// classic.

#include <chrono>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>

#include "base/scope_exit.h"
#include "logger/logger.h"
#include "module_fixture.h"

namespace NV::test {
namespace {

// Thrown by the nth record from now, once.
std::exception_ptr thrown;
int countdown = 0;

std::chrono::system_clock::time_point throwingClock()
{
    if (--countdown == 0)
        std::rethrow_exception(thrown);
    return std::chrono::system_clock::now();
}

template <Behaviour behaviour>
class Guard : public ServedKeysTest {
protected:
    Guard() : ServedKeysTest(true, behaviour) {}

    // Frees a key twice, so that the second run has no work, and throws from its nth record.
    template <typename Exception>
    SECURITY_STATUS freeWhile(const Exception& exception, int record = 3)
    {
        table()->FreeKey(handle(), ec);
        forget();
        loggerSettings().survivesFailures = false;
        loggerSettings().now = &throwingClock;
        thrown = std::make_exception_ptr(exception);
        countdown = record;
        return table()->FreeKey(handle(), ec);
    }
};

using ModernGuard = Guard<Behaviour::modern>;
using ClassicGuard = Guard<Behaviour::classic>;

TEST_F(ModernGuard, turnsExceptionsIntoStatuses)
{
    EXPECT_EQ(NTE_NO_MEMORY, freeWhile(std::bad_alloc()));
    EXPECT_EQ(NTE_NO_MEMORY, freeWhile(std::bad_array_new_length()));
    EXPECT_EQ(NTE_INTERNAL_ERROR, freeWhile(std::out_of_range("odd")));
    EXPECT_EQ(NTE_INTERNAL_ERROR, freeWhile(std::system_error(
                                      std::make_error_code(std::errc::device_or_resource_busy))));
    EXPECT_EQ(NTE_INTERNAL_ERROR, freeWhile(5));
}

TEST_F(ModernGuard, holdsFromTheFirstRecordOn)
{
    EXPECT_EQ(NTE_NO_MEMORY, freeWhile(std::bad_alloc(), 1));
    EXPECT_EQ(NTE_NO_MEMORY, freeWhile(std::bad_alloc(), 2));
}

TEST_F(ModernGuard, logsThem)
{
    freeWhile(std::out_of_range("odd"));
    EXPECT_EQ("TRC ENTER\nERR Caught Exception: odd\nINF DONE, STATUS=0x8009002d, ELAPSED:#(ms)\n",
              levelsAndMessages(linesOf("NVKSPFreeKey")));
    freeWhile(5);
    EXPECT_EQ("TRC ENTER\nERR Caught Exception: unknown\nINF DONE, STATUS=0x8009002d, "
              "ELAPSED:#(ms)\n",
              levelsAndMessages(linesOf("NVKSPFreeKey")));
}

TEST_F(ModernGuard, keepsTheLastError)
{
    SetLastError(4711);
    freeWhile(std::out_of_range("odd"));
    EXPECT_EQ(4711U, GetLastError());
}

TEST_F(ModernGuard, leavesTheProviderUsable)
{
    freeWhile(std::bad_alloc());
    EXPECT_NE(0U, openKey(L"01AB"));
}

// Classic knows a handle for which there is an entry.
TEST_F(ModernGuard, leavesNoEntryForAnUnknownHandle)
{
    constexpr NCRYPT_PROV_HANDLE unknownHandle = 0x1234;
    const auto isKnown = [&] {
        const Mode before = mode();
        setMode(Mode());
        const ScopeExit restore([&] { setMode(before); });
        try {
            table()->IsAlgSupported(unknownHandle, nullptr, 0);
            return true;
        } catch (const std::out_of_range&) {
            return false;
        }
    };
    EXPECT_EQ(NTE_INVALID_HANDLE, table()->FreeProvider(unknownHandle));
    EXPECT_FALSE(isKnown());
    NCRYPT_PROV_HANDLE opened = unknownHandle;
    EXPECT_EQ(ERROR_SUCCESS, table()->OpenProvider(&opened, L"Norvanta", 0));
    EXPECT_FALSE(isKnown());
    EXPECT_EQ(ERROR_SUCCESS, table()->FreeProvider(opened));
    setMode(Mode());
    EXPECT_EQ(NTE_INVALID_HANDLE, table()->FreeProvider(unknownHandle));
    EXPECT_TRUE(isKnown());
}

TEST_F(ClassicGuard, isNone)
{
    EXPECT_THROW(freeWhile(std::bad_alloc()), std::bad_alloc);
    EXPECT_THROW(freeWhile(std::out_of_range("odd")), std::out_of_range);
    EXPECT_THROW(freeWhile(5), int);
}

}  // namespace
}  // namespace NV::test
