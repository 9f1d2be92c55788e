// keywarden check on configurations with one problem each.

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "folder.h"
#include "scripted_token.h"
#include "tool_program.h"

namespace NV::test {

namespace {

// A configuration, the step that must report it, and what that step must say.
struct BrokenConfiguration {
    const char* name;
    std::string content;  // "{LIB}" becomes the path of a good library
    const char* step;
    const char* outcome;
    const char* text;
    const char* advice;
    const char* detail = nullptr;
};

constexpr const char* lines = "configuration-lines";
constexpr const char* values = "configuration-values";
const std::string library = "p11File={LIB}\n";
const std::string rest = "logLevel=INFO\nlogTypes=FILE\nlogStore=~\\l\nlogRotate=7\n";

const BrokenConfiguration brokenConfigurations[] = {
    {"LineWithoutSign", library + "logLevel INFO\n" + rest, lines, "failed",
     R"(line 2: "logLevel INFO" has no "=")", "Fix or remove the line"},
    {"CommentBehindSpaces", library + "  # a remark\n" + rest, lines, "failed",
     R"(line 2: "  # a remark" has no "=")", "A comment begins with # in the first column"},
    {"SpacesOnly", library + rest + "   \n", lines, "failed", R"(line 6: "   " has no "=")",
     "an empty line has no spaces"},
    {"UnknownKey", library + rest + "P11file=x\n", lines, "warning", "unknown keys",
     "Keys are case-sensitive", R"(line 6: "P11file=x")"},
    {"RepeatedKey", library + rest + "logLevel=TRACE\n", lines, "warning",
     "duplicate keys; the last one is used", "Remove the others", R"(line 6: "logLevel=TRACE")"},
    {"CarriageReturn", library + "logLevel=INFO\r\nlogTypes=FILE\nlogRotate=7\n", lines, "failed",
     "a carriage return becomes part of the value of 1 lines", "line feeds alone",
     R"(line 2: "logLevel=INFO\r")"},
    {"EmptyLineWithCarriageReturn", library + "\r\n" + rest, lines, "failed",
     R"(line 2: "\r" has no "="; the carriage return is part of the line)", "line feeds alone"},
    {"ByteOrderMark", "\xEF\xBB\xBF" + library + rest, lines, "failed", "byte order mark",
     "without a byte order mark"},
    {"ByteOrderMarkBeforeComment", "\xEF\xBB\xBF# remark\n" + library + rest, lines, "failed",
     "byte order mark", "without a byte order mark"},
    {"Utf16", std::string("\xFF\xFEp\0=\0", 6), lines, "failed", "byte order mark",
     "Save it as UTF-8"},
    {"RotateMissing", library + "logTypes=FILE\nlogStore=~\\l\n", values, "failed",
     "logRotate is missing or empty, so the module does not load", "for example logRotate=7"},
    {"RotateEmpty", library + "logRotate=\n", values, "failed", "logRotate is missing or empty",
     "for example logRotate=7"},
    {"RotateTooLarge", library + "logRotate=2147483648\n", values, "failed",
     "logRotate=2147483648 is too large, so the module does not load", "Specify a number of days"},
    {"RotateNotANumber", library + "logRotate=7 days\n", values, "warning",
     "logRotate=7 days is not a number, so 7 days are used", "Specify digits only"},
    {"UnknownLevel", library + "logLevel=VERBOSE\nlogRotate=7\n", values, "warning",
     "logLevel=VERBOSE is not a level; INFO is used",
     "Specify TRACE, DEBUG, INFO, WARN, ERROR, or SEVERE."},
    {"TypesWithSemicolon", library + "logTypes=FILE;CONSOLE\nlogRotate=7\n", values, "warning",
     "logTypes=FILE;CONSOLE does not name an output, so nothing is logged", "with a comma between"},
    {"TypesHalfKnown", library + "logTypes=FILE,SCREEN\nlogRotate=7\n", values, "warning",
     R"("SCREEN" is not an output and is ignored)", "with a comma between"},
    {"LibraryMissing", rest, values, "failed", "p11File is missing or empty",
     "keywarden init --p11 PATH"},
    {"CommentBehindLibrary", "p11File={LIB} # the card\n" + rest, values, "warning",
     "the # is part of the path", "Put a comment on a line of its own"},
    {"TwoProblems", library + "logLevel=VERBOSE\n", values, "failed", "logRotate is missing",
     "Add a line", "logLevel=VERBOSE is not a level; INFO is used"},
    {"CommentBehindLibraryFile", "p11File={LIB} # the card\n" + rest, "library-file", "failed",
     "there is no file", "not even a comment"},
    {"LibraryFileMissing", "p11File=C:\\nowhere\\odd.dll\n" + rest, "library-file", "failed",
     "there is no file C:\\nowhere\\odd.dll", "p11File must contain the full path"},
    {"LogFolderUnderAFile",
     library + "logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\nvksprovider.conf\\logs\n"
               "logRotate=7\n",
     "log-folder", "failed", "does not exist and cannot be created", "Choose another logStore"},
    {"LogFolderNotFull", library + "logTypes=FILE\nlogStore=odd-logs\nlogRotate=7\n", "log-folder",
     "warning", "is not a full path", "Begin logStore with a drive"},
    {"UnknownMode", "mode=Modern\n" + library + rest, values, "failed",
     "Invalid mode: Modern; the behaviour is classic", "Specify modern or classic"},
    {"EmptyMode", "mode=\n" + library + rest, values, "failed",
     "Invalid mode: ", "Specify modern or classic"},
    {"UnknownModeInCarriageReturns", "mode=odd\r\n" + library + rest, values, "failed",
     "Invalid mode: odd;", "Specify modern or classic"},
    {"ModernUnreadableLines", "mode=modern\nnonsense\n" + library + rest + "=\n", lines, "warning",
     "2 lines cannot be read and are passed over", "Fix or remove them", R"(line 2: "nonsense")"},
    {"ModernUnknownKey", "mode=modern\r\n" + library + rest + "\tP11file=x\r\n", lines, "warning",
     "unknown keys", "mode, silentPrompt, p11File", R"(line 7: "\tP11file=x\r")"},
    {"ModernRepeatedKey", "mode=modern\n" + library + rest + " mode = modern\n", lines, "warning",
     "duplicate keys", "Remove the others", R"(line 7: " mode = modern")"},
    {"ModernRotateNotANumber", "mode=modern\n" + library + "logRotate=2147483648\n", values,
     "warning", "logRotate=2147483648 is not a number of days, so 7 are used",
     "Specify digits only"},
    {"SilentPrompt", "mode=modern\nsilentPrompt=Yes\n" + library + rest, values, "warning",
     "silentPrompt=Yes is not known; no is used", "Specify yes or no"},
    {"ModernLibraryMissing", "mode=modern\n" + rest, values, "failed",
     "p11File is missing or empty", "keywarden init --p11 PATH"},
    {"ModernLogFolder",
     "mode=modern\n" + library +
         "logTypes=FILE\nlogStore=~\\.norvanta-keywarden\\nvksprovider.conf\\logs\n",
     "log-folder", "failed", "does not exist and cannot be created", "there is no log"},
};

// For the names in GoogleTest's output.
std::ostream& operator<<(std::ostream& stream, const BrokenConfiguration& broken)
{
    return stream << broken.name;
}

std::string nameOf(const testing::TestParamInfo<BrokenConfiguration>& info)
{
    return info.param.name;
}

std::string withLibrary(std::string content)
{
    const std::string mark = "{LIB}";
    if (const size_t found = content.find(mark); found != std::string::npos)
        content.replace(found, mark.size(), narrowPath(ScriptedToken::widePath()));
    return content;
}

class CheckBrokenConfiguration : public testing::TestWithParam<BrokenConfiguration> {
protected:
    ToolProfile profile;
};

TEST_P(CheckBrokenConfiguration, IsNamedWithAdvice)
{
    const BrokenConfiguration& broken = GetParam();
    profile.writeConfig(withLibrary(broken.content));
    const Json document = profile.json({"check"}, 1);
    const Json step = stepOf(document, broken.step);
    ASSERT_FALSE(step.is_null()) << document.dump(1);
    EXPECT_EQ(step["outcome"], broken.outcome) << step;
    EXPECT_NE(step["text"].get<std::string>().find(broken.text), std::string::npos) << step;
    EXPECT_NE(step["advice"].get<std::string>().find(broken.advice), std::string::npos) << step;
    if (broken.detail != nullptr) {
        ASSERT_FALSE(step["details"].empty()) << step;
        EXPECT_EQ(step["details"][0].get<std::string>().find(broken.detail), 0U) << step;
    }
    // The command wrote nothing.
    EXPECT_EQ(entryNames(profile.folder()), std::vector<std::string>{"nvksprovider.conf"});
}

INSTANTIATE_TEST_SUITE_P(All, CheckBrokenConfiguration, testing::ValuesIn(brokenConfigurations),
                         nameOf);

class CheckConfiguration : public testing::Test {
protected:
    ToolProfile profile;
};

TEST_F(CheckConfiguration, ReportsAMissingFile)
{
    const Json document = profile.json({"check"}, 1);
    const Json step = stepOf(document, "configuration-file");
    EXPECT_EQ(step["outcome"], "failed");
    EXPECT_NE(step["text"].get<std::string>().find(" does not exist"), std::string::npos);
    EXPECT_EQ(step["advice"], "Run \"keywarden init\" to write it.");
    EXPECT_EQ(stepOf(document, "log-folder")["outcome"], "skipped");
    EXPECT_EQ(stepOf(document, "library-file")["outcome"], "skipped");
    EXPECT_EQ(stepOf(document, "slots")["outcome"], "skipped");
    EXPECT_EQ(stepOf(document, "certificates")["outcome"], "skipped");
    EXPECT_EQ(entryNames(profile.path()), std::vector<std::string>{});
}

TEST_F(CheckConfiguration, TakesAGoodFileAndLeavesNothingBehind)
{
    profile.writeConfig("# remark\n\n" + goodConfig(ScriptedToken::widePath()));
    // The one failure: the token has no certificate.
    const Json document = profile.json({"check"}, 1);
    for (const char* name :
         {"configuration-file", lines, values, "log-folder", "library-file", "library-architecture",
          "library-dependencies", "library-loads", "function-list", "slots", "chosen-slot", "pin"})
        EXPECT_EQ(stepOf(document, name)["outcome"], "ok") << stepOf(document, name);
    EXPECT_EQ(document["failed"], 1);
    EXPECT_EQ(entryNames(profile.folder()), std::vector<std::string>{"nvksprovider.conf"});
}

TEST_F(CheckConfiguration, SaysWhichBehaviourHolds)
{
    const std::string good = goodConfig(ScriptedToken::widePath());
    struct Case {
        const char* line;
        const char* behaviour;
        const char* outcome;
    };
    for (const Case& each :
         {Case{"", "classic", "warning"}, Case{"mode=classic\n", "classic", "warning"},
          Case{"mode=Modern\n", "classic", "warning"}, Case{"mode=modern\n", "modern", "ok"}}) {
        profile.writeConfig(each.line + good);
        const Json document = profile.json({"check"}, 1);
        const Json step = stepOf(document, "behaviour");
        ASSERT_FALSE(step.is_null()) << document.dump(1);
        EXPECT_EQ(document["behaviour"], each.behaviour) << each.line;
        EXPECT_EQ(step["outcome"], each.outcome) << step;
        EXPECT_EQ(step["text"].get<std::string>().find(each.behaviour), 0U) << step;
        EXPECT_EQ(step["advice"].get<std::string>().find("docs/modes.md") != std::string::npos,
                  step["outcome"] == "warning")
            << step;
    }
}

TEST_F(CheckConfiguration, SaysNoBehaviourWithoutAConfiguration)
{
    for (const char* content : {"", "nonsense\n"}) {
        if (*content != '\0')
            profile.writeConfig(content);
        const Json document = profile.json({"check"}, 1);
        EXPECT_TRUE(document["behaviour"].is_null()) << document.dump(1);
        EXPECT_EQ(stepOf(document, "behaviour")["outcome"], "skipped") << document.dump(1);
    }
}

// What keeps a classic module from loading, or spoils its values.
TEST_F(CheckConfiguration, TakesAModernFileAsEditorsWriteIt)
{
    profile.writeConfig("\xEF\xBB\xBFmode=modern\r\n \t\r\n  # remark\r\np11File=\"" +
                        narrowPath(ScriptedToken::widePath()) +
                        "\"\r\nlogTypes=FILE\r\nlogStore=\"%USERPROFILE%\\odd logs\"\r\n");
    const Json document = profile.json({"check"}, 1);
    for (const char* name : {"configuration-file", lines, values, "log-folder", "library-file",
                             "library-loads", "slots"})
        EXPECT_EQ(stepOf(document, name)["outcome"], "ok") << stepOf(document, name);
    EXPECT_NE(
        stepOf(document, "log-folder")["text"].get<std::string>().find("odd logs is writable"),
        std::string::npos);
}

// The module reads the file beside it for a user who has none.
TEST_F(CheckConfiguration, ReadsTheMachinesFile)
{
    const TemporaryFolder machine;
    copy_file(programFolder() / L"keywarden.exe", machine.path() / "keywarden.exe");
    writeFile(machine.path() / "nvksprovider.dll", "a placeholder for the module");
    writeFile(machine.path() / "nvksprovider.conf", goodConfig(ScriptedToken::widePath()));
    const auto check = [&] {
        return runProgram(machine.path() / "keywarden.exe",
                          {.arguments = {"--profile", narrowPath(profile.path()), "check"}})
            .output;
    };
    EXPECT_NE(check().find(narrowPath(machine.path() / "nvksprovider.conf")), std::string::npos);
    profile.writeConfig(goodConfig(ScriptedToken::widePath()));
    EXPECT_NE(check().find(narrowPath(profile.configFile())), std::string::npos);
    EXPECT_EQ(check().find(narrowPath(machine.path() / "nvksprovider.conf")), std::string::npos);
}

TEST_F(CheckConfiguration, LeavesAnExistingLogFolder)
{
    profile.writeConfig(goodConfig(ScriptedToken::widePath()));
    writeFile(profile.folder() / "logs" / "mine.log", "kept\n");
    const Json document = profile.json({"check"}, 1);
    EXPECT_EQ(stepOf(document, "log-folder")["outcome"], "ok");
    EXPECT_EQ(entryNames(profile.folder() / "logs"), std::vector<std::string>{"mine.log"});
}

TEST_F(CheckConfiguration, SaysWhenNoLogIsWritten)
{
    profile.writeConfig("p11File=C:\\odd.dll\nlogTypes=\nlogStore=~\\l\nlogRotate=7\n");
    const Json document = profile.json({"check"}, 1);
    EXPECT_EQ(stepOf(document, "log-folder")["outcome"], "ok");
    EXPECT_NE(stepOf(document, "log-folder")["text"].get<std::string>().find("no log files"),
              std::string::npos);
}

}  // namespace

}  // namespace NV::test
