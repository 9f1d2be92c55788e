// The table of the configuration's keys, and the page that describes them.

#include "config/config_keys.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "folder.h"

namespace NV {

namespace {

std::set<std::string> names()
{
    std::set<std::string> names;
    for (const ConfigKey& key : configKeys())
        names.insert(key.name);
    return names;
}

// The names that the page has between two texts at the beginning of its lines.
std::set<std::string> namesOfPage(const std::string& before, const std::string& after)
{
    std::istringstream page(test::readFile(KEYWARDEN_DOCS "/configuration.md"));
    std::set<std::string> names;
    for (std::string line; std::getline(page, line);) {
        const size_t end = line.find(after, before.size());
        if (line.starts_with(before) && end != std::string::npos)
            names.insert(line.substr(before.size(), end - before.size()));
    }
    return names;
}

TEST(ConfigKeys, HaveNamesOfTheirOwn)
{
    EXPECT_EQ(configKeys().size(), names().size());
    EXPECT_FALSE(names().contains(""));
}

TEST(ConfigKeys, HaveAHeadingEachOnThePage)
{
    EXPECT_EQ(names(), namesOfPage("### `", "`"));
}

TEST(ConfigKeys, HaveARowEachInThePagesTable)
{
    EXPECT_EQ(names(), namesOfPage("| `", "` |"));
}

// A line of the help text becomes a comment.
TEST(ConfigKeys, HaveHelpThatFitsAComment)
{
    for (const ConfigKey& key : configKeys()) {
        std::istringstream help(key.help);
        int lines = 0;
        for (std::string line; std::getline(help, line); ++lines) {
            EXPECT_FALSE(line.empty()) << key.name;
            EXPECT_LE(line.size(), 98U) << line;
        }
        EXPECT_GT(lines, 0) << key.name;
        EXPECT_TRUE(std::string(key.help).ends_with('.')) << key.name;
    }
}

TEST(ConfigKeys, TheSettingsAreTakenFromTheValuesOfANewFile)
{
    Config& config = Config::instance();
    const test::TemporaryFolder folder;
    std::string text;
    for (const ConfigKey& key : configKeys())
        text += std::string(key.name) + "=" + key.initialValue + "\n";
    test::writeFile(folder.path() / "new.conf", text);
    config.load(test::narrowPath(folder.path() / "new.conf"));
    LoggerSettings settings;
    settings.types = 0;
    settings.rotate = 1;
    applyLogSettings(config, "P", settings);
    EXPECT_EQ(logMaskInfo, settings.levelMask);
    EXPECT_EQ(logToFile, settings.types);
    EXPECT_EQ("P\\.norvanta-keywarden\\logs", settings.store);
    EXPECT_EQ(7, settings.rotate);
}

}  // namespace

}  // namespace NV
