// The PIN on its way through a signature: asked for by the module, given to the token, kept out of
// the log.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "dialog_driver.h"
#include "profile.h"
#include "provider_module.h"
#include "signing_token.h"

namespace NV::test {

namespace {

struct WindowDestroyer {
    void operator()(HWND window) const { DestroyWindow(window); }
};
using OwnedWindow = std::unique_ptr<std::remove_pointer_t<HWND>, WindowDestroyer>;

OwnedWindow makeWindow()
{
    return OwnedWindow(CreateWindowExW(0, L"STATIC", L"Odd owner", WS_POPUP | WS_VISIBLE, 40, 40,
                                       300, 200, nullptr, nullptr, nullptr, nullptr));
}

class PinOperation : public testing::Test {
protected:
    PinOperation()
    {
        profile_.writeConfigFor(ScriptedToken::widePath());
        module_.emplace();
        provider_.emplace(*module_);
        key_ = provider_->openKey(SigningToken::keyName().c_str());
        takeLines();
        token().clearCalls();
    }

    SECURITY_STATUS sign(DWORD flags = BCRYPT_PAD_PKCS1)
    {
        BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
        BYTE hash[32] = {7, 3, 9, 1};
        signature_.assign(256, 0xEE);
        size_ = 7391;
        return (*module_)->SignHash(provider_->handle(), key_, &padding, hash, sizeof hash,
                                    signature_.data(), static_cast<DWORD>(signature_.size()),
                                    &size_, flags);
    }

    SECURITY_STATUS sign(DialogDriver::Script script)
    {
        const DialogDriver driver(std::move(script));
        return sign();
    }

    void setOwner(const void* value, DWORD size)
    {
        std::vector<BYTE> bytes(static_cast<const BYTE*>(value),
                                static_cast<const BYTE*>(value) + size);
        EXPECT_EQ((*module_)->SetProviderProperty(
                      provider_->handle(), NCRYPT_WINDOW_HANDLE_PROPERTY, bytes.data(), size, 0),
                  ERROR_SUCCESS);
    }

    // Signs, and gives the dialog's owner.
    HWND ownerOfTheDialog()
    {
        HWND owner = nullptr;
        EXPECT_EQ(sign([&](const PinDialogWindow& dialog) {
                      owner = GetWindow(dialog.handle(), GW_OWNER);
                      dialog.type(signingPin);
                      dialog.pressOk();
                  }),
                  ERROR_SUCCESS);
        return owner;
    }

    LogLines takeLines()
    {
        const LogLines all = profile_.log();
        LogLines fresh(all.begin() + static_cast<std::ptrdiff_t>(taken_), all.end());
        taken_ = all.size();
        return fresh;
    }

    ScriptedToken& token() { return token_.token(); }

