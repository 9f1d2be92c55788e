// The modern dialog in the operations of the module: what it is told, which window owns it, and what the
// token gets.

#include <gtest/gtest.h>

#include <string>

#include "dialog_driver.h"
#include "module_fixture.h"
#include "naming_dialog.h"

namespace NV::test {
namespace {

const std::wstring rightPin(kPin.begin(), kPin.end());

class DialogOperation : public ModernKeysTest {
protected:
    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key)
    {
        BCRYPT_PKCS1_PADDING_INFO padding{BCRYPT_SHA256_ALGORITHM};
        const bool isRsa = key != ec;
        Bytes signature(isRsa ? 256 : 64);
        DWORD length = 0;
        return table()->SignHash(handle(), key, isRsa ? &padding : nullptr, hash.data(), 32,
                                 signature.data(), static_cast<DWORD>(signature.size()), &length,
                                 isRsa ? BCRYPT_PAD_PKCS1 : 0);
    }

    // Signs and gives what the script sees in the dialog.
    void look(NCRYPT_KEY_HANDLE key, const DialogDriver::Script& script)
    {
        const DialogDriver driver([&](const PinDialogWindow& dialog) {
            script(dialog);
            dialog.type(rightPin);
            dialog.pressOk();
        });
        EXPECT_EQ(sign(key), ERROR_SUCCESS);
    }

    std::wstring shown(NCRYPT_KEY_HANDLE key, DialogLine line)
    {
        std::wstring text;
        look(key, [&](const PinDialogWindow& dialog) {
            text = isShown(dialog, line) ? dialog.text(valueOf(line)) : L"";
        });
        return text;
    }

    HWND ownerOfTheDialog(NCRYPT_KEY_HANDLE key)
    {
        HWND owner = nullptr;
        look(key,
             [&](const PinDialogWindow& dialog) { owner = GetWindow(dialog.handle(), GW_OWNER); });
        return owner;
    }

    void setProvidersWindow(const OwnedWindow& window)
    {
        auto value = reinterpret_cast<uintptr_t>(window.get());
        EXPECT_EQ(table()->SetProviderProperty(handle(), NCRYPT_WINDOW_HANDLE_PROPERTY,
                                               reinterpret_cast<PBYTE>(&value), sizeof value, 0),
                  ERROR_SUCCESS);
    }

