// The module on the scripted token, ready for eight threads. For the tests of this folder.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "profile.h"
#include "scripted_work.h"
#include "thread_scenarios.h"

namespace NV::test {

class ThreadsTest : public testing::Test {
protected:
    // SEV has a file lock of its own; under Wine two writers may lose each other's bytes.
    explicit ThreadsTest(bool withLog = false)
    {
        const std::string store = withLog ? "~\\.norvanta-keywarden\\logs" : "";
        profile.writeConfig("logLevel=ERROR\nlogTypes=FILE\nlogStore=" + store +
                            "\nlogRotate=7\np11File=" + narrowPath(ScriptedToken::widePath()) +
                            "\n");
        module.emplace();
    }

    // What is true after every scenario: the token saw one call at a time, and each sequence of calls
    // whole.
    void TearDown() override
    {
        EXPECT_EQ(work.token.sequenceViolations(), 0U);
        EXPECT_EQ(work.token.overlappingCalls(), 0U);
        EXPECT_EQ(work.token.openSessions(), 0U);
        EXPECT_FALSE(work.token.initialised());
    }

    ThreadedToken token() const { return {*module, facts, known}; }

    ScriptedWork work;
    Profile profile;
    std::optional<ProviderModule> module;
    TokenFacts facts = ScriptedWork::facts();
    std::vector<KnownResults> known = ScriptedWork::known(threadCount);
};

}  // namespace NV::test
