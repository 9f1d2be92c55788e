// A log that breaks under the module's hands. Where a record is dropped, the caller's operation goes
// on as if nothing were; where the folder cannot be listed, the error leaves the entry point, and
// the next call works as soon as the folder does.

#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "folder.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

namespace {

constexpr wchar_t name[] = L"Norvanta Software KeyStore Provider";

class BrokenLog : public testing::Test {
protected:
    explicit BrokenLog(const std::filesystem::path& profile = L"user") : profile_(profile)
    {
        const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"p256.der");
        token_.addCertificate(Bytes{0x02, 0x56}, Bytes(der.begin(), der.end()));
        token_.addEcKeyPair({0x02, 0x56}, 32);
        profile_.writeConfigFor(ScriptedToken::widePath());
    }
    ~BrokenLog() override
    {
        // The last records are written while the module is unloaded.
        std::error_code ignored;
        if (std::filesystem::is_regular_file(logs(), ignored))
            std::filesystem::remove(logs(), ignored);
    }

    void load()
    {
        module_.emplace();
        provider_.emplace(*module_);
        key_ = provider_->openKey(L"0256");
    }

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table() const { return *module_->operator->(); }

    // A whole sequence on the token, without a PIN. The token finds every signature wrong but its own.
    SECURITY_STATUS verify()
    {
        BYTE hash[32] = {7, 3, 9, 1};
        Bytes signature = signatureOf(CKM_ECDSA, hash, 64);
        return table().VerifySignature(provider_->handle(), key_, nullptr, hash, sizeof hash,
                                       signature.data(), 64, 0);
    }

    SECURITY_STATUS openAndFree()
    {
        NCRYPT_PROV_HANDLE handle = 0;
        const SECURITY_STATUS status = table().OpenProvider(&handle, name, 0);
        if (status == ERROR_SUCCESS) {
            EXPECT_EQ(ERROR_SUCCESS, table().FreeProvider(handle));
        }
        return status;
    }

    // On a thread of its own, so that a lock that is still held blocks it.
    template <typename Work>
    void expectListingError(const Work& work)
    {
        std::promise<std::string> said;
        auto text = said.get_future();
        std::thread([&] {
            try {
                work();
                said.set_value("no exception");
            } catch (const std::filesystem::filesystem_error& error) {
                said.set_value(error.what());
            }
        }).join();
        const std::string what = text.get();
        EXPECT_NE(what.find("directory_iterator::directory_iterator"), std::string::npos) << what;
    }

    // From any thread, everything works, and it is logged.
    void expectWorking()
    {
        const size_t before = profile_.log().size();
        std::thread([&] {
            EXPECT_EQ(ERROR_SUCCESS, verify());
            EXPECT_EQ(ERROR_SUCCESS, openAndFree());
        }).join();
        EXPECT_LT(before + 100, profile_.log().size());
        EXPECT_FALSE(token_.initialised());
        EXPECT_EQ(0u, token_.openSessions());
    }

    void putFileInTheWay() const
    {
        std::filesystem::remove_all(logs());
        writeFile(logs(), "in the way");
    }
    void removeWhatIsInTheWay() const { std::filesystem::remove(logs()); }

    std::filesystem::path logs() const { return profile_.logDirectory(); }

    // There is one: the day may have changed, but then it changed a moment ago.
    std::filesystem::path todaysFile() const { return logs() / entryNames(logs()).back(); }

    Profile profile_;
    ScriptedToken token_;
    std::optional<ProviderModule> module_;
    std::optional<OpenedProvider> provider_;
    NCRYPT_KEY_HANDLE key_ = 0;
};

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};

TEST_F(BrokenLog, AFolderThatWasRemovedIsMadeAgain)
{
    load();
    std::filesystem::remove_all(logs());
    EXPECT_EQ(ERROR_SUCCESS, verify());
    const LogLines lines = profile_.log();
    ASSERT_LT(10u, lines.size());
    EXPECT_EQ("TRC NVKSPVerifySignature:ENTER", render(lines.front()));
    expectWorking();
}

