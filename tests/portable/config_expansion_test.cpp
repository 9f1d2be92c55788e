// Quotes, variables and "~" in the paths of a modern configuration.

#include "config/config_expansion.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

namespace NV {

namespace {

std::string expanded(std::string_view text)
{
    static const std::map<std::string, std::string> variables = {
        {"A", "one"}, {"B", "%A%"}, {"EMPTY", ""}, {"C D", "two"}};
    return expandVariables(text, [](const std::string& name) {
        const auto entry = variables.find(name);
        return entry != variables.end() ? std::optional(entry->second) : std::nullopt;
    });
}

TEST(WithoutQuotes, TakesOffOnePairAtTheEnds)
{
    EXPECT_EQ("C:\\a b.dll", withoutQuotes("\"C:\\a b.dll\""));
    EXPECT_EQ("", withoutQuotes("\"\""));
    EXPECT_EQ("\"a\"", withoutQuotes("\"\"a\"\""));
    for (const char* text : {"", "\"", "a", "\"a", "a\"", "a\"b\"", "'a'"})
        EXPECT_EQ(text, withoutQuotes(text));
}

TEST(ExpandVariables, PutsValuesInPlaceOfNames)
{
    EXPECT_EQ("one", expanded("%A%"));
    EXPECT_EQ("C:\\one\\oneone.dll", expanded("C:\\%A%\\%A%%A%.dll"));
    EXPECT_EQ("<>", expanded("<%EMPTY%>"));
    EXPECT_EQ("two", expanded("%C D%"));
}

TEST(ExpandVariables, DoesNotLookAtValues)
{
    EXPECT_EQ("%A%", expanded("%B%"));
    EXPECT_EQ("%A%A%", expanded("%B%A%"));
}

TEST(ExpandVariables, LeavesEverythingElse)
{
    for (const char* text : {"", "%", "%%", "%%%", "100%", "%X%", "a%b", "%A", "A%", "% A%", "%a%"})
        EXPECT_EQ(text, expanded(text));
}

TEST(ExpandVariables, ASignWithoutAVariableMayBeginTheNextName)
{
    EXPECT_EQ("%Xone", expanded("%X%A%"));
    EXPECT_EQ("100% of one", expanded("100% of %A%"));
    EXPECT_EQ("%%one", expanded("%%%A%"));
}

TEST(ExpandVariables, MakesNothingLongerThanAPath)
{
    const auto valueOf = [](size_t size) {
        return [size](const std::string&) { return std::optional(std::string(size, 'x')); };
    };
    EXPECT_EQ(std::string(longestPath, 'x'), expandVariables("%A%", valueOf(longestPath)));
    EXPECT_EQ("%A%", expandVariables("%A%", valueOf(longestPath + 1)));
    std::string many;
    while (many.size() < size_t{10} << 20)
        many += "%A%";
    EXPECT_EQ(many, expandVariables(many, valueOf(1000)));
}

class Paths : public testing::Test {
protected:
    Paths()
    {
#if defined(_WIN32)
        _putenv_s("NV_PLACE", "C:\\TOKENS~1");
#else
        setenv("NV_PLACE", "C:\\TOKENS~1", 1);
#endif
    }
};

TEST_F(Paths, TheLibraryHasVariablesAndNoTilde)
{
    EXPECT_EQ("C:\\TOKENS~1\\a.dll", expandLibraryPath("%NV_PLACE%\\a.dll", "P"));
    EXPECT_EQ("C:\\TOKENS~1\\a b.dll", expandLibraryPath("\"%NV_PLACE%\\a b.dll\"", "P"));
    EXPECT_EQ("~\\a.dll", expandLibraryPath("~\\a.dll", "P"));
    EXPECT_EQ("%NV_NO_PLACE%\\a.dll", expandLibraryPath("%NV_NO_PLACE%\\a.dll", "P"));
    EXPECT_EQ("", expandLibraryPath("", "P"));
    EXPECT_EQ("\xC3\xB6", expandLibraryPath("\xC3\xB6", "P"));
}

TEST_F(Paths, TheFolderHasBothAndNeitherLooksAtTheOther)
{
    EXPECT_EQ("P\\logs", expandLogFolder("~\\logs", "P"));
    EXPECT_EQ("P P", expandLogFolder("~ ~", "P"));
    EXPECT_EQ("P\\logs", expandLogFolder("\"~\\logs\"", "P"));
    EXPECT_EQ("C:\\TOKENS~1\\logs", expandLogFolder("%NV_PLACE%\\logs", "P"));
    EXPECT_EQ("%NV_PLACE%\\C:\\TOKENS~1", expandLogFolder("~\\%NV_PLACE%", "%NV_PLACE%"));
    EXPECT_EQ("", expandLogFolder("", "P"));
    EXPECT_EQ("", expandLogFolder("\"\"", "P"));
}

TEST_F(Paths, AFolderIsNotLongerThanAPath)
{
    const std::string many(size_t{1} << 20, '~');
    EXPECT_EQ(many, expandLogFolder(many, "C:\\Users\\user"));
}

}  // namespace

}  // namespace NV
