// P11Module's loading, repair of the function list, lock and end, and the slot objects. The
// discovery is in module_discovery_test.cpp.

#include <windows.h>

#include <cstring>
#include <filesystem>

#include "folder.h"
#include "modern_mode.h"
#include "p11/p11text.h"
#include "token_layer_fixture.h"
#include "trace_file.h"
#include "watched_memory.h"

namespace NV::test {

namespace {

std::string utf8(const std::filesystem::path& path)
{
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

class P11ModuleTest : public TokenLayerTest {
protected:
    // The names of what the lines of loading the scripted token print.
    void SetUp() override
    {
        const CK_FUNCTION_LIST exports = token.exports();
        names = {{addressOf(GetModuleHandleW(ScriptedToken::widePath().c_str())), "[library]"},
                 {addressOfFunction(exports.C_GetFunctionList), "[C_GetFunctionList]"},
                 {addressOfFunction(exports.C_Initialize), "[C_Initialize]"}};
        ASSERT_EQ(3U, names.size());
    }

    // Lines of load for another library, whose path shows as "<file>".
    std::string logOfLoad(const std::string& path)
    {
        return maskPointers(replaced(log("NV::P11Module::load"), path, "<file>"));
    }

    // The list as the library hands it out; fetching it makes it anew.
    CK_FUNCTION_LIST handedOut() const
    {
        CK_FUNCTION_LIST* list = nullptr;
        EXPECT_EQ(CKR_OK, token.exports().C_GetFunctionList(&list));
        return *list;
    }
};

TEST_F(P11ModuleTest, ANewModuleHoldsNothing)
{
    const P11Module module("any text");
    EXPECT_EQ("UNINITIALIZED", module.state());
    EXPECT_EQ("any text", module.path());
    EXPECT_EQ(nullptr, module.functionList());
    EXPECT_EQ(nullptr, module.initArgs());
    EXPECT_FALSE(module.ownsInitArgs());
    EXPECT_EQ(0, module.cryptokiVersion().major);
    EXPECT_TRUE(module.slots().empty());
    expectLines(R"(
TRC NV::P11Module::P11Module:ENTER
TRC NV::P11Module::P11Module:ARG[0]:any text
TRC NV::P11Module::P11Module:LEAVE
)",
                log());
}

TEST_F(P11ModuleTest, LoadsALibrary)
{
    P11Module module(ScriptedToken::path());
    log();
    EXPECT_TRUE(module.load());
    expectTrace(log(), "objects/p11/module/loads_a_library");
    EXPECT_EQ("INITIALIZED", module.state());
    ASSERT_NE(nullptr, module.functionList());
    EXPECT_EQ(2, module.cryptokiVersion().major);
    EXPECT_EQ(40, module.cryptokiVersion().minor);
    EXPECT_EQ(Strings{"C_GetFunctionList"}, token.callNames());
}

TEST_F(P11ModuleTest, RefusesAnEmptyPath)
{
    P11Module module("");
    log();
    EXPECT_FALSE(module.load());
    expectLines(R"(
TRC NV::P11Module::load:ENTER
TRC NV::P11Module::load:1) Check Precondition
ERR NV::P11Module::load:FAILURE: the name module is empty
TRC NV::P11Module::load:LEAVE(0)
)",
                log());
    EXPECT_EQ("UNINITIALIZED", module.state());
    EXPECT_EQ(nullptr, module.functionList());
}

constexpr std::string_view missingLines = R"(
TRC NV::P11Module::load:ENTER
TRC NV::P11Module::load:1) Check Precondition
DBG NV::P11Module::load:Path (u8) = <file>
ERR NV::P11Module::load:FAILURE: <file> file does not exist
TRC NV::P11Module::load:LEAVE(0)
)";

TEST_F(P11ModuleTest, RefusesWhatIsNotThere)
{
    const std::string paths[] = {
        pathBesideTest("no such library.dll"),    // no such file
        pathBesideTest("no such folder\\a.dll"),  // no such folder
        pathBesideTest("not a name \x01?*.dll"),  // no name for a file
    };
    for (const std::string& path : paths) {
        P11Module module(path);
        log();
        EXPECT_FALSE(module.load()) << path;
        expectLines(missingLines, logOfLoad(path));
    }
}

