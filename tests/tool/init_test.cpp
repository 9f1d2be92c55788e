// keywarden init: the file that it writes, what it refuses, and how it asks.

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/config_keys.h"
#include "config/config_values.h"
#include "contains.h"
#include "failure.h"
#include "file_rights.h"
#include "scripted_token.h"
#include "system/configuration.h"
#include "text.h"
#include "tool_program.h"

namespace NV::test {

namespace {

class Init : public testing::Test {
protected:
    Init() : library(narrowPath(tokens.path() / "odd.dll"))
    {
        copyLibrary(tokens.path() / "odd.dll");
    }

    static void copyLibrary(const std::filesystem::path& to)
    {
        create_directories(to.parent_path());
        copy_file(ScriptedToken::widePath(), to);
    }

    std::string written() const { return readFile(profile.configFile()); }

    // A value of the file, by the module's own parser, which also keeps the values of earlier
    // tests.
    std::string value(const std::string& key) const
    {
        Config::instance().load(narrowPath(profile.configFile()));
        return Config::instance().get(key);
    }

    // The configuration's folder is empty or missing.
    void expectNothingWritten() const
    {
        EXPECT_FALSE(exists(profile.folder()) && !entryNames(profile.folder()).empty());
    }

    TemporaryFolder tokens;
    std::string library;
    ToolProfile profile;
};

TEST_F(Init, WritesAFileThatTheModuleReads)
{
    profile.expectRun(0, {"init", "--p11", library},
                      {"Written: " + narrowPath(profile.configFile()), "keywarden check"});
    EXPECT_EQ(value("p11File"), library);
    EXPECT_EQ(value("logLevel"), "INFO");
    EXPECT_EQ(value("logTypes"), "FILE");
    EXPECT_EQ(value("logStore"), "~\\.norvanta-keywarden\\logs");
    EXPECT_EQ(parseLogRotate(value("logRotate"), 0), 7);
    EXPECT_EQ(entryNames(profile.folder()), std::vector<std::string>{"nvksprovider.conf"});
}

TEST_F(Init, WritesAModernFile)
{
    profile.run({"init", "--p11", library});
    EXPECT_EQ(value("mode"), "modern");
    EXPECT_EQ(value("silentPrompt"), "no");
    EXPECT_EQ(Config::instance().mode().behaviour(), Behaviour::modern);
    EXPECT_TRUE(Config::instance().problems().empty());
}

TEST_F(Init, ExplainsEachKeyAboveIt)
{
    profile.run({"init", "--p11", library});
    const std::string text = written();
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_TRUE(text.ends_with('\n'));
    std::vector<std::string> keys;
    std::string before;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        if (!line.empty() && line.front() != '#') {
            keys.push_back(line.substr(0, line.find('=')));
            EXPECT_TRUE(before.starts_with("# ")) << line;
        }
        before = line;
    }
    std::vector<std::string> expected;
    for (const ConfigKey& key : configKeys()) {
        expected.emplace_back(key.name);
        const std::string help = key.help;
        EXPECT_TRUE(contains(text, "\n# " + help.substr(0, help.find('\n')) + "\n")) << key.name;
    }
    EXPECT_EQ(keys, expected);
}

TEST_F(Init, NeverOverwritesUnlessForced)
{
    profile.writeConfig("mine\n");
    ChildResult result = profile.run({"init", "--p11", library});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_TRUE(contains(result.output, "already exists")) << result.output;
    EXPECT_TRUE(contains(result.output, "--force replaces it")) << result.output;
    EXPECT_EQ(written(), "mine\n");

    result = profile.run({"init", "--p11", library, "--force"});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    EXPECT_EQ(value("p11File"), library);
    EXPECT_EQ(entryNames(profile.folder()), std::vector<std::string>{"nvksprovider.conf"});
}

TEST_F(Init, TakesFolderAndLevel)
{
    profile.expectRun(
        0, {"init", "--p11", library, "--log-dir", "C:\\Odd Logs", "--log-level", "trace"}, {});
    EXPECT_EQ(value("logStore"), "C:\\Odd Logs");
    EXPECT_EQ(value("logLevel"), "TRACE");
}

TEST_F(Init, TakesModeTypesAndDays)
{
    const std::vector<std::string> command = {"init", "--p11", library, "--force"};
    const auto with = [&](std::vector<std::string> options) {
        options.insert(options.begin(), command.begin(), command.end());
        return options;
    };
    profile.expectRun(
        0, with({"--mode", "classic", "--log-types", "console,FILE", "--log-rotate", "2147483647"}),
        {"Written: "});
    EXPECT_EQ(value("mode"), "classic");
    EXPECT_EQ(value("logTypes"), "console,FILE");
    EXPECT_EQ(value("logRotate"), "2147483647");
    profile.expectRun(0, with({"--log-types", "None"}), {"Written: "});
    EXPECT_EQ(value("logTypes"), "");
    profile.expectRun(2, with({"--mode", "Modern"}), {"--mode: "});
    profile.expectRun(2, with({"--log-types", "FILE;CONSOLE"}),
                      {"\"FILE;CONSOLE\" is not FILE, CONSOLE, both with a comma, or NONE"});
    profile.expectRun(2, with({"--log-types", "FILE,odd"}), {"--log-types"});
    for (const char* days : {"7 days", "2147483648", "-1", ""})
        profile.expectRun(2, with({"--log-rotate", days}), {"--log-rotate"});
}

// The processes that load the module have working folders of their own.
TEST_F(Init, MakesPathsFull)
{
    const auto old = std::filesystem::current_path();
    current_path(tokens.path());
    const ChildResult result = profile.run({"init", "--p11", "odd.dll", "--log-dir", "logs"});
    current_path(old);
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    EXPECT_EQ(value("p11File"), library);
    EXPECT_EQ(value("logStore"), narrowPath(tokens.path() / "logs"));
}

TEST_F(Init, ReportsWhatItWroteAsJson)
{
    const Json document = profile.json({"init", "--p11", library}, 0);
    EXPECT_EQ(document["file"], narrowPath(profile.configFile()));
    EXPECT_EQ(document["p11File"], library);
    EXPECT_EQ(document["logStore"], "~\\.norvanta-keywarden\\logs");
    EXPECT_EQ(document["logLevel"], "INFO");
}

TEST_F(Init, RefusesAMissingLibrary)
{
    profile.expectRun(1, {"init", "--p11", "C:\\nowhere\\odd.dll"},
                      {"there is no file C:\\nowhere\\odd.dll"});
    expectNothingWritten();
    profile.expectRun(0, {"init", "--p11", "C:\\nowhere\\odd.dll", "--no-test"}, {"Written: "});
    EXPECT_EQ(value("p11File"), "C:\\nowhere\\odd.dll");
}

TEST_F(Init, RefusesALibraryThatDoesNotLoad)
{
    const auto file = tokens.path() / "text.dll";
    writeFile(file, "not a library");
    profile.expectRun(1, {"init", "--p11", narrowPath(file)},
                      {"cannot be used: the file is not a Windows DLL", "--no-test"});
    expectNothingWritten();
    profile.expectRun(0, {"init", "--p11", narrowPath(file), "--no-test"}, {"Written: "});
}

TEST_F(Init, RefusesALibraryThatIsNoPkcs11Library)
{
    profile.expectRun(1, {"init", "--p11", narrowPath(widePathBesideTest(L"not_pkcs11.dll"))},
                      {"cannot be used: it does not export C_GetFunctionList"});
    expectNothingWritten();
}

TEST_F(Init, RefusesALibraryThatHangs)
{
    const std::string hanging = narrowPath(oddLibrary(L"certified_token.dll"));
    profile.expectRun(1, {"init", "--timeout", "3", "--p11", hanging},
                      {"cannot be used: the vendor's library did not come back from C_Initialize"},
                      {.environment = {{L"ODD_FAULT", L"C_Initialize hang"}}});
    expectNothingWritten();
}

// A card need not be in the reader.
TEST_F(Init, TakesALibraryWithoutAToken)
{
    profile.expectRun(0, {"init", "--p11", narrowPath(oddLibrary(L"certified_token.dll"))},
                      {"Written: "}, {.environment = {{L"ODD_FAULT", L"C_GetSlotList none"}}});
}

// The file is modern.
TEST_F(Init, TakesALibraryOutsideAscii)
{
    const auto odd = tokens.path() / L"t\u00f6ken.dll";
    copyLibrary(odd);
    profile.expectRun(0, {"init", "--p11", narrowPath(odd)}, {"Written: "});
    EXPECT_EQ(value("p11File"), tool::toUtf8(odd));
    EXPECT_EQ(configuredLibrary(Config::instance()), tool::toUtf8(odd));
}

TEST_F(Init, RefusesAFolderWithATildeInside)
{
    profile.expectRun(1, {"init", "--p11", library, "--log-dir", "C:\\ODDLOG~1"},
                      {"stands for the user's profile"});
    expectNothingWritten();
}

TEST_F(Init, LeavesNothingBehindWhenTheFileCannotBeReplaced)
{
    // A folder is where the file should be.
    create_directories(profile.configFile());
    profile.expectRun(1, {"init", "--p11", library, "--force"},
                      {"cannot be written: it is a folder"});
    EXPECT_EQ(entryNames(profile.folder()), std::vector<std::string>{"nvksprovider.conf"});
    EXPECT_TRUE(is_directory(profile.configFile()));
}

TEST_F(Init, SaysWhenTheFolderCannotBeMade)
{
    writeFile(profile.folder(), "a file where the folder should be");
    profile.expectRun(1, {"init", "--p11", library}, {"cannot be "});
    EXPECT_EQ(readFile(profile.folder()), "a file where the folder should be");
}

// Two products where their vendors install them. The test uses the real folders, because the system
// sets these variables of a process and ignores other values.
class InitAsks : public Init {
protected:
    InitAsks()
    {
        for (const wchar_t* product : {L"OpenSC Project", L"Yubico"}) {
            if (exists(programs / product))
                throw std::runtime_error("this machine has the products that the test puts there");
        }
        copyLibrary(programs / opensc);
        copyLibrary(programs / yubico);
        writeFile(programs / "OpenSC Project/OpenSC/other.dll", "not one of them");
    }
    void TearDown() override { removeProducts(); }

