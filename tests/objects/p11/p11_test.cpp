// The call layer beside the common course of its wrappers: loading, C_Initialize and its callbacks,
// what single wrappers add, and the lock.

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "token_layer_fixture.h"
#include "trace_file.h"
#include "watched_memory.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

class Pkcs11LoadTest : public TokenLayerTest {
protected:
    Pkcs11 p11;
};

TEST_F(Pkcs11LoadTest, LoadsAndDiscoversAndLeavesTheLibraryFinalised)
{
    EXPECT_EQ(nullptr, p11.module());
    EXPECT_TRUE(p11.loadModule(ScriptedToken::path()));
    ASSERT_NE(nullptr, p11.module());
    EXPECT_EQ(1U, p11.module()->slots().size());
    EXPECT_FALSE(p11.initialized());
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ("C_GetFunctionList", token.callNames().front());
    EXPECT_EQ("C_Finalize", token.callNames().back());
    expectLines(R"(
TRC NV::Pkcs11::loadModule:ENTER
TRC NV::Pkcs11::loadModule:ARG[0]:path=<token>
TRC NV::Pkcs11::loadModule:LEAVE
)",
                log("NV::Pkcs11::loadModule"));
}

TEST_F(Pkcs11LoadTest, RefusesASecondModuleAndKeepsTheFirst)
{
    ASSERT_TRUE(p11.loadModule(ScriptedToken::path()));
    const P11Module* first = p11.module();
    token.clearCalls();
    log();
    EXPECT_FALSE(p11.loadModule(pathBesideTest("partial_exports.dll")));
    EXPECT_EQ(first, p11.module());
    EXPECT_EQ(Strings{}, token.calls());
    EXPECT_EQ("", log("NV::P11Module::P11Module"));
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
}

TEST_F(Pkcs11LoadTest, KeepsAModuleThatDidNotLoad)
{
    EXPECT_FALSE(p11.loadModule(pathBesideTest("no such library.dll")));
    ASSERT_NE(nullptr, p11.module());
    EXPECT_FALSE(p11.loadModule(ScriptedToken::path()));
    log();
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_Logout(0x5E55));
    expectLines(R"(
TRC NV::Pkcs11::C_Logout:ENTER
DBG NV::Pkcs11::C_Logout:ARG[0]:hSession=0000000000005e55
ERR NV::Pkcs11::C_Logout:Function List is not initialized
TRC NV::Pkcs11::C_Logout:LEAVE
)",
                log());
    EXPECT_EQ(Strings{}, token.calls());
}

TEST_F(Pkcs11LoadTest, AnswersForAFailedDiscovery)
{
    token.fail("C_GetInfo", CKR_DEVICE_ERROR);
    EXPECT_FALSE(p11.loadModule(ScriptedToken::path()));
    token.clearFaults();
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
}

TEST_F(Pkcs11LoadTest, CallsWithoutAnEntryInTheListFail)
{
    ASSERT_TRUE(p11.loadModule(pathBesideTest("partial_exports.dll")));
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    CK_BYTE pin = 0;
    EXPECT_EQ(CKR_FUNCTION_FAILED, p11.C_Login(1, CKU_USER, &pin, 1));
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, 4, nullptr, nullptr, &session));
}

TEST_F(Pkcs11LoadTest, DestructionFinalisesTheLibraryLast)
{
    {
        Pkcs11 shortLived;
        ASSERT_TRUE(shortLived.loadModule(ScriptedToken::path()));
        ASSERT_EQ(CKR_OK, shortLived.C_Initialize(nullptr));
        token.clearCalls();
    }
    EXPECT_EQ(Strings{"C_Finalize(reserved=null)"}, token.calls());
    EXPECT_FALSE(token.initialised());
}

class Pkcs11InitializeTest : public LoadedLayerTest {};

