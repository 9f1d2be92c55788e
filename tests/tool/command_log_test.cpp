// keywarden log: what it prints about a log, and the page that it writes.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

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

TEST_F(LogCommand, PrintsFailuresFirstThenTableAndSlowest)
{
    const ChildResult result = profile.run({"log", file});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    const std::string& text = result.output;
    EXPECT_TRUE(contains(text, "odd.log: 17 records, 1 other lines\n\n"
                               "Failed or not finished: 2 of 4 operations\n"
                               "  1x Decrypt: not finished\n"
                               "     last: 2026-03-04 17:00:01.500, process 04312, line 17\n"
                               "  1x SignHash: NTE_INTERNAL_ERROR (0x8009002d), CKR_PIN_INCORRECT\n"
                               "     The PIN is wrong. The token counts the attempt.\n"
                               "     last: 2026-03-04 17:00:00.600, process 04312, line 7\n"
                               "\nThese operations:\n"))
        << text;
    EXPECT_TRUE(contains(text,
                         "OPERATION  COUNT  FAILED  LENGTH ONLY  MEDIAN ms  95 % ms  MAX ms\n"
                         "OpenKey    2      0       0            1.000      1.500    1.500\n"
                         "SignHash   1      1       0            40.000     40.000   40.000\n"))
        << text;
    EXPECT_TRUE(contains(text, "SignHash  40.000 ms  NTE_INTERNAL_ERROR (0x8009002d), "
                               "CKR_PIN_INCORRECT  (process 04312, line 7)\n"
                               "       1.500 ms  C_Initialize  CKR_OK\n"
                               "       1.500 ms  C_Login  CKR_PIN_INCORRECT\n"
                               "  Failed to login the token (000000a0(CKR_PIN_INCORRECT))\n"
                               "  Agreed SharedSecret(5 bytes)=(not shown)\n"))
        << text;
    EXPECT_TRUE(contains(text, "Decrypt  not finished  (process 04312, line 17)\n"
                               "       0.000 ms  C_Decrypt  no return\n"))
        << text;
    EXPECT_LT(text.find("Failed or not finished"), text.find("OPERATION"));
    EXPECT_LT(text.find("OPERATION"), text.find("The slowest operations"));
    EXPECT_FALSE(contains(text, "keywarden log on"));
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
              Json::parse(R"([{"name":"OpenKey","count":2,"failures":0,"sizeQueries":0,"median":1.0,
                               "p95":1.5,"max":1.5},
                              {"name":"SignHash","count":1,"failures":1,"sizeQueries":0,
                               "median":40.0,"p95":40.0,"max":40.0}])"));
    EXPECT_EQ(document["failures"][1], Json::parse(R"({"name":"SignHash",
                              "status":"NTE_INTERNAL_ERROR (0x8009002d), CKR_PIN_INCORRECT",
                              "meaning":"The PIN is wrong. The token counts the attempt.","count":1,
                              "time":"2026-03-04 17:00:00.600","line":7})"));
    EXPECT_EQ(document["failedCount"], 2);
    EXPECT_EQ(document["untraced"], 0);
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
                         "Failed or not finished: none\n"));
    EXPECT_TRUE(contains(profile.run({"log", file, "--slow", "3600000"}).output,
                         "Slower than 3600000.000 ms: none\n"));
}

TEST_F(LogCommand, SaysThatThereAreNoOperations)
{
    const std::string text = profile.run({"log", file, "--pid", "1"}).output;
    EXPECT_TRUE(contains(text, "There are no operations, or the options choose none.")) << text;
    EXPECT_FALSE(contains(text, "MEDIAN")) << text;
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

class LogsOfDays : public LogCommand {
protected:
    LogsOfDays()
    {
        profile.writeConfig("p11File=x\nlogTypes=FILE\nlogStore=~\\l\nlogRotate=7\n");
        put("20260303", "OpenKey", 30);
        put("20260304", "SignHash", 1);
        put("20300101", "Decrypt", 50);
        writeFile(profile.path() / "l" / "zzz.log", "");
    }

    // A log of that day with one operation, changed so many hours ago.
    void put(const std::string& day, const std::string& operation, int hoursAgo)
    {
        std::string text = LogText().operation(operation, "1").text();
        const std::string date = day.substr(0, 4) + "-" + day.substr(4, 2) + "-" + day.substr(6);
        for (size_t at = 0; (at = text.find("2026-03-04", at)) != std::string::npos; ++at)
            text.replace(at, date.size(), date);
        const auto path = profile.path() / "l" / ("nvksprovider-" + day + ".log");
        writeFile(path, text);
        std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() -
                                                   std::chrono::hours(hoursAgo));
    }

    // The operations that it tells of, one after another.
    std::string names(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "log");
        std::string found;
        const Json document = profile.json(arguments, 0);
        for (const Json& row : document["operations"])
            found += row["name"].get<std::string>() + " ";
        return found;
    }
};

