// keywarden check on slots and tokens that are wrong in one way each.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "check_fixture.h"
#include "modern_mode.h"

namespace NV::test {

namespace {

using tool::Outcome;

class CheckToken : public CheckOfScriptedToken {};

TEST_F(CheckToken, FindsNoProblem)
{
    addRsa();
    check();
    for (const char* name :
         {"library-file", "library-architecture", "library-dependencies", "library-loads",
          "function-list", "slots", "chosen-slot", "pin", "certificates", "public-keys"})
        expectStep(name, Outcome::ok, "");
    EXPECT_EQ(stepOf(findings, "library-loads").text, "PKCS#11 2.40");
    EXPECT_EQ(stepOf(findings, "function-list").text, "matches the library's exports");
    EXPECT_EQ(detailOf("slots"),
              "slot 52: \"Odd Label 52\", serial SN-7391-52, initialised, login required, PIN set");
    EXPECT_EQ(stepOf(findings, "chosen-slot").text, "slot 52, the first with an initialised token");
    EXPECT_EQ(stepOf(findings, "pin").text, "5 to 15 characters, not locked");
    EXPECT_TRUE(
        detailOf("certificates").starts_with("01AB: KeyWarden rsa2048, RSA 2048, valid to "))
        << detailOf("certificates");
    EXPECT_TRUE(contains(detailOf("public-keys"), "only after a login"));
    EXPECT_FALSE(token.calls("C_FindObjectsInit").empty());
}

// The library is initialized once, for all steps.
TEST_F(CheckToken, FindsNoProblemInModern)
{
    const ModernMode modern;
    addRsa();
    check();
    for (const char* name : {"library-file", "library-dependencies", "library-loads", "slots",
                             "chosen-slot", "pin", "certificates", "public-keys"})
        expectStep(name, Outcome::ok, "");
    EXPECT_EQ(token.calls("C_Initialize").size(), 1U);
    EXPECT_TRUE(token.calls("C_Finalize").empty());
}

TEST_F(CheckToken, SlotListFailsInModern)
{
    const ModernMode modern;
    token.fail("C_GetSlotList", CKR_GENERAL_ERROR);
    check();
    expectStep("slots", Outcome::failed, "C_GetSlotList: 00000005(CKR_GENERAL_ERROR)", "log");
    // An opening that fails gives the library back, and so does the search for the reason.
    EXPECT_EQ(token.calls("C_Finalize").size(), token.calls("C_Initialize").size());
    EXPECT_FALSE(token.initialised());
}

TEST_F(CheckToken, ListRepaired)
{
    token.setListMode(ListMode::differentInitialize);
    check();
    expectStep("function-list", Outcome::ok, "the provider repairs it");
}

TEST_F(CheckToken, ListRefused)
{
    token.fail("C_GetFunctionList", CKR_HOST_MEMORY);
    check();
    expectStep("library-loads", Outcome::failed, "its C_GetFunctionList returns no list", "log");
    expectStep("slots", Outcome::skipped, "");
}

TEST_F(CheckToken, InitialiseFails)
{
    token.fail("C_Initialize", CKR_DEVICE_ERROR);
    check();
    expectStep("slots", Outcome::failed, "C_Initialize: 00000030(CKR_DEVICE_ERROR)",
               "whether its service is running");
    expectStep("certificates", Outcome::skipped, "");
}

TEST_F(CheckToken, InitialiseThrows)
{
    token.throwFrom("C_Initialize");
    check();
    expectStep("slots", Outcome::failed, "C_Initialize: 00000006(CKR_FUNCTION_FAILED)", "log");
}

TEST_F(CheckToken, SlotListFails)
{
    token.fail("C_GetSlotList", CKR_GENERAL_ERROR);
    check();
    expectStep("slots", Outcome::failed, "C_GetSlotList: 00000005(CKR_GENERAL_ERROR)", "log");
}

TEST_F(CheckToken, NoSlotWithAToken)
{
    token.clearSlots();
    token.addSlot(kSlot, kEmptySlotFlags, 0);
    check();
    expectStep("slots", Outcome::failed, "no slot contains a token", "Insert the card");
}

TEST_F(CheckToken, TokenNotInitialised)
{
    setTokenFlags(CKF_RNG);
    check();
    expectStep("chosen-slot", Outcome::failed, "no token is initialised", "the vendor's tool");
    EXPECT_EQ(stepOf(findings, "slots").details.at(0),
              "slot 52: \"Odd Label 52\", serial SN-7391-52, not initialised");
    expectStep("certificates", Outcome::skipped, "");
}

TEST_F(CheckToken, SecondSlotIsChosen)
{
    setTokenFlags(CKF_RNG);
    token.addSlot(kOtherSlot, kSlotFlags, kTokenFlags);
    check();
    expectStep("chosen-slot", Outcome::ok, "slot 77, the first with an initialised token");
    EXPECT_EQ(stepOf(findings, "slots").details.size(), 2U);
}

// Programs get the keys of the first one only.
TEST_F(CheckToken, TwoTokens)
{
    token.addSlot(kOtherSlot, kSlotFlags, kTokenFlags);
    check();
    expectStep("chosen-slot", Outcome::warning, "slot 52, the first of 2 with an initialised token",
               "Remove the other tokens");
}

// It may be initialised: initialising it would delete its keys.
TEST_F(CheckToken, TokenThatCannotBeRead)
{
    token.fail("C_GetTokenInfo", CKR_DEVICE_ERROR);
    check();
    expectStep("chosen-slot", Outcome::failed,
               "the token cannot be read: C_GetTokenInfo: 00000030(CKR_DEVICE_ERROR)",
               "Remove the token and insert it again");
    EXPECT_FALSE(contains(stepOf(findings, "chosen-slot").advice, "nitialise"));
    EXPECT_EQ(detailOf("slots"), "a token that cannot be read");
}

// Other callers of the library are not watched any longer.
TEST_F(CheckToken, UnloadsTheLibrary)
{
    const ModernMode modern;
    addRsa();
    checkToTheEnd();
    expectStep("library-unloads", Outcome::ok, "finalised and unloaded");
    EXPECT_EQ(token.calls("C_Finalize").size(), 1U);
    EXPECT_EQ(findings.p11, nullptr);
}

TEST_F(CheckToken, NothingToUnload)
{
    token.fail("C_GetFunctionList", CKR_HOST_MEMORY);
    checkToTheEnd();
    expectStep("library-unloads", Outcome::skipped, "no library was loaded");
}

TEST_F(CheckToken, LibraryThatOnlyHasToAnswer)
{
    token.clearSlots();
    findings.library = ScriptedToken::path();
    checkLibrary(findings);
    checkAnswer(findings);
    expectStep("slots", Outcome::ok, "the library lists its slots");
}

// What the child process sends to its parent.
class Recorder : public tool::Progress {
public:
    void begun(const std::string& step) override { lines.push_back("begin " + step); }
    void calls(const std::string& function) override { lines.push_back(function); }
    void waits(bool) override { lines.emplace_back("wait"); }
    void ended(const tool::Step& step) override { lines.push_back("end " + step.name); }

