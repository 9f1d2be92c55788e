// P11Module's discovery pass: its lines for a library where all goes well, and what each failure of
// the library leaves.

#include "token_layer_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

constexpr std::string_view finalizeLines =
    R"(TRC NV::P11Module::init:Call C_Finalize():START
TRC NV::P11Module::init:Call C_Finalize():END RV=00000000(CKR_OK)
)";

constexpr std::string_view falseLines = R"(TRC NV::P11Module::init:LEAVE(0)
)";

std::string text(std::span<const CK_UTF8CHAR> field)
{
    const std::string all(field.begin(), field.end());
    return all.substr(0, all.find_last_not_of(' ') + 1);
}

class P11ModuleDiscoveryTest : public TokenLayerTest {
protected:
    P11Module module{ScriptedToken::path()};

    void SetUp() override
    {
        const Silence silence;
        ASSERT_TRUE(module.load());
        token.clearCalls();
        capture.takeLines();
    }

    // For tests that do not look at the log.
    bool discoverSilently()
    {
        const Silence silence;
        return module.init();
    }
    const P11Slot& slot(size_t index) const { return *module.slots().at(index); }
};

TEST_F(P11ModuleDiscoveryTest, LogsWhatItFinds)
{
    EXPECT_TRUE(module.init());
    expectTrace(log(), "objects/p11/module_discovery/logs_what_it_finds");
}

TEST_F(P11ModuleDiscoveryTest, AsksTheLibraryInOrder)
{
    EXPECT_TRUE(discoverSilently());
    Strings calls = token.calls();
    ASSERT_EQ(9U + 21 + 1, calls.size());
    EXPECT_EQ((Strings{"C_Finalize(reserved=null)", "C_Initialize(initArgs=null)",
                       "C_GetInfo(info=given)", "C_GetSlotList(tokenPresent=1, slotList=null)",
                       "C_GetSlotList(tokenPresent=1, slotList=room[1])",
                       "C_GetSlotInfo(slot=52, info=given)", "C_GetTokenInfo(slot=52, info=given)",
                       "C_GetMechanismList(slot=52, mechanismList=null)",
                       "C_GetMechanismList(slot=52, mechanismList=room[21])"}),
              Strings(calls.begin(), calls.begin() + 9));
    EXPECT_EQ("C_GetMechanismInfo(slot=52, type=0x1041, info=given)", calls[9]);
    EXPECT_EQ("C_GetMechanismInfo(slot=52, type=0x350, info=given)", calls[29]);
    EXPECT_EQ("C_Finalize(reserved=null)", calls[30]);
    EXPECT_FALSE(token.initialised());
}

TEST_F(P11ModuleDiscoveryTest, KeepsWhatItFinds)
{
    EXPECT_TRUE(discoverSilently());
    EXPECT_EQ("INITIALIZED", module.state());
    EXPECT_EQ("Scripted token of the tests", text(module.libraryInfo().libraryDescription));
    ASSERT_EQ(1U, module.slots().size());
    EXPECT_EQ(kSlot, slot(0).id());
    EXPECT_EQ("Odd Slot 52", text(slot(0).slotInfo().slotDescription));
    EXPECT_EQ("Odd Label 52", text(slot(0).tokenInfo().label));
    EXPECT_FALSE(slot(0).chosen());
    ASSERT_EQ(std::size(kMechanisms), slot(0).mechanisms().size());
    for (const MechanismRow& row : kMechanisms) {
        const P11Mechanism& mechanism = slot(0).mechanisms().at(row.type);
        EXPECT_EQ(row.type, mechanism.type());
        EXPECT_EQ(row.minKeySize, mechanism.minKeySize());
        EXPECT_EQ(row.maxKeySize, mechanism.maxKeySize());
        EXPECT_EQ(row.flags, mechanism.flags());
    }
    EXPECT_EQ("CKM_ECDSA", slot(0).mechanisms().at(CKM_ECDSA).name());
}

