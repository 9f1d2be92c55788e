// Splitting a line of a log into its fields, and removing secrets from messages.

#include <gtest/gtest.h>

#include <string>

#include "formats/log_record.h"

namespace NV::test {

namespace {

using tool::parseRecord;

TEST(LogRecord, HasItsFields)
{
    const auto record = parseRecord("2026-03-04 17:05:09.042 ERR [04312,1a2b3c4d] "
                                    "NV::Provider::init[nvvtoken.cpp:87]:Failed [x]: again\r\n");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->time, "2026-03-04 17:05:09.042");
    EXPECT_EQ(record->level, "ERR");
    EXPECT_EQ(record->process, "04312");
    EXPECT_EQ(record->thread, "1a2b3c4d");
    EXPECT_EQ(record->function, "NV::Provider::init");
    EXPECT_EQ(record->place, "nvvtoken.cpp:87");
    EXPECT_EQ(record->message, "Failed [x]: again");
}

TEST(LogRecord, MayHaveNoPlace)
{
    for (const char* message :
         {"just a text", "count = 1[x:2]:y", "[odd.cpp:1]:x", "f[odd.cpp]:x"}) {
        const std::string line = "2026-03-04 17:05:09.042 TRC [1,1a2b3c4d] " + std::string(message);
        const auto record = parseRecord(line);
        ASSERT_TRUE(record) << message;
        EXPECT_EQ(record->message, message);
        EXPECT_EQ(record->function, "") << message;
        EXPECT_EQ(record->place, "") << message;
    }
}

// Times are compared over midnight, the end of a month, a leap day and the end of a year.
TEST(LogRecord, TimesAreMilliseconds)
{
    const auto at = [](const std::string& time) {
        const auto record = parseRecord(time + " TRC [1,1a2b3c4d] x");
        EXPECT_TRUE(record) << time;
        return record ? record->milliseconds : 0;
    };
    EXPECT_EQ(at("2026-03-04 17:05:09.042") - at("2026-03-04 17:05:08.999"), 43);
    EXPECT_EQ(at("2026-04-01 00:00:00.000") - at("2026-03-31 23:59:59.999"), 1);
    EXPECT_EQ(at("2028-03-01 00:00:00.000") - at("2028-02-28 00:00:00.000"), 2 * 86400000);
    EXPECT_EQ(at("2027-01-01 00:00:00.000") - at("2026-12-31 23:00:00.000"), 3600000);
}

TEST(LogRecord, IsEmptyForOtherLines)
{
    for (const char* line :
         {"", "x", "2026-03-04 17:05:09.042", "2026-03-04 17:05:09 TRC [1,1a2b3c4d] x",
          "2026-03-04 17:05:09.042 TRC", "2026-03-04 17:05:09.042 LOW [1,1a2b3c4d] x",
          "2026-03-04 17:05:09.042 TRC [,1a2b3c4d] x", "2026-03-04 17:05:09.042 TRC [a,1a2b3c4d] x",
          "2026-03-04 17:05:09.042 TRC [1,1a2b] x", " 2026-03-04 17:05:09.042 TRC [1,1a2b3c4d] x"})
        EXPECT_FALSE(parseRecord(line)) << line;
}

TEST(LogRecord, HasTheResultOfAFailedStep)
{
    using tool::resultInError;
    EXPECT_EQ(resultInError("Failed to login the token (000000a0(CKR_PIN_INCORRECT))"),
              "CKR_PIN_INCORRECT");
    for (const char* text : {"", "))", "Failed", "Failed (x)", "Failed (80000001(UNKNOWN))"})
        EXPECT_EQ(resultInError(text), "") << text;
}

TEST(LogRecord, HasTheEndOfAnOperation)
{
    const auto endOf = [](const std::string& message) {
        tool::LogRecord record;
        record.function = "NVKSPSignHash";
        record.message = message;
        const auto end = tool::parseEnd(record);
        return end ? std::string(end->operation) + "|" + std::string(end->result) + "|" +
                         std::string(end->key)
                   : std::string("none");
    };
    EXPECT_EQ(endOf("DONE, STATUS=0x0, ELAPSED:0.214(ms)"), "SignHash||");
    EXPECT_EQ(endOf("DONE, STATUS=0x0, ELAPSED:0.214(ms), KEY=01, RESULT=AB"),
              "SignHash||01, RESULT=AB");
    EXPECT_EQ(endOf("DONE, STATUS=0x8, ELAPSED:1(ms), RESULT=CKR_PIN_LOCKED, KEY=01AB"),
              "SignHash|CKR_PIN_LOCKED|01AB");
    EXPECT_EQ(endOf("STATUS=0x0, ELAPSED:0.214(ms)"), "none");
}

TEST(LogRecord, TellsOperationsOfTheTableFromTheirSteps)
{
    using tool::operationOfTable;
    EXPECT_EQ(operationOfTable("NV::Provider::SignHash"), "SignHash");
    EXPECT_EQ(operationOfTable("NV::ProviderManager::OpenProvider"), "OpenProvider");
    for (const char* name : {"NV::Provider::init", "NV::Provider::Provider",
                             "NV::Provider::", "NV::Pkcs11::C_Sign", "SignHash", ""})
        EXPECT_EQ(operationOfTable(name), "") << name;
}

TEST(LogSecrets, AreNotShown)
{
    const std::string hex = "C35A17E18D";
    for (const char* form :
         {"Agreed SharedSecret(5 bytes)=[", "Retrieved SharedSecret(5 bytes)=[",
          "KDFInputData(5 bytes)=[", "HMAC_KEY(5 bytes)=[", "Derived Key(5 bytes): ["}) {
        for (const char* before : {"", "Failed after "}) {
            const std::string shown = tool::withoutSecrets(before + (form + hex) + "], ");
            EXPECT_EQ(shown, before + std::string(form).substr(0, std::string(form).size() - 1) +
                                 "(not shown)");
        }
    }
    EXPECT_EQ(tool::withoutSecrets("Entered Pin=odd-PIN-7391[12bytes]"), "Entered Pin=(not shown)");
    EXPECT_EQ(tool::withoutSecrets("Entered Pin is 12 bytes"), "Entered Pin is 12 bytes");
    EXPECT_EQ(tool::withoutSecrets("Not Found key [x]"), "Not Found key [x]");
}

}  // namespace

}  // namespace NV::test