TEST_F(Pkcs11InitializeTest, GeneratesInitArguments)
{
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    const CK_C_INITIALIZE_ARGS* args = p11.module()->initArgs();
    ASSERT_NE(nullptr, args);
    EXPECT_TRUE(p11.module()->ownsInitArgs());
    EXPECT_EQ(3U, args->flags);
    EXPECT_EQ(nullptr, args->pReserved);
    EXPECT_TRUE(p11.initialized());
    names = {{addressOfFunction(args->CreateMutex), "[create]"},
             {addressOfFunction(args->DestroyMutex), "[destroy]"},
             {addressOfFunction(args->LockMutex), "[lock]"},
             {addressOfFunction(args->UnlockMutex), "[unlock]"}};
    EXPECT_EQ(4U, names.size());
    EXPECT_FALSE(names.contains(0));
    expectTrace(log(), "objects/p11/p11/generates_init_arguments");
    EXPECT_EQ(Strings{"C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,"
                      "LockMutex=given,UnlockMutex=given,flags=0x3,reserved=null})"},
              token.calls());
}

TEST_F(Pkcs11InitializeTest, GeneratedCallbacksAreAMutex)
{
    ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    void* mutex = nullptr;
    ASSERT_EQ(CKR_OK, token.createMutex(&mutex));
    ASSERT_NE(nullptr, mutex);
    ASSERT_EQ(CKR_OK, token.lockMutex(mutex));

    std::atomic<bool> inside = false;
    std::thread other([&] {
        token.lockMutex(mutex);
        inside = true;
        token.unlockMutex(mutex);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(inside);
    EXPECT_EQ(CKR_OK, token.unlockMutex(mutex));
    other.join();
    EXPECT_TRUE(inside);

    const WatchedBlock watched(mutex);
    EXPECT_EQ(CKR_OK, token.destroyMutex(mutex));
    EXPECT_TRUE(WatchedBlock::released());
}

TEST_F(Pkcs11InitializeTest, GeneratedCallbacksTakeANullMutex)
{
    ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_EQ(CKR_OK, token.lockMutex(nullptr));
    EXPECT_EQ(CKR_OK, token.unlockMutex(nullptr));
    EXPECT_EQ(CKR_OK, token.destroyMutex(nullptr));
}

TEST_F(Pkcs11InitializeTest, KeepsTheCallersArgumentsWithoutOwningThem)
{
    auto args = std::make_unique<CK_C_INITIALIZE_ARGS>();
    args->flags = CKF_OS_LOCKING_OK;
    const WatchedBlock watched(args.get());
    {
        Pkcs11 shortLived;
        ASSERT_TRUE(shortLived.loadModule(ScriptedToken::path()));
        log();
        names = {{addressOf(args.get()), "[args]"}};
        EXPECT_EQ(CKR_OK, shortLived.C_Initialize(args.get()));
        expectTrace(log(), "objects/p11/p11/keeps_the_callers_arguments_without_owning_them");
        EXPECT_EQ(args.get(), shortLived.module()->initArgs());
        EXPECT_FALSE(shortLived.module()->ownsInitArgs());
    }
    EXPECT_FALSE(WatchedBlock::released());
}

TEST_F(Pkcs11InitializeTest, OwnedArgumentsAreFreedWithTheModule)
{
    auto shortLived = std::make_unique<Pkcs11>();
    ASSERT_TRUE(shortLived->loadModule(ScriptedToken::path()));
    ASSERT_EQ(CKR_OK, shortLived->C_Initialize(nullptr));
    const WatchedBlock watched(shortLived->module()->initArgs());
    shortLived.reset();
    EXPECT_TRUE(WatchedBlock::released());
}

bool releasedDuringTheCall = true;

CK_RV NV_CK_CALL noteReleased(CK_VOID_PTR)
{
    releasedDuringTheCall = WatchedBlock::released();
    return CKR_OK;
}

TEST_F(Pkcs11InitializeTest, ReplacedArgumentsAreFreedAfterTheCall)
{
    ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    const CK_C_INITIALIZE_ARGS* first = p11.module()->initArgs();
    const WatchedBlock watched(first);
    const auto original = p11.module()->functionList()->C_Initialize;
    p11.module()->functionList()->C_Initialize = noteReleased;
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    p11.module()->functionList()->C_Initialize = original;
    EXPECT_FALSE(releasedDuringTheCall);
    EXPECT_TRUE(WatchedBlock::released());
    EXPECT_NE(nullptr, p11.module()->initArgs());
    EXPECT_TRUE(p11.module()->ownsInitArgs());
}

TEST_F(Pkcs11InitializeTest, LogsAFailureAndStaysUninitialised)
{
    token.fail("C_Initialize", CKR_CANT_LOCK, 1);
    EXPECT_EQ(CKR_CANT_LOCK, p11.C_Initialize(nullptr));
    EXPECT_FALSE(p11.initialized());
    const std::string lines = log();
    EXPECT_NE(std::string::npos,
              lines.find("TRC NV::Pkcs11::C_Initialize:CALL C_Initialize(): Result = "
                         "0000000a(CKR_CANT_LOCK), Elapsed [# msec]\n"
                         "INF NV::Pkcs11::C_Initialize:RETURN CODE:0000000a(CKR_CANT_LOCK)\n"));
}

TEST_F(Pkcs11InitializeTest, RemembersASuccessForEver)
{
    ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_TRUE(p11.initialized());
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_TRUE(p11.initialized());
}

class Pkcs11AdditionsTest : public LoadedLayerTest {};

TEST_F(Pkcs11AdditionsTest, ResultsWithoutANamePassUnchanged)
{
    const CK_SESSION_HANDLE session = openSession();
    token.fail("C_CloseSession", 0x80000123);
    EXPECT_EQ(0x80000123, p11.C_CloseSession(session));
    expectTrace(log(), "objects/p11/p11/results_without_a_name_pass_unchanged");
}

TEST_F(Pkcs11AdditionsTest, HandlesKeepAll32Bits)
{
    p11.C_DestroyObject(0xFEDCBA98, 0xFFFFFFFF);
    expectTrace(log(), "objects/p11/p11/handles_keep_all32_bits");
    EXPECT_EQ(Strings{"C_DestroyObject(session=0xFEDCBA98, object=0xFFFFFFFF)"}, token.calls());
}

TEST_F(Pkcs11AdditionsTest, LargeCountsPrintAsSignedNumbers)
{
    CK_MECHANISM_INFO info{};
    p11.C_GetMechanismInfo(0xFFFFFFFF, CKM_VENDOR_DEFINED, &info);
    const std::string lines = log();
    EXPECT_NE(std::string::npos, lines.find("ARG[0]:slotID=-1\n"));
    EXPECT_NE(std::string::npos, lines.find("ARG[1]:type=-2147483648\n"));
}

// Information is logged only when the library filled what the caller gave.
TEST_F(Pkcs11AdditionsTest, NothingIsShownOfInformationThatTheCallerDidNotAskFor)
{
    for (const char* function : {"C_GetInfo", "C_GetSlotList", "C_GetSlotInfo", "C_GetTokenInfo",
                                 "C_GetSessionInfo", "C_FindObjects"})
        token.fail(function, CKR_OK);
    EXPECT_EQ(CKR_OK, p11.C_GetInfo(nullptr));
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, nullptr));
    EXPECT_EQ(CKR_OK, p11.C_GetSlotInfo(kSlot, nullptr));
    EXPECT_EQ(CKR_OK, p11.C_GetTokenInfo(kSlot, nullptr));
    EXPECT_EQ(CKR_OK, p11.C_GetSessionInfo(1, nullptr));
    EXPECT_EQ(CKR_OK, p11.C_FindObjects(1, nullptr, 3, nullptr));
    const LogLines lines = capture.takeLines();
    EXPECT_EQ(6U * 4 + 1 + 3 + 2 + 2 + 2 + 4, lines.size());
    for (const LogLine& line : lines)
        EXPECT_TRUE(line.message == "ENTER" || line.message == "LEAVE" ||
                    line.message.starts_with("ARG[") || line.message.starts_with("CALL "))
            << line.raw;
}