TEST_F(P11ModuleDiscoveryTest, ListsSlotsInTheLibrarysOrder)
{
    token.clearSlots();
    token.addSlot(91);
    token.addSlot(8);
    token.addSlot(33);
    EXPECT_TRUE(module.init());
    ASSERT_EQ(3U, module.slots().size());
    EXPECT_EQ(91U, slot(0).id());
    EXPECT_EQ(8U, slot(1).id());
    EXPECT_EQ(33U, slot(2).id());
    const std::string lines = log();
    EXPECT_NE(std::string::npos, lines.find("DBG NV::P11Module::init:Present Slot Count = 3\n"
                                            "DBG NV::P11Module::init:Slot[0] = 91\n"
                                            "DBG NV::P11Module::init:Slot[1] = 8\n"
                                            "DBG NV::P11Module::init:Slot[2] = 33\n"));
}

TEST_F(P11ModuleDiscoveryTest, TheFirstActiveSlotHasAnInitializedToken)
{
    EXPECT_EQ(nullptr, module.firstActiveSlot());
    token.clearSlots();
    token.addSlot(91, kSlotFlags, kTokenFlags & ~CKF_TOKEN_INITIALIZED);
    token.addSlot(8);
    token.addSlot(33);
    EXPECT_TRUE(discoverSilently());
    EXPECT_EQ(&slot(1), module.firstActiveSlot());
}

// A slot whose information could not be read has no flags, whatever its token says.
TEST_F(P11ModuleDiscoveryTest, ASlotWithoutInformationIsNotActive)
{
    token.fail("C_GetSlotInfo", CKR_DEVICE_ERROR);
    EXPECT_TRUE(discoverSilently());
    ASSERT_NE(0U, slot(0).tokenInfo().flags & CKF_TOKEN_INITIALIZED);
    EXPECT_EQ(nullptr, module.firstActiveSlot());
}

TEST_F(P11ModuleDiscoveryTest, NeedsALoadedLibrary)
{
    P11Module empty("");
    log();
    EXPECT_FALSE(empty.init());
    expectLines(R"(
TRC NV::P11Module::init:ENTER
ERR NV::P11Module::init:The library is not initialized
TRC NV::P11Module::init:LEAVE(0)
)",
                log());
    EXPECT_EQ(Strings{}, token.calls());
}

TEST_F(P11ModuleDiscoveryTest, SucceedsWithoutATokenAnywhere)
{
    token.clearSlots();
    token.addSlot(kSlot, kEmptySlotFlags);
    EXPECT_TRUE(module.init());
    EXPECT_TRUE(module.slots().empty());
    expectTrace(log(), "objects/p11/module_discovery/succeeds_without_a_token_anywhere");
}

