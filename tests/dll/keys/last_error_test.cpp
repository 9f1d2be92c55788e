// An operation leaves the calling thread's last error as it found it: neither the log nor the token
// changes it. Callers look at it, and take what they find for a failure of their own.

#include <windows.h>

#include <functional>
#include <string>

#include "dialog_driver.h"
#include "module_fixture.h"
#include "peer_key.h"

namespace NV::test {

namespace {

constexpr DWORD strangeError = 0x7391;

// One test with the log, where each record leaves ERROR_ALREADY_EXISTS, and one without, where the
// token leaves an error of its own.
class LastErrorTest : public ServedKeysTest, public testing::WithParamInterface<bool> {
protected:
    LastErrorTest() : ServedKeysTest(GetParam()) {}

    // The status must be the expected one, because another operation may have another way out.
    void expectKept(const char* name, SECURITY_STATUS expected,
                    const std::function<SECURITY_STATUS()>& call)
    {
        SetLastError(strangeError);
        const SECURITY_STATUS answer = call();
        const DWORD left = GetLastError();
        EXPECT_EQ(expected, answer) << name;
        EXPECT_EQ(strangeError, left) << name;
        ++operations_;
    }
    void expectKept(const char* name, const std::function<SECURITY_STATUS()>& call)
    {
        expectKept(name, ERROR_SUCCESS, call);
    }

    DialogDriver entering() const
    {
        return DialogDriver(DialogDriver::entering(std::wstring(kPin.begin(), kPin.end())));
    }

    int operations_ = 0;
    Output output;
    NCRYPT_KEY_HANDLE key = 0;
};

}  // namespace

#define NV_KEPT(function, ...)                                                                     \
    expectKept(#function, [&] { return table()->function(handle() __VA_OPT__(, ) __VA_ARGS__); })

TEST_P(LastErrorTest, isThatOfTheCallerAfterEachOperation)
{
    NCRYPT_PROV_HANDLE other = 0;
    expectKept("OpenProvider", [&] { return table()->OpenProvider(&other, L"Norvanta", 0); });
    expectKept("FreeProvider", [&] { return table()->FreeProvider(other); });

    BYTE value[] = {7, 3, 9, 1};
    NV_KEPT(SetProviderProperty, L"Own", value, sizeof value, 0);
    NV_KEPT(GetProviderProperty, L"Own", output.at(), 400, &output.length, 0);
    NV_KEPT(IsAlgSupported, L"RSA", 0);
    DWORD count = 0;
    NCryptAlgorithmName* algorithms = nullptr;
    NV_KEPT(EnumAlgorithms, NCRYPT_RNG_OPERATION, &count, &algorithms, 0);
    expectKept("FreeBuffer", [&] { return table()->FreeBuffer(algorithms); });

    NV_KEPT(OpenKey, &key, L"01AB", 0, 0);
    NV_KEPT(SetKeyProperty, key, L"Own", value, sizeof value, 0);
    NV_KEPT(GetKeyProperty, key, L"Own", output.at(), 400, &output.length, 0);
    NV_KEPT(FreeKey, key);
    NCryptKeyName* name = nullptr;
    PVOID state = nullptr;
    NV_KEPT(EnumKeys, nullptr, &name, &state, 0);
    table()->FreeBuffer(name);
    table()->FreeBuffer(state);

    NV_KEPT(ExportKey, ec, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, output.at(), 400, &output.length, 0);
    Bytes peer = peerBlob(ecdhP256, 32);
    NCRYPT_KEY_HANDLE imported = 0;
    NV_KEPT(ImportKey, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &imported, peer.data(),
            static_cast<DWORD>(peer.size()), 0);

    Bytes signature = signatureOf(CKM_ECDSA, hash, 64);
    NV_KEPT(VerifySignature, ec, nullptr, hash.data(), 32, signature.data(), 64, 0);
    NV_KEPT(Encrypt, rsa, hash.data(), 32, nullptr, output.at(), 256, &output.length,
            BCRYPT_PAD_PKCS1);
    Bytes encrypted(output.at(), output.at() + output.length);
    {
        const DialogDriver user = entering();
        NV_KEPT(Decrypt, rsa, encrypted.data(), 256, nullptr, output.at(), 256, &output.length,
                BCRYPT_PAD_PKCS1);
    }
    {
        const DialogDriver user = entering();
        NV_KEPT(SignHash, ec, nullptr, hash.data(), 32, output.at(), 64, &output.length, 0);
    }
    NCRYPT_SECRET_HANDLE secret = 0;
    {
        const DialogDriver user = entering();
        NV_KEPT(SecretAgreement, ec, imported, &secret, 0);
    }
    wchar_t sha256[] = L"SHA256";
    BCryptBuffer buffer{sizeof sha256, KDF_HASH_ALGORITHM, sha256};
    NCryptBufferDesc list{0, 1, &buffer};
    NV_KEPT(DeriveKey, secret, BCRYPT_KDF_HASH, &list, output.at(), 32, &output.length, 0);
    NV_KEPT(FreeSecret, secret);
    // All of the table but those that never succeed.
    EXPECT_EQ(26 - 5, operations_);
}

// These never succeed. They leave the error alone, too.
TEST_P(LastErrorTest, isThatOfTheCallerAfterEachRefusal)
{
    HANDLE event = nullptr;
    expectKept("CreatePersistedKey", NTE_NOT_SUPPORTED,
               [&] { return table()->CreatePersistedKey(handle(), &key, L"RSA", L"name", 0, 0); });
    expectKept("FinalizeKey", NTE_NOT_SUPPORTED,
               [&] { return table()->FinalizeKey(handle(), rsa, 0); });
    expectKept("DeleteKey", NTE_NOT_SUPPORTED,
               [&] { return table()->DeleteKey(handle(), rsa, 0); });
    expectKept("PromptUser", NTE_NOT_SUPPORTED,
               [&] { return table()->PromptUser(handle(), rsa, L"operation", 0); });
    expectKept("NotifyChangeKey", NTE_NOT_SUPPORTED,
               [&] { return table()->NotifyChangeKey(handle(), &event, 0); });
    EXPECT_EQ(5, operations_);
}

INSTANTIATE_TEST_SUITE_P(Log, LastErrorTest, testing::Bool(),
                         [](const auto& row) { return std::string(row.param ? "On" : "Off"); });

}  // namespace NV::test
