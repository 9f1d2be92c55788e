// What each lock keeps apart: the operations of one provider, the look-ups of the registry, the calls
// of one call layer, the users of one key store. The sequence lock is the business of
// threads_test.cpp, freeing that of freeing_test.cpp.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "keystore/keystore.h"
#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"
#include "threads_fixture.h"
#include "together.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

constexpr SECURITY_STATUS success = ERROR_SUCCESS;
// Far longer than any of the operations takes that must wait.
constexpr auto longWait = 400ms;

struct Operation {
    const char* name;
    SECURITY_STATUS (*call)(const ProviderModule&, NCRYPT_PROV_HANDLE);
};

#define NV_OPERATION(function, ...)                                                                \
    Operation                                                                                      \
    {                                                                                              \
#function,                                                                                 \
            [](const ProviderModule& module,                                                       \
               NCRYPT_PROV_HANDLE                                                                  \
                   provider) { return module->function(provider __VA_OPT__(, ) __VA_ARGS__); }     \
    }

// All operations of a provider. They look at their arguments, most of them wrong, when they have
// the lock.
constexpr Operation operations[] = {
    NV_OPERATION(OpenKey, nullptr, nullptr, 0, 0),
    NV_OPERATION(CreatePersistedKey, nullptr, nullptr, nullptr, 0, 0),
    NV_OPERATION(GetProviderProperty, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(GetKeyProperty, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(SetProviderProperty, nullptr, nullptr, 0, 0),
    NV_OPERATION(SetKeyProperty, 0, nullptr, nullptr, 0, 0),
    NV_OPERATION(FinalizeKey, 0, 0),
    NV_OPERATION(DeleteKey, 0, 0),
    NV_OPERATION(FreeKey, 0),
    NV_OPERATION(Encrypt, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(Decrypt, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(IsAlgSupported, nullptr, 0),
    NV_OPERATION(EnumAlgorithms, 0, nullptr, nullptr, 0),
    NV_OPERATION(EnumKeys, nullptr, nullptr, nullptr, 0),
    NV_OPERATION(ImportKey, 0, nullptr, nullptr, nullptr, nullptr, 0, 0),
    NV_OPERATION(ExportKey, 0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(SignHash, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, 0),
    NV_OPERATION(VerifySignature, 0, nullptr, nullptr, 0, nullptr, 0, 0),
    NV_OPERATION(PromptUser, 0, nullptr, 0),
    NV_OPERATION(NotifyChangeKey, nullptr, 0),
    NV_OPERATION(SecretAgreement, 0, 0, nullptr, 0),
    NV_OPERATION(DeriveKey, 0, nullptr, nullptr, nullptr, 0, nullptr, 0),
    NV_OPERATION(FreeSecret, 0),
};

std::string namesOfOperations()
{
    std::string names;
    for (const Operation& operation : operations)
        names += std::string(operation.name) + "\n";
    return names;
}

// Calls on threads of their own; reported when they have returned.
class Callers {
public:
    void add(const std::string& name, const std::function<void()>& call)
    {
        calls_.push_back(std::make_unique<Call>(name));
        Call& mine = *calls_.back();
        mine.thread = std::thread([&mine, call] {
            call();
            mine.returned = true;
        });
    }

    ~Callers() { join(); }

    std::string returned() const
    {
        std::string names;
        for (const auto& call : calls_)
            names += call->returned ? call->name + "\n" : "";
        return names;
    }

    void join()
    {
        for (const auto& call : calls_) {
            if (call->thread.joinable())
                call->thread.join();
        }
    }

private:
    struct Call {
        explicit Call(std::string what) : name(std::move(what)) {}

        std::string name;
        std::atomic<bool> returned = false;
        std::thread thread;
    };

    std::vector<std::unique_ptr<Call>> calls_;
};

class LocksTest : public ThreadsTest {
protected:
    // Signs on the provider and does something while its dialog is open.
    void signMeanwhile(NCRYPT_PROV_HANDLE provider, const std::function<void()>& something)
    {
        const DialogWork dialogWork(*module, provider, facts);
        const DialogDriver user([&](const PinDialogWindow& dialog) {
            something();
            EXPECT_TRUE(dialog.isOpen());
            dialog.type(facts.pin);
            dialog.pressOk();
        });
        EXPECT_TRUE(dialogWork.signRsa(known.front()));
    }
};

}  // namespace

// In modern, none does.
TEST_P(LocksTest, everyOperationOfAProviderWaitsForItsDialog)
{
    const OpenedProvider provider(*module);
    Callers callers;
    signMeanwhile(provider.handle(), [&] {
        for (const Operation& operation : operations)
            callers.add(operation.name, [&] { operation.call(*module, provider.handle()); });
        std::this_thread::sleep_for(longWait);
        EXPECT_EQ(callers.returned(), isModern() ? namesOfOperations() : "");
    });
    callers.join();
}

TEST_P(LocksTest, anotherProviderDoesNotWait)
{
    const OpenedProvider provider(*module);
    const OpenedProvider other(*module);
    const AgreedByDialog secret(*module, other.handle(), facts);
    const PublicWork otherWork(*module, other.handle(), facts, secret.handle());
    Callers callers;
    std::atomic<int> right = 0;
    const auto workOnTheOther = [&] {
        for (const PublicWork::Kind& kind : PublicWork::kinds())
            right += (otherWork.*kind.run)(known.front()) ? 1 : 0;
    };
    signMeanwhile(provider.handle(), [&] {
        callers.add("the other", workOnTheOther);
        const auto end = std::chrono::steady_clock::now() + 20 * longWait;
        while (callers.returned().empty() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        EXPECT_EQ(callers.returned(), "the other\n");
    });
    callers.join();
    EXPECT_EQ(right, static_cast<int>(PublicWork::kinds().size()));
}

// Each thread has a provider to itself, so that they meet nowhere but in the registry.
TEST_P(LocksTest, theRegistryServesManyThreads)
{
    std::vector<std::unique_ptr<OpenedProvider>> providers;
    for (int i = 0; i < threadCount; ++i)
        providers.push_back(std::make_unique<OpenedProvider>(*module));
    const std::string complaints = runTogether(threadCount, [&](int thread, Complaints& found) {
        const NCRYPT_PROV_HANDLE provider = providers[static_cast<size_t>(thread)]->handle();
        for (int i = 0; i < rounds(20000); ++i)
            found.addUnless((*module)->IsAlgSupported(provider, L"RSA", 0) == success,
                            "another answer");
    });
    EXPECT_EQ(complaints, "");
}

TEST_P(LocksTest, callsOfOneCallLayerDoNotOverlap)
{
    loggerSettings().types = 0;
    Pkcs11 p11;
    ASSERT_TRUE(p11.loadModule(ScriptedToken::path()));
    work.token.clearCalls();
    work.token.delay("C_GetInfo", 1ms);
    const CK_RV expected = isModern() ? CKR_OK : CKR_CRYPTOKI_NOT_INITIALIZED;
    const std::string complaints = runTogether(threadCount, [&](int, Complaints& found) {
        for (int i = 0; i < rounds(20); ++i) {
            CK_INFO info{};
            found.addUnless(p11.C_GetInfo(&info) == expected, "another result");
        }
    });
    EXPECT_EQ(complaints, "");
    EXPECT_EQ(work.token.calls("C_GetInfo").size(), static_cast<size_t>(threadCount * rounds(20)));
    EXPECT_EQ(work.token.overlappingCalls(), 0U);
}

// Without a provider around it.
TEST_P(LocksTest, oneKeyStoreServesManyThreads)
{
    loggerSettings().types = 0;
    KeyStore store;
    P11Slot slot;
    for (const wchar_t* name : {L"01AB", L"5E01"})
        ASSERT_TRUE(store.addPublicKey(slot, name, L"1.2.840.113549.1.1.1", "AAEC", 2048));
    const Bytes blob = joinedBytes({blobHeader(ecdhP256, 32), facts.peer});
    const std::string complaints = runTogether(threadCount, [&](int thread, Complaints& found) {
        const std::wstring name = thread % 2 == 0 ? L"01AB" : L"5E01";
        for (int i = 0; i < rounds(1000); ++i) {
            const NCRYPT_KEY_HANDLE key = store.open(name);
            const P11KeyObject* opened = store.findOpened(key);
            found.addUnless(opened != nullptr && opened->keyId() == name, "no key or another one");
            const NCRYPT_KEY_HANDLE imported =
                store.addEphemeralKey(blob.data(), static_cast<DWORD>(blob.size()));
            found.addUnless(store.findOpenedOrImported(imported) != nullptr, "no imported key");
            found.addUnless(store.keyCount() == 2, "another number of keys");
            found.addUnless(store.close(key) && store.close(imported), "a key could not be closed");
        }
    });
    EXPECT_EQ(complaints, "");
}

NV_IN_BOTH_BEHAVIOURS(LocksTest);

}  // namespace NV::test