// Another part of the process uses the library, and the first C_Finalize does not end that.
TEST_F(P11ModuleDiscoveryTest, ALibraryThatIsInitialisedAlreadyWillDo)
{
    ASSERT_EQ(CKR_OK, token.exports().C_Initialize(nullptr));
    token.fail("C_Finalize", CKR_FUNCTION_FAILED, 1);
    EXPECT_TRUE(module.init());
    EXPECT_EQ(1U, module.slots().size());
    EXPECT_TRUE(log().starts_with(R"(TRC NV::P11Module::init:ENTER
TRC NV::P11Module::init:Call C_Finalize():START
TRC NV::P11Module::init:Call C_Finalize():END RV=00000006(CKR_FUNCTION_FAILED)
TRC NV::P11Module::init:Call C_Initialize():START
TRC NV::P11Module::init:Call C_Initialize():END RV=00000191(CKR_CRYPTOKI_ALREADY_INITIALIZED)
TRC NV::P11Module::init:Call C_GetInfo():START
)"));
}

// The library answers CKR_OK and writes nothing.
TEST_F(P11ModuleDiscoveryTest, ACountThatWasNotWrittenIsNone)
{
    token.fail("C_GetSlotList", CKR_OK, 1);
    EXPECT_TRUE(module.init());
    EXPECT_NE(std::string::npos, log().find("Present Slot Count = 0\n"));
    EXPECT_TRUE(module.slots().empty());
    token.fail("C_GetMechanismList", CKR_OK, 1);
    EXPECT_TRUE(module.init());
    ASSERT_EQ(1U, module.slots().size());
    EXPECT_TRUE(module.slots().front()->mechanisms().empty());
}

TEST_F(P11ModuleDiscoveryTest, ABufferThatIsTooSmallForTheSlotsEndsNothing)
{
    token.bufferTooSmall("C_GetSlotList");
    EXPECT_TRUE(discoverSilently());
    EXPECT_EQ(1U, module.slots().size());
    EXPECT_FALSE(token.initialised());
}

TEST_F(P11ModuleDiscoveryTest, ASlotCountThatGrowsIsNotBelieved)
{
    token.secondCountLarger("C_GetSlotList");
    EXPECT_TRUE(module.init());
    EXPECT_EQ(1U, module.slots().size());
    EXPECT_NE(std::string::npos,
              log().find(std::string("DBG NV::P11Module::init:Present Slot Count = 1\n"
                                     "DBG NV::P11Module::init:Slot[0] = 52\n"
                                     "DBG NV::P11Module::init:Call C_GetSlotInfo():START\n")));
    EXPECT_EQ(1U, token.calls("C_GetSlotInfo").size());
}

TEST_F(P11ModuleDiscoveryTest, AFailedSlotInfoLeavesWhatTheSlotBeforeLeft)
{
    token.addSlot(kOtherSlot);
    token.fail("C_GetSlotInfo", CKR_DEVICE_ERROR, 2);
    EXPECT_TRUE(module.init());
    ASSERT_EQ(2U, module.slots().size());
    EXPECT_EQ(kOtherSlot, slot(1).id());
    EXPECT_EQ("Odd Slot 52", text(slot(1).slotInfo().slotDescription));
    EXPECT_EQ("Odd Label 77", text(slot(1).tokenInfo().label));
    EXPECT_EQ(21U, slot(1).mechanisms().size());
    EXPECT_NE(std::string::npos, log().find(R"(DBG NV::P11Module::init:Call C_GetSlotInfo():START
TRC NV::P11Module::init:Call C_GetSlotInfo():END RV=00000030(CKR_DEVICE_ERROR)
TRC NV::P11Module::init:Call C_GetTokenInfo():START
TRC NV::P11Module::init:Call C_GetTokenInfo():END RV=00000000(CKR_OK)
)"));
}

TEST_F(P11ModuleDiscoveryTest, AFailedSlotInfoOfTheFirstSlotLeavesZeros)
{
    token.fail("C_GetSlotInfo", CKR_DEVICE_ERROR);
    EXPECT_TRUE(discoverSilently());
    ASSERT_EQ(1U, module.slots().size());
    EXPECT_EQ(kSlot, slot(0).id());
    EXPECT_EQ(0U, slot(0).slotInfo().slotDescription[0]);
    EXPECT_EQ(0U, slot(0).slotInfo().flags);
}

TEST_F(P11ModuleDiscoveryTest, AMechanismCountThatGrowsIsNotBelieved)
{
    token.secondCountLarger("C_GetMechanismList");
    EXPECT_TRUE(discoverSilently());
    EXPECT_EQ(21U, token.calls("C_GetMechanismInfo").size());
    EXPECT_EQ(21U, slot(0).mechanisms().size());
}

TEST_F(P11ModuleDiscoveryTest, AMechanismWithoutInfoIsPassedOver)
{
    token.fail("C_GetMechanismInfo", CKR_DEVICE_ERROR, 1);
    EXPECT_TRUE(module.init());
    EXPECT_EQ(20U, slot(0).mechanisms().size());
    EXPECT_FALSE(slot(0).mechanisms().contains(CKM_ECDSA));
    EXPECT_NE(std::string::npos, log().find(R"(Count=21
TRC NV::P11Module::init:Call C_GetMechanismInfo():START
TRC NV::P11Module::init:Call C_GetMechanismInfo():END RV=00000030(CKR_DEVICE_ERROR)
TRC NV::P11Module::init:Call C_GetMechanismInfo():START
TRC NV::P11Module::init:Call C_GetMechanismInfo():END RV=00000000(CKR_OK)
TRC NV::P11Module::init:Add Mechanism[CKM_ECDH1_DERIVE(0x1050)]:Flag=)"));
}

// A call that fails, and what it leaves. All calls of the library end with `lastCall`.
struct Failure {
    const char* trace;
    const char* function;
    uint32_t nth;  // 0: every call
    CK_RV rv;
    bool result;
    size_t slots;
    CK_SLOT_ID firstSlot = 0;
    size_t mechanisms = 0;
    size_t callsOfFunction = 1;
    CK_SLOT_ID askedSlot = kSlot;
    const char* lastCall = "C_Finalize";
};

constexpr Failure failures[] = {
    {"ends_at_once_when_initialising_fails", "C_Initialize", 0, CKR_TOKEN_WRITE_PROTECTED, false, 0,
     0, 0, 1, 0, "C_Initialize"},
    {"finalises_after_a_failed_get_info", "C_GetInfo", 0, CKR_TOKEN_NOT_RECOGNIZED, false, 0},
    {"finalises_after_a_failed_slot_list", "C_GetSlotList", 1, CKR_TOKEN_NOT_RECOGNIZED, false, 0},
    // The loop still runs, over the buffer as it is: zeros.
    {"goes_on_after_a_failed_second_slot_list", "C_GetSlotList", 2, CKR_DEVICE_ERROR, true, 1, 0, 0,
     2, 0},
    {"a_slot_without_token_info_is_listed_with_its_mechanisms", "C_GetTokenInfo", 0,
     CKR_TOKEN_NOT_RECOGNIZED, true, 1, 0, 21},
    {"a_failed_mechanism_list_leaves_no_mechanisms", "C_GetMechanismList", 0, CKR_DEVICE_ERROR,
     true, 1, kSlot},
    {"a_failed_second_mechanism_list_leaves_no_mechanisms", "C_GetMechanismList", 2,
     CKR_DEVICE_ERROR, true, 1, kSlot, 0, 2},
    {"a_failed_closing_finalise_is_a_failure", "C_Finalize", 2, CKR_TOKEN_NOT_RECOGNIZED, false, 1,
     kSlot, 21, 2},
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.trace;
}

class P11ModuleDiscoveryFailureTest : public P11ModuleDiscoveryTest,
                                      public testing::WithParamInterface<Failure> {};

TEST_P(P11ModuleDiscoveryFailureTest, IsLoggedAndLeavesWhatWasFound)
{
    const Failure& failure = GetParam();
    token.fail(failure.function, failure.rv, failure.nth);
    EXPECT_EQ(failure.result, module.init());
    expectTrace(log(), std::string("objects/p11/module_discovery/") + failure.trace);
    EXPECT_EQ(failure.callsOfFunction, token.calls(failure.function).size());
    EXPECT_EQ(failure.lastCall, token.callNames().back());
    // The library's information is missing where the slots were not asked for.
    EXPECT_EQ(token.calls("C_GetSlotList").empty(), module.libraryInfo().libraryVersion.major == 0);
    ASSERT_EQ(failure.slots, module.slots().size());
    if (failure.slots == 0)
        return;
    EXPECT_EQ(Strings{"C_GetSlotInfo(slot=" + std::to_string(failure.askedSlot) + ", info=given)"},
              token.calls("C_GetSlotInfo"));
    EXPECT_EQ(failure.firstSlot, slot(0).id());
    EXPECT_EQ(failure.mechanisms, slot(0).mechanisms().size());
    EXPECT_EQ(failure.mechanisms, token.calls("C_GetMechanismInfo").size());
    // A slot without an identifier has no information either.
    EXPECT_EQ(failure.firstSlot == 0, slot(0).slotInfo().flags == 0);
    EXPECT_EQ(failure.firstSlot == 0, slot(0).tokenInfo().flags == 0);
}

INSTANTIATE_TEST_SUITE_P(Calls, P11ModuleDiscoveryFailureTest, testing::ValuesIn(failures),
                         [](const auto& failure) { return std::string(failure.param.trace); });

TEST_F(P11ModuleDiscoveryTest, ASecondDiscoveryListsTheSlotsAgain)
{
    EXPECT_TRUE(discoverSilently());
    EXPECT_TRUE(discoverSilently());
    ASSERT_EQ(2U, module.slots().size());
    EXPECT_EQ(kSlot, slot(0).id());
    EXPECT_EQ(kSlot, slot(1).id());
    EXPECT_EQ(21U, slot(1).mechanisms().size());
}

TEST_F(P11ModuleDiscoveryTest, KeepsTheSlotsFoundBeforeAnException)
{
    token.addSlot(kOtherSlot);
    token.throwFrom("C_GetTokenInfo", 2);
    EXPECT_FALSE(discoverSilently());
    ASSERT_EQ(1U, module.slots().size());
    EXPECT_EQ(kSlot, slot(0).id());
}

// Where the library throws, or the list lacks the function: the line, and how the log ends.
struct Interruption {
    const char* function;
    uint32_t nth;
    std::string expectedEnd;
};

constexpr std::string_view caughtLine = R"(ERR NV::P11Module::init:Caught Exception.
)";

constexpr std::string_view misspeltLine = R"(ERR NV::P11Module::init:Caught Enxception
)";

std::string startLine(const std::string& function, const std::string& level = "TRC")
{
    return level + " NV::P11Module::init:Call " + function + "():START\n";
}

std::vector<Interruption> interruptions()
{
    const std::string closing = joined({finalizeLines, falseLines});
    const std::string caught = std::string(caughtLine) + closing;
    const std::string misspelt = joined({misspeltLine, falseLines});
    return {
        {"C_Finalize", 1, startLine("C_Finalize") + misspelt},
        {"C_Initialize", 1, startLine("C_Initialize") + misspelt},
        {"C_GetInfo", 1, startLine("C_GetInfo") + caught},
        {"C_GetSlotList", 1, startLine("C_GetSlotList") + caught},
        {"C_GetSlotList", 2, startLine("C_GetSlotList") + caught},
        {"C_GetSlotInfo", 1, startLine("C_GetSlotInfo", "DBG") + caught},
        {"C_GetTokenInfo", 1, startLine("C_GetTokenInfo") + caught},
        {"C_GetMechanismList", 1, startLine("C_GetMechanismList") + caught},
        {"C_GetMechanismList", 2, startLine("C_GetMechanismList") + caught},
        {"C_GetMechanismInfo", 1, startLine("C_GetMechanismInfo") + caught},
        {"C_GetMechanismInfo", 21, startLine("C_GetMechanismInfo") + caught},
        {"C_Finalize", 2, startLine("C_Finalize") + misspelt},
    };
}

TEST_F(P11ModuleDiscoveryTest, ExceptionsEndItWithTheirLine)
{
    for (const Interruption& where : interruptions()) {
        SCOPED_TRACE(std::string(where.function) + " " + std::to_string(where.nth));
        token.exports().C_Finalize(nullptr);
        token.clearFaults();
        token.throwFrom(where.function, where.nth);
        log();
        EXPECT_FALSE(module.init());
        const std::string lines = log();
        EXPECT_TRUE(lines.ends_with(where.expectedEnd)) << lines;
        token.clearFaults();
        EXPECT_EQ(where.function == std::string("C_Finalize") && where.nth == 2,
                  token.initialised());
    }
}

TEST_F(P11ModuleDiscoveryTest, MissingFunctionsEndItLikeExceptions)
{
    CK_FUNCTION_LIST& list = *module.functionList();
    const CK_FUNCTION_LIST whole = list;
    for (const Interruption& where : interruptions()) {
        if (where.nth != 1)
            continue;
        SCOPED_TRACE(where.function);
#define NV_REMOVE(name, parameters)                                                                \
    if (where.function == std::string(#name))                                                      \
        list.name = nullptr;
        NV_CK_FUNCTIONS(NV_REMOVE)
#undef NV_REMOVE
        log();
        EXPECT_FALSE(module.init());
        const std::string lines = log();
        EXPECT_TRUE(lines.ends_with(where.expectedEnd)) << lines;
        list = whole;
    }
}

}  // namespace

}  // namespace NV::test
