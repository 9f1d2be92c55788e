// What the tests of this folder share: a fresh token, the captured log, and a module or a call
// layer that is loaded without a word.

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "log_capture.h"
#include "named_pointers.h"
#include "p11/p11.h"
#include "scripted_token.h"

namespace NV::test {

// Blocks of expected lines, one after the other.
inline std::string joined(std::initializer_list<std::string_view> blocks)
{
    std::string all;
    for (const std::string_view block : blocks)
        all += block;
    return all;
}

using Strings = std::vector<std::string>;

// While it lives, nothing is logged.
class Silence {
public:
    Silence() : types_(loggerSettings().types) { loggerSettings().types = 0; }
    ~Silence() { loggerSettings().types = types_; }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    uint32_t types_;
};

class TokenLayerTest : public testing::Test {
protected:
    LogCapture capture;
    ScriptedToken token;
    // The names by which pointers show in expected lines.
    PointerNames names;

    // The lines since the last look, with names and without times.
    std::string log(const std::string& function = "")
    {
        LogLines lines = capture.takeLines();
        if (!function.empty())
            lines = ofFunction(lines, function);
        return maskTimes(
            withPointerNames(replaced(render(lines), ScriptedToken::path(), "<token>"), names));
    }

    // `expected` begins with a line feed.
    static void expectLines(std::string_view expected, const std::string& lines)
    {
        EXPECT_EQ(expected.substr(1), lines);
    }
};

// A call layer on the token.
class LoadedLayerTest : public TokenLayerTest {
protected:
    Pkcs11 p11;

    void SetUp() override
    {
        const Silence silence;
        ASSERT_TRUE(p11.loadModule(ScriptedToken::path()));
        token.clearCalls();
    }

    // Initialises and opens a session, silently and unrecorded.
    CK_SESSION_HANDLE openSession(CK_FLAGS flags = CKF_SERIAL_SESSION)
    {
        const Silence silence;
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
        EXPECT_EQ(CKR_OK, p11.C_OpenSession(kSlot, flags, nullptr, nullptr, &session));
        token.clearCalls();
        return session;
    }
};

}  // namespace NV::test