TEST_F(Pkcs11AdditionsTest, OpenSessionLogsItsFlags)
{
    openSession();
    log();
    CK_SESSION_HANDLE session = 0;
    const auto flagLines = [&](CK_FLAGS flags) {
        p11.C_OpenSession(kSlot, flags, nullptr, nullptr, &session);
        std::string told;
        for (const LogLine& line : capture.takeLines()) {
            if (line.message.starts_with("ARG[1]") || line.message.ends_with("enabled"))
                told += render(line) + "\n";
        }
        return told;
    };
    const std::string prefix = "DBG NV::Pkcs11::C_OpenSession:";
    const std::string serial = prefix + "CKF_SERIAL_SESSION is enabled\n";
    const std::string writable = prefix + "CKF_RW_SESSION is enabled\n";
    EXPECT_EQ(prefix + "ARG[1]:flags=0x0\n", flagLines(0));
    EXPECT_EQ(prefix + "ARG[1]:flags=0x2\n" + writable, flagLines(2));
    EXPECT_EQ(prefix + "ARG[1]:flags=0x4\n" + serial, flagLines(4));
    EXPECT_EQ(prefix + "ARG[1]:flags=0xfffffff9\n", flagLines(0xFFFFFFF9));
    EXPECT_EQ(prefix + "ARG[1]:flags=0xffffffff\n" + serial + writable, flagLines(0xFFFFFFFF));
}