    void setKeysWindow(NCRYPT_KEY_HANDLE key, const OwnedWindow& window)
    {
        auto value = reinterpret_cast<uintptr_t>(window.get());
        EXPECT_EQ(table()->SetKeyProperty(handle(), key, NCRYPT_WINDOW_HANDLE_PROPERTY,
                                          reinterpret_cast<PBYTE>(&value), sizeof value, 0),
                  ERROR_SUCCESS);
    }
};

TEST_F(DialogOperation, namesTheKeyThatIsUsed)
{
    look(rsa, [](const PinDialogWindow& dialog) {
        EXPECT_EQ(dialog.text(valueOf(DialogLine::program)), L"modern_dialog_test.exe");
        EXPECT_EQ(dialog.text(valueOf(DialogLine::key)), L"KeyWarden rsa2048");
        EXPECT_EQ(dialog.text(valueOf(DialogLine::token)), L"Odd Label 52");
        EXPECT_FALSE(isShown(dialog, DialogLine::window));
        EXPECT_FALSE(isShown(dialog, DialogLine::warning));
    });
    EXPECT_EQ(shown(ec, DialogLine::key), L"KeyWarden p256");
}

TEST_F(DialogOperation, asksTheTokenForItsWarningEachTime)
{
    // The library may be initialized already; both results will do.
    token.exports().C_Initialize(nullptr);
    EXPECT_EQ(shown(rsa, DialogLine::warning), L"");
    token.addSlot(kSlot, kSlotFlags, kTokenFlags | CKF_USER_PIN_COUNT_LOW);
    EXPECT_EQ(shown(rsa, DialogLine::warning),
              L"Wrong PINs were entered before. Few tries are left.");
    token.addSlot(kSlot, kSlotFlags, kTokenFlags | CKF_USER_PIN_FINAL_TRY);
    EXPECT_EQ(shown(rsa, DialogLine::warning),
              L"This is the last try. A wrong PIN locks the token.");
    token.fail("C_GetTokenInfo", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(shown(rsa, DialogLine::warning), L"");
}

TEST_F(DialogOperation, givesTheTokenThePinAsUtf8)
{
    token.clearCalls();
    const DialogDriver driver(DialogDriver::entering(L"p\u00EFn-73\u20AC"));
    EXPECT_NE(sign(rsa), ERROR_SUCCESS);
    ASSERT_EQ(token.calls("C_Login").size(), 1u);
    EXPECT_NE(token.calls("C_Login").front().find("p\xC3\xAFn-73\xE2\x82\xAC"), std::string::npos)
        << token.calls("C_Login").front();
}

TEST_F(DialogOperation, hasTheTokensBounds)
{
    const DialogDriver driver([](const PinDialogWindow& dialog) {
        dialog.type(std::wstring(kMinPinLength - 1, L'7'));
        dialog.pressOk();
        EXPECT_EQ(dialog.dismissMessageBox(),
                  L"The PIN is too short. A PIN of this token has 5 to 15 characters.");
        // 16 bytes.
        dialog.type(std::wstring(kMaxPinLength - 1, L'7') + L"\u00E4");
        dialog.pressOk();
        EXPECT_TRUE(dialog.dismissMessageBox().starts_with(L"The PIN is too long."));
        dialog.type(rightPin);
        dialog.pressOk();
    });
    EXPECT_EQ(sign(rsa), ERROR_SUCCESS);
}

// The property "HWND Handle" of a key.

TEST_F(DialogOperation, theKeysWindowOwnsItsDialogs)
{
    const OwnedWindow providers = makeWindow(L"The provider's");
    const OwnedWindow keys = makeWindow(L"The key's");
    setProvidersWindow(providers);
    EXPECT_EQ(ownerOfTheDialog(rsa), providers.get());
    setKeysWindow(rsa, keys);
    EXPECT_EQ(ownerOfTheDialog(rsa), keys.get());
    EXPECT_EQ(shown(rsa, DialogLine::window), L"The key's");
    EXPECT_EQ(ownerOfTheDialog(ec), providers.get());
    EXPECT_EQ(shown(ec, DialogLine::window), L"The provider's");
}

TEST_F(DialogOperation, theKeysWindowGoesWithItsHandle)
{
    const OwnedWindow keys = makeWindow(L"The key's");
    const NCRYPT_KEY_HANDLE second = openKey(L"01AB");
    setKeysWindow(second, keys);
    EXPECT_EQ(ownerOfTheDialog(second), keys.get());
    EXPECT_EQ(table()->FreeKey(handle(), second), ERROR_SUCCESS);
    EXPECT_EQ(ownerOfTheDialog(openKey(L"01AB")), nullptr);
}

class ClassicDialogOperation : public ServedKeysTest {};

TEST_F(ClassicDialogOperation, theProvidersWindowOwnsAllDialogs)
{
    const OwnedWindow keys = makeWindow(L"The key's");
    auto window = reinterpret_cast<uintptr_t>(keys.get());
    EXPECT_EQ(table()->SetKeyProperty(handle(), ec, NCRYPT_WINDOW_HANDLE_PROPERTY,
                                      reinterpret_cast<PBYTE>(&window), sizeof window, 0),
              ERROR_SUCCESS);
    HWND owner = keys.get();
    const DialogDriver driver([&](const PinDialogWindow& dialog) {
        owner = GetWindow(dialog.handle(), GW_OWNER);
        EXPECT_EQ(GetDlgItem(dialog.handle(), valueOf(DialogLine::key)), nullptr);
        dialog.pressCancel();
    });
    Bytes signature(64);
    DWORD length = 0;
    token.clearCalls();
    EXPECT_EQ(
        table()->SignHash(handle(), ec, nullptr, hash.data(), 32, signature.data(), 64, &length, 0),
        status(NTE_USER_CANCELLED));
    EXPECT_EQ(owner, nullptr);
    EXPECT_TRUE(token.calls().empty());
}

}  // namespace
}  // namespace NV::test