// By its name, the file from the future would be the newest one for years.
TEST_F(LogsOfDays, ReadsTheOneThatWasChangedLast)
{
    const Json document = profile.json({"log"}, 0);
    EXPECT_TRUE(contains(document["file"].get<std::string>(), "nvksprovider-20260304.log"));
    EXPECT_EQ(names({}), "SignHash ");
}

TEST_F(LogsOfDays, ReadsAllOrThoseOfATime)
{
    EXPECT_EQ(names({"--all"}), "Decrypt OpenKey SignHash ");
    EXPECT_EQ(names({"--since", "2026-03-04"}), "Decrypt SignHash ");
    EXPECT_EQ(names({"--until", "2026-03-04"}), "OpenKey SignHash ");
    EXPECT_EQ(names({"--since", "2026-03-04 00:00", "--until", "2026-03-04 18:00"}), "SignHash ");
    EXPECT_EQ(names({"--until", "2026-03-03 16:59"}), "");
    EXPECT_EQ(profile.json({"log", "--all"}, 0)["files"].size(), 3U);
    profile.expectRun(
        1, {"log", "--since", "2031-01-01"},
        {"there is no log of that time", "There are logs of 2026-03-03 to 2030-01-01."});
}

TEST_F(LogsOfDays, SaysThatThereIsNone)
{
    std::filesystem::remove_all(profile.path() / "l");
    profile.expectRun(1, {"log"}, {"there is no log in ", "when a program loads it"});
    profile.writeConfig("p11File=x\nlogTypes=\nlogStore=~\\l\nlogRotate=7\n");
    profile.expectRun(1, {"log"}, {"The log is off: run \"keywarden log on\""});
}

TEST_F(LogCommand, FiltersByProcessAndFailure)
{
    LogText log;
    log.as("00042", "0000000a").operation("OpenKey", "1.0");
    log.as("04312", "0000000a").operation("SignHash", "1.0", "0x80090027");
    writeFile(folder.path() / "odd.log", log.text());
    EXPECT_EQ(profile.json({"log", file, "--pid", "42"}, 0)["operations"][0]["name"], "OpenKey");
    const Json failed = profile.json({"log", file, "--failed"}, 0);
    ASSERT_EQ(failed["operations"].size(), 1U);
    EXPECT_EQ(failed["operations"][0]["name"], "SignHash");
    EXPECT_FALSE(contains(profile.run({"log", file, "--failed"}).output, "OpenKey"));
}

TEST_F(LogCommand, RefusesWhatCannotBeMeant)
{
    profile.expectRun(2, {"log", file, "--op", "SignHsah"},
                      {"no operation has the name \"SignHsah\"", "SignHash"});
    profile.expectRun(0, {"log", file, "--op", "signhash"}, {"SignHash"});
    profile.expectRun(2, {"log", file, "--since", "yesterday"}, {"\"yesterday\" is no time"});
    profile.expectRun(2, {"log", file, "--pid", "x"}, {});
    profile.expectRun(2, {"log", file, "--slow", "nan"}, {"--slow"});
    profile.expectRun(2, {"log", file, "--format", "xml"}, {});
    profile.expectRun(2, {"log", file, "--force"}, {"applies only to"});
    profile.expectRun(2, {"log", file, "--all"}, {"applies only without FILE"});
    profile.expectRun(2, {"log", file, "-o", "x"}, {"applies only to --format chrome-trace"});
    profile.expectRun(2, {"log", file, "--follow", "--html", "x"}, {"does not apply to --follow"});
}

TEST_F(LogCommand, SaysThatAFileIsNoLog)
{
    writeFile(folder.path() / "odd.log", "");
    profile.expectRun(1, {"log", file}, {"odd.log is empty"});
    writeFile(folder.path() / "odd.log", "some\nother text\n");
    profile.expectRun(1, {"log", file}, {"odd.log contains no record of the provider"});
    writeFile(folder.path() / "odd.log", std::string(100 << 20, '\0'));
    profile.expectRun(1, {"log", file}, {"odd.log contains no record of the provider"});
}

TEST_F(LogCommand, SaysWhenAFullTraceWouldTellMore)
{
    writeFile(folder.path() / "odd.log",
              LogText()
                  .record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:1(ms), KEY=01AB")
                  .text());
    profile.expectRun(0, {"log", file},
                      {"Only the record of the end: 1 of these operations", "keywarden log on"});
    EXPECT_EQ(profile.json({"log", file}, 0)["untraced"], 1);
}

TEST_F(LogCommand, WritesATraceForOtherViewers)
{
    const ChildResult printed = profile.run({"log", file, "--format", "chrome-trace"});
    EXPECT_EQ(printed.exitCode, 0U);
    const auto path = folder.path() / "odd.json";
    profile.expectRun(0, {"log", file, "--format", "chrome-trace", "-o", narrowPath(path)},
                      {"Written: " + narrowPath(path)});
    const Json trace = parsed(readFile(path));
    EXPECT_TRUE(trace["traceEvents"].is_array());
    EXPECT_TRUE(contains(printed.output, "\"traceEvents\":["));
    profile.expectRun(1, {"log", file, "--format", "chrome-trace", "-o", narrowPath(path)},
                      {"--force"});
    profile.expectRun(1, {"log", file, "--format", "chrome-trace", "-o", file, "--force"}, {});
}

