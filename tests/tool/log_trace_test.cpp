// The trace for other viewers. tests/tool/trace_format.py checks a whole one against the format.

#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "log/log_trace.h"
#include "log_text.h"
#include "output.h"

namespace NV::test {

namespace {

using tool::Json;

Json traceOf(const std::string& log)
{
    tool::ChromeTrace trace(false);
    for (const tool::Operation& operation : operationsOf(log))
        trace.add(operation);
    return Json::parse(trace.text())["traceEvents"];
}

TEST(LogTrace, HasASliceForEachOperationAndCall)
{
    LogText log;
    log.record("INF", "DllMain", "Program=C:\\odd.exe, USER=me, VERSION=1");
    log.enter("SignHash").call("C_Sign", "00000030(CKR_DEVICE_ERROR)", "1.500");
    log.leave("SignHash", "400.0", "0x8009002d");
    const Json events = traceOf(log.text());
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[0]["name"], "process_name");
    EXPECT_EQ(events[0]["args"]["name"], "C:\\odd.exe");
    EXPECT_EQ(events[1]["name"], "thread_name");
    EXPECT_EQ(events[1]["args"]["name"], "1a2b3c4d");
    const Json& operation = events[2];
    EXPECT_EQ(operation["name"], "SignHash");
    EXPECT_EQ(operation["ph"], "X");
    EXPECT_EQ(operation["dur"], 400'000);
    EXPECT_EQ(operation["pid"], 4312);
    EXPECT_EQ(operation["tid"], 0x1a2b3c4d);
    EXPECT_EQ(operation["cname"], "terrible");
    EXPECT_EQ(operation["args"]["status"], "NTE_INTERNAL_ERROR (0x8009002d), CKR_DEVICE_ERROR");
    EXPECT_EQ(events[3]["name"], "C_Sign");
    EXPECT_EQ(events[3]["ts"].get<int64_t>() - operation["ts"].get<int64_t>(), 100'000);
    EXPECT_EQ(events[3]["dur"], 1500);
}

// Viewers drop slices of one thread that overlap without being inside each other.
TEST(LogTrace, SlicesOfAThreadDoNotOverlap)
{
    LogText log;
    // Each is longer than the tenth of a second between two records of the test.
    for (int i = 0; i < 5; ++i)
        log.enter("SignHash")
            .call("C_Sign", "00000000(CKR_OK)", "900.0")
            .leave("SignHash", "700.0");
    int64_t end = 0;
    int64_t inner = 0;
    for (const Json& event : traceOf(log.text())) {
        if (event["ph"] != "X")
            continue;
        const auto begin = event["ts"].get<int64_t>();
        const int64_t after = begin + event["dur"].get<int64_t>();
        if (event["name"] == "SignHash") {
            EXPECT_GE(begin, end);
            end = after;
            inner = begin;
        } else {
            EXPECT_GE(begin, inner);
            EXPECT_LE(after, end);
        }
    }
}

TEST(LogTrace, AnOperationWithItsEndAloneEndsThere)
{
    const Json events = traceOf(
        LogText()
            .record("INF", "NVKSPSignHash", "DONE, STATUS=0x0, ELAPSED:50.000(ms), KEY=01AB")
            .record("INF", "NVKSPOpenKey", "DONE, STATUS=0x0, ELAPSED:20.000(ms), KEY=01AB")
            .text());
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[2]["ts"].get<int64_t>() + 20'000 - (events[1]["ts"].get<int64_t>() + 50'000),
              100'000);
}

TEST(LogTrace, ShowsNoSecret)
{
    LogText log;
    log.enter("DeriveKey").record("ERR", "NV::KeyStore::derive", "Derived Key(2 bytes): [C35A]");
    log.leave("DeriveKey", "1.0", "0x8009002d");
    EXPECT_EQ(traceOf(log.text()).dump().find("C35A"), std::string::npos);
}

}  // namespace

}  // namespace NV::test
