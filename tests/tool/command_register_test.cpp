// keywarden status: what it prints. register and unregister would change the machine, so their logic is
// tested on a fake, in registration_test.cpp.

#include <gtest/gtest.h>

#include <string>

#include "contains.h"
#include "tool_program.h"

namespace NV::test {

namespace {

const std::string name = "Norvanta Software KeyStore Provider";

TEST(StatusCommand, HasItsShapeAsJson)
{
    const Json document = ToolProfile().json({"status"}, 0);
    EXPECT_EQ(document["provider"], name);
    ASSERT_TRUE(document["known"].is_boolean()) << document;
    const bool known = document["known"].get<bool>();
    for (const char* field : {"registered", "present", "asWritten", "listed", "fileExists"})
        EXPECT_TRUE(known ? document[field].is_boolean() : document[field].is_null()) << field;
    for (const char* field : {"image", "file"})
        EXPECT_TRUE(known ? document[field].is_string() : document[field].is_null()) << field;
}

TEST(StatusCommand, SaysTheSameAsText)
{
    const ToolProfile profile;
    const Json document = profile.json({"status"}, 0);
    const ChildResult result = profile.run({"status"});
    EXPECT_EQ(result.exitCode, 0U);
    if (document["known"] == false)
        EXPECT_TRUE(
            contains(result.output, "This system cannot report what is registered with CNG.\n"));
    else
        EXPECT_EQ(contains(result.output, "\"" + name + "\" is registered."),
                  document["registered"] == true)
            << result.output;
}

}  // namespace

}  // namespace NV::test
