// Texts that are a number, and those that are not.

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "whole_number.h"

namespace NV::test {

using tool::wholeNumber;

TEST(WholeNumber, IsAllOfTheText)
{
    EXPECT_EQ(wholeNumber<uint32_t>("4711"), 4711U);
    EXPECT_EQ(wholeNumber<uint32_t>("a4", 16), 0xA4U);
    EXPECT_EQ(wholeNumber<int32_t>("-2146893779"), -2146893779);
    for (const char* text : {"", "4711 ", " 4711", "4711x", "0x12", "a4", "1.5", "-1"})
        EXPECT_EQ(wholeNumber<uint32_t>(text), std::nullopt) << text;
}

TEST(WholeNumber, FitsItsType)
{
    EXPECT_EQ(wholeNumber<uint32_t>("4294967295"), UINT32_MAX);
    EXPECT_EQ(wholeNumber<uint32_t>("4294967296"), std::nullopt);
}

}  // namespace NV::test