TEST_F(BrokenLog, AFileThatAnotherProcessLocksTakesNoLinesAndChangesNoResult)
{
    load();
    const size_t before = profile_.log().size();
    {
        const std::unique_ptr<HANDLE, HandleCloser> holder(
            CreateFileW(todaysFile().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_NE(INVALID_HANDLE_VALUE, holder.get());
        EXPECT_EQ(ERROR_SUCCESS, verify());
        EXPECT_EQ(ERROR_SUCCESS, openAndFree());
    }
    EXPECT_EQ(before, profile_.log().size());
    expectWorking();
}

// Nobody can create a file in the kernel's own folder, not even an administrator.
TEST_F(BrokenLog, AFolderThatCannotBeWrittenChangesNoResult)
{
    profile_.writeConfig("logTypes=FILE\nlogStore=Z:\\proc\\sys\\kernel\nlogRotate=7\np11File=" +
                         narrowPath(ScriptedToken::widePath()) + "\n");
    load();
    EXPECT_EQ(ERROR_SUCCESS, verify());
    EXPECT_EQ(ERROR_SUCCESS, openAndFree());
    EXPECT_FALSE(std::filesystem::exists(logs()));
}

TEST_F(BrokenLog, AFolderThatCannotBeListedIsTheCallersError)
{
    load();
    putFileInTheWay();
    NCRYPT_PROV_HANDLE handle = 0;
    NCRYPT_SECRET_HANDLE secret = 0;
    DWORD size = 0;
    for (int i = 0; i < 2; ++i) {
        expectListingError([&] { verify(); });
        expectListingError([&] { table().OpenProvider(&handle, name, 0); });
        expectListingError([&] { table().FreeProvider(provider_->handle()); });
        expectListingError([&] {
            table().GetProviderProperty(provider_->handle(), L"Name", nullptr, 0, &size, 0);
        });
        expectListingError([&] { table().FreeSecret(provider_->handle(), secret); });
        expectListingError([&] { table().FreeBuffer(nullptr); });
    }
    EXPECT_EQ(0u, handle);
    removeWhatIsInTheWay();
    expectWorking();
}

// In the middle of a sequence: what was begun on the token is undone. Only a library that was being
// initialised at that moment stays so, because it may be somebody else who has initialised it; the
// next opening finalises it.
TEST_F(BrokenLog, AFolderThatBreaksDuringACallIsTheCallersErrorToo)
{
    load();
    for (const char* function : {"C_Initialize", "C_OpenSession", "C_FindObjects", "C_VerifyInit",
                                 "C_Verify", "C_CloseSession", "C_Finalize"}) {
        token_.clearCalls();
        token_.delay(function, std::chrono::milliseconds(300), 1);
        std::thread breaker([&] {
            while (token_.calls(function).empty())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            putFileInTheWay();
        });
        expectListingError([&] { verify(); });
        breaker.join();
        token_.clearFaults();
        EXPECT_FALSE(token_.initialised()) << function;
        EXPECT_EQ(0u, token_.openSessions()) << function;
        removeWhatIsInTheWay();
        expectWorking();
    }
}

TEST_F(BrokenLog, TextsThatAreTooLongForARecordDoNoHarm)
{
    load();
    const std::wstring longName(70000, L'x');
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(NTE_INVALID_PARAMETER, table().OpenProvider(&handle, longName.c_str(), 0));
    ASSERT_NE(0u, handle);
    EXPECT_EQ(ERROR_SUCCESS, table().FreeProvider(handle));
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(NTE_INVALID_HANDLE,
              table().OpenKey(provider_->handle(), &key, longName.c_str(), 0, 0));
    // An empty record for each line that names it.
    EXPECT_LE(2u, countLines(profile_.log(), "TRC "));
    expectWorking();
}

class BrokenLogOfAForeigner : public BrokenLog {
protected:
    BrokenLogOfAForeigner() : BrokenLog(L"J\u00FCrgen \u00C5") {}
};

TEST_F(BrokenLogOfAForeigner, TextsOutsideAsciiAreWrittenAsUtf8)
{
    load();
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(NTE_INVALID_HANDLE,
              table().OpenKey(provider_->handle(), &key, L"cl\u00E9 \u20AC \u4E1C", 0, 0));
    EXPECT_TRUE(hasLine(profile_.log(), "TRC NV::Provider::OpenKey:ARG[1]:pszKeyName=cl\xC3\xA9 "
                                        "\xE2\x82\xAC \xE4\xB8\x9C"));
    std::filesystem::remove_all(logs());
    expectWorking();
    putFileInTheWay();
    expectListingError([&] { verify(); });
    removeWhatIsInTheWay();
    expectWorking();
}

}  // namespace

}  // namespace NV::test
