// The page of keywarden log as text. tests/tool/html_test.sh looks at it in a browser.

#include <gtest/gtest.h>

#include <string>

#include "log/log_report.h"
#include "log_text.h"

namespace NV::test {

namespace {

TEST(LogHtml, EscapesWhatTheLogSays)
{
    const auto operations = operationsOf(
        LogText()
            .enter("SignHash")
            .call("C_Sign", "00000005(CKR_<b>&\"'x)")
            .record("ERR", "NV::Provider::SignHash", "<script>alert(\"1\")</script> & more")
            .leave("SignHash", "2.0", "0x8009002d")
            .text());
    const std::string page = tool::toHtml(operations, "<odd> & \"log\"", false);
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(page.find("<b>&"), std::string::npos);
    EXPECT_NE(page.find("&lt;script&gt;alert(&quot;1&quot;)&lt;/script&gt; &amp; more"),
              std::string::npos);
    EXPECT_NE(page.find("<title>&lt;odd&gt; &amp; &quot;log&quot;</title>"), std::string::npos);
    // Nothing is fetched from anywhere.
    EXPECT_EQ(page.find("http"), std::string::npos);
    EXPECT_EQ(page.find("src="), std::string::npos);
}

}  // namespace

}  // namespace NV::test
