// Registration with CNG: the exact calls, what is undone when one is refused, and the reported state.
// Runs on a fake, because Wine does not store registrations and a test must not change a real machine.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "contains.h"
#include "failure.h"
#include "fake_cng.h"
#include "nvvtoken/nvvtoken_name.h"

namespace NV::test {

namespace {

using tool::Change;
using tool::Failure;
using tool::Registration;
using Calls = std::vector<std::string>;

constexpr auto accessDenied = static_cast<NTSTATUS>(0xC0000022);
constexpr auto noMemory = static_cast<NTSTATUS>(0xC0000017);
constexpr auto notImplemented = static_cast<NTSTATUS>(0xC0000002);

const std::string name = "Norvanta Software KeyStore Provider";
const std::string list = "table 1, Default, 10001, KEY_STORAGE, " + name;
const std::string registerCall =
    "register " + name +
    ", flags 0, aliases 0, user nvksprovider.dll [10001 flags 1 KEY_STORAGE], kernel none";
const std::string addCall = "add " + list + ", position ffffffff";
const std::string removeCall = "remove " + list;
const std::string unregisterCall = "unregister " + name;

std::string overwriteCall(const std::string& image)
{
    return "register " + name + ", flags 1, aliases 0, user " + image +
           " [10001 flags 1 KEY_STORAGE], kernel none";
}

// The reason and the advice of the Failure that the action throws.
template <typename Action>
std::string failureOf(const Action& action)
{
    try {
        action();
    } catch (const Failure& failure) {
        return std::string(failure.what()) + " | " + failure.advice();
    }
    return "no failure";
}

// Registering.

TEST_F(RegistrationTest, RegistersTheProviderAndListsItLast)
{
    EXPECT_EQ(Change::made, registerModule(system_));
    EXPECT_EQ((Calls{registerCall, addCall}), cng.changes());
    EXPECT_TRUE(cng.present);
    EXPECT_EQ(name.size(), cng.listed.back().size());
    EXPECT_EQ(3U, cng.listed.size());
}

TEST_F(RegistrationTest, QueriesWithTheRightArguments)
{
    readRegistration(system_);
    EXPECT_EQ(
        (Calls{"query " + name + ", mode 1, 10001", "list table 1, Default, 10001, KEY_STORAGE"}),
        cng.calls);
}

TEST_F(RegistrationTest, ASecondTimeChangesNothing)
{
    registerModule(system_);
    cng.calls.clear();
    EXPECT_EQ(Change::none, registerModule(system_));
    EXPECT_EQ(Calls{}, cng.changes());
}

TEST_F(RegistrationTest, AddsOnlyAMissingListEntry)
{
    cng.present = true;
    EXPECT_EQ(Change::made, registerModule(system_));
    EXPECT_EQ(Calls{addCall}, cng.changes());
}

TEST_F(RegistrationTest, AddsOnlyAMissingProvider)
{
    cng.listed.emplace_back(providerName);
    EXPECT_EQ(Change::made, registerModule(system_));
    EXPECT_EQ(Calls{registerCall}, cng.changes());
}

TEST_F(RegistrationTest, ReplacesARegistrationOfAnotherDll)
{
    cng.setRegistered();
    cng.image = L"older.dll";
    EXPECT_EQ(Change::made, registerModule(system_));
    EXPECT_EQ(Calls{overwriteCall("nvksprovider.dll")}, cng.changes());
}

TEST_F(RegistrationTest, ReplacesARegistrationWithOtherFlagsOrFunction)
{
    cng.setRegistered();
    cng.interfaceFlags = CRYPT_DOMAIN;
    EXPECT_EQ(Change::made, registerModule(system_));
    cng.function = L"KEY_STORAGE_OLD";
    EXPECT_EQ(Change::made, registerModule(system_));
    const std::string call = overwriteCall("nvksprovider.dll");
    EXPECT_EQ((Calls{call, call}), cng.changes());
}

TEST_F(RegistrationTest, NamesAreComparedWithoutRegardToCase)
{
    cng.present = true;
    cng.image = L"NVKSProvider.DLL";
    cng.listed.emplace_back(L"norvanta software keystore provider");
    EXPECT_EQ(Change::none, registerModule(system_));
}

TEST_F(RegistrationTest, RefusesWithoutElevation)
{
    system_.elevated = false;
    const std::string text = failureOf([this] { registerModule(system_); });
    EXPECT_TRUE(contains(text, "only an administrator may register")) << text;
    EXPECT_TRUE(contains(text, "Run as administrator")) << text;
    EXPECT_EQ(Calls{}, cng.calls);
}

TEST_F(RegistrationTest, StopsAfterARefusedFirstStep)
{
    cng.answers["register"] = accessDenied;
    const std::string text = failureOf([this] { registerModule(system_); });
    EXPECT_TRUE(contains(text, "BCryptRegisterProvider returned STATUS_ACCESS_DENIED (0xc0000022)"))
        << text;
    EXPECT_TRUE(contains(text, "Run as administrator")) << text;
    EXPECT_EQ(Calls{registerCall}, cng.changes());
}

TEST_F(RegistrationTest, ARefusedSecondStepUndoesTheFirst)
{
    cng.answers["add"] = noMemory;
    const std::string text = failureOf([this] { registerModule(system_); });
    EXPECT_TRUE(contains(text, "BCryptAddContextFunctionProvider returned STATUS_NO_MEMORY"))
        << text;
    EXPECT_FALSE(contains(text, "undone")) << text;
    EXPECT_EQ((Calls{registerCall, addCall, unregisterCall}), cng.changes());
    EXPECT_FALSE(cng.present);
}

TEST_F(RegistrationTest, ARefusedSecondStepRestoresAnotherDll)
{
    cng.present = true;
    cng.image = L"older.dll";
    cng.answers["add"] = noMemory;
    EXPECT_THROW(registerModule(system_), Failure);
    EXPECT_EQ((Calls{overwriteCall("nvksprovider.dll"), addCall, overwriteCall("older.dll")}),
              cng.changes());
    EXPECT_EQ(L"older.dll", cng.image);
}

TEST_F(RegistrationTest, ARefusedSecondStepKeepsAnExistingRegistration)
{
    cng.present = true;
    cng.answers["add"] = noMemory;
    EXPECT_THROW(registerModule(system_), Failure);
    EXPECT_EQ(Calls{addCall}, cng.changes());
    EXPECT_TRUE(cng.present);
}

TEST_F(RegistrationTest, ReportsAFirstStepThatCannotBeUndone)
{
    cng.answers["add"] = noMemory;
    cng.answers["unregister"] = accessDenied;
    const std::string text = failureOf([this] { registerModule(system_); });
    EXPECT_TRUE(contains(text, "could not be undone: STATUS_ACCESS_DENIED")) << text;
    EXPECT_TRUE(contains(text, "keywarden status")) << text;
}

// A system that returns 0 and does nothing, but can be queried.
TEST_F(RegistrationTest, DoesNotTrustASuccessWithoutEffect)
{
    system_.addContextFunctionProvider = [](ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR,
                                            ULONG) -> NTSTATUS { return 0; };
    const std::string text = failureOf([this] { registerModule(system_); });
    EXPECT_TRUE(contains(text, "does not report it")) << text;
}

TEST_F(RegistrationTest, ARefusedQueryIsAFailure)
{
    cng.answers["query"] = accessDenied;
    EXPECT_TRUE(contains(failureOf([this] { registerModule(system_); }),
                         "BCryptQueryProviderRegistration returned STATUS_ACCESS_DENIED"));
    cng.answers = {{"list", noMemory}};
    EXPECT_TRUE(contains(failureOf([this] { registerModule(system_); }),
                         "BCryptEnumContextFunctionProviders returned STATUS_NO_MEMORY"));
    EXPECT_EQ(Calls{}, cng.changes());
}

// Unregistering.

TEST_F(RegistrationTest, UnregistersInTheOppositeOrder)
{
    cng.setRegistered();
    EXPECT_EQ(Change::made, unregisterModule(system_));
    EXPECT_EQ((Calls{removeCall, unregisterCall}), cng.changes());
    EXPECT_FALSE(cng.present);
    EXPECT_EQ(2U, cng.listed.size());
}

TEST_F(RegistrationTest, UnregisteringASecondTimeChangesNothing)
{
    EXPECT_EQ(Change::none, unregisterModule(system_));
    EXPECT_EQ(Calls{}, cng.changes());
}

TEST_F(RegistrationTest, UnregistersAPartialRegistration)
{
    cng.present = true;
    EXPECT_EQ(Change::made, unregisterModule(system_));
    EXPECT_EQ(Calls{unregisterCall}, cng.changes());
    cng.calls.clear();
    cng.listed.emplace_back(providerName);
    EXPECT_EQ(Change::made, unregisterModule(system_));
    EXPECT_EQ(Calls{removeCall}, cng.changes());
}

TEST_F(RegistrationTest, UnregisteringRefusesWithoutElevation)
{
    cng.setRegistered();
    system_.elevated = false;
    const std::string text = failureOf([this] { unregisterModule(system_); });
    EXPECT_TRUE(contains(text, "only an administrator may unregister")) << text;
    EXPECT_EQ(Calls{}, cng.calls);
}

TEST_F(RegistrationTest, StopsAfterARefusedRemovalFromTheList)
{
    cng.setRegistered();
    cng.answers["remove"] = accessDenied;
    EXPECT_THROW(unregisterModule(system_), Failure);
    EXPECT_EQ(Calls{removeCall}, cng.changes());
    EXPECT_TRUE(cng.present);
}

TEST_F(RegistrationTest, ARefusedUnregistrationListsTheProviderAgain)
{
    cng.setRegistered();
    cng.answers["unregister"] = accessDenied;
    const std::string text = failureOf([this] { unregisterModule(system_); });
    EXPECT_TRUE(contains(text, "BCryptUnregisterProvider returned STATUS_ACCESS_DENIED")) << text;
    EXPECT_EQ((Calls{removeCall, unregisterCall, addCall}), cng.changes());
    EXPECT_TRUE(cng.isListed());
}

// A system that cannot be queried.

TEST_F(RegistrationTest, DoesNotQueryASystemWithoutQueries)
{
    system_.answersQueries = false;
    EXPECT_FALSE(readRegistration(system_).known);
    EXPECT_EQ(Change::unconfirmed, registerModule(system_));
    EXPECT_EQ((Calls{registerCall, addCall}), cng.calls);
    cng.calls.clear();
    EXPECT_EQ(Change::unconfirmed, unregisterModule(system_));
    EXPECT_EQ((Calls{removeCall, unregisterCall}), cng.calls);
}

TEST_F(RegistrationTest, WithoutQueriesAnExistingProviderIsNoFailure)
{
    system_.answersQueries = false;
    cng.present = true;
    EXPECT_EQ(Change::unconfirmed, registerModule(system_));
    cng.answers["add"] = noMemory;
    cng.calls.clear();
    EXPECT_THROW(registerModule(system_), Failure);
    EXPECT_EQ((Calls{registerCall, addCall}), cng.calls) << "takes back what it did not make";
}

TEST_F(RegistrationTest, WithoutQueriesUnregisteringNothingChangesNothing)
{
    system_.answersQueries = false;
    EXPECT_EQ(Change::none, unregisterModule(system_));
}

TEST_F(RegistrationTest, WithoutQueriesAMissingFunctionIsAFailure)
{
    system_.answersQueries = false;
    cng.answers["remove"] = notImplemented;
    const std::string text = failureOf([this] { unregisterModule(system_); });
    EXPECT_TRUE(contains(text, "STATUS_NOT_IMPLEMENTED (0xc0000002)")) << text;
}

// The reported state.

TEST_F(RegistrationTest, ReportsThePathOfTheFile)
{
    cng.setRegistered();
    const Registration now = readRegistration(system_);
    EXPECT_TRUE(now.known);
    EXPECT_TRUE(now.complete());
    EXPECT_EQ(L"nvksprovider.dll", now.image);
    EXPECT_EQ(L"C:\\windows\\system32\\nvksprovider.dll", now.file);
}

TEST_F(RegistrationTest, ReportsTheFileOfARegistrationWithAPath)
{
    cng.setRegistered();
    cng.image = L"D:\\elsewhere\\nvksprovider.dll";
    const Registration now = readRegistration(system_);
    EXPECT_FALSE(now.complete());
    EXPECT_EQ(L"D:\\elsewhere\\nvksprovider.dll", now.file);
}

TEST_F(RegistrationTest, ReportsNoRegistration)
{
    const Registration now = readRegistration(system_);
    EXPECT_TRUE(now.known);
    EXPECT_TRUE(now.absent());
    EXPECT_TRUE(now.file.empty());
}

// A call of an imported function without dllimport goes through a jump: jmp [rip + distance].
const void* behindJump(const void* function)
{
    const auto* code = static_cast<const unsigned char*>(function);
    if (code[0] != 0xFF || code[1] != 0x25)
        return function;
    int32_t distance = 0;
    std::memcpy(&distance, code + 2, sizeof distance);
    const void* target = nullptr;
    std::memcpy(static_cast<void*>(&target), code + 6 + distance, sizeof target);
    return target;
}

// MinGW-w64's library of ncrypt.dll exports the same names, so the result depends on the link order.
TEST_F(RegistrationTest, TheSystemsFunctionsAreThoseOfBcrypt)
{
    const tool::CngSystem real = tool::thisSystem();
    const HMODULE library = GetModuleHandleW(L"bcrypt.dll");
    ASSERT_NE(nullptr, library);
    const auto expectSame = [library](const char* function, const auto pointer) {
        EXPECT_EQ(reinterpret_cast<const void*>(GetProcAddress(library, function)),
                  behindJump(reinterpret_cast<const void*>(pointer)))
            << function;
    };
    expectSame("BCryptRegisterProvider", real.registerProvider);
    expectSame("BCryptUnregisterProvider", real.unregisterProvider);
    expectSame("BCryptAddContextFunctionProvider", real.addContextFunctionProvider);
    expectSame("BCryptRemoveContextFunctionProvider", real.removeContextFunctionProvider);
    expectSame("BCryptFreeBuffer", real.freeBuffer);
    EXPECT_TRUE(std::filesystem::is_regular_file(real.systemFolder / "bcrypt.dll"));
}

}  // namespace

}  // namespace NV::test
