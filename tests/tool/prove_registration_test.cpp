// The steps of keywarden prove that make and remove the registration, on a fake of CNG's functions: what
// was there before a run must be there after it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "contains.h"
#include "failure.h"
#include "fake_cng.h"
#include "folder.h"
#include "prove/proving.h"
#include "session.h"

namespace NV::test {

namespace {

using tool::Failure;
using tool::NotPossible;
using tool::NotTried;
using Calls = std::vector<std::string>;

class ProveRegistration : public RegistrationTest {
protected:
    void SetUp() override
    {
        RegistrationTest::SetUp();
        writeFile(folder_.path() / tool::registeredImage, "module");
        system_.systemFolder = folder_.path();
    }

    tool::Proving proving() { return {session_, options_, system_, false, nullptr, {}, {}}; }

    TemporaryFolder folder_;
    tool::Session session_;
    tool::ProveOptions options_;
};

TEST_F(ProveRegistration, WithoutTheOptionNothingIsRegistered)
{
    tool::Proving run = proving();
    EXPECT_THROW(proveRegistration(run), Failure);
    EXPECT_THROW(proveRemoval(run), NotTried);
    EXPECT_EQ(Calls{}, cng.changes());
}

TEST_F(ProveRegistration, WhatTheRunHasRegisteredItRemoves)
{
    options_.registers = true;
    tool::Proving run = proving();
    EXPECT_TRUE(contains(proveRegistration(run), "registered for this run"));
    EXPECT_TRUE(cng.present && cng.isListed());
    EXPECT_EQ("no longer registered", proveRemoval(run));
    EXPECT_FALSE(cng.present || cng.isListed());
}

TEST_F(ProveRegistration, WhatWasRegisteredBeforeStays)
{
    cng.setRegistered();
    options_.registers = true;
    tool::Proving run = proving();
    EXPECT_FALSE(contains(proveRegistration(run), "for this run"));
    EXPECT_THROW(proveRemoval(run), NotTried);
    EXPECT_EQ(Calls{}, cng.changes());
}

TEST_F(ProveRegistration, AnotherRegistrationOfTheNameIsNotReplaced)
{
    cng.setRegistered();
    cng.image = L"older.dll";
    options_.registers = true;
    tool::Proving run = proving();
    EXPECT_THROW(proveRegistration(run), Failure);
    EXPECT_THROW(proveRemoval(run), NotTried);
    EXPECT_EQ(Calls{}, cng.changes());
    EXPECT_EQ(L"older.dll", cng.image);
}

TEST_F(ProveRegistration, ThePersonCanHaveItRemoved)
{
    cng.setRegistered();
    options_.unregisters = true;
    tool::Proving run = proving();
    EXPECT_EQ("no longer registered", proveRemoval(run));
    EXPECT_FALSE(cng.present);
    EXPECT_THROW(proveRemoval(run), NotTried);  // nothing is registered any more
}

TEST_F(ProveRegistration, ARunThatCannotBeConfirmedRemovesNothing)
{
    system_.answersQueries = false;
    options_.registers = true;
    tool::Proving run = proving();
    EXPECT_THROW(proveRegistration(run), NotPossible);
    cng.calls.clear();
    EXPECT_THROW(proveRemoval(run), NotTried);
    EXPECT_EQ(Calls{}, cng.changes());
    EXPECT_THROW(proveBcryptProviders(run), NotPossible);
}

TEST_F(ProveRegistration, AMissingModuleIsAFailure)
{
    cng.setRegistered();
    system_.systemFolder = L"C:\\no such folder";
    tool::Proving run = proving();
    EXPECT_THROW(proveRegistration(run), Failure);
}

TEST_F(ProveRegistration, WithoutElevationTheStepsFail)
{
    system_.elevated = false;
    options_.registers = true;
    options_.unregisters = true;
    tool::Proving run = proving();
    EXPECT_THROW(proveRegistration(run), Failure);
    EXPECT_THROW(proveRemoval(run), Failure);
    EXPECT_EQ(Calls{}, cng.changes());
}

}  // namespace

}  // namespace NV::test
