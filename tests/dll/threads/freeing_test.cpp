// Freeing a provider while calls are inside it: the handle is gone at once, and the last call that
// leaves takes the provider with it.

#include <windows.h>

#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <utility>

#include "dialog_driver.h"
#include "nvvtoken/nvvtoken_name.h"
#include "threads_fixture.h"
#include "together.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

constexpr SECURITY_STATUS success = ERROR_SUCCESS;
// Far longer than anything takes that need not wait.
constexpr auto longTime = 10s;

// A window of the thread that makes it, whose procedure does the work. The messages are dispatched
// by whatever loop the thread is in.
class CallbackWindow {
public:
    explicit CallbackWindow(std::function<void()> work) : work_(std::move(work))
    {
        SetWindowLongPtrW(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        SetWindowLongPtrW(window_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&procedure));
    }
    ~CallbackWindow() { DestroyWindow(window_); }
    CallbackWindow(const CallbackWindow&) = delete;
    CallbackWindow& operator=(const CallbackWindow&) = delete;

    // From another thread. Whether the work came to its end within the time.
    bool call(std::chrono::milliseconds time) const
    {
        DWORD_PTR result = 0;
        return SendMessageTimeoutW(window_, WM_APP, 0, 0, SMTO_NORMAL,
                                   static_cast<UINT>(time.count()), &result) != 0;
    }

private:
    static LRESULT CALLBACK procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
    {
        if (message != WM_APP)
            return DefWindowProcW(window, message, wParam, lParam);
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        reinterpret_cast<CallbackWindow*>(GetWindowLongPtrW(window, GWLP_USERDATA))->work_();
        return 1;
    }

    std::function<void()> work_;
    HWND window_ = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                   GetModuleHandleW(nullptr), nullptr);
};

class FreeingTest : public ThreadsTest {
protected:
    FreeingTest() : ThreadsTest(true) {}

    NCRYPT_PROV_HANDLE open() const
    {
        NCRYPT_PROV_HANDLE provider = 0;
        EXPECT_EQ(success, (*module)->OpenProvider(&provider, providerName, 0));
        return provider;
    }
    bool serves(NCRYPT_PROV_HANDLE provider) const
    {
        return (*module)->IsAlgSupported(provider, L"RSA", 0) == success;
    }
    bool isUnknown(NCRYPT_PROV_HANDLE provider) const
    {
        return token().unknownTo([&] { return (*module)->IsAlgSupported(provider, L"RSA", 0); });
    }
    size_t destroyed() const
    {
        return countLines(profile.log(), "TRC NV::Provider::~Provider:LEAVE");
    }

    // Signs, and does something while the dialog is open. The key goes with the provider.
    void signMeanwhile(NCRYPT_PROV_HANDLE provider, const std::function<void()>& something)
    {
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(success, (*module)->OpenKey(provider, &key, facts.rsaKey.c_str(), 0, 0));
        Bytes hash = known.front().hash;
        Bytes signature(256);
        DWORD length = 0;
        {
            const DialogDriver user([&](const PinDialogWindow& dialog) {
                something();
                EXPECT_TRUE(dialog.isOpen());
                dialog.type(facts.pin);
                dialog.pressOk();
            });
            EXPECT_EQ(success, (*module)->SignHash(provider, key, nullptr, hash.data(), 32,
                                                   signature.data(), 256, &length, 0));
        }
        EXPECT_EQ(known.front().rsaSignature, signature);
    }

    void expectGone(NCRYPT_PROV_HANDLE provider) const { EXPECT_TRUE(isUnknown(provider)); }
};

}  // namespace

TEST_P(FreeingTest, doesNotWaitForADialog)
{
    const OpenedProvider other(*module);
    const NCRYPT_PROV_HANDLE provider = open();
    std::future<void> freed;
    signMeanwhile(provider, [&] {
        freed = std::async(std::launch::async, [&] {
            EXPECT_EQ(success, (*module)->FreeProvider(provider));
            EXPECT_EQ(success, (*module)->FreeProvider(open()));
            EXPECT_TRUE(serves(other.handle()));
        });
        EXPECT_EQ(std::future_status::ready, freed.wait_for(longTime));
        expectGone(provider);
        EXPECT_EQ(1U, destroyed());
    });
    EXPECT_EQ(2U, destroyed());
    EXPECT_EQ(NTE_INVALID_HANDLE, (*module)->FreeProvider(provider));
}

// As a program may do that closes its windows. The dialog's own loop calls the procedure, on the
// thread that is inside the provider.
TEST_P(FreeingTest, byAWindowProcedureOnTheThreadThatIsInside)
{
    const OpenedProvider other(*module);
    const NCRYPT_PROV_HANDLE provider = open();
    const CallbackWindow window([&] {
        EXPECT_EQ(success, (*module)->FreeProvider(provider));
        expectGone(provider);
        EXPECT_EQ(success, (*module)->FreeProvider(open()));
        EXPECT_TRUE(serves(other.handle()));
        EXPECT_EQ(1U, destroyed());
    });
    signMeanwhile(provider, [&] { EXPECT_TRUE(window.call(longTime)); });
    EXPECT_EQ(2U, destroyed());
}

TEST_P(FreeingTest, theLastOfManyCallsDestroysTheProvider)
{
    for (int i = 0; i < rounds(2); ++i) {
        const size_t before = destroyed();
        const NCRYPT_PROV_HANDLE provider = open();
        const std::string complaints = runTogether(threadCount, [&](int thread, Complaints& found) {
            for (int call = 0; call < 10 * thread; ++call) {
                SECURITY_STATUS status = success;
                const auto ask = [&] {
                    return status = (*module)->IsAlgSupported(provider, L"RSA", 0);
                };
                // Freed by now.
                if (token().unknownTo(ask))
                    return;
                found.addUnless(status == success, "another answer");
            }
            if (thread == 1)
                found.addUnless((*module)->FreeProvider(provider) == success, "not freed");
        });
        EXPECT_EQ(complaints, "");
        EXPECT_EQ(before + 1, destroyed());
    }
}

NV_IN_BOTH_BEHAVIOURS(FreeingTest);

}  // namespace NV::test
