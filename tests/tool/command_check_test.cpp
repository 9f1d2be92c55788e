// keywarden check: what it prints, and its exit codes.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "module_fixture.h"
#include "tool_program.h"

namespace NV::test {

namespace {

class CheckCommand : public testing::Test {
protected:
    // A token with a certificate that is in no store.
    CheckCommand()
    {
        const Bytes der = certificateWithSerial("rsa2048", 815);
        const auto file = folder.path() / "certificate.der";
        writeFile(file, std::string(der.begin(), der.end()));
        options.environment = {{L"ODD_CERTIFICATE", file.wstring()}};
        profile.writeConfig(goodConfig(oddLibrary(L"certified_token.dll")));
    }

    ToolProfile profile;
    TemporaryFolder folder;
    ChildOptions options;
};

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
    EXPECT_TRUE(text.ends_with("\nNo problems found.\n")) << text;
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
    EXPECT_NE(result.output.find(" steps failed."), std::string::npos) << result.output;
}

TEST_F(CheckCommand, HasItsShapeAsJson)
{
    const Json document = profile.json({"check"}, 0, options);
    EXPECT_EQ(document["failed"], 0);
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
    for (const char* name : {"configuration-file", "configuration-lines", "configuration-values",
                             "behaviour", "log-folder", "library-file", "library-architecture",
                             "library-dependencies", "library-loads", "function-list", "slots",
                             "chosen-slot", "pin", "certificates", "public-keys", "published"})
        EXPECT_TRUE(names.contains(name)) << name;
}

}  // namespace

}  // namespace NV::test