// Wine serves no network paths, and says so with an error that does not mean "missing".
TEST_F(P11ModuleTest, ThrowsWhenTheFileSystemCannotTell)
{
    P11Module module(R"(\\no-such-host.invalid\share\a.dll)");
    log();
    try {
        module.load();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_NE(nullptr, std::strstr(error.what(), "exists")) << error.what();
    }
    const LogLines lines = capture.takeLines();
    ASSERT_EQ(3U, lines.size());
    EXPECT_TRUE(lines.back().message.starts_with("Path (u8) = "));
    EXPECT_EQ("UNINITIALIZED", module.state());
}

TEST_F(P11ModuleTest, RefusesAFileThatIsNoLibrary)
{
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "library.dll";
    writeFile(file, "not a library");
    P11Module module(utf8(file));
    log();
    EXPECT_FALSE(module.load());
    expectTrace(logOfLoad(utf8(file)), "objects/p11/module/cannot_be_loaded");
    EXPECT_EQ("UNINITIALIZED", module.state());
}

// The existence of the file is asked for in UTF-16, but the library is loaded byte by character.
TEST_F(P11ModuleTest, APathOutsideAsciiExistsButDoesNotLoad)
{
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / u8"t\u00F6ken.dll";
    std::filesystem::copy_file(ScriptedToken::widePath(), file);
    P11Module module(utf8(file));
    log();
    EXPECT_FALSE(module.load());
    expectTrace(logOfLoad(utf8(file)), "objects/p11/module/cannot_be_loaded");
}

TEST_F(P11ModuleTest, RefusesALibraryWithoutGetFunctionList)
{
    const std::string path = pathBesideTest("not_pkcs11.dll");
    P11Module module(path);
    log();
    EXPECT_FALSE(module.load());
    expectTrace(logOfLoad(path), "objects/p11/module/refuses_a_library_without_get_function_list");
    EXPECT_EQ("LOADED", module.state());
    EXPECT_EQ(nullptr, module.functionList());
}

