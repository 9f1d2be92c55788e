// Suggestions for mistyped words.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nearest.h"

namespace NV::test {

using tool::nearest;

namespace {

const std::vector<std::string> words = {"init",   "check",   "keys",   "sign",
                                        "verify", "encrypt", "decrypt"};

}  // namespace

TEST(Nearest, FindsTheWordBehindOneMistake)
{
    EXPECT_EQ(nearest("chekc", words), "check");  // exchanged
    EXPECT_EQ(nearest("sig", words), "sign");     // missing
    EXPECT_EQ(nearest("signn", words), "sign");   // inserted
    EXPECT_EQ(nearest("kays", words), "keys");    // changed
    EXPECT_EQ(nearest("enkrypt", words), "encrypt");
}

TEST(Nearest, AllowsMoreMistakesInLongWords)
{
    EXPECT_EQ(nearest("dekript", words), "decrypt");
    EXPECT_EQ(nearest("kyss", words), "");
}

TEST(Nearest, SuggestsNothingForAnotherWord)
{
    for (const char* word : {"", "frobnicate", "x", "--force"})
        EXPECT_EQ(nearest(word, words), "") << word;
    EXPECT_EQ(nearest("sign", {}), "");
}

}  // namespace NV::test