TEST_F(Pkcs11AdditionsTest, FindObjectsInitWithoutTemplateHasNoAttributeLines)
{
    openSession();
    log();
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_FindObjectsInit(0x5E55, nullptr, 3));
    expectTrace(log(), "objects/p11/p11/find_objects_init_without_template_has_no_attribute_lines");
}

TEST_F(Pkcs11AdditionsTest, SignInitWithoutMechanismHasNoMechanismLines)
{
    openSession();
    log();
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_SignInit(0x5E55, nullptr, 0xB2));
    expectTrace(log(), "objects/p11/p11/sign_init_without_mechanism_has_no_mechanism_lines");
}

class Pkcs11FindTest : public LoadedLayerTest {
protected:
    void SetUp() override
    {
        LoadedLayerTest::SetUp();
        for (int i = 0; i < 2; ++i)
            token.addObject({numberAttribute(CKA_CLASS, CKO_DATA)});
        session = openSession();
        const Silence silence;
        ASSERT_EQ(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    }

    // The lines between the outcome and LEAVE of a search with room for three handles.
    std::string additions(CK_OBJECT_HANDLE* phObject, CK_ULONG* pulObjectCount)
    {
        log();
        p11.C_FindObjects(session, phObject, 3, pulObjectCount);
        const std::string lines = log();
        const size_t begin = lines.find("msec]\n") + 6;
        return lines.substr(begin, lines.rfind("TRC NV::Pkcs11::C_FindObjects:LEAVE") - begin);
    }

    CK_SESSION_HANDLE session = 0;
    CK_OBJECT_HANDLE objects[3]{};
    CK_ULONG count = 0;
};

TEST_F(Pkcs11FindTest, ShowsWhatWasFound)
{
    expectLines(R"(
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 2
TRC NV::Pkcs11::C_FindObjects:OBJECT[0]=00000000000000b1
TRC NV::Pkcs11::C_FindObjects:OBJECT[1]=00000000000000b2
)",
                additions(objects, &count));
    // The next call of the same search finds nothing more.
    expectLines(R"(
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 0
)",
                additions(objects, &count));
}