TEST_F(P11ModuleTest, LogsAFailureOfGetFunctionList)
{
    token.fail("C_GetFunctionList", CKR_TOKEN_NOT_PRESENT);
    P11Module module(ScriptedToken::path());
    log();
    EXPECT_FALSE(module.load());
    const std::string lines = log();
    EXPECT_TRUE(lines.ends_with(
        R"(TRC NV::P11Module::load:Call C_GetFunctionList():START
TRC NV::P11Module::load:Call C_GetFunctionList():END RV=000000e0(CKR_TOKEN_NOT_PRESENT)
ERR NV::P11Module::load:FAILURE: Failed to get function list: 0xE0
TRC NV::P11Module::load:LEAVE(0)
)")) << lines;
    EXPECT_EQ("LOADED", module.state());
    EXPECT_EQ(nullptr, module.functionList());
    EXPECT_EQ(0, module.cryptokiVersion().major);
    EXPECT_FALSE(module.init());
}

TEST_F(P11ModuleTest, CatchesAnExceptionOfGetFunctionList)
{
    token.throwFrom("C_GetFunctionList");
    P11Module module(ScriptedToken::path());
    log();
    EXPECT_FALSE(module.load());
    const std::string lines = log();
    EXPECT_TRUE(lines.ends_with(R"(TRC NV::P11Module::load:Call C_GetFunctionList():START
ERR NV::P11Module::load:Caught Exception.
TRC NV::P11Module::load:LEAVE(0)
)")) << lines;
    EXPECT_EQ(nullptr, module.functionList());
}

TEST_F(P11ModuleTest, RepairsAListThatDiffersInEveryEntry)
{
    token.setListMode(ListMode::allDifferent);
    const CK_FUNCTION_LIST original = handedOut();
    CK_FUNCTION_LIST repaired = token.exports();
    repaired.version = kCryptokiVersion;
    ASSERT_NE(+original.C_WaitForSlotEvent, +repaired.C_WaitForSlotEvent);
    names[addressOfFunction(original.C_Initialize)] = "[other C_Initialize]";

    P11Module module(ScriptedToken::path());
    log();
    EXPECT_TRUE(module.load());
    expectTrace(log(), "objects/p11/module/repairs_a_list_that_differs_in_every_entry",
                {{"ORIGINAL", withPointerNames(toText(original), names)},
                 {"UPDATED", withPointerNames(toText(repaired), names)}});

    EXPECT_EQ(0, std::memcmp(&repaired, module.functionList(), sizeof repaired));
    EXPECT_EQ(40, module.functionList()->version.minor);
    token.clearCalls();
    EXPECT_TRUE(module.init());
    for (const std::string& name : token.callNames())
        EXPECT_FALSE(name.starts_with("list:")) << name;
}

TEST_F(P11ModuleTest, InModernARepairLeavesTheListOfOtherUsersAlone)
{
    token.setListMode(ListMode::allDifferent);
    CK_FUNCTION_LIST* hosts = nullptr;
    ASSERT_EQ(CKR_OK, token.exports().C_GetFunctionList(&hosts));
    const CK_FUNCTION_LIST original = *hosts;
    CK_FUNCTION_LIST repaired = token.exports();
    repaired.version = kCryptokiVersion;
    {
        const ModernMode modern;
        P11Module module(ScriptedToken::path());
        EXPECT_TRUE(module.load());
        EXPECT_EQ(0, std::memcmp(&repaired, module.functionList(), sizeof repaired));
        EXPECT_EQ(0, std::memcmp(&original, hosts, sizeof original));
    }
    P11Module module(ScriptedToken::path());
    EXPECT_TRUE(module.load());
    EXPECT_EQ(hosts, module.functionList());
    EXPECT_EQ(0, std::memcmp(&repaired, hosts, sizeof repaired));
}

TEST_F(P11ModuleTest, InModernAListThatNeedsNoRepairIsTheLibrarys)
{
    const ModernMode modern;
    CK_FUNCTION_LIST* hosts = nullptr;
    ASSERT_EQ(CKR_OK, token.exports().C_GetFunctionList(&hosts));
    P11Module module(ScriptedToken::path());
    EXPECT_TRUE(module.load());
    EXPECT_EQ(hosts, module.functionList());
}

TEST_F(P11ModuleTest, LeavesAListThatDiffersElsewhere)
{
    token.setListEntryNull("C_Sign");
    P11Module module(ScriptedToken::path());
    EXPECT_TRUE(module.load());
    EXPECT_EQ(nullptr, module.functionList()->C_Sign);
}

TEST_F(P11ModuleTest, RepairsAListWithoutInitialize)
{
    token.setListEntryNull("C_Initialize");
    token.setListEntryNull("C_Sign");
    P11Module module(ScriptedToken::path());
    log();
    EXPECT_TRUE(module.load());
    EXPECT_NE(std::string::npos, log().find("C_Initialize in LST = [0000000000000000]\n"));
    EXPECT_EQ(+token.exports().C_Initialize, +module.functionList()->C_Initialize);
    EXPECT_EQ(+token.exports().C_Sign, +module.functionList()->C_Sign);
}

TEST_F(P11ModuleTest, LeavesTheListWhenRepairIsOff)
{
    token.setListMode(ListMode::allDifferent);
    const CK_FUNCTION_LIST original = handedOut();
    names[addressOfFunction(original.C_Initialize)] = "[other C_Initialize]";
    P11Module module(ScriptedToken::path());
    module.setRepairFunctionList(false);
    log();
    EXPECT_TRUE(module.load());
    expectTrace(log(), "objects/p11/module/leaves_the_list_when_repair_is_off");
    EXPECT_EQ(0, std::memcmp(&original, module.functionList(), sizeof original));
}

TEST_F(P11ModuleTest, RepairLeavesNullWhereAnExportIsMissing)
{
    P11Module module(pathBesideTest("partial_exports.dll"));
    EXPECT_TRUE(module.load());
    const CK_FUNCTION_LIST& list = *module.functionList();
    int nulls = 0;
#define NV_COUNT(name, parameters) nulls += list.name == nullptr;
    NV_CK_FUNCTIONS(NV_COUNT)
#undef NV_COUNT
    EXPECT_EQ(63, nulls);
    const HMODULE library = GetModuleHandleW(L"partial_exports.dll");
    ASSERT_NE(nullptr, library);
    const auto exported = [&](const char* name) {
        return addressOfFunction(GetProcAddress(library, name));
    };
    EXPECT_EQ(exported("C_Initialize"), addressOfFunction(list.C_Initialize));
    EXPECT_EQ(exported("C_Finalize"), addressOfFunction(list.C_Finalize));
    EXPECT_EQ(exported("C_GetInfo"), addressOfFunction(list.C_GetInfo));
    EXPECT_EQ(exported("C_GetFunctionList"), addressOfFunction(list.C_GetFunctionList));
    EXPECT_EQ(exported("C_GetSlotList"), addressOfFunction(list.C_GetSlotList));
    EXPECT_EQ(11, list.version.minor);
    EXPECT_EQ(11, module.cryptokiVersion().minor);
    // It has no slots, so that the discovery misses nothing.
    EXPECT_TRUE(module.init());
    EXPECT_TRUE(module.slots().empty());
}

TEST_F(P11ModuleTest, RefusesASecondLoad)
{
    P11Module module(ScriptedToken::path());
    ASSERT_TRUE(module.load());
    const CK_FUNCTION_LIST* list = module.functionList();
    token.clearCalls();
    log();
    EXPECT_FALSE(module.load());
    expectTrace(log(), "objects/p11/module/refuses_a_second_load");
    EXPECT_EQ(list, module.functionList());
    EXPECT_EQ("INITIALIZED", module.state());
    EXPECT_EQ(Strings{}, token.calls());
}

class P11ModuleEndTest : public P11ModuleTest {};

TEST_F(P11ModuleEndTest, FinalisesUnloadsAndFreesOwnedInitArguments)
{
    auto args = std::make_unique<CK_C_INITIALIZE_ARGS>();
    const WatchedBlock watched(args.get());
    names[addressOf(args.get())] = "[args]";
    {
        P11Module module(ScriptedToken::path());
        ASSERT_TRUE(module.load());
        const CK_C_INITIALIZE_ARGS* address = args.get();
        EXPECT_EQ(nullptr, module.replaceInitArgs(std::move(args)));
        EXPECT_EQ(address, module.initArgs());
        EXPECT_TRUE(module.ownsInitArgs());
        token.clearCalls();
        log();
    }
    expectTrace(log(), "objects/p11/module/finalises_unloads_and_frees_owned_init_arguments");
    EXPECT_TRUE(WatchedBlock::released());
    EXPECT_EQ(Strings{"C_Finalize(reserved=null)"}, token.calls());
}

TEST_F(P11ModuleEndTest, LeavesInitArgumentsOfTheCaller)
{
    const auto args = std::make_unique<CK_C_INITIALIZE_ARGS>();
    const WatchedBlock watched(args.get());
    {
        P11Module module("never loaded");
        module.replaceInitArgs(*args);
        log();
    }
    expectLines(R"(
TRC NV::P11Module::~P11Module:ENTER
TRC NV::P11Module::clean:ENTER
TRC NV::P11Module::clean:LEAVE(1)
TRC NV::P11Module::~P11Module:LEAVE
)",
                log());
    EXPECT_FALSE(WatchedBlock::released());
}

TEST_F(P11ModuleEndTest, ReplacingGivesOwnedInitArgumentsBack)
{
    P11Module module("never loaded");
    auto first = std::make_unique<CK_C_INITIALIZE_ARGS>();
    CK_C_INITIALIZE_ARGS second{};
    CK_C_INITIALIZE_ARGS third{};
    const CK_C_INITIALIZE_ARGS* firstAddress = first.get();
    EXPECT_EQ(nullptr, module.replaceInitArgs(std::move(first)));
    EXPECT_EQ(firstAddress, module.replaceInitArgs(second).get());
    EXPECT_EQ(&second, module.initArgs());
    EXPECT_FALSE(module.ownsInitArgs());
    EXPECT_EQ(nullptr, module.replaceInitArgs(third));
}

TEST_F(P11ModuleEndTest, UnloadsTheLibrary)
{
    {
        P11Module module(pathBesideTest("partial_exports.dll"));
        ASSERT_TRUE(module.load());
        ASSERT_NE(nullptr, GetModuleHandleW(L"partial_exports.dll"));
    }
    EXPECT_EQ(nullptr, GetModuleHandleW(L"partial_exports.dll"));
    {
        P11Module module(pathBesideTest("not_pkcs11.dll"));
        ASSERT_FALSE(module.load());
        ASSERT_NE(nullptr, GetModuleHandleW(L"not_pkcs11.dll"));
        log();
    }
    EXPECT_EQ(nullptr, GetModuleHandleW(L"not_pkcs11.dll"));
    // Without a list there is nothing to finalise.
    EXPECT_EQ(std::string::npos, log().find("C_Finalize"));
}

TEST_F(P11ModuleEndTest, GoesOnWhenFinalisingFailsOrThrows)
{
    for (const bool throws : {false, true}) {
        {
            P11Module module(ScriptedToken::path());
            ASSERT_TRUE(module.load());
            if (throws)
                token.throwFrom("C_Finalize");
            else
                token.fail("C_Finalize", CKR_DEVICE_ERROR);
            log();
        }
        expectTrace(log("NV::P11Module::clean"),
                    "objects/p11/module/goes_on_when_finalising_fails_or_throws");
    }
}

// The init arguments' callbacks, which note what they were given.
int theMutex = 0;
Strings lockCalls;
CK_RV createResult = CKR_OK;

CK_RV NV_CK_CALL createNoted(CK_VOID_PTR_PTR mutex)
{
    lockCalls.emplace_back("create");
    if (createResult == CKR_OK)
        *mutex = &theMutex;
    return createResult;
}

CK_RV NV_CK_CALL destroyNoted(CK_VOID_PTR)
{
    lockCalls.emplace_back("destroy");
    return CKR_OK;
}

CK_RV NV_CK_CALL lockNoted(CK_VOID_PTR mutex)
{
    lockCalls.emplace_back(mutex == &theMutex ? "lock" : "lock of another");
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockNoted(CK_VOID_PTR mutex)
{
    lockCalls.emplace_back(mutex == &theMutex ? "unlock" : "unlock of another");
    return CKR_MUTEX_NOT_LOCKED;
}

class P11ModuleLockTest : public P11ModuleTest {
protected:
    void SetUp() override
    {
        lockCalls.clear();
        createResult = CKR_OK;
        log();
    }

    CK_C_INITIALIZE_ARGS args{createNoted, destroyNoted, lockNoted, unlockNoted, 0, nullptr};
};

TEST_F(P11ModuleLockTest, LocksNothingWithoutInitArguments)
{
    P11Module module("");
    log();
    EXPECT_TRUE(module.lock());
    EXPECT_TRUE(module.unlock());
    expectLines(R"(
TRC NV::P11Module::lock:ENTER
TRC NV::P11Module::lock:LEAVE(1)
TRC NV::P11Module::unlock:ENTER
TRC NV::P11Module::unlock:LEAVE(1)
)",
                log());
}

TEST_F(P11ModuleLockTest, MakesItsMutexOnce)
{
    {
        P11Module module("");
        module.replaceInitArgs(args);
        log();
        EXPECT_TRUE(module.lock());
        EXPECT_TRUE(module.unlock());
        expectTrace(log(), "objects/p11/module/makes_its_mutex_once");
        EXPECT_TRUE(module.lock());
    }
    EXPECT_EQ((Strings{"create", "lock", "unlock", "lock"}), lockCalls);
}

TEST_F(P11ModuleLockTest, LocksNothingWhenNoMutexIsMade)
{
    createResult = CKR_HOST_MEMORY;
    P11Module module("");
    module.replaceInitArgs(args);
    log();
    EXPECT_TRUE(module.lock());
    EXPECT_TRUE(module.unlock());
    expectTrace(log(), "objects/p11/module/locks_nothing_when_no_mutex_is_made");
    // The next lock tries again.
    createResult = CKR_OK;
    EXPECT_TRUE(module.lock());
    EXPECT_EQ((Strings{"create", "create", "lock"}), lockCalls);
}

TEST_F(P11ModuleLockTest, UnlocksNothingBeforeTheFirstLock)
{
    P11Module module("");
    module.replaceInitArgs(args);
    EXPECT_TRUE(module.unlock());
    EXPECT_EQ(Strings{}, lockCalls);
}

TEST_F(P11ModuleLockTest, InitArgumentsWithoutCallbacksLockNothing)
{
    args = {};
    P11Module module("");
    module.replaceInitArgs(args);
    EXPECT_TRUE(module.lock());
    EXPECT_TRUE(module.unlock());
}

TEST(P11ModuleSlotTest, ANewSlotIsEmpty)
{
    const P11Slot slot;
    EXPECT_EQ(0U, slot.id());
    EXPECT_EQ(0U, slot.slotInfo().flags);
    EXPECT_EQ(0U, slot.tokenInfo().flags);
    EXPECT_TRUE(slot.mechanisms().empty());
    EXPECT_FALSE(slot.chosen());
}

TEST(P11ModuleSlotTest, KeepsWhatItIsGiven)
{
    P11Slot slot;
    CK_SLOT_INFO slotInfo{};
    slotInfo.flags = 0xA1;
    CK_TOKEN_INFO tokenInfo{};
    tokenInfo.ulMaxPinLen = 0xA3;
    slot.setId(0xFFFFFFFE);
    slot.setSlotInfo(slotInfo);
    slot.setTokenInfo(tokenInfo);
    slot.setChosen(true);
    slotInfo.flags = tokenInfo.ulMaxPinLen = 0;
    EXPECT_EQ(0xFFFFFFFEU, slot.id());
    EXPECT_EQ(0xA1U, slot.slotInfo().flags);
    EXPECT_EQ(0xA3U, slot.tokenInfo().ulMaxPinLen);
    EXPECT_TRUE(slot.chosen());
}

TEST(P11ModuleSlotTest, KeepsTheFirstMechanismOfAType)
{
    P11Slot slot;
    slot.addMechanism(CKM_ECDSA, {1, 2, 3});
    slot.addMechanism(CKM_RSA_PKCS, {4, 5, 6});
    slot.addMechanism(CKM_ECDSA, {7, 8, 9});
    slot.addMechanism(0x80000001, {10, 11, 12});
    ASSERT_EQ(3U, slot.mechanisms().size());
    std::vector<CK_MECHANISM_TYPE> order;
    for (const auto& [type, mechanism] : slot.mechanisms()) {
        order.push_back(type);
        EXPECT_EQ(type, mechanism.type());
    }
    EXPECT_EQ((std::vector<CK_MECHANISM_TYPE>{CKM_RSA_PKCS, CKM_ECDSA, 0x80000001}), order);

    const P11Mechanism copy = slot.mechanisms().at(CKM_ECDSA);
    EXPECT_EQ("CKM_ECDSA", copy.name());
    EXPECT_EQ(1U, copy.minKeySize());
    EXPECT_EQ(2U, copy.maxKeySize());
    EXPECT_EQ(3U, copy.flags());
    EXPECT_EQ("UNKNOWN", slot.mechanisms().at(0x80000001).name());
}

}  // namespace

}  // namespace NV::test
