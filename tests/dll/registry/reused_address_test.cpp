// A provider whose object lies where a freed one lay.

#include <stdexcept>

#include "module_memory.h"
#include "registry_fixture.h"

namespace NV::test {

namespace {

class ReusedAddress : public RegistryTest {};

// Freeing a handle twice leaves an entry without a provider in the registry.
TEST_F(ReusedAddress, OpensAtAnAddressWhoseHandleWasFreedTwice)
{
    ModuleMemory memory(module().handle());
    NCRYPT_PROV_HANDLE first = 0;
    ASSERT_EQ(open(first), ERROR_SUCCESS);
    memory.useAgain(reinterpret_cast<void*>(first));
    EXPECT_EQ(module()->FreeProvider(first), ERROR_SUCCESS);
    EXPECT_EQ(module()->FreeProvider(first), NTE_INVALID_HANDLE);

    NCRYPT_PROV_HANDLE second = 0;
    ASSERT_EQ(open(second), ERROR_SUCCESS);
    ASSERT_EQ(second, first);
    EXPECT_EQ(use(second), ERROR_SUCCESS);
    NCRYPT_PROV_HANDLE again = second;
    EXPECT_EQ(open(again), NTE_INVALID_PARAMETER);
    takeLines();
    EXPECT_EQ(module()->FreeProvider(second), ERROR_SUCCESS);
    EXPECT_EQ(countLines(takeLines(), "TRC NV::Provider::~Provider:LEAVE"), 1u);
    EXPECT_THROW(use(second), std::out_of_range);
}

}  // namespace

}  // namespace NV::test
