// The steps of keywarden check on library, token and certificates, run on the scripted token.

#pragma once

#include <gtest/gtest.h>

#include <string>

#include "check/check.h"
#include "contains.h"
#include "formats/certificate_key.h"
#include "logger/logger.h"
#include "module_fixture.h"
#include "scripted_token.h"
#include "tool_program.h"

namespace NV::test {

inline const Bytes rsaId{0x01, 0xAB};
inline const Bytes ecId{0x02, 0x56};

class CheckOfScriptedToken : public testing::Test {
protected:
    CheckOfScriptedToken() : types_(loggerSettings().types) { loggerSettings().types = 0; }

    // No step logs in, sets a PIN, or leaves the library initialised.
    void TearDown() override
    {
        findings = {};  // releases the library, which also writes to the log
        for (const char* name : {"C_Login", "C_InitPIN", "C_SetPIN", "C_InitToken"})
            EXPECT_TRUE(token.calls(name).empty()) << name;
        EXPECT_FALSE(token.initialised());
        EXPECT_EQ(token.openSessions(), 0U);
        loggerSettings().types = types_;
    }

    void check()
    {
        findings.library = ScriptedToken::path();
        checkLibrary(findings);
        checkTokens(findings);
        checkCertificates(findings);
    }

    // With the step that the child process of the program runs last.
    void checkToTheEnd()
    {
        check();
        checkUnloading(findings);
    }

    void expectStep(const char* name, tool::Outcome outcome, const std::string& text,
                    const std::string& advice = {}) const
    {
        const tool::Step step = stepOf(findings, name);
        EXPECT_EQ(step.outcome, outcome) << name;
        EXPECT_TRUE(contains(step.text, text)) << step.text;
        EXPECT_TRUE(contains(step.advice, advice)) << step.advice;
        // Every problem has an advice.
        EXPECT_EQ(step.advice.empty(),
                  outcome == tool::Outcome::ok || outcome == tool::Outcome::skipped);
    }

    std::string detailOf(const char* name, size_t index = 0) const
    {
        const tool::Step step = stepOf(findings, name);
        return index < step.details.size() ? step.details[index] : std::string();
    }

    void addRsa()
    {
        token.addCertificate(rsaId, certificateWithSerial("rsa2048", ++serial_));
        token.addRsaKeyPair(rsaId, 2048, kSlot,
                            tool::rsaNumbers(certificateKey("rsa2048"))->modulus);
    }

    void setTokenFlags(CK_FLAGS flags) { token.addSlot(kSlot, kSlotFlags, flags); }

    ScriptedToken token;
    tool::Findings findings;

private:
    uint32_t types_;
    uint32_t serial_ = 0;
};

}  // namespace NV::test
