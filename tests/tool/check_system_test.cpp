// The step of keywarden check on the registration with CNG, on a fake system.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "check/check.h"
#include "contains.h"
#include "fake_cng.h"

namespace NV::test {

namespace {

using tool::Outcome;

class CheckSystem : public RegistrationTest {
protected:
    tool::Step step()
    {
        tool::Findings findings;
        checkRegistration(findings, system_);
        EXPECT_EQ(1U, findings.steps.size());
        EXPECT_EQ("registered", findings.steps.front().name);
        return findings.steps.front();
    }
};

TEST_F(CheckSystem, NotRegisteredIsAWarning)
{
    const tool::Step found = step();
    EXPECT_EQ(Outcome::warning, found.outcome);
    EXPECT_TRUE(contains(found.text, "not registered")) << found.text;
    EXPECT_TRUE(contains(found.advice, "keywarden register")) << found.advice;
}

TEST_F(CheckSystem, APartialRegistrationIsAWarning)
{
    cng.present = true;
    const tool::Step found = step();
    EXPECT_EQ(Outcome::warning, found.outcome);
    EXPECT_TRUE(contains(found.text, "not complete")) << found.text;
}

TEST_F(CheckSystem, ARegistrationWithoutItsFileIsAFailure)
{
    cng.setRegistered();
    system_.systemFolder = L"C:\\no such folder";
    const tool::Step found = step();
    EXPECT_EQ(Outcome::failed, found.outcome);
    EXPECT_TRUE(contains(found.text, "C:\\no such folder\\nvksprovider.dll")) << found.text;
}

TEST_F(CheckSystem, RegisteredWithItsFileIsOk)
{
    cng.setRegistered();
    system_.systemFolder = std::filesystem::temp_directory_path();
    const std::filesystem::path file = system_.systemFolder / tool::registeredImage;
    std::ofstream(file) << "a module";
    const tool::Step found = step();
    std::filesystem::remove(file);
    EXPECT_EQ(Outcome::ok, found.outcome) << found.text;
    EXPECT_EQ(file.string(), found.text);
}

TEST_F(CheckSystem, IsSkippedOnASystemWithoutQueries)
{
    system_.answersQueries = false;
    const tool::Step found = step();
    EXPECT_EQ(Outcome::skipped, found.outcome);
    EXPECT_TRUE(contains(found.text, "cannot report")) << found.text;
    EXPECT_TRUE(cng.calls.empty());
}

}  // namespace

}  // namespace NV::test
