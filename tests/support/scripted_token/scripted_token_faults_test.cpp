// The scripted token's test, third part: faults, function lists, callbacks, threads, and the two
// other faulty libraries.

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <windows.h>

#include "scripted_token_fixture.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

struct FreeModule {
    void operator()(HMODULE module) const { FreeLibrary(module); }
};
using Module = std::unique_ptr<std::remove_pointer_t<HMODULE>, FreeModule>;

Module loadBesideTest(const std::wstring& fileName)
{
    return Module{LoadLibraryW(widePathBesideTest(fileName).c_str())};
}

void* addressIn(const Module& module, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(module.get(), name));
}

class ScriptedFaultTest : public ScriptedTokenTest {
protected:
    CK_FUNCTION_LIST* list()
    {
        CK_FUNCTION_LIST* handed = nullptr;
        EXPECT_EQ(CKR_OK, p11.C_GetFunctionList(&handed));
        return handed;
    }
};

TEST_F(ScriptedFaultTest, TellsTheFaultsThatCallsHaveMet)
{
    token.fail("C_Finalize", CKR_DEVICE_REMOVED, 2);
    token.throwFrom("C_GetInfo");
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(nullptr));
    EXPECT_TRUE(token.takeStruckFaults().empty());

    EXPECT_EQ(CKR_DEVICE_REMOVED, p11.C_Finalize(nullptr));
    const auto struck = token.takeStruckFaults();
    ASSERT_EQ(1U, struck.size());
    EXPECT_STREQ("C_Finalize", struck[0].function);
    EXPECT_EQ(Fault::returnValue, struck[0].fault);
    EXPECT_EQ(CKR_DEVICE_REMOVED, struck[0].value);
    EXPECT_TRUE(token.takeStruckFaults().empty());
}

