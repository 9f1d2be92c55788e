// Tests the access from a test under Wine to its Linux host.

#include "host.h"

#include <gtest/gtest.h>

#include <fstream>

namespace host = NV::test::host;

TEST(Host, RunAnswersTheExitCode)
{
    EXPECT_EQ(0, host::run("true"));
    EXPECT_EQ(3, host::run("exit 3"));
    EXPECT_EQ(127, host::run("/nonexistent/program 2>/dev/null"));
    EXPECT_EQ(128 + 9, host::run("kill -9 $$"));
}

TEST(Host, RunOutputAnswersTextAndExitCode)
{
    const host::Output output = host::runOutput("printf 'one\\ntwo'; false");
    EXPECT_EQ("one\ntwo", output.text);
    EXPECT_EQ(1, output.exitCode);
    EXPECT_EQ(0, host::runOutput("openssl version").exitCode);
    EXPECT_EQ(0U, host::runOutput("openssl version").text.find("OpenSSL 3."));
}

TEST(Host, QuotedTextIsOneWord)
{
    const std::string text = "a 'b' $HOME `c` \"d\"";
    EXPECT_EQ(text, host::runOutput("printf %s " + host::quoted(text)).text);
}

TEST(Host, CommandsSeeTheEnvironment)
{
    host::setEnvironment("KEYWARDEN_HOST_TEST", "some text");
    EXPECT_EQ("some text", host::runOutput("printf %s \"$KEYWARDEN_HOST_TEST\"").text);
    host::removeEnvironment("KEYWARDEN_HOST_TEST");
    EXPECT_EQ("unset", host::runOutput("printf %s \"${KEYWARDEN_HOST_TEST-unset}\"").text);
}

TEST(Host, PathsGoBothWays)
{
    const host::TemporaryFolder folder;
    ASSERT_EQ(0, host::run("printf content > " + host::quoted(folder.unixPath() + "/file")));
    std::ifstream stream{folder.path() / "file"};
    std::string content;
    stream >> content;
    EXPECT_EQ("content", content);
    EXPECT_EQ("/usr/bin", host::unixPath(host::windowsPath("/usr/bin")));
    EXPECT_THROW(host::unixPath(L"?:\\nowhere"), std::runtime_error);
}

TEST(Host, TemporaryFolderGoesAway)
{
    std::string name;
    {
        const host::TemporaryFolder folder;
        name = folder.unixPath();
        ASSERT_EQ(0, host::run("mkdir " + host::quoted(name + "/inner")));
    }
    EXPECT_EQ(0, host::run("test ! -e " + host::quoted(name)));
}
