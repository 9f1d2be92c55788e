// keywarden log: what it prints about a log, and the page that it writes.

#include <gtest/gtest.h>

#include <string>

#include "contains.h"
#include "log_text.h"
#include "tool_program.h"

namespace NV::test {

namespace {

class LogCommand : public testing::Test {
protected:
    LogCommand() : file(narrowPath(folder.path() / "odd.log"))
    {
        LogText log;
        log.operation("OpenKey", "0.500").operation("OpenKey", "1.500");
        log.enter("SignHash").call("C_Initialize", "00000000(CKR_OK)").endedCall("C_Login");
        log.record("ERR", "NV::P11RSAKeyObject::sign",
                   "Failed to login the token (000000a0(CKR_PIN_INCORRECT))");
        log.record("ERR", "NV::P11ECKeyObject::secretAgreement",
                   "Agreed SharedSecret(5 bytes)=[C35A17E18D], ");
        log.leave("SignHash", "40.000", "0x8009002d");
        log.raw("a foreign line").enter("Decrypt").start("C_Decrypt");
        writeFile(folder.path() / "odd.log", log.text());
    }

    TemporaryFolder folder;
    ToolProfile profile;
    std::string file;
};

TEST_F(LogCommand, PrintsTableSlowestAndFailed)
{
    const ChildResult result = profile.run({"log", file});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    const std::string& text = result.output;
    EXPECT_TRUE(contains(text, "odd.log: 17 records, 1 other lines\n")) << text;
    EXPECT_TRUE(contains(text, "OPERATION  COUNT  FAILED  MEDIAN ms  95 % ms  MAX ms\n"
                               "OpenKey    2      0       1.000      1.500    1.500\n"
                               "SignHash   1      1       40.000     40.000   40.000\n"))
        << text;
    EXPECT_TRUE(contains(text, "SignHash  40.000 ms  NTE_INTERNAL_ERROR (0x8009002d)  (line 7)\n"
                               "       1.500 ms  C_Initialize  CKR_OK\n"
                               "       1.500 ms  C_Login  CKR_PIN_INCORRECT\n"
                               "  Failed to login the token (000000a0(CKR_PIN_INCORRECT))\n"
                               "  Agreed SharedSecret(5 bytes)=(not shown)\n"))
        << text;
    EXPECT_TRUE(contains(text, "Decrypt  not finished  (line 17)\n"
                               "       0.000 ms  C_Decrypt  no return\n"))
        << text;
    EXPECT_FALSE(contains(text, "C35A17E18D"));
    EXPECT_FALSE(contains(text, "\x1b"));
}

TEST_F(LogCommand, ShowsSecretsWhenAsked)
{
    EXPECT_TRUE(contains(profile.run({"log", file, "--show-secrets"}).output, "[C35A17E18D]"));
    EXPECT_FALSE(contains(profile.run({"--json", "log", file}).output, "C35A17E18D"));
    EXPECT_TRUE(
        contains(profile.run({"--json", "log", file, "--show-secrets"}).output, "C35A17E18D"));
}

TEST_F(LogCommand, HasItsShapeAsJson)
{
    const Json document = profile.json({"log", file}, 0);
    EXPECT_EQ(document["records"], 17);
    EXPECT_EQ(document["otherLines"], 1);
    EXPECT_EQ(document["operations"],
              Json::parse(R"([{"name":"OpenKey","count":2,"failures":0,"median":1.0,"p95":1.5,
                               "max":1.5},
                              {"name":"SignHash","count":1,"failures":1,"median":40.0,"p95":40.0,
                               "max":40.0}])"));
    EXPECT_EQ(document["slow"].size(), 3U);
    ASSERT_EQ(document["failed"].size(), 2U);
    const Json& failed = document["failed"][0];
    EXPECT_EQ(failed["name"], "SignHash");
    EXPECT_EQ(failed["status"], "0x8009002d");
    EXPECT_EQ(failed["line"], 7);
    EXPECT_EQ(failed["process"], "04312");
    EXPECT_EQ(failed["thread"], "1a2b3c4d");
    EXPECT_EQ(failed["calls"][1], Json::parse(R"({"name":"C_Login","result":"CKR_PIN_INCORRECT",
                                                 "elapsed":1.5})"));
    EXPECT_EQ(failed["errors"].size(), 2U);
    const Json& open = document["failed"][1];
    EXPECT_EQ(open["finished"], false);
    EXPECT_TRUE(open["status"].is_null());
    EXPECT_TRUE(open["elapsed"].is_null());
}

TEST_F(LogCommand, FiltersByNameAndBySlowness)
{
    Json document = profile.json({"log", file, "--op", "OpenKey"}, 0);
    EXPECT_EQ(document["operations"].size(), 1U);
    EXPECT_EQ(document["operations"][0]["name"], "OpenKey");
    EXPECT_TRUE(document["failed"].empty());
    document = profile.json({"log", file, "--slow", "1.5"}, 0);
    ASSERT_EQ(document["slow"].size(), 2U);
    EXPECT_EQ(document["slow"][0]["name"], "SignHash");
    EXPECT_EQ(document["slow"][1]["elapsed"], 1.5);
    EXPECT_TRUE(contains(profile.run({"log", file, "--op", "OpenKey"}).output,
                         "Failed or not finished:\n  none\n"));
}

TEST_F(LogCommand, WritesThePage)
{
    const auto page = folder.path() / "odd.html";
    profile.expectRun(0, {"log", file, "--html", narrowPath(page)},
                      {"Written: " + narrowPath(page)});
    const std::string html = readFile(page);
    EXPECT_TRUE(html.starts_with("<!DOCTYPE html>"));
    EXPECT_TRUE(html.ends_with("</html>\n"));
    EXPECT_FALSE(contains(html, "C35A17E18D"));
    EXPECT_EQ(profile.json({"log", file, "--html", narrowPath(page), "--force"}, 0)["html"],
              narrowPath(page));
}

TEST_F(LogCommand, ReportsAPageThatCannotBeWritten)
{
    const ChildResult result =
        profile.run({"log", file, "--html", narrowPath(folder.path() / "no" / "odd.html")});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_TRUE(contains(result.output, "cannot be written: ")) << result.output;
}

TEST_F(LogCommand, ReadsTheNewestLogOfTheConfiguredFolder)
{
    profile.writeConfig("p11File=x\nlogStore=~\\l\nlogRotate=7\n");
    profile.expectRun(1, {"log"}, {"there is no log in "});
    writeFile(profile.path() / "l" / "nvksprovider-20260303.log", "");
    writeFile(profile.path() / "l" / "nvksprovider-20260304.log",
              LogText().operation("OpenKey", "1").text());
    writeFile(profile.path() / "l" / "zzz.log", "");
    const Json document = profile.json({"log"}, 0);
    EXPECT_TRUE(contains(document["file"].get<std::string>(), "nvksprovider-20260304.log"));
    EXPECT_EQ(document["operations"].size(), 1U);
}

TEST_F(LogCommand, ReportsAMissingConfiguration)
{
    profile.expectRun(1, {"log"}, {"Cannot open file: ", "keywarden check"});
}

TEST_F(LogCommand, AnEmptyLogIsNoFailure)
{
    writeFile(folder.path() / "odd.log", "");
    const Json document = profile.json({"log", file}, 0);
    EXPECT_EQ(document["records"], 0);
    EXPECT_EQ(document["operations"], Json::array());
}

}  // namespace

}  // namespace NV::test
