// What is left of a configuration file.

#include "system/redacted_configuration.h"

#include <gtest/gtest.h>

#include <string>

#include "system/configuration.h"

namespace NV::test {

namespace {

using tool::redactedConfiguration;
using tool::withoutQuotedLines;

TEST(RedactedConfiguration, LeavesAFileOfInitAsItIs)
{
    Settings values = tool::newConfiguration();
    values["p11File"] = "C:\\odd\\token.dll";
    const std::string text = tool::configurationText(values);
    EXPECT_EQ(redactedConfiguration(text), text);
}

TEST(RedactedConfiguration, LeavesLinesOfKnownKeysByteForByte)
{
    const std::string text =
        "\xEF\xBB\xBFp11File=C:\\odd.dll \r\n\n \t\nlogLevel\t= TRACE\nmode=modern";
    EXPECT_EQ(redactedConfiguration(text), text);
    EXPECT_EQ(redactedConfiguration(""), "");
}

TEST(RedactedConfiguration, TakesOutCommentsAndUnknownLines)
{
    EXPECT_EQ(redactedConfiguration("# the PIN is 1234\r\n"
                                    "  #1234\n"
                                    "pin=1234\n"
                                    "1234=1\n"
                                    "LogLevel=1234\n"
                                    "1234\n"
                                    "=1234\n"
                                    "logLevel=TRACE\r1234\n"
                                    "mode=modern\n"),
              "# (taken out)\r\n# (taken out)\npin=(taken out)\n(taken out)\nLogLevel=(taken out)\n"
              "(taken out)\n(taken out)\n(taken out)\nmode=modern\n");
}

TEST(RedactedConfiguration, TakesQuotedLinesOutOfTexts)
{
    EXPECT_EQ(withoutQuotedLines("line 3: \"pin=1234\""), "line 3: (taken out)");
    EXPECT_EQ(withoutQuotedLines("line 3: \"1234\" has no \"=\"; odd"),
              "line 3: (taken out) has no \"=\"; odd");
    EXPECT_EQ(withoutQuotedLines("line 3: \"x\" has no \"=\" 1234\" has no \"=\""),
              "line 3: (taken out) has no \"=\"");
    EXPECT_EQ(withoutQuotedLines("9 lines, no problems found"), "9 lines, no problems found");
}

}  // namespace

}  // namespace NV::test
