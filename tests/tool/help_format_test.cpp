// Wrapping texts.

#include <gtest/gtest.h>

#include "help_format.h"

namespace NV::test {

using tool::wrapped;

TEST(Wrapped, BreaksBetweenWords)
{
    EXPECT_EQ("one two\nthree", wrapped("one two three", 7));
    EXPECT_EQ("one\ntwo\nthree", wrapped("one two three", 6));
    EXPECT_EQ("one two three", wrapped("one two three", 13));
}

TEST(Wrapped, LeavesALongWordWhole)
{
    EXPECT_EQ("a\nlong-word\nb", wrapped("a long-word b", 4));
}

TEST(Wrapped, KeepsLinesOfTheText)
{
    EXPECT_EQ("one\ntwo\nthree", wrapped("one\ntwo three", 5));
    EXPECT_EQ("", wrapped("", 5));
}

}  // namespace NV::test
