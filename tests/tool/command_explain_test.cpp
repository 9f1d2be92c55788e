// keywarden explain.

#include <gtest/gtest.h>

#include <string>

#include "contains.h"
#include "tool_program.h"

namespace NV::test {

namespace {

TEST(ExplainCommand, SaysTheSameForEachWayToNameAResult)
{
    const ToolProfile profile;
    const std::string expected = profile.run({"explain", "CKR_PIN_LOCKED"}).output;
    EXPECT_EQ(expected,
              "CKR_PIN_LOCKED (0x000000a4), a result of PKCS#11\n"
              "  The PIN is locked, usually after too many wrong ones.\n"
              "  Do not try again. Ask the token's security officer to unlock the PIN with the "
              "vendor's tool.\n"
              "  Status of the operation: in modern SCARD_W_CHV_BLOCKED (0x8010006c), in classic "
              "NTE_INTERNAL_ERROR\n"
              "  Exit code of keywarden: 6\n");
    for (const char* text :
         {"0xA4", "0xa4", "164", "000000a4", "ckr_pin_locked", "000000a4(CKR_PIN_LOCKED)"})
        EXPECT_EQ(profile.run({"explain", text}).output, expected) << text;
}

TEST(ExplainCommand, SaysWhichResultsAStatusStandsFor)
{
    const ToolProfile profile;
    for (const char* text :
         {"SCARD_W_WRONG_CHV", "0x8010006B", "8010006b", "2148532331", "-2146434965"})
        profile.expectRun(0, {"explain", text},
                          {"SCARD_W_WRONG_CHV (0x8010006b), a status of CNG\n",
                           "the status of CKR_PIN_INCORRECT (0x000000a0), CKR_PIN_INVALID "
                           "(0x000000a1), CKR_PIN_LEN_RANGE (0x000000a2)\n"});
}

TEST(ExplainCommand, HasItsShapeAsJson)
{
    const ToolProfile profile;
    const Json result = profile.json({"explain", "0xA4"}, 0);
    EXPECT_EQ(result["name"], "CKR_PIN_LOCKED");
    EXPECT_EQ(result["value"], "0x000000a4");
    EXPECT_EQ(result["kind"], "result");
    EXPECT_EQ(result["status"], "SCARD_W_CHV_BLOCKED");
    EXPECT_EQ(result["exitCode"], 6);
    EXPECT_EQ(result["results"], Json::array());
    const Json status = profile.json({"explain", "SCARD_W_CHV_BLOCKED"}, 0);
    EXPECT_EQ(status["kind"], "status");
    EXPECT_TRUE(status["status"].is_null());
    EXPECT_EQ(status["results"], Json::parse(R"(["CKR_PIN_LOCKED"])"));
    EXPECT_TRUE(profile.json({"explain", "0"}, 0)["status"].is_null());
}

TEST(ExplainCommand, SuggestsTheNearestName)
{
    const ToolProfile profile;
    profile.expectRun(1, {"explain", "CKR_PIN_LOKED"},
                      {"no result or status is known with the name \"CKR_PIN_LOKED\"",
                       "Did you mean CKR_PIN_LOCKED?"});
    profile.expectRun(1, {"explain", "0x80000123"},
                      {"with the value 0x80000123", "one of the vendor's own"});
    EXPECT_FALSE(contains(profile.run({"explain", "0x1234"}).output, "vendor"));
    EXPECT_EQ(profile.run({"explain"}).exitCode, 2U);
}

}  // namespace

}  // namespace NV::test