TEST_F(ScriptedFaultTest, TellsOnlyTheFaultsThatActOfSeveralOnOneCall)
{
    initialise();
    const auto faultsOfList = [this](CK_RV expected) {
        CK_SLOT_ID ids[9] = {};
        CK_ULONG count = 9;
        EXPECT_EQ(expected, p11.C_GetSlotList(CK_FALSE, ids, &count));
        std::vector<Fault> faults;
        for (const StruckFault& struck : token.takeStruckFaults())
            faults.push_back(struck.fault);
        return faults;
    };
    token.bufferTooSmall("C_GetSlotList", 1);
    token.lengthPastBuffer("C_GetSlotList", 1);
    EXPECT_EQ(std::vector{Fault::lengthPastBuffer}, faultsOfList(CKR_OK));

    token.bufferTooSmall("C_GetSlotList", 1);
    token.failAfterWork("C_GetSlotList", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ((std::vector{Fault::returnAfterWork, Fault::bufferTooSmall}),
              faultsOfList(CKR_DEVICE_ERROR));

    token.failAfterWork("C_GetSlotList", CKR_DEVICE_ERROR, 1);
    token.fail("C_GetSlotList", CKR_DEVICE_MEMORY, 1);
    token.fail("C_GetSlotList", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(std::vector{Fault::returnValue}, faultsOfList(CKR_DEVICE_REMOVED));
    EXPECT_TRUE(faultsOfList(CKR_OK).empty());
}

TEST_F(ScriptedFaultTest, ReturnValueStrikesTheNthCallOnly)
{
    initialise();
    CK_INFO info{};
    token.fail("C_GetInfo", CKR_DEVICE_ERROR, 2);
    EXPECT_EQ(CKR_OK, p11.C_GetInfo(&info));
    EXPECT_EQ(CKR_DEVICE_ERROR, p11.C_GetInfo(&info));
    EXPECT_EQ(CKR_OK, p11.C_GetInfo(&info));
    EXPECT_EQ(3U, token.calls("C_GetInfo").size());
}

TEST_F(ScriptedFaultTest, ReturnValueForEveryCallDoesNothingElse)
{
    token.fail("C_Initialize", CKR_CANT_LOCK);
    EXPECT_EQ(CKR_CANT_LOCK, p11.C_Initialize(nullptr));
    EXPECT_EQ(CKR_CANT_LOCK, p11.C_Initialize(nullptr));
    EXPECT_FALSE(token.initialised());
    token.clearFaults();
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
}

TEST_F(ScriptedFaultTest, ReturnValueAfterTheWork)
{
    token.failAfterWork("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED, 1);
    EXPECT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_TRUE(token.initialised());
    const CK_SESSION_HANDLE session = openSession();
    token.failAfterWork("C_CloseSession", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(CKR_DEVICE_REMOVED, p11.C_CloseSession(session));
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(ScriptedFaultTest, CountsWhatFinalizeHasToEnd)
{
    const CK_SESSION_HANDLE session = openSession();
    openSession();
    ASSERT_EQ(CKR_OK, logIn(session));
    EXPECT_EQ(0U, token.sessionsFinalized());
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(2U, token.sessionsFinalized());
    EXPECT_EQ(1U, token.loginsFinalized());
    EXPECT_EQ(CKR_OK, p11.C_CloseSession(openSession()));
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(2U, token.sessionsFinalized());
    token.reset();
    EXPECT_EQ(0U, token.sessionsFinalized());
    EXPECT_EQ(0U, token.loginsFinalized());
}

TEST_F(ScriptedFaultTest, UnknownFunctionIsRefused)
{
    EXPECT_THROW(token.fail("C_Initialise", CKR_CANT_LOCK), std::invalid_argument);
    EXPECT_THROW(token.setListEntryNull("C_"), std::invalid_argument);
}

TEST_F(ScriptedFaultTest, ExceptionLeavesTheCall)
{
    token.throwFrom("C_Initialize", 1);
    try {
        p11.C_Initialize(nullptr);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("scripted fault in C_Initialize", error.what());
    }
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ((Strings{"C_Initialize(initArgs=null)"}), token.calls());
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_EQ(0U, token.overlappingCalls());  // the call that threw has ended
}

TEST_F(ScriptedFaultTest, DelayWaitsThenAnswers)
{
    token.delay("C_Initialize", 80ms, 1);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_GE(std::chrono::steady_clock::now() - before, 75ms);
}

TEST_F(ScriptedFaultTest, BufferIsTooSmallHoweverLarge)
{
    initialise();
    token.bufferTooSmall("C_GetSlotList");
    CK_ULONG count = 0;
    CK_SLOT_ID ids[9] = {};
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    count = 9;
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(0U, ids[0]);
}

TEST_F(ScriptedFaultTest, SecondCountExceedsTheFirst)
{
    initialise();
    token.secondCountLarger("C_GetSlotList", 1);
    CK_ULONG count = 0;
    CK_SLOT_ID ids[2] = {};
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(2U + kLieExcess, count);
    EXPECT_EQ(77U, ids[1]);
    count = 2;
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(2U, count);
}

TEST_F(ScriptedFaultTest, LengthsPassTheBuffer)
{
    token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x00});
    const CK_SESSION_HANDLE session = openSession();
    token.lengthPastBuffer("C_GetAttributeValue", 1);
    CK_BYTE value[5] = {};
    CK_ATTRIBUTE wanted{CKA_ID, nullptr, 0};
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, kFirstObject, &wanted, 1));
    EXPECT_EQ(2U, wanted.ulValueLen);
    wanted = {CKA_ID, value, 5};
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, kFirstObject, &wanted, 1));
    EXPECT_EQ(5U + kLieExcess, wanted.ulValueLen);

    token.lengthPastBuffer("C_FindObjects");
    ASSERT_EQ(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    CK_OBJECT_HANDLE found[4] = {};
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_OK, p11.C_FindObjects(session, found, 4, &count));
    EXPECT_EQ(4U + kLieExcess, count);
    EXPECT_EQ(kFirstObject, found[0]);
    EXPECT_EQ(0U, found[1]);

    token.lengthPastBuffer("C_Digest");
    CK_MECHANISM sha{CKM_SHA_1, nullptr, 0};
    CK_BYTE digest[64] = {};
    CK_ULONG length = 30;
    ASSERT_EQ(CKR_OK, p11.C_DigestInit(session, &sha));
    EXPECT_EQ(CKR_OK, p11.C_Digest(session, value, 5, digest, &length));
    EXPECT_EQ(30U + kLieExcess, length);
    EXPECT_EQ(0, digest[20]);
}

