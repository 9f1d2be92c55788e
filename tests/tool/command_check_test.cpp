// keywarden check: what it prints, and its exit codes.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "certified_profile.h"
#include "check/worker.h"
#include "contains.h"

namespace NV::test {

namespace {

class CheckCommand : public testing::Test, protected CertifiedProfile {};

TEST_F(CheckCommand, PrintsStepsDetailsAndAdvice)
{
    const ChildResult result = profile.run({"check"}, options);
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    const std::string& text = result.output;
    EXPECT_NE(text.find("ok      configuration-file: "), std::string::npos) << text;
    EXPECT_NE(text.find("ok      certificates: 1 on the token\n"
                        "          7391: KeyWarden rsa2048, RSA 2048, valid to "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("note    published: 1 certificates are not in \"My\" yet\n"
                        "          7391\n"
                        "        > The provider publishes them when it opens."),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("note    behaviour: classic: .NET cannot use the keys"), std::string::npos)
        << text;
    EXPECT_EQ(text.find("FAILED"), std::string::npos) << text;
    EXPECT_EQ(text.find("No problems found"), std::string::npos) << text;
    EXPECT_NE(text.find("\nNo step failed. Read the notes: behaviour, published"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << "colours without a terminal";
}

TEST_F(CheckCommand, CountsWhatFailed)
{
    profile.writeConfig("p11File=C:\\nowhere\\odd.dll\nlogTypes=\n");
    const ChildResult result = profile.run({"check"}, options);
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_NE(result.output.find("FAILED  library-file: there is no file"), std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("2 of "), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(" steps failed: configuration-values, library-file."),
              std::string::npos)
        << result.output;
}

TEST_F(CheckCommand, HasItsShapeAsJson)
{
    const Json document = profile.json({"check"}, 0, options);
    EXPECT_EQ(document["failed"], 0);
    EXPECT_GT(document["notes"], 0);
    const std::set<std::string> outcomes{"ok", "warning", "failed", "skipped"};
    std::set<std::string> names;
    for (const Json& step : document["steps"]) {
        EXPECT_TRUE(step["name"].is_string());
        EXPECT_TRUE(outcomes.contains(step["outcome"].get<std::string>())) << step;
        EXPECT_TRUE(step["text"].is_string());
        EXPECT_TRUE(step["advice"].is_string());
        EXPECT_TRUE(step["details"].is_array());
        EXPECT_TRUE(names.insert(step["name"].get<std::string>()).second) << step;
    }
    for (const char* name : {"configuration-file",
                             "configuration-lines",
                             "configuration-values",
                             "behaviour",
                             "log-folder",
                             "library-file",
                             "library-architecture",
                             "library-dependencies",
                             "library-loads",
                             "function-list",
                             "slots",
                             "chosen-slot",
                             "pin",
                             "certificates",
                             "authorities",
                             "public-keys",
                             "published",
                             "stale-entries",
                             "library-unloads",
                             "library-output"})
        EXPECT_TRUE(names.contains(name)) << name;
}

// The pages explain every step.
TEST_F(CheckCommand, HasStepsThatThePagesName)
{
    std::set<std::string> names{"signatures"};
    const Json document = profile.json({"check"}, 0, options);
    for (const Json& step : document["steps"])
        names.insert(step["name"].get<std::string>());
    EXPECT_GT(names.size(), 20U);
    for (const wchar_t* page : {L"troubleshooting.md", L"commands.md"}) {
        const std::string text = readFile(std::filesystem::path(PAGES) / page);
        for (const std::string& name : names)
            EXPECT_NE(text.find("`" + name + "`"), std::string::npos) << name;
    }
}

// Each record of the provider reads the list of the folder.
TEST_F(CheckCommand, NamesALogFolderWithManyFiles)
{
    const auto logs = profile.folder() / "logs";
    create_directories(logs);
    for (int i = 0; i <= 1000; ++i)
        writeFile(logs / ("old-" + std::to_string(i)), "");
    const Json step = stepOf(profile.json({"check"}, 0, options), "log-folder");
    EXPECT_EQ(step["outcome"], "warning");
    EXPECT_NE(step["text"].get<std::string>().find("contains 1001 files"), std::string::npos)
        << step;
}

// Libraries that would take the program with them.
class CheckOfBadLibrary : public CheckCommand {
protected:
    Json check(const std::wstring& fault)
    {
        setFault(fault);
        return profile.json({"check", "--timeout", "3"}, 1, options);
    }

    static void expectFailed(const Json& document, const char* name, const std::string& text)
    {
        const Json step = stepOf(document, name);
        ASSERT_FALSE(step.is_null()) << document.dump(1);
        EXPECT_EQ(step["outcome"], "failed") << step;
        EXPECT_TRUE(step["text"].get<std::string>().starts_with(text)) << step;
        EXPECT_FALSE(step["advice"].get<std::string>().empty());
    }
};

TEST_F(CheckOfBadLibrary, ThatHangs)
{
    const Json document = check(L"C_Initialize hang");
    expectFailed(document, "slots",
                 "the vendor's library did not come back from C_Initialize within 3 s; is its "
                 "service running?");
    EXPECT_EQ(stepOf(document, "library-loads")["outcome"], "ok");
    EXPECT_EQ(stepOf(document, "certificates")["outcome"], "skipped");
    // What does not depend on the library goes on.
    EXPECT_FALSE(stepOf(document, "registered").is_null());
    EXPECT_EQ(document["failed"], 1);
}

TEST_F(CheckOfBadLibrary, ThatHangsWhileTheCertificatesAreRead)
{
    expectFailed(check(L"C_OpenSession hang"), "certificates",
                 "the vendor's library did not come back from C_OpenSession within 3 s");
}

TEST_F(CheckOfBadLibrary, ThatHangsWhileItLoads)
{
    profile.writeConfig(goodConfig(oddLibrary(L"hanging_attach.dll")));
    const Json document = check(L"");
    expectFailed(document, "library-loads",
                 "the vendor's library did not come back from LoadLibrary within 3 s");
    EXPECT_EQ(stepOf(document, "slots")["outcome"], "skipped");
}

TEST_F(CheckOfBadLibrary, ThatCrashes)
{
    const Json document = check(L"C_GetSlotList crash");
    expectFailed(document, "slots",
                 "the vendor's library crashed in C_GetSlotList (0xC0000005 in ");
    EXPECT_NE(stepOf(document, "slots")["text"].get<std::string>().find("scripted_token.dll)"),
              std::string::npos);
}

TEST_F(CheckOfBadLibrary, ThatEndsTheProcess)
{
    expectFailed(check(L"C_Initialize exit"), "slots",
                 "the vendor's library ended the process in C_Initialize (exit code 77)");
}

// The document stays one document.
TEST_F(CheckOfBadLibrary, ThatWritesToStandardOutput)
{
    const Json document = check(L"C_GetInfo print");
    expectFailed(document, "library-output",
                 "the library writes to standard output: \"scripted line in C_GetInfo\"");
    EXPECT_EQ(stepOf(document, "published")["outcome"], "warning");
    EXPECT_EQ(document["failed"], 1);
}

TEST_F(CheckOfBadLibrary, ThatHangsAndNeverStopsWriting)
{
    const Json document = check(L"C_Initialize flood");
    EXPECT_TRUE(contains(document.dump(), "the vendor's library did not come back")) << document;
    expectFailed(document, "library-output", "the library writes to standard output: \"....");
}

TEST_F(CheckOfBadLibrary, ThatHangsWhenItIsUnloaded)
{
    setModern();
    expectFailed(check(L"C_Finalize hang"), "library-unloads",
                 "the vendor's library did not come back from C_Finalize within 3 s");
}

// A share that does not answer cannot be had here.
TEST(FailedStep, BlamesTheFolderAndNotTheLibrary)
{
    tool::WorkerEnd end;
    end.kind = tool::WorkerEnd::Kind::hung;
    end.step = "log-folder";
    const tool::Step step = tool::failedStep(end, std::chrono::seconds(20));
    EXPECT_EQ(step.name, "log-folder");
    EXPECT_EQ(step.outcome, tool::Outcome::failed);
    EXPECT_EQ(step.text, "the folder did not answer within 20 s");
    EXPECT_NE(step.advice.find("choose a folder of this computer"), std::string::npos);
}

// A crash of the program itself cannot be had here.
TEST(FailedStep, DoesNotBlameTheLibraryForACrashOfTheProgram)
{
    tool::WorkerEnd end;
    end.kind = tool::WorkerEnd::Kind::crashed;
    end.step = "slots";
    end.code = 0xC0000005;
    end.module = "C:\\windows\\system32\\nvksprovider.dll";
    const tool::Step step = tool::failedStep(end, std::chrono::seconds(20));
    EXPECT_EQ(step.text, "a crash (0xC0000005 in C:\\windows\\system32\\nvksprovider.dll)");
    EXPECT_EQ(step.advice, "Please report this.");
}

TEST_F(CheckCommand, RefusesATimeLimitThatIsNone)
{
    for (const char* limit : {"0", "-1", "soon", "3601"})
        EXPECT_EQ(profile.run({"check", "--timeout", limit}, options).exitCode, 2U) << limit;
}

// The hidden command is not for people.
TEST_F(CheckCommand, DoesNotShowItsChild)
{
    EXPECT_EQ(runTool({"--help"}).output.find("check-steps"), std::string::npos);
}

}  // namespace

}  // namespace NV::test
