// Which behaviour a configuration chooses.

#include "config/mode.h"

#include "module_fixture.h"

namespace NV::test {
namespace {

TEST(Mode, isClassicByDefault)
{
    EXPECT_EQ(Mode().behaviour(), Behaviour::classic);
    EXPECT_TRUE(Mode().sharesPropertyValues());
    EXPECT_FALSE(Mode(Behaviour::modern).sharesPropertyValues());
}

TEST(Mode, looksAtSilentPromptOnlyInModern)
{
    EXPECT_FALSE(Mode(Behaviour::classic, false).obeysSilentFlag());
    EXPECT_TRUE(Mode(Behaviour::modern, false).obeysSilentFlag());
    EXPECT_FALSE(Mode(Behaviour::modern, true).obeysSilentFlag());
}

}  // namespace
}  // namespace NV::test