    Profile profile_;
    SigningToken token_;
    std::optional<ProviderModule> module_;
    std::optional<OpenedProvider> provider_;
    NCRYPT_KEY_HANDLE key_ = 0;
    std::vector<BYTE> signature_;
    DWORD size_ = 0;

private:
    size_t taken_ = 0;
};

TEST_F(PinOperation, TheTokenGetsThePinByteForByte)
{
    EXPECT_EQ(sign(DialogDriver::entering(signingPin)), ERROR_SUCCESS);
    EXPECT_EQ(size_, 256u);
    const auto logins = token().calls("C_Login");
    ASSERT_EQ(logins.size(), 1u);
    EXPECT_TRUE(logins.front().ends_with("userType=1, pin=odd-PIN-7391)")) << logins.front();

    const LogLines lines = takeLines();
    expectBlock(ofFunction(lines, "NV::Provider::enterPIN"), R"(
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
TRC NV::Provider::enterPIN:Entered Pin is 12 bytes
TRC NV::Provider::enterPIN:LEAVE)");
    EXPECT_TRUE(hasLine(
        lines, "TRC NV::Provider::SignHash:Success to retrive the entered pin = 12 (bytes)"));
    EXPECT_TRUE(hasLine(lines, "TRC NV::PINDialog::Procedure:WM_COMMAND[IDOK]: verified "
                               "password(12:bytes)"));
}

// Neither as text nor as a dump of its bytes, at any level.
TEST_F(PinOperation, TheLogNeverShowsThePin)
{
    EXPECT_EQ(sign(DialogDriver::entering(signingPin)), ERROR_SUCCESS);
    token().fail("C_Login", CKR_PIN_INCORRECT, 1);
    EXPECT_NE(sign(DialogDriver::entering(signingPin)), ERROR_SUCCESS);
    const LogLines lines = profile_.log();
    EXPECT_GT(lines.size(), 100u);
    for (const LogLine& line : lines) {
        std::string text = line.raw;
        EXPECT_EQ(text.find("odd-PIN"), std::string::npos) << text;
        std::erase_if(text,
                      [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) == 0; });
        std::ranges::transform(text, text.begin(),
                               [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        EXPECT_EQ(text.find("6f64642d50494e"), std::string::npos) << line.raw;
    }
}

TEST_F(PinOperation, CharactersBecomeTheirLowByte)
{
    // U+016F ends in the byte of "o".
    EXPECT_EQ(sign(DialogDriver::entering(L"\u016Fdd-PIN-7391")), ERROR_SUCCESS);
    ASSERT_EQ(token().calls("C_Login").size(), 1u);
    EXPECT_TRUE(token().calls("C_Login").front().ends_with("pin=odd-PIN-7391)"));
}

TEST_F(PinOperation, TheTokensLimitsHold)
{
    EXPECT_EQ(sign([](const PinDialogWindow& dialog) {
                  dialog.type(std::wstring(kMinPinLength - 1, L'7'));
                  dialog.pressOk();
                  EXPECT_EQ(dialog.dismissMessageBox(), L"Too short characters.");
                  dialog.type(std::wstring(kMaxPinLength + 1, L'7'));
                  dialog.pressOk();
                  EXPECT_EQ(dialog.dismissMessageBox(), L"Too many characters.");
                  dialog.type(signingPin);
                  dialog.pressOk();
              }),
              ERROR_SUCCESS);
    EXPECT_EQ(token().calls("C_Login").size(), 1u);

    for (const size_t length : {size_t{kMinPinLength}, size_t{kMaxPinLength}}) {
        token().clearCalls();
        EXPECT_EQ(sign(DialogDriver::entering(std::wstring(length, L'7'))), NTE_INTERNAL_ERROR);
        ASSERT_EQ(token().calls("C_Login").size(), 1u);
        EXPECT_TRUE(
            token().calls("C_Login").front().ends_with("pin=" + std::string(length, '7') + ")"));
    }
}

TEST_F(PinOperation, CancellingIsReportedAsUserCancelled)
{
    EXPECT_EQ(sign(DialogDriver::cancelling()), NTE_USER_CANCELLED);
    EXPECT_TRUE(token().calls().empty());
    EXPECT_EQ(signature_, std::vector<BYTE>(256, 0xEE));
    EXPECT_EQ(size_, 7391u);
    const LogLines lines = takeLines();
    expectBlock(ofFunction(lines, "NV::Provider::enterPIN"), R"(
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
ERR NV::Provider::enterPIN:Caught Exception: User canceled(errorcode:2)
TRC NV::Provider::enterPIN:LEAVE)");
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::SignHash:STATUS=0x80090036, ELAPSED:#(ms)"));
}

TEST_F(PinOperation, EverySignatureAsksAnew)
{
    const DialogDriver driver(DialogDriver::entering(signingPin), 3);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(sign(), ERROR_SUCCESS);
        EXPECT_EQ(token().calls("C_Login").size(), static_cast<size_t>(i));
    }
}

TEST_F(PinOperation, SilenceIsNotKept)
{
    const DialogDriver driver(DialogDriver::entering(signingPin));
    EXPECT_EQ(sign(BCRYPT_PAD_PKCS1 | NCRYPT_SILENT_FLAG), ERROR_SUCCESS);
    EXPECT_TRUE(hasLine(takeLines(), "DBG NV::Provider::SignHash:NCRYPT_SILENT_FLAG is enabled"));
}

// The property "HWND Handle".

TEST_F(PinOperation, TheOwnerWindowOwnsTheDialog)
{
    EXPECT_EQ(ownerOfTheDialog(), nullptr);
    EXPECT_TRUE(hasLine(takeLines(), "TRC NV::PINDialog::open:hWnd(Parent)=NULL"));

    const OwnedWindow window = makeWindow();
    ASSERT_NE(window, nullptr);
    HWND handle = window.get();
    setOwner(&handle, sizeof(HWND));
    EXPECT_EQ(ownerOfTheDialog(), handle);
    EXPECT_TRUE(hasLine(takeLines(), "TRC NV::PINDialog::open:hWnd(Parent)=PTR"));
    EXPECT_TRUE(IsWindowEnabled(handle));
}

TEST_F(PinOperation, NineBytesLeaveTheOwnerWindow)
{
    const OwnedWindow window = makeWindow();
    HWND handle = window.get();
    setOwner(&handle, sizeof(HWND));
    const BYTE nine[9] = {};
    setOwner(nine, sizeof nine);
    EXPECT_EQ(ownerOfTheDialog(), handle);
    // Fewer bytes than a handle has are its low ones, the others zero.
    const BYTE four[4] = {};
    setOwner(four, sizeof four);
    EXPECT_EQ(ownerOfTheDialog(), nullptr);
}

TEST_F(PinOperation, TheOwnerWindowIsDisabledWhileTheDialogIsOpen)
{
    const OwnedWindow window = makeWindow();
    HWND handle = window.get();
    setOwner(&handle, sizeof(HWND));
    EXPECT_EQ(sign([&](const PinDialogWindow& dialog) {
                  EXPECT_FALSE(IsWindowEnabled(handle));
                  dialog.pressCancel();
              }),
              NTE_USER_CANCELLED);
    EXPECT_TRUE(IsWindowEnabled(handle));
}

// A window that is gone by then cannot own a dialog: it is not shown.
TEST_F(PinOperation, ADestroyedOwnerWindowMeansNoDialog)
{
    HWND handle = nullptr;
    {
        const auto window = makeWindow();
        handle = window.get();
    }
    ASSERT_FALSE(IsWindow(handle));
    setOwner(&handle, sizeof(HWND));
    takeLines();
    EXPECT_EQ(sign(), ERROR_SUCCESS);
    EXPECT_TRUE(token().calls().empty());
    EXPECT_EQ(size_, 7391u);
    const LogLines lines = takeLines();
    EXPECT_TRUE(hasLine(lines, "TRC NV::PINDialog::open:result = -1") ||
                hasLine(lines, "TRC NV::PINDialog::open:result = 0"))
        << render(lines);
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::enterPIN:Entered Pin is 0 bytes"));
}

// What others may do while the dialog is open.

TEST_F(PinOperation, AnotherProviderWorksWhileTheDialogIsOpen)
{
    EXPECT_EQ(sign([&](const PinDialogWindow& dialog) {
                  const OpenedProvider other(*module_);
                  EXPECT_EQ((*module_)->IsAlgSupported(other.handle(), L"RSA", 0), ERROR_SUCCESS);
                  dialog.type(signingPin);
                  dialog.pressOk();
              }),
              ERROR_SUCCESS);
    EXPECT_EQ(token().sequenceViolations(), 0u);
}

TEST_F(PinOperation, AProviderThatIsFreedUnderItsDialogGoesWithTheCallInside)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ((*module_)->OpenProvider(&handle, L"", 0), ERROR_SUCCESS);
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ((*module_)->OpenKey(handle, &key, SigningToken::keyName().c_str(), 0, 0),
              ERROR_SUCCESS);
    takeLines();
    bool asked = false;
    {
        const DialogDriver driver([&](const PinDialogWindow& dialog) {
            asked = true;
            EXPECT_EQ((*module_)->FreeProvider(handle), ERROR_SUCCESS);
            const LogLines lines = takeLines();
            EXPECT_TRUE(hasLine(
                lines, "DBG NV::ProviderManager::FreeProvider:Success: Provider[PTR] is freed"));
            EXPECT_FALSE(hasLine(lines, "TRC NV::Provider::~Provider:ENTER"));
            dialog.type(signingPin);
            dialog.pressOk();
        });
        BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
        BYTE hash[32] = {};
        BYTE signature[256] = {};
        DWORD size = 0;
        EXPECT_EQ((*module_)->SignHash(handle, key, &padding, hash, sizeof hash, signature,
                                       sizeof signature, &size, BCRYPT_PAD_PKCS1),
                  ERROR_SUCCESS);
        EXPECT_EQ(size, 256u);
    }
    EXPECT_TRUE(asked);
    const LogLines lines = takeLines();
    EXPECT_TRUE(hasLine(lines, "TRC NVKSPSignHash:LEAVE"));
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::~Provider:LEAVE"));
}

// The log's error reaches the caller, not the window manager, and the provider stays usable.
TEST_F(PinOperation, ALogThatBreaksWhileTheDialogIsOpen)
{
    const auto folder = profile_.logDirectory();
    {
        const DialogDriver driver([&](const PinDialogWindow& dialog) {
            std::filesystem::remove_all(folder);
            writeFile(folder, "in the way");
            dialog.type(signingPin);
            dialog.pressOk();
        });
        EXPECT_THROW(sign(), std::filesystem::filesystem_error);
    }
    EXPECT_TRUE(token().calls().empty());
    std::filesystem::remove(folder);
    EXPECT_EQ(sign(DialogDriver::entering(signingPin)), ERROR_SUCCESS);
}

}  // namespace

}  // namespace NV::test
