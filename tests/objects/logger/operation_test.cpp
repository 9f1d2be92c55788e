// The record of an operation's end.

#include "logger/operation.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "log_capture.h"

namespace NV::test {

namespace {

const char* resultText(uint32_t result)
{
    if (result == 0xA0)
        return "000000a0(CKR_PIN_INCORRECT)";
    return result == 5 ? "00000005(CKR_GENERAL_ERROR)" : "UNKNOWN";
}

constexpr Site site{"NVKSPSignHash", 13, "dll.cpp", 44};

class OperationRecord : public testing::Test {
protected:
    OperationRecord() { loggerSettings().gatesAllLevels = true; }

    // What an operation writes that ends with this status after the work.
    template <typename Work>
    std::string recordOf(int32_t status, const Work& work)
    {
        {
            const Operation operation(site);
            work();
            EXPECT_EQ(status, operation.end(status));
        }
        return written();
    }
    std::string written()
    {
        std::string text;
        for (const LogLine& line : capture.takeLines())
            text += line.level + " " + masked(line.message) + "\n";
        return text;
    }

    static constexpr auto nothing = [] {};

    LogCapture capture;
};

constexpr int32_t failed = static_cast<int32_t>(0x8009002D);

TEST_F(OperationRecord, HasStatusAndTime)
{
    EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms)\n", recordOf(0, nothing));
    EXPECT_EQ("INF DONE, STATUS=0x8009002d, ELAPSED:#(ms)\n", recordOf(failed, nothing));
}

TEST_F(OperationRecord, IsUnderTheNameOfTheEntryPoint)
{
    Operation(site).end(0, 45, "provider/src/dll/dll.cpp");
    const LogLine line = capture.lines().at(0);
    EXPECT_EQ("NVKSPSignHash", line.function);
    EXPECT_EQ("dll.cpp", line.file);
    EXPECT_EQ(45, line.line);
}

TEST_F(OperationRecord, NamesTheFirstKey)
{
    EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", recordOf(0, [] {
                  noteKey(L"");
                  noteKey(L"01AB");
                  noteKey(L"0256");
              }));
}

TEST_F(OperationRecord, AKeysNameIsOneLineOfLimitedLength)
{
    EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms), KEY=a?b?c, KEY=\xC3\xB6?\n",
              recordOf(0, [] { noteKey(L"a\rb\nc, KEY=\u00F6\x7F"); }));
    for (const size_t length : {255U, 256U, 257U, 100000U})
        EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms), KEY=" +
                      std::string(std::min<size_t>(length, 256), 'k') + "\n",
                  recordOf(0, [&] { noteKey(std::wstring(length, L'k')); }));
}

TEST_F(OperationRecord, NamesTheFirstResultAfterAFailure)
{
    const auto work = [] {
        noteResult(0, resultText);
        noteResult(0xA0, resultText);
        noteResult(5, resultText);
        noteKey(L"01AB");
    };
    EXPECT_EQ("INF DONE, STATUS=0x8009002d, ELAPSED:#(ms), RESULT=CKR_PIN_INCORRECT, KEY=01AB\n",
              recordOf(failed, work));
    EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms), KEY=01AB\n", recordOf(0, work));
}

TEST_F(OperationRecord, AResultWithoutANameIsANumber)
{
    EXPECT_EQ("INF DONE, STATUS=0x8009002d, ELAPSED:#(ms), RESULT=0x80000001\n",
              recordOf(failed, [] { noteResult(0x80000001, resultText); }));
}

TEST_F(OperationRecord, OneInsideAnotherHasItsOwn)
{
    EXPECT_EQ("INF DONE, STATUS=0x8009002d, ELAPSED:#(ms), RESULT=CKR_GENERAL_ERROR, KEY=inner\n"
              "INF DONE, STATUS=0x8009002d, ELAPSED:#(ms), RESULT=CKR_PIN_INCORRECT, KEY=outer\n",
              recordOf(failed, [] {
                  noteKey(L"outer");
                  {
                      const Operation inner(site);
                      noteKey(L"inner");
                      noteResult(5, resultText);
                      inner.end(failed);
                  }
                  noteResult(0xA0, resultText);
              }));
}

TEST_F(OperationRecord, AnotherThreadHasItsOwn)
{
    EXPECT_EQ("INF DONE, STATUS=0x0, ELAPSED:#(ms)\n",
              recordOf(0, [] { std::thread([] { noteKey(L"other"); }).join(); }));
}

TEST_F(OperationRecord, WhatIsNotedOutsideIsForgotten)
{
    noteKey(L"outside");
    noteResult(5, resultText);
    EXPECT_EQ("INF DONE, STATUS=0x8009002d, ELAPSED:#(ms)\n", recordOf(failed, nothing));
}

TEST_F(OperationRecord, IsNotWrittenAboveInfo)
{
    for (const uint32_t mask : {logMaskWarn, logMaskError, logMaskSevere}) {
        loggerSettings().levelMask = mask;
        EXPECT_EQ("", recordOf(failed, [] { noteKey(L"01AB"); }));
    }
    loggerSettings().levelMask = logMaskInfo;
    EXPECT_NE("", recordOf(failed, nothing));
}

TEST_F(OperationRecord, IsNotWrittenWithoutOutputOrInClassic)
{
    loggerSettings().gatesAllLevels = false;
    EXPECT_EQ("", recordOf(failed, [] { noteKey(L"01AB"); }));
    loggerSettings().gatesAllLevels = true;
    loggerSettings().types = 0;
    EXPECT_EQ("", recordOf(failed, [] { noteKey(L"01AB"); }));
    EXPECT_EQ(1U, loggerRecordCount());  // not counted either
}

// The text of a result is not made for a record that nobody writes, nor for a success.
TEST_F(OperationRecord, MakesNoTextInVain)
{
    static int texts = 0;
    const auto text = [](uint32_t result) {
        ++texts;
        return resultText(result);
    };
    recordOf(0, [&] { noteResult(5, text); });
    loggerSettings().levelMask = logMaskWarn;
    recordOf(failed, [&] { noteResult(5, text); });
    EXPECT_EQ(0, texts);
    loggerSettings().levelMask = logMaskInfo;
    recordOf(failed, [&] { noteResult(5, text); });
    EXPECT_EQ(1, texts);
}

}  // namespace

}  // namespace NV::test
