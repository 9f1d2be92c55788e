// Which configuration file is read, and its bytes.

#include "config/config_file.h"

#include <gtest/gtest.h>

#include "config/config.h"
#include "folder.h"

namespace NV {

namespace {

class MachineFile : public testing::Test {
protected:
    ConfigFile read() const
    {
        return readConfigFile(test::narrowPath(user), folder_.path() / "system" / "odd.dll");
    }
    void writeUser(std::string_view text) const { test::writeFile(user, text); }
    void writeMachine(std::string_view text) const { test::writeFile(machine, text); }

private:
    test::TemporaryFolder folder_{u8"caf\u00E9"};

protected:
    const std::filesystem::path user = folder_.path() / "user" / "nvksprovider.conf";
    const std::filesystem::path machine = folder_.path() / "system" / "nvksprovider.conf";
};

TEST_F(MachineFile, IsReadWhenTheUserHasNone)
{
    writeMachine("of=machine\r\n");
    const ConfigFile file = read();
    EXPECT_TRUE(file.opened);
    EXPECT_EQ("of=machine\r\n", file.text);
}

TEST_F(MachineFile, IsNotReadWhenTheUserHasOne)
{
    writeMachine("of=machine\n");
    for (const char* text : {"of=user\n", "", "nonsense"}) {
        writeUser(text);
        const ConfigFile file = read();
        EXPECT_TRUE(file.opened);
        EXPECT_EQ(text, file.text);
        EXPECT_EQ(test::narrowPath(user), file.path);
    }
}

// What is there and cannot be read is not missing.
TEST_F(MachineFile, IsNotReadWhenTheUsersIsNoFile)
{
    writeMachine("of=machine\n");
    std::filesystem::create_directories(user);
    EXPECT_EQ("", read().text);
    EXPECT_EQ(test::narrowPath(user), read().path);
}

TEST_F(MachineFile, IsNotNamedWhenThereIsNeither)
{
    const ConfigFile file = read();
    EXPECT_FALSE(file.opened);
    EXPECT_EQ("", file.text);
    EXPECT_EQ(test::narrowPath(user), file.path);
    try {
        Config::instance().load(file);
        FAIL() << "loaded";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ("Cannot open file: " + test::narrowPath(user), error.what());
    }
}

TEST_F(MachineFile, IsReadInItsOwnWay)
{
    writeMachine("mode=modern\r\np11File=a\r\n");
    Config::instance().load(read());
    EXPECT_EQ(Behaviour::modern, Config::instance().mode().behaviour());
    EXPECT_EQ("a", Config::instance().get("p11File"));
    writeMachine("p11File=a\r\n");
    Config::instance().load(read());
    EXPECT_EQ(Behaviour::classic, Config::instance().mode().behaviour());
    EXPECT_EQ("a\r", Config::instance().get("p11File"));
}

// Reading of all bytes.
TEST(ConfigFileBytes, AreAllOfThem)
{
    const test::TemporaryFolder folder;
    std::string bytes;
    for (int i = 0; i < 256 * 300; ++i)
        bytes.push_back(static_cast<char>(i));
    test::writeFile(folder.path() / "odd.conf", bytes);
    EXPECT_EQ(bytes, readConfigFile(folder.path() / "odd.conf").text);
    EXPECT_EQ(bytes, readConfigFile(test::narrowPath(folder.path() / "odd.conf")).text);
}

}  // namespace

}  // namespace NV
