// The longest message, by way of wide text: it is measured in the characters that are written.

#include "logger/logger.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "base/text.h"
#include "log_capture.h"

namespace NV::test {

namespace {

constexpr size_t longest = 65535;

struct Case {
    const char* name;
    const wchar_t* character;
    const char* utf8;
};

std::ostream& operator<<(std::ostream& out, const Case& row)
{
    return out << row.name;
}

const Case cases[] = {{"OneByte", L"x", "x"},
                      {"TwoBytes", L"\u00E9", "\xC3\xA9"},
                      {"ThreeBytes", L"\u20AC", "\xE2\x82\xAC"},
                      {"FourBytes", L"\xD83D\xDD11", "\xF0\x9F\x94\x91"}};

class LogWideText : public testing::TestWithParam<Case> {
protected:
    static std::wstring wide(size_t count)
    {
        std::wstring text;
        while (count-- > 0)
            text += GetParam().character;
        return text;
    }
    static std::string narrow(size_t count)
    {
        std::string text;
        while (count-- > 0)
            text += GetParam().utf8;
        return text;
    }
    static size_t size() { return std::string_view(GetParam().utf8).size(); }
};

INSTANTIATE_TEST_SUITE_P(Characters, LogWideText, testing::ValuesIn(cases),
                         [](const auto& row) { return row.param.name; });

TEST_P(LogWideText, OfTheLongestMessageIsWrittenWhole)
{
    LogCapture capture;
    const size_t count = longest / size();
    const std::string filler(longest % size(), '.');
    TRC("%s%s", toUtf8(wide(count)).c_str(), filler.c_str());
    SEV("%s%s", filler.c_str(), toUtf8(wide(count)).c_str());
    EXPECT_EQ("TRC " + narrow(count) + filler + "\nSEV " + filler + narrow(count) + "\n",
              render(capture.lines()));
}

TEST_P(LogWideText, OfOneByteMoreMakesTheMessageEmpty)
{
    LogCapture capture;
    const size_t count = longest / size();
    const std::string filler(longest % size() + 1, '.');
    TRC("%s%s", toUtf8(wide(count)).c_str(), filler.c_str());
    SEV("%s%s", filler.c_str(), toUtf8(wide(count)).c_str());
    TRC("next");
    EXPECT_EQ("TRC \nSEV \nTRC next\n", render(capture.lines()));
}

}  // namespace

}  // namespace NV::test