TEST_F(Pkcs11FindTest, GivesNoHandlesOfAListThatIsTooLong)
{
    token.claim("C_FindObjects", 65537);
    std::vector<CK_OBJECT_HANDLE> found(1);
    EXPECT_EQ(CKR_GENERAL_ERROR, findObjects(p11, session, found));
    EXPECT_TRUE(found.empty());
}

TEST_F(Pkcs11FindTest, ShowsNothingOfAFailure)
{
    token.fail("C_FindObjects", CKR_DEVICE_ERROR);
    count = 2;
    EXPECT_EQ("", additions(objects, &count));
}

TEST_F(Pkcs11FindTest, ShowsTheCountAloneWithoutABuffer)
{
    token.fail("C_FindObjects", CKR_OK);
    count = 2;
    expectLines(R"(
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 2
)",
                additions(nullptr, &count));
}

TEST_F(Pkcs11FindTest, ShowsNoMoreThanTheBufferHolds)
{
    objects[2] = 0x77;
    token.lengthPastBuffer("C_FindObjects");
    expectLines(R"(
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 10
TRC NV::Pkcs11::C_FindObjects:OBJECT[0]=00000000000000b1
TRC NV::Pkcs11::C_FindObjects:OBJECT[1]=00000000000000b2
TRC NV::Pkcs11::C_FindObjects:OBJECT[2]=0000000000000077
)",
                additions(objects, &count));
    EXPECT_EQ(10U, count);
}

class Pkcs11LockTest : public LoadedLayerTest {};

TEST_F(Pkcs11LockTest, OnlyOneCallIsInTheLibraryAtATime)
{
    const CK_SESSION_HANDLE session = openSession();
    token.delay("C_GenerateRandom", 3ms);
    const auto work = [&] {
        CK_BYTE random[4];
        CK_SESSION_INFO info{};
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(CKR_OK, p11.C_GenerateRandom(session, random, 4));
            EXPECT_EQ(CKR_OK, p11.C_GetSessionInfo(session, &info));
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(40U, token.calls().size());
    EXPECT_EQ(0U, token.overlappingCalls());
}

// Everything behind ENTER is written under the lock, so no two calls' lines mix.
TEST_F(Pkcs11LockTest, LinesOfCallsDoNotMix)
{
    openSession();
    log();
    token.delay("C_CancelFunction", 2ms);
    const auto work = [&] {
        for (int i = 0; i < 10; ++i)
            p11.C_CancelFunction(0x5E55);
    };
    std::thread other(work);
    work();
    other.join();

    const LogLines lines =
        selected(capture.takeLines(), [](const LogLine& line) { return line.message != "ENTER"; });
    ASSERT_EQ(80U, lines.size());
    for (size_t i = 0; i < lines.size(); i += 4) {
        EXPECT_EQ("ARG[0]:hSession=0000000000005e55", lines[i].message);
        EXPECT_EQ("LEAVE", lines[i + 3].message);
        for (size_t j = 1; j < 4; ++j)
            EXPECT_EQ(lines[i].identity, lines[i + j].identity);
    }
}

TEST(Pkcs11LoadingLockTest, ACallWaitsForTheDiscovery)
{
    const LogCapture capture;
    ScriptedToken token;
    Pkcs11 p11;
    token.delay("C_GetInfo", 100ms);
    std::thread loader([&] { EXPECT_TRUE(p11.loadModule(ScriptedToken::path())); });
    while (token.calls("C_GetInfo").empty())
        std::this_thread::sleep_for(1ms);
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetMechanismList(kOtherSlot, nullptr, &count));
    loader.join();
    const Strings calls = token.calls();
    ASSERT_GT(calls.size(), 2U);
    EXPECT_EQ("C_GetMechanismList(slot=77, mechanismList=null)", calls.back());
    EXPECT_EQ("C_Finalize(reserved=null)", calls[calls.size() - 2]);
    EXPECT_EQ(0U, token.overlappingCalls());
}

}  // namespace

}  // namespace NV::test