    void removeProducts() const
    {
        remove_all(programs / "OpenSC Project");
        remove_all(programs / "Yubico");
    }

    static ChildOptions answering(const std::string& answer) { return {.input = answer}; }

    const std::filesystem::path programs = _wgetenv(L"ProgramFiles");
    const std::filesystem::path opensc = "OpenSC Project/OpenSC/pkcs11/opensc-pkcs11.dll";
    const std::filesystem::path yubico = "Yubico/Yubico PIV Tool/bin/libykcs11.dll";
};

TEST_F(InitAsks, WhichLibrary)
{
    profile.expectRun(0, {"init"},
                      {"  1  OpenSC  ", "  2  Yubico PIV Tool  ", "Which one (1 to 2)?"},
                      answering("2\n"));
    EXPECT_EQ(value("p11File"), narrowPath((programs / yubico).make_preferred()));
}

TEST_F(InitAsks, ButOffersNoLibraryThatOthersMayReplace)
{
    const auto file = (programs / opensc).make_preferred();
    setRights(file.parent_path(), writableByAll);
    profile.expectRun(
        0, {"init"},
        {"Not offered, because other users may write to it: " + narrowPath(file), "(1 to 1)?"},
        answering("1\n"));
    EXPECT_EQ(value("p11File"), narrowPath((programs / yubico).make_preferred()));
}

TEST_F(InitAsks, AndTakesALineWithCarriageReturn)
{
    profile.expectRun(0, {"init"}, {}, answering(" 1 \r\n"));
    EXPECT_EQ(value("p11File"), narrowPath((programs / opensc).make_preferred()));
}

TEST_F(InitAsks, AndWritesNothingAfterAWrongAnswer)
{
    for (const char* answer :
         {"3\n", "0\n", "-1\n", "yes\n", "\n", "", "1x\n", "99999999999999999999999\n"}) {
        const ChildResult result = profile.run({"init"}, answering(answer));
        EXPECT_EQ(result.exitCode, 1U) << answer;
        EXPECT_TRUE(contains(result.output, "is not one of them; nothing was written"))
            << answer << result.output;
        expectNothingWritten();
    }
}

TEST_F(InitAsks, ButNotForJson)
{
    const Json document = profile.json({"init"}, 1, answering("1\n"));
    EXPECT_EQ(document["error"], "--json does not ask");
    expectNothingWritten();
}

TEST_F(InitAsks, NothingWhenThereIsAFile)
{
    profile.writeConfig("mine\n");
    const ChildResult result = profile.run({"init"}, answering("1\n"));
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_FALSE(contains(result.output, "Which one")) << result.output;
    EXPECT_EQ(written(), "mine\n");
}

TEST_F(InitAsks, NothingWhenThereIsNone)
{
    removeProducts();
    profile.expectRun(1, {"init"},
                      {"no PKCS#11 library was found in the usual places", "--p11 PATH"},
                      answering("1\n"));
    expectNothingWritten();
}

TEST(ConfigurationText, RefusesALibraryWhosePathNamesAVariable)
{
    Settings configuration = tool::newConfiguration();
    configuration["p11File"] = "C:\\%USERPROFILE%\\odd.dll";
    EXPECT_THROW(tool::configurationText(configuration), tool::Failure);
    // Only a file of all users can name one, and only modern expands it.
    EXPECT_NO_THROW(tool::configurationText(configuration, tool::ConfigurationOf::allUsers));
    configuration["mode"] = "classic";
    EXPECT_THROW(tool::configurationText(configuration, tool::ConfigurationOf::allUsers),
                 tool::Failure);
    configuration["mode"] = "modern";
    configuration["p11File"] = "C:\\100%\\odd%.dll";
    EXPECT_NO_THROW(tool::configurationText(configuration));
}

TEST(ConfigurationText, RefusesValuesThatWouldNotComeBack)
{
    for (const char* path : {"C:\\odd\n.dll", "C:\\odd.dll ", " C:\\odd.dll", "C:\\odd\r.dll"}) {
        Settings configuration = tool::newConfiguration();
        configuration["p11File"] = path;
        EXPECT_THROW(tool::configurationText(configuration), tool::Failure) << path;
    }
    Settings configuration = tool::newConfiguration();
    configuration["p11File"] = "C:\\odd.dll";
    configuration["logStore"] = "C:\\\xE6\x97\xA5";  // not in this code page
    EXPECT_THROW(tool::configurationText(configuration), tool::Failure);
}

TEST(ConfigurationText, RefusesALibraryOutsideAsciiInClassic)
{
    Settings configuration = tool::newConfiguration();
    configuration["p11File"] = "C:\\t\xC3\xB6ken \xE6\x97\xA5.dll";
    EXPECT_TRUE(contains(tool::configurationText(configuration),
                         "\np11File=C:\\t\xC3\xB6ken \xE6\x97\xA5.dll\n"));
    for (const char* mode : {"classic", "", "Modern"}) {
        configuration["mode"] = mode;
        try {
            static_cast<void>(tool::configurationText(configuration));
            ADD_FAILURE() << mode;
        } catch (const tool::Failure& refusal) {
            EXPECT_TRUE(contains(refusal.what(), "characters outside ASCII, and in classic"));
        }
    }
}

// The module reads the log folder in the ANSI code page and the library's path in UTF-8.
TEST(ConfigurationText, WritesTheLogFolderInTheCodePage)
{
    Settings configuration = tool::newConfiguration();
    configuration["p11File"] = "C:\\odd.dll";
    configuration["logStore"] = "C:\\L\xC3\xB6gs";
    const TemporaryFolder folder;
    const auto file = folder.path() / "odd.conf";
    writeFile(file, tool::configurationText(configuration));
    Config::instance().load(narrowPath(file));
    EXPECT_EQ(Config::instance().get("logStore"), narrowPath(L"C:\\L\u00f6gs"));
}

}  // namespace

}  // namespace NV::test
