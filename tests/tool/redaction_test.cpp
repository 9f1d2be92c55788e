// What is taken out of lines of the log, row by row of the table, and of lines that nobody knows.

#include "formats/redaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "contains.h"
#include "formats/secret_lines.h"

namespace NV::test {

namespace {

using tool::redacted;
using tool::RedactedLine;
using Change = RedactedLine::Change;

constexpr std::string_view prefix = "2026-03-04 17:05:09.042 TRC [04312,1a2b3c4d] ";

std::string lineOf(std::string_view function, std::string_view message)
{
    return std::string(prefix) + std::string(function) +
           "[odd_file.cpp:87]:" + std::string(message);
}

// The form with these texts in the places of its values.
std::string filled(std::string_view form, std::string_view number, std::string_view secret)
{
    std::string text;
    for (size_t i = 0; i < form.size(); ++i) {
        if (form[i] != '%') {
            text += form[i];
            continue;
        }
        text += form[++i] == '!' ? secret : number;
    }
    return text;
}

std::vector<std::string> functionsOf(const tool::SecretLine& line)
{
    if (line.functions.empty())
        return {"NV::Provider::SignHash"};
    std::vector<std::string> functions;
    std::string_view rest = line.functions;
    for (size_t blank = rest.find(' '); blank != std::string_view::npos; blank = rest.find(' ')) {
        functions.emplace_back(rest.substr(0, blank));
        rest.remove_prefix(blank + 1);
    }
    functions.emplace_back(rest);
    return functions;
}

TEST(Redaction, TakesOutTheValueOfEachRowAndNothingElse)
{
    for (const tool::SecretLine& row : tool::secretLines()) {
        for (const std::string& function : functionsOf(row)) {
            for (const char* secret : {"12", "C35A17E18D", "odd-PIN] 7391(bytes)=", ""}) {
                const RedactedLine result =
                    redacted(lineOf(function, filled(row.message, "5", secret)));
                EXPECT_EQ(result.change, Change::values) << row.message << secret;
                EXPECT_EQ(result.text, lineOf(function, filled(row.message, "5", tool::takenOut)));
            }
        }
    }
}

TEST(Redaction, TakesOutTheWholeMessageOfARowThatIsCutOffOrInAnotherFunction)
{
    for (const tool::SecretLine& row : tool::secretLines()) {
        const std::string whole = filled(row.message, "5", "C35A17E18D");
        const std::string cut = whole.substr(0, whole.find("C35A17E18D") + 4);
        EXPECT_FALSE(contains(redacted(lineOf(functionsOf(row).front(), cut)).text, "C35A")) << cut;
    }
    const RedactedLine other = redacted(lineOf("NV::Odd::function", "pbSignature = C35A17E18D"));
    EXPECT_EQ(other.change, Change::message);
    EXPECT_EQ(other.text, lineOf("NV::Odd::function", tool::takenOut));
}

TEST(Redaction, LeavesHarmlessLines)
{
    for (const char* message :
         {"ENTER", "LEAVE(1)", "STATUS=0x80090027, ELAPSED:0.012(ms)", "",
          "CALL C_Login(): Result = 000000a0(CKR_PIN_INCORRECT), Elapsed [1.207 msec]",
          "Failed to login the token (000000a0(CKR_PIN_INCORRECT))", "2) Try to login the token ",
          "ARG[0]:hSession=0000000000005E55", "ARG[3]:cbHashValue=32", "ARG[7]:dwFlags=0x2",
          "ARG[1]:pszProperty=SmartCardPin", "ARG[0]:id = 01AB",
          "DONE, STATUS=0x8010006b, ELAPSED:1960.418(ms), RESULT=CKR_PIN_INCORRECT, KEY=01AB",
          "Program=C:\\Windows\\System32\\certutil.exe, USER=alice, VERSION=0.1.0",
          "TokenInfo: {label=Odd,serialNumber=SN-7391-52}"}) {
        const RedactedLine result = redacted(lineOf("NV::Provider::SignHash", message));
        EXPECT_EQ(result.change, Change::none) << message;
        EXPECT_EQ(result.text, lineOf("NV::Provider::SignHash", message));
    }
    const std::string banner = std::string(prefix) + "LOGGER():LogStore = ~\\logs";
    EXPECT_EQ(redacted(banner).text, banner);
}

TEST(Redaction, TakesOutWhatAnUnknownLineSays)
{
    for (const char* message :
         {"Odd PIN=1234", "1234", "The new secret is C35A", "ARG[0]:pszOddName=1234",
          "ARG[0]:hSession=odd-PIN-7391", "ARG[3]:cbHashValue=twelve", "ENTER 1234",
          "LEAVE(1234567890123456789012)", "STATUS=0x1, ELAPSED:0.012(ms) 1234",
          "Failed to login the token with 1234 (000000a0(CKR_PIN_INCORRECT))",
          "Slot Count = C35A17E18D"}) {
        const RedactedLine result = redacted(lineOf("NV::Provider::SignHash", message));
        EXPECT_EQ(result.change, Change::message) << message;
        EXPECT_EQ(result.text, lineOf("NV::Provider::SignHash", tool::takenOut));
    }
}

TEST(Redaction, TakesOutEverythingOfALineThatIsNoRecord)
{
    for (const std::string& line :
         {std::string("odd-PIN-7391"), std::string("C35A17E18DC35A17E18D], "), std::string(),
          "x" + lineOf("NV::Provider::SignHash", "ENTER"),
          std::string("2026-03-04 17:05:09.042 TRC [04312,odd-PIN7] ENTER"),
          std::string("2026-03-04 17:05:09.042 TRC [12345678901,1a2b3c4d] ENTER"),
          std::string(prefix) + "odd-PIN-7391[odd.cpp:87]:ENTER",
          std::string(prefix) + "NV::odd[odd-PIN-7391:87]:ENTER",
          std::string(prefix) + "NV::odd[odd.cpp:7391PIN]:ENTER"}) {
        const RedactedLine result = redacted(line);
        EXPECT_EQ(result.change, Change::line) << line;
        EXPECT_EQ(result.text,
                  "(" + std::to_string(line.size()) + " bytes that are no record were taken out)");
    }
}

TEST(Redaction, TakesLongRunsOutOfTexts)
{
    const std::string run(65, 'A');
    const RedactedLine result =
        redacted(lineOf("NV::Provider::OpenKey", "ARG[1]:pszKeyName=" + run + "."));
    EXPECT_EQ(result.change, Change::values);
    EXPECT_EQ(result.text, lineOf("NV::Provider::OpenKey", "ARG[1]:pszKeyName=(taken out)."));
    EXPECT_EQ(tool::withoutLongRuns("C:\\odd " + run.substr(1)), "C:\\odd " + run.substr(1));
    EXPECT_EQ(tool::withoutLongRuns(run + "-" + run + "="), "(taken out)-(taken out)=");
    EXPECT_EQ(tool::withoutLongRuns(""), "");
}

}  // namespace

}  // namespace NV::test