TEST_F(ScriptedFaultTest, ValueIsUnavailableAndYetOk)
{
    token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x00});
    const CK_SESSION_HANDLE session = openSession();
    token.valueUnavailable(2);
    CK_BYTE value[5] = {};
    CK_ATTRIBUTE wanted{CKA_ID, nullptr, 0};
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, kFirstObject, &wanted, 1));
    EXPECT_EQ(2U, wanted.ulValueLen);
    wanted = {CKA_ID, value, 5};
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, kFirstObject, &wanted, 1));
    EXPECT_EQ(static_cast<CK_ULONG>(-1), wanted.ulValueLen);
    EXPECT_EQ(0, value[0]);
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, kFirstObject, &wanted, 1));
    EXPECT_EQ(2U, wanted.ulValueLen);
}

TEST_F(ScriptedFaultTest, ClaimsWhatItIsTold)
{
    initialise();
    token.claim("C_GetSlotList", 0xFFFFFFF0, 1);
    token.claim("C_GetSlotList", 7, 2);
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
    EXPECT_EQ(0xFFFFFFF0, count);
    CK_SLOT_ID slots[3] = {1, 2, 3};
    count = 3;
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_TRUE, slots, &count));
    EXPECT_EQ(7U, count);
    EXPECT_EQ(kSlot, slots[0]);
    EXPECT_EQ(2U, slots[1]);
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
    EXPECT_EQ(1U, count);
}

TEST_F(ScriptedFaultTest, ExceptionAfterTheWork)
{
    token.throwAfterWork("C_Initialize", 1);
    EXPECT_THROW(p11.C_Initialize(nullptr), std::runtime_error);
    EXPECT_TRUE(token.initialised());
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
}

TEST_F(ScriptedFaultTest, ListCanBeReadOnly)
{
    list();
    EXPECT_FALSE(token.listReadOnly());
    token.setListReadOnly(true);
    list();
    EXPECT_TRUE(token.listReadOnly());
    list();
    token.reset();
    EXPECT_FALSE(token.listReadOnly());
}

TEST_F(ScriptedFaultTest, ListOfExportsEqualsTheExports)
{
    CK_FUNCTION_LIST* handed = list();
    EXPECT_EQ(0, std::memcmp(&p11, handed, sizeof(p11)));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_GetFunctionList(nullptr));
    token.fail("C_GetFunctionList", CKR_GENERAL_ERROR, 1);
    EXPECT_EQ(CKR_GENERAL_ERROR, p11.C_GetFunctionList(&handed));
}

TEST_F(ScriptedFaultTest, ListEntriesCanBeNull)
{
    token.setListEntryNull("C_Login");
    token.setListEntryNull("C_WaitForSlotEvent");
    const CK_FUNCTION_LIST* handed = list();
    EXPECT_TRUE(handed->C_Login == nullptr);
    EXPECT_TRUE(handed->C_WaitForSlotEvent == nullptr);
    EXPECT_TRUE(handed->C_Logout == p11.C_Logout);
    token.reset();
    EXPECT_TRUE(list()->C_Login == p11.C_Login);
}

TEST_F(ScriptedFaultTest, ListCanDifferFromTheExports)
{
    token.setListMode(ListMode::differentInitialize);
    CK_FUNCTION_LIST* handed = list();
    EXPECT_FALSE(handed->C_Initialize == p11.C_Initialize);
    EXPECT_TRUE(handed->C_Finalize == p11.C_Finalize);
    token.setListMode(ListMode::allDifferent);
    handed = list();
#define NV_EXPECT_OTHER(name, parameters)                                                          \
    EXPECT_TRUE(handed->name != nullptr && handed->name != p11.name) << #name;
    NV_CK_FUNCTIONS(NV_EXPECT_OTHER)
#undef NV_EXPECT_OTHER

    token.clearCalls();
    EXPECT_EQ(CKR_OK, handed->C_Initialize(nullptr));
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    token.throwFrom("C_GetInfo");
    EXPECT_THROW(handed->C_GetInfo(nullptr), std::runtime_error);
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetSlotInfo(1, nullptr));
    EXPECT_EQ((Strings{"list:C_Initialize(initArgs=null)", "C_Finalize(reserved=null)",
                       "list:C_GetInfo(info=null)", "C_GetSlotInfo(slot=1, info=null)"}),
              token.calls());
    EXPECT_EQ("list:C_Initialize", token.callNames().front());
}

