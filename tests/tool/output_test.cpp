// What is printed, and where.

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "output.h"

namespace NV::test {

using tool::Output;

namespace {

struct Printed {
    std::string out;
    std::string error;
};

template <typename Action>
Printed printedBy(const Action& action)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Output output;
    action(output);
    std::string out = testing::internal::GetCapturedStdout();
    return {std::move(out), testing::internal::GetCapturedStderr()};
}

TEST(Output, EscapesWhatATokenSays)
{
    const Printed printed = printedBy([](Output& out) {
        // NOLINTNEXTLINE(misc-misleading-bidirectional): what is escaped
        out.line("label \x1b[2J\u202e");
        out.line("good\nok  forged line");
        out.line(out.coloured(tool::Colour::red, "\x1b]0;title\x07"));
        out.failure("a \x1b[1A b", "c \u009b d");
    });
    EXPECT_EQ(printed.out, "label \\x1B[2J\\u202E\ngood\\x0Aok  forged line\n\\x1B]0;title\\x07\n");
    EXPECT_EQ(printed.error, "keywarden: a \\x1B[1A b\n  c \\x9B d\n");
}

TEST(Output, ColumnsAreAsWideAsTheirEscapes)
{
    const Printed printed = printedBy([](Output& out) {
        out.table({"A", "B"}, {{"\x1b", "x"}, {"yy", "z"}});
    });
    EXPECT_EQ(printed.out, "A     B\n\\x1B  x\nyy    z\n");
}

TEST(Output, ColumnsAreAsWideAsOnATerminal)
{
    const Printed printed = printedBy([](Output& out) {
        out.table({"A", "B"}, {{"\u5c71\u7530", "x"}, {"e\u0301\u00e9", "z"}, {"\U0001f511", "k"}});
    });
    EXPECT_EQ(printed.out, "A     B\n\u5c71\u7530  x\ne\u0301\u00e9    z\n\U0001f511    k\n");
}

TEST(Output, JsonReplacesText)
{
    const Printed printed = printedBy([](Output& out) {
        out.setJson(true);
        out.line("text");
        out.document({{"label", "\x1b\u009b"}});
    });
    EXPECT_EQ(printed.out, "{\n  \"label\": \"\\u001b\\u009B\"\n}\n");
    EXPECT_EQ(printed.error, "");
}

TEST(Output, StandardOutputCanBeKeptFreeForTheResult)
{
    for (const bool json : {false, true}) {
        const Printed printed = printedBy([json](Output& out) {
            out.setJson(json);
            out.keepStandardOutputFree();
            out.line("text");
            out.document({{"a", 1}});
            out.failure("reason", {});
        });
        EXPECT_EQ(printed.out, "");
        EXPECT_NE(printed.error.find(json ? "\"a\": 1" : "text\n"), std::string::npos);
        EXPECT_NE(printed.error.find("reason"), std::string::npos);
    }
}

TEST(Output, AWarningIsNoPartOfTheDocument)
{
    const Printed printed = printedBy([](Output& out) {
        out.setJson(true);
        out.warning("late\x1b");
    });
    EXPECT_EQ(printed.out, "");
    EXPECT_EQ(printed.error, "keywarden: late\\x1B\n");
}

}  // namespace

}  // namespace NV::test
