// Nothing leaves an entry point (M24): handles of providers that are not there, a log, a lock or memory that
// fails.

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace NV::test {
namespace {

constexpr NCRYPT_PROV_HANDLE unknownHandle = 0x1234;

// Every entry point that takes a provider handle, with arguments that do no harm.
struct EntryPoint {
    const char* name;
    SECURITY_STATUS(*call)
    (const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table, NCRYPT_PROV_HANDLE hProvider);
};

#define NV_ENTRY(name, ...)                                                                        \
    {                                                                                              \
#name, [](const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table,                                  \
                  NCRYPT_PROV_HANDLE                                                               \
                      hProvider) { return table.name(hProvider __VA_OPT__(, ) __VA_ARGS__); }      \
    }

const EntryPoint entryPoints[] = {
    NV_ENTRY(OpenKey, nullptr, nullptr, 0, 0),
    NV_ENTRY(CreatePersistedKey, nullptr, nullptr, nullptr, 0, 0),
    NV_ENTRY(GetProviderProperty, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(GetKeyProperty, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(SetProviderProperty, nullptr, nullptr, 0, 0),
    NV_ENTRY(SetKeyProperty, 0, nullptr, nullptr, 0, 0),
    NV_ENTRY(FinalizeKey, 0, 0),
    NV_ENTRY(DeleteKey, 0, 0),
    NV_ENTRY(FreeProvider),
    NV_ENTRY(FreeKey, 0),
    NV_ENTRY(Encrypt, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(Decrypt, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(IsAlgSupported, nullptr, 0),
    NV_ENTRY(EnumAlgorithms, 0, nullptr, nullptr, 0),
    NV_ENTRY(EnumKeys, nullptr, nullptr, nullptr, 0),
    NV_ENTRY(ImportKey, 0, nullptr, nullptr, nullptr, nullptr, 0, 0),
    NV_ENTRY(ExportKey, 0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(SignHash, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, 0),
    NV_ENTRY(VerifySignature, 0, nullptr, nullptr, 0, nullptr, 0, 0),
    NV_ENTRY(PromptUser, 0, nullptr, 0),
    NV_ENTRY(NotifyChangeKey, nullptr, 0),
    NV_ENTRY(SecretAgreement, 0, 0, nullptr, 0),
    NV_ENTRY(DeriveKey, 0, nullptr, nullptr, nullptr, 0, nullptr, 0),
    NV_ENTRY(FreeSecret, 0),
};

#undef NV_ENTRY

static_assert(std::size(entryPoints) == 24);  // all but OpenProvider and FreeBuffer

class NoException : public ModernModuleTest {
protected:
    // The status of each entry point for the handle, where it is not "invalid handle".
    std::string otherAnswers(NCRYPT_PROV_HANDLE hProvider)
    {
        std::string answers;
        for (const EntryPoint& entry : entryPoints) {
            const SECURITY_STATUS status = entry.call(*table().operator->(), hProvider);
            if (status != NTE_INVALID_HANDLE)
                answers += std::string(entry.name) + " " + std::to_string(status) + "\n";
        }
        return answers;
    }
};

TEST_F(NoException, leavesForAHandleThatNeverWasOne)
{
    start();
    EXPECT_EQ("", otherAnswers(unknownHandle));
    EXPECT_EQ("", otherAnswers(0));
    EXPECT_EQ("", otherAnswers(~NCRYPT_PROV_HANDLE{0}));
}

TEST_F(NoException, leavesForAFreedHandle)
{
    start();
    const NCRYPT_PROV_HANDLE freed = [this] {
        const OpenedProvider other(*module);
        return other.handle();
    }();
    EXPECT_EQ("", otherAnswers(freed));
}

// The lines are those of a handle without a provider.
TEST_F(NoException, leavesItsLines)
{
    start();
    table()->IsAlgSupported(unknownHandle, nullptr, 0);
    expectBlock(takeLines(), "TRC NVKSPIsAlgSupported:ENTER\nTRC NVKSPIsAlgSupported:LEAVE");
}

TEST_F(NoException, leavesWhenAHandleIsFreedAgainAndAgain)
{
    start();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(NTE_INVALID_HANDLE, table()->FreeProvider(unknownHandle));
    NCRYPT_PROV_HANDLE opened = unknownHandle;
    EXPECT_EQ(ERROR_SUCCESS, table()->OpenProvider(&opened, L"Norvanta", 0));
    EXPECT_NE(unknownHandle, opened);
    EXPECT_EQ("", otherAnswers(unknownHandle));
    EXPECT_EQ(ERROR_SUCCESS, table()->FreeProvider(opened));
}

// Wine and the stand-in cannot tell whether there is a file on a network path, and the opening throws.
TEST_F(NoException, leavesTheOpening)
{
    profile.writeModernConfigFor(
        std::filesystem::path("//no-such-host.invalid/share/a.dll").make_preferred());
    module.emplace();
    NCRYPT_PROV_HANDLE opened = 0;
    EXPECT_EQ(NTE_INTERNAL_ERROR, table()->OpenProvider(&opened, L"Norvanta", 0));
    EXPECT_EQ(0U, opened);
    const LogLines lines = linesOf("NVKSPOpenProvider");
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ("ERR", lines[1].level);
    EXPECT_TRUE(lines[1].message.starts_with("Caught Exception: ")) << lines[1].raw;
    EXPECT_EQ("INF", lines[2].level);
    EXPECT_TRUE(lines[2].message.starts_with("DONE, STATUS=0x8009002d, ")) << lines[2].raw;
    // The registry's lock is free.
    EXPECT_EQ(NTE_INVALID_PARAMETER, table()->OpenProvider(nullptr, nullptr, 0));
}

class BrokenModernLog : public ServedKeysTest {
protected:
    BrokenModernLog() : ServedKeysTest(true, Behaviour::modern) {}

    void breakLog() const
    {
        std::filesystem::remove_all(profile.logDirectory());
        writeFile(profile.logDirectory(), "in the way");
    }
    void repairLog() const { std::filesystem::remove(profile.logDirectory()); }

    SECURITY_STATUS encrypt()
    {
        Bytes input = someBytes(16);
        Bytes output(256);
        DWORD length = 0;
        return table()->Encrypt(handle(), rsa, input.data(), 16, nullptr, output.data(), 256,
                                &length, BCRYPT_PAD_PKCS1);
    }
};

// M25, through the table.
TEST_F(BrokenModernLog, failsNoCall)
{
    breakLog();
    EXPECT_EQ(ERROR_SUCCESS, encrypt());
    EXPECT_EQ(ERROR_SUCCESS, table()->FreeKey(handle(), ec));
    EXPECT_EQ(NTE_INVALID_HANDLE, table()->FreeKey(unknownHandle, ec));
    provider.reset();
    provider.emplace(*module);
    rsa = openKey(L"01AB");
    EXPECT_EQ(ERROR_SUCCESS, encrypt());
    repairLog();
    EXPECT_EQ(ERROR_SUCCESS, encrypt());
    // Once, before the first record of the call that could be written.
    const LogLines lines = profile.log();
    const LogLines lost = selected(lines, [](const LogLine& line) {
        return line.message.ends_with(" records could not be written");
    });
    ASSERT_EQ(1U, lost.size());
    EXPECT_EQ("WRN", lost[0].level);
    EXPECT_EQ(lines.front().raw, lost[0].raw);
    EXPECT_EQ("TRC NVKSPEncrypt:ENTER", render(lines.at(1)));
}

TEST_F(BrokenModernLog, keepsNoModuleFromLoading)
{
    provider.reset();
    module.reset();
    breakLog();
    EXPECT_NO_THROW(module.emplace());
    repairLog();
}

// The calls of a classic module in the same places, which are tested elsewhere as well.
class ClassicEntryPoints : public ModuleTest {};

TEST_F(ClassicEntryPoints, throwForAnUnknownHandle)
{
    start();
    for (const EntryPoint& entry : entryPoints) {
        if (std::string_view(entry.name) != "FreeProvider") {
            EXPECT_THROW(entry.call(*table().operator->(), unknownHandle), std::out_of_range)
                << entry.name;
        }
    }
}

}  // namespace
}  // namespace NV::test