    std::vector<std::string> lines;
};

TEST_F(CheckToken, TellsWhatIsUnderWay)
{
    Recorder recorder;
    findings.progress = &recorder;
    check();
    findings.flush();
    const auto at = [&](const std::string& line) {
        return std::ranges::find(recorder.lines, line) - recorder.lines.begin();
    };
    const std::vector<std::string> order = {
        "begin library-loads", "LoadLibrary",  "C_GetFunctionList", "end library-loads",
        "begin slots",         "C_Initialize", "C_GetSlotList",     "end slots"};
    for (size_t i = 1; i < order.size(); ++i)
        EXPECT_LT(at(order[i - 1]), at(order[i])) << order[i];
    EXPECT_LT(at(order.back()), static_cast<ptrdiff_t>(recorder.lines.size()));
    findings.progress = nullptr;
}

TEST_F(CheckToken, PinLocked)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_LOCKED | CKF_USER_PIN_FINAL_TRY);
    check();
    expectStep("pin", Outcome::failed, "the PIN is locked", "security officer");
}

TEST_F(CheckToken, PinFinalTry)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW);
    check();
    expectStep("pin", Outcome::warning, "one more wrong PIN will lock the token",
               "the correct PIN");
}

TEST_F(CheckToken, PinCountLow)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_COUNT_LOW);
    check();
    expectStep("pin", Outcome::warning, "a wrong PIN was entered", "resets the count");
}

TEST_F(CheckToken, PinToBeChanged)
{
    setTokenFlags(kTokenFlags | CKF_USER_PIN_TO_BE_CHANGED);
    check();
    expectStep("pin", Outcome::warning, "requires a new PIN", "Change it");
}

TEST_F(CheckToken, NoPinSet)
{
    setTokenFlags(CKF_LOGIN_REQUIRED | CKF_TOKEN_INITIALIZED);
    check();
    expectStep("pin", Outcome::failed, "no PIN has been set", "Set one");
}

}  // namespace

}  // namespace NV::test
