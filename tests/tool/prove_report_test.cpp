// The report of keywarden prove: its document, its lines and its page.

#include "prove/prove_report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "contains.h"
#include "formats/html_text.h"
#include "output.h"

namespace NV::test {

namespace {

using tool::Proof;
using tool::ProofOutcome;

const std::vector<Proof> proofs = {
    {"open", "", ProofOutcome::done, "opened", "", {}},
    {"sign", "01AB", ProofOutcome::failed, "NCryptSignHash failed", "Do this.", NTE_NO_KEY},
    {"tls", "01AB", ProofOutcome::notPossible, "no Schannel", "", {}},
    {"decrypt", "01AB", ProofOutcome::notTried, "it asks for the PIN", "", {}},
    {"agree", "<b>", ProofOutcome::failed, "\"x\" & \x1b[31m", "<script>", 0x12345678},
};
const tool::ProofPlace place = {"1.2.3", "Windows 10.0.1", "2026-03-01 12:00:00Z"};

TEST(ProveReport, CountsEachOutcome)
{
    EXPECT_EQ("5 steps: 1 done, 2 failed, 1 not possible here, 1 not tried.",
              tool::summaryOf(proofs));
}

TEST(ProveReport, TheDocumentHasTheStatusAsNumberAndName)
{
    const tool::Json report = tool::reportOf(place, proofs);
    EXPECT_EQ(5U, report["steps"].size());
    EXPECT_EQ("done", report["steps"][0]["outcome"]);
    EXPECT_TRUE(report["steps"][0]["key"].is_null());
    EXPECT_TRUE(report["steps"][0]["status"].is_null());
    EXPECT_EQ("failed", report["steps"][1]["outcome"]);
    EXPECT_EQ("0x8009000d", report["steps"][1]["status"]);
    EXPECT_EQ("NTE_NO_KEY", report["steps"][1]["statusName"]);
    EXPECT_EQ("not-possible", report["steps"][2]["outcome"]);
    EXPECT_EQ("not-tried", report["steps"][3]["outcome"]);
    EXPECT_EQ("0x12345678", report["steps"][4]["status"]);
    EXPECT_TRUE(report["steps"][4]["statusName"].is_null());
    EXPECT_EQ(2, report["failed"]);
    EXPECT_EQ(1, report["notPossible"]);
    EXPECT_EQ("1.2.3", report["version"]);
}

TEST(ProveReport, OnlyAFailureHasALineOfAdvice)
{
    const tool::Output out;
    EXPECT_EQ((std::vector<std::string>{"done          open: opened"}),
              tool::linesOf(out, proofs[0]));
    EXPECT_EQ((std::vector<std::string>{"FAILED        sign 01AB: NCryptSignHash failed",
                                        "              > Do this."}),
              tool::linesOf(out, proofs[1]));
}

TEST(ProveReport, ThePageEscapesWhatATokenSays)
{
    const std::string page = tool::pageOf(place, proofs);
    EXPECT_TRUE(contains(page, "<td>&lt;b&gt;</td>")) << page;
    EXPECT_TRUE(contains(page, "&quot;x&quot; &amp; \\x1B[31m")) << page;
    EXPECT_TRUE(contains(page, "&lt;script&gt;")) << page;
    EXPECT_FALSE(contains(page, "<script")) << page;
    EXPECT_TRUE(contains(page, "NTE_NO_KEY (0x8009000d)")) << page;
}

TEST(HtmlText, EscapesTheCharactersOfMarkUp)
{
    EXPECT_EQ("a &amp;&lt;&gt;&quot; b", tool::htmlText("a &<>\" b"));
    EXPECT_EQ("", tool::htmlText(""));
}

}  // namespace

}  // namespace NV::test
