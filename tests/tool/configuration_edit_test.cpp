// Values of a configuration file are changed, and nothing else of it.

#include <gtest/gtest.h>

#include <string>

#include "system/configuration_edit.h"

namespace NV::test {

namespace {

using tool::withValues;

TEST(ConfigurationEdit, KeepsAllButTheValue)
{
    EXPECT_EQ(withValues("# logLevel=INFO\nlogLevel=INFO\np11File=x\n", {{"logLevel", "TRACE"}}),
              "# logLevel=INFO\nlogLevel=TRACE\np11File=x\n");
    EXPECT_EQ(withValues("\xEF\xBB\xBFlogLevel = INFO \r\nodd\r\n\r\np11File=\xFF",
                         {{"logLevel", "TRACE"}}),
              "\xEF\xBB\xBFlogLevel = TRACE \r\nodd\r\n\r\np11File=\xFF");
    EXPECT_EQ(withValues("logLevel=\nlogLevel=INFO", {{"logLevel", "TRACE"}}),
              "logLevel=TRACE\nlogLevel=TRACE");
    EXPECT_EQ(withValues("loglevel=INFO\nxlogLevel=1\n", {{"logLevel", "A"}}),
              "loglevel=INFO\nxlogLevel=1\nlogLevel=A\n");
}

TEST(ConfigurationEdit, AddsAMissingKeyAtTheEnd)
{
    EXPECT_EQ(withValues("", {{"logLevel", "TRACE"}}), "logLevel=TRACE\n");
    EXPECT_EQ(withValues("a=1", {{"logLevel", "TRACE"}}), "a=1\nlogLevel=TRACE\n");
    EXPECT_EQ(withValues("a=1\r\nb=2", {{"logLevel", "TRACE"}, {"logTypes", "FILE"}}),
              "a=1\r\nb=2\r\nlogLevel=TRACE\r\nlogTypes=FILE\r\n");
}

}  // namespace

}  // namespace NV::test
