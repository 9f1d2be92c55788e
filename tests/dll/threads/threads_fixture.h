// The module on the scripted token, ready for eight threads, in each behaviour. For the tests of this
// folder.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "config/mode.h"
#include "profile.h"
#include "scripted_work.h"
#include "thread_scenarios.h"

namespace NV::test {

class ThreadsTest : public testing::TestWithParam<Behaviour> {
protected:
    // SEV has a file lock of its own; under Wine two writers may lose each other's bytes.
    explicit ThreadsTest(bool withLog = false)
    {
        const std::string store = withLog ? "~\\.norvanta-keywarden\\logs" : "";
        // In classic, the level gates nothing that is looked for.
        const std::string behaviour = isModern() ? "mode=modern\nlogLevel=TRACE" : "logLevel=ERROR";
        profile.writeConfig(behaviour + "\nlogTypes=FILE\nlogStore=" + store +
                            "\nlogRotate=7\np11File=" + narrowPath(ScriptedToken::widePath()) +
                            "\n");
        module.emplace();
        // Of the objects that are linked into the test.
        setMode(Mode(GetParam()));
    }
    ~ThreadsTest() override { setMode(Mode()); }

    static bool isModern() { return GetParam() == Behaviour::modern; }

    // What is true after every scenario. In classic, the token saw one call at a time, and each sequence of
    // calls whole.
    void TearDown() override
    {
        if (!isModern()) {
            EXPECT_EQ(work.token.sequenceViolations(), 0U);
            EXPECT_EQ(work.token.overlappingCalls(), 0U);
        }
        EXPECT_EQ(work.token.openSessions(), 0U);
        EXPECT_FALSE(work.token.initialised());
    }

    ThreadedToken token() const { return {*module, facts, known, GetParam()}; }

    ScriptedWork work;
    Profile profile;
    std::optional<ProviderModule> module;
    TokenFacts facts = ScriptedWork::facts();
    std::vector<KnownResults> known = ScriptedWork::known(threadCount);
};

// Each suite of this folder runs in both.
#define NV_IN_BOTH_BEHAVIOURS(suite)                                                               \
    INSTANTIATE_TEST_SUITE_P(Behaviours, suite,                                                    \
                             testing::Values(Behaviour::classic, Behaviour::modern),               \
                             [](const auto& tested) {                                              \
                                 return tested.param == Behaviour::modern ? "modern" : "classic";  \
                             })

}  // namespace NV::test