// ---- log on, log off

class LogLevelCommand : public testing::Test {
protected:
    std::string config() const { return readFile(profile.configFile()); }

    ToolProfile profile;
};

TEST_F(LogLevelCommand, ChangesTheLevelAndNothingElse)
{
    profile.writeConfig("# my notes\r\nmode=modern\r\np11File=x\r\nlogLevel = INFO\r\n"
                        "logTypes=FILE\r\nlogStore=~\\l\r\n");
    profile.expectRun(0, {"log", "on"}, {"logLevel=TRACE in ", "until they are started again"});
    EXPECT_EQ(config(), "# my notes\r\nmode=modern\r\np11File=x\r\nlogLevel = TRACE\r\n"
                        "logTypes=FILE\r\nlogStore=~\\l\r\n");
    EXPECT_EQ(profile.json({"log", "on"}, 0)["changed"], false);
    const Json off = profile.json({"log", "off"}, 0);
    EXPECT_EQ(off["changed"], true);
    EXPECT_EQ(off["logLevel"], "INFO");
    EXPECT_EQ(off["behaviour"], "modern");
    EXPECT_TRUE(contains(config(), "\r\nlogLevel = INFO\r\n"));
}

// A full trace that goes nowhere would help nobody.
TEST_F(LogLevelCommand, OnMakesTheLogGoToAFile)
{
    profile.writeConfig("mode=modern\np11File=x\nlogTypes=\nlogStore=~\\l\n");
    profile.expectRun(0, {"log", "on"}, {"logTypes=FILE"});
    EXPECT_EQ(config(), "mode=modern\np11File=x\nlogTypes=FILE\nlogStore=~\\l\nlogLevel=TRACE\n");
    profile.writeConfig("mode=modern\np11File=x\nlogTypes=CONSOLE\nlogStore=~\\l\n");
    profile.expectRun(0, {"log", "on"}, {"logTypes=CONSOLE,FILE"});
    profile.writeConfig("mode=modern\np11File=x\nlogTypes=\nlogStore=~\\l\n");
    profile.expectRun(0, {"log", "off"}, {"does not contain FILE"});
    EXPECT_TRUE(contains(config(), "logTypes=\n"));
}

TEST_F(LogLevelCommand, SaysWhatClassicDoes)
{
    profile.writeConfig("p11File=x\nlogLevel=INFO\nlogTypes=FILE\nlogStore=~\\l\nlogRotate=7\n");
    profile.expectRun(0, {"log", "on"}, {"a full trace at every level"});
}

TEST_F(LogLevelCommand, NeedsAConfiguration)
{
    profile.expectRun(1, {"log", "on"}, {"Cannot open file: ", "keywarden check"});
    EXPECT_FALSE(std::filesystem::exists(profile.configFile()));
}

// ---- log where

using LogWhereCommand = LogLevelCommand;

TEST_F(LogWhereCommand, ShowsFolderAndFilesWithTheirSizes)
{
    profile.writeConfig("mode=modern\np11File=x\nlogTypes=FILE\nlogStore=~\\odd logs\n");
    const std::filesystem::path folder = profile.path() / "odd logs";
    profile.expectRun(0, {"log", "where"},
                      {"Log folder: " + narrowPath(folder), "There are no log files."});
    create_directories(folder);
    writeFile(folder / "nvksprovider-20260304.log", std::string(4711, 'x'));
    writeFile(folder / "nvksprovider-20260305.log", "");
    writeFile(folder / "notes.txt", "no log");
    profile.expectRun(0, {"log", "where"},
                      {"2026-03-04  4711   nvksprovider-20260304.log",
                       "2026-03-05  0      nvksprovider-20260305.log", "2 files, 4711 bytes"});
    const Json document = profile.json({"log", "where"}, 0);
    EXPECT_EQ(document["folder"], narrowPath(folder));
    EXPECT_EQ(document["bytes"], 4711);
    EXPECT_EQ(document["written"], true);
    EXPECT_EQ(document["files"].size(), 2U);
}

TEST_F(LogWhereCommand, SaysThatNoFileIsWritten)
{
    profile.writeConfig("mode=modern\np11File=x\nlogTypes=CONSOLE\nlogStore=~\\l\n");
    profile.expectRun(0, {"log", "where"}, {"The log is not written to a file"});
    EXPECT_EQ(profile.json({"log", "where"}, 0)["written"], false);
}

TEST_F(LogCommand, ReportsAMissingConfiguration)
{
    profile.expectRun(1, {"log"}, {"Cannot open file: ", "keywarden check"});
}

}  // namespace

}  // namespace NV::test