// Callbacks that record their arguments.
struct MutexLog {
    void* destroyed = nullptr;
    void* locked = nullptr;
    void* unlocked = nullptr;
} mutexLog;
int theMutex = 0;

CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR created)
{
    *created = &theMutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR mutex)
{
    mutexLog.destroyed = mutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR mutex)
{
    mutexLog.locked = mutex;
    return CKR_MUTEX_BAD;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR mutex)
{
    mutexLog.unlocked = mutex;
    return CKR_MUTEX_NOT_LOCKED;
}

TEST_F(ScriptedFaultTest, KeepsAndCallsMutexCallbacks)
{
    CK_C_INITIALIZE_ARGS arguments{createMutex, destroyMutex, lockMutex, unlockMutex, 3, nullptr};
    ASSERT_EQ(CKR_OK, p11.C_Initialize(&arguments));
    EXPECT_EQ("C_Initialize(initArgs={CreateMutex=given,DestroyMutex=given,LockMutex=given,"
              "UnlockMutex=given,flags=0x3,reserved=null})",
              token.calls().back());
    EXPECT_EQ(3U, token.state().initFlags);
    EXPECT_EQ(4U, token.state().callbacksGiven);
    EXPECT_EQ(1U, token.state().initArgumentsGiven);

    void* mutex = nullptr;
    EXPECT_EQ(CKR_OK, token.createMutex(&mutex));
    EXPECT_EQ(&theMutex, mutex);
    EXPECT_EQ(CKR_MUTEX_BAD, token.lockMutex(mutex));
    EXPECT_EQ(CKR_MUTEX_NOT_LOCKED, token.unlockMutex(mutex));
    EXPECT_EQ(CKR_OK, token.destroyMutex(mutex));
    EXPECT_EQ(&theMutex, mutexLog.locked);
    EXPECT_EQ(&theMutex, mutexLog.unlocked);
    EXPECT_EQ(&theMutex, mutexLog.destroyed);

    ASSERT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    arguments.LockMutex = nullptr;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_Initialize(&arguments));
    initialise();
    EXPECT_EQ(0U, token.state().callbacksGiven);
    EXPECT_EQ(CKR_GENERAL_ERROR, token.lockMutex(mutex));
}

TEST_F(ScriptedFaultTest, NoticesAnotherThreadInsideASequence)
{
    initialise();
    std::thread([this] {
        CK_FUNCTION_LIST* handed = nullptr;
        p11.C_GetFunctionList(&handed);
    }).join();
    EXPECT_EQ(0U, token.sequenceViolations());
    std::thread([this] { p11.C_Initialize(nullptr); }).join();
    EXPECT_EQ(1U, token.sequenceViolations());
    ASSERT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    std::thread([this] {
        p11.C_Initialize(nullptr);
        p11.C_Finalize(nullptr);
    }).join();
    EXPECT_EQ(1U, token.sequenceViolations());
}

TEST_F(ScriptedFaultTest, NoticesCallsThatOverlap)
{
    CK_FUNCTION_LIST* handed = nullptr;
    p11.C_GetFunctionList(&handed);
    EXPECT_EQ(0U, token.overlappingCalls());
    token.delay("C_Initialize", 150ms);
    token.clearCalls();
    std::thread slow([this] { p11.C_Initialize(nullptr); });
    while (token.calls().empty())
        std::this_thread::yield();
    p11.C_GetFunctionList(&handed);
    slow.join();
    EXPECT_EQ(1U, token.overlappingCalls());
}

