// The page of keywarden log as text. tests/tool/html_test.sh looks at it in a browser.

#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "log/log_page.h"
#include "log_text.h"
#include "output.h"

namespace NV::test {

namespace {

using tool::Json;

// The data that the page's script reads.
Json dataOf(const std::string& page)
{
    const std::string mark = "id=\"data\">";
    const size_t begin = page.find(mark) + mark.size();
    return Json::parse(page.substr(begin, page.find("</script>", begin) - begin));
}

TEST(LogPage, CannotBeLeftByWhatTheLogSays)
{
    const auto operations =
        operationsOf(LogText()
                         .enter("SignHash")
                         .call("C_Sign", "00000005(CKR_<b>&\"'x)")
                         .record("ERR", "NV::Provider::SignHash",
                                 "</script><script>alert(\"1\")</script> & \xFF")
                         .leave("SignHash", "2.0", "0x8009002d")
                         .text());
    const std::string page = pageOf(operations, "<odd> & \"log\"");
    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
    EXPECT_EQ(page.find("<b>&"), std::string::npos);
    EXPECT_NE(page.find("<title>&lt;odd&gt; &amp; &quot;log&quot;</title>"), std::string::npos);
    const Json data = dataOf(page);
    EXPECT_EQ(data["title"], "<odd> & \"log\"");
    EXPECT_EQ(data["operations"][0][13][0], "</script><script>alert(\"1\")</script> & \uFFFD");
    // Nothing is fetched from anywhere.
    EXPECT_EQ(page.find("http:"), std::string::npos);
    EXPECT_EQ(page.find("https:"), std::string::npos);
    EXPECT_EQ(page.find("src="), std::string::npos);
}

TEST(LogPage, HasEachOperationOnceInTheOrderOfTime)
{
    LogText log;
    log.as("1", "0000000a").enter("SignHash").as("1", "0000000b").operation("OpenKey", "1.5");
    log.as("1", "0000000a").leave("SignHash", "9.0", "0x80090027");
    const Json data = dataOf(pageOf(operationsOf(log.text()), "odd"));
    ASSERT_EQ(data["operations"].size(), 2U);
    const auto nameOf = [&](size_t i) {
        return data["texts"][data["operations"][i][0].get<size_t>()].get<std::string>();
    };
    EXPECT_EQ(nameOf(0), "SignHash");
    EXPECT_EQ(nameOf(1), "OpenKey");
    EXPECT_EQ(data["operations"][1][2], 1500);
    EXPECT_EQ(data["operations"][1][11], 2);
    EXPECT_EQ(data["failures"], 1);
    EXPECT_EQ(data["kinds"][0]["line"], 1);
}

TEST(LogPage, KeepsTheLatestOperationsAndSaysHowManyItLeftOut)
{
    LogText log;
    for (int i = 0; i < 10; ++i)
        log.operation("OpenKey", "1").operation("SignHash", "1", "0x80090027");
    tool::LogPage page(false, 2, 3);
    const auto operations = operationsOf(log.text());
    for (const tool::Operation& operation : operations)
        page.add(operation);
    EXPECT_EQ(page.leftOut(), 15U);
    const Json data = dataOf(page.text("odd", summaryOf(operations)));
    EXPECT_EQ(data["leftOut"], 15);
    ASSERT_EQ(data["operations"].size(), 5U);
    EXPECT_EQ(data["operations"][4][11], 58);
}

}  // namespace

}  // namespace NV::test