TEST(ScriptedTokenLibraries, PathNamesTheLibraryThatIsLoaded)
{
    const ScriptedToken token;
    EXPECT_EQ(pathBesideTest("scripted_token.dll"), ScriptedToken::path());
    const HMODULE loaded = GetModuleHandleW(ScriptedToken::widePath().c_str());
    ASSERT_NE(nullptr, loaded);
    EXPECT_EQ(loaded, loadBesideTest(L"scripted_token.dll").get());
}

TEST(ScriptedTokenLibraries, NotPkcs11HasNoFunctionList)
{
    const Module module = loadBesideTest(L"not_pkcs11.dll");
    ASSERT_TRUE(module);
    EXPECT_NE(nullptr, addressIn(module, "oddFunction"));
    EXPECT_EQ(nullptr, addressIn(module, "C_GetFunctionList"));
}

// Callbacks that note what they were called for.
std::string noted;

CK_RV NV_CK_CALL noteCreate(CK_VOID_PTR_PTR mutex)
{
    *mutex = &noted;
    noted += "create ";
    return CKR_OK;
}
CK_RV NV_CK_CALL noteDestroy(CK_VOID_PTR mutex)
{
    noted += mutex == &noted ? "destroy " : "destroy another ";
    return CKR_OK;
}
CK_RV NV_CK_CALL noteLock(CK_VOID_PTR mutex)
{
    noted += mutex == &noted ? "lock " : "lock another ";
    return CKR_OK;
}
CK_RV NV_CK_CALL noteUnlock(CK_VOID_PTR mutex)
{
    noted += mutex == &noted ? "unlock " : "unlock another ";
    return CKR_OK;
}

TEST_F(ScriptedFaultTest, HoldsTheMutexThatItGotInEveryCallUntilItIsFinalized)
{
    noted.clear();
    CK_C_INITIALIZE_ARGS arguments{noteCreate, noteDestroy, noteLock, noteUnlock, 0, nullptr};
    EXPECT_EQ(CKR_OK, p11.C_Initialize(&arguments));
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ("", noted);
    token.setHoldsMutex(true);
    EXPECT_EQ(CKR_OK, p11.C_Initialize(&arguments));
    EXPECT_EQ("create ", noted);
    CK_INFO info{};
    token.throwFrom("C_GetInfo", 1);
    EXPECT_THROW(p11.C_GetInfo(&info), std::runtime_error);
    EXPECT_EQ("create lock unlock ", noted);
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetInfo(&info));
    EXPECT_EQ("create lock unlock lock unlock destroy ", noted);
}

TEST_F(ScriptedFaultTest, LeavesALastErrorBehind)
{
    SetLastError(1);
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_EQ(kLastError, GetLastError());
    token.throwFrom("C_Finalize", 1);
    SetLastError(1);
    EXPECT_THROW(p11.C_Finalize(nullptr), std::runtime_error);
    EXPECT_EQ(kLastError, GetLastError());
}

TEST(ScriptedTokenLibraries, PartialExportsLeaveMostOfARepairedListNull)
{
    const Module module = loadBesideTest(L"partial_exports.dll");
    ASSERT_TRUE(module);
    const auto getList = reinterpret_cast<CK_C_GetFunctionList>(
        reinterpret_cast<void (*)()>(GetProcAddress(module.get(), "C_GetFunctionList")));
    ASSERT_TRUE(getList != nullptr);
    CK_FUNCTION_LIST* list = nullptr;
    ASSERT_EQ(CKR_OK, getList(&list));
    EXPECT_NE(addressIn(module, "C_Initialize"), reinterpret_cast<void*>(list->C_Initialize));
    EXPECT_EQ(CKR_OK, list->C_Initialize(nullptr));
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, list->C_Logout(1));

    Strings exported;
#define NV_COUNT(name, parameters)                                                                 \
    if (addressIn(module, #name) != nullptr)                                                       \
        exported.emplace_back(#name);
    NV_CK_FUNCTIONS(NV_COUNT)
#undef NV_COUNT
    EXPECT_EQ(
        (Strings{"C_Initialize", "C_Finalize", "C_GetInfo", "C_GetFunctionList", "C_GetSlotList"}),
        exported);
}

}  // namespace

}  // namespace NV::test
