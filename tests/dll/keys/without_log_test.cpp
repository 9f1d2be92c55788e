// That turning the log off changes no result: a list of calls, most of them refused in a place that logs
// why, is made with the log on and with the log off.

#include <string>
#include <vector>

#include "dialog_driver.h"
#include "module_fixture.h"
#include "peer_key.h"

namespace NV::test {

namespace {

const std::wstring rightPin(kPin.begin(), kPin.end());
constexpr SECURITY_STATUS success = ERROR_SUCCESS;

class CallList : public ServedKeysTest {
public:
    explicit CallList(bool withLog) : ServedKeysTest(withLog) {}
    void TestBody() override {}

    // "name status", a line each.
    std::string results()
    {
        openings();
        keys();
        properties();
        exports();
        paddings();
        signatures();
        ciphers();
        secrets();
        return results_;
    }

    // Whether nothing was logged.
    bool silent() { return takeLines().empty(); }

private:
    void note(const char* name, SECURITY_STATUS result)
    {
        results_ += std::string(name) + " " + std::to_string(result) + "\n";
    }

    void openings()
    {
        NCRYPT_PROV_HANDLE opened = handle();
        const std::wstring longName(200, L'n');
        note("open a handle again", table()->OpenProvider(&opened, L"name", 0));
        opened = 0;
        note("open without a name", table()->OpenProvider(&opened, nullptr, 0));
        note("open into null", table()->OpenProvider(nullptr, L"name", 0));
        note("open with a long name", table()->OpenProvider(&opened, longName.c_str(), 0));
        note("free it", table()->FreeProvider(opened));
        note("free it again", table()->FreeProvider(opened));
        note("free null", table()->FreeProvider(0));
        token.fail("C_Initialize", CKR_DEVICE_ERROR);
        NCRYPT_PROV_HANDLE failed = 0;
        note("open on a failing token", table()->OpenProvider(&failed, L"name", 0));
        token.clearFaults();
    }

    void keys()
    {
        NCRYPT_KEY_HANDLE key = 0;
        note("open an unknown key", table()->OpenKey(handle(), &key, L"7391", 3, 0x40));
        note("open no key", table()->OpenKey(handle(), nullptr, nullptr, 3, 0));
        note("free an unknown key", table()->FreeKey(handle(), 0x77));
        NCryptKeyName* name = nullptr;
        void* state = nullptr;
        note("list keys into null", table()->EnumKeys(handle(), L"", &name, nullptr, 0));
        for (SECURITY_STATUS each = success; each == success;) {
            each = table()->EnumKeys(handle(), nullptr, &name, &state, 0);
            note("list keys", each);
            if (each == success)
                table()->FreeBuffer(name);
        }
        if (state != nullptr)
            table()->FreeBuffer(state);
        DWORD count = 0;
        NCryptAlgorithmName* list = nullptr;
        note("list algorithms", table()->EnumAlgorithms(handle(), 0x3F, &count, &list, 0));
        table()->FreeBuffer(list);
        note("an unknown algorithm", table()->IsAlgSupported(handle(), L"DES", 0));
    }

    void properties()
    {
        DWORD length = 0;
        Bytes room(400);
        Bytes noWindow(9);
        BYTE one = 1;
        const auto ofProvider = [&](const wchar_t* name, DWORD size) {
            note("provider property",
                 table()->GetProviderProperty(handle(), name, room.data(), size, &length, 0));
        };
        const auto ofKey = [&](const wchar_t* name, DWORD size) {
            note("key property",
                 table()->GetKeyProperty(handle(), rsa, name, room.data(), size, &length, 0));
        };
        ofProvider(L"Name", 400);
        ofProvider(L"Name", 1);
        ofProvider(L"unknown", 400);
        ofKey(L"Name", 400);
        ofKey(L"Name", 1);
        ofKey(L"unknown", 400);
        note("set an owner",
             table()->SetProviderProperty(handle(), L"HWND Handle", noWindow.data(), 8, 0));
        note("set a long owner",
             table()->SetProviderProperty(handle(), L"HWND Handle", noWindow.data(), 9, 0));
        note("set a key property", table()->SetKeyProperty(handle(), rsa, L"own", &one, 1, 0));
        note("of an unknown key", table()->SetKeyProperty(handle(), 0x77, L"own", &one, 1, 0));
    }

    void exports()
    {
        Bytes room(600);
        DWORD length = 0;
        for (const wchar_t* type : {L"PUBLICBLOB", L"CAPIPUBLICBLOB", L"RSAPUBLICBLOB",
                                    L"ECCPUBLICBLOB", L"PRIVATEBLOB"}) {
            for (const NCRYPT_KEY_HANDLE key : {rsa, ec, NCRYPT_KEY_HANDLE{0x77}}) {
                for (const DWORD size : {DWORD{600}, DWORD{8}})
                    note("export", table()->ExportKey(handle(), key, 0, type, nullptr, room.data(),
                                                      size, &length, 0));
            }
        }
        note("export nothing",
             table()->ExportKey(handle(), rsa, 0, nullptr, nullptr, nullptr, 0, nullptr, 0));
    }

    // Every flag with information and without, in an operation that asks for no PIN.
    void paddings()
    {
        BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
        BCRYPT_PKCS1_PADDING_INFO unknown{L"unknown"};
        BCRYPT_PSS_PADDING_INFO pss{L"SHA256", 32};
        BYTE label[2] = {1, 2};
        BCRYPT_OAEP_PADDING_INFO oaep{L"SHA256", label, sizeof label};
        struct Case {
            DWORD flags;
            void* info;
        };
        const Case cases[] = {{1, nullptr}, {2, nullptr}, {2, &pkcs1}, {2, &unknown},  {4, nullptr},
                              {4, &oaep},   {8, nullptr}, {8, &pss},   {0x40, nullptr}};
        Bytes signature(256);
        for (const auto& [flags, info] : cases) {
            note("verify", table()->VerifySignature(handle(), rsa, info, hash.data(), 32,
                                                    signature.data(), 256, flags));
            Output output;
            note("encrypt", table()->Encrypt(handle(), rsa, hash.data(), 32, info, output.at(), 256,
                                             &output.length, flags));
        }
        note("verify with EC", table()->VerifySignature(handle(), ec, nullptr, hash.data(), 32,
                                                        signature.data(), 64, 0));
    }

    void sign(const char* name, NCRYPT_KEY_HANDLE key, const DialogDriver::Script& script,
              DWORD flags = 0, void* padding = nullptr)
    {
        const DialogDriver dialog(script);
        Output output;
        note(name, table()->SignHash(handle(), key, padding, hash.data(), 32, output.at(), 256,
                                     &output.length, flags));
    }

    void signatures()
    {
        BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
        BCRYPT_PSS_PADDING_INFO pss{L"SHA256", 32};
        sign("sign", rsa, DialogDriver::entering(rightPin), 0x40);
        sign("sign with PKCS #1", rsa, DialogDriver::entering(rightPin), 2, &pkcs1);
        sign("sign with PSS", rsa, DialogDriver::entering(rightPin), 8, &pss);
        sign("sign with EC", ec, DialogDriver::entering(rightPin));
        sign("sign with a wrong PIN", rsa, DialogDriver::entering(L"wrong"));
        sign("sign and cancel", rsa, DialogDriver::cancelling());
        Output output;
        note("sign with no key", table()->SignHash(handle(), 0x77, nullptr, hash.data(), 32,
                                                   output.at(), 256, &output.length, 0));
    }

    void ciphers()
    {
        Bytes cipher(256, 1);
        Output output;
        const DialogDriver dialog(DialogDriver::entering(rightPin), 2);
        note("decrypt", table()->Decrypt(handle(), rsa, cipher.data(), 256, nullptr, output.at(),
                                         256, &output.length, 1));
        note("decrypt with EC", table()->Decrypt(handle(), ec, cipher.data(), 64, nullptr,
                                                 output.at(), 256, &output.length, 1));
        note("encrypt with EC", table()->Encrypt(handle(), ec, cipher.data(), 64, nullptr,
                                                 output.at(), 256, &output.length, 1));
    }

    NCRYPT_KEY_HANDLE import(Bytes blob)
    {
        NCRYPT_KEY_HANDLE key = 0;
        note("import", table()->ImportKey(handle(), 0, L"ECCPUBLICBLOB", nullptr, &key, blob.data(),
                                          static_cast<DWORD>(blob.size()), 0));
        return key;
    }

    void agree(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer, NCRYPT_SECRET_HANDLE& secret)
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin));
        note("agree", table()->SecretAgreement(handle(), key, peer, &secret, 0));
    }

    void derive(NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, std::vector<BCryptBuffer> buffers,
                ULONG flags = 0)
    {
        NCryptBufferDesc list{0, static_cast<ULONG>(buffers.size()), buffers.data()};
        Bytes room(64);
        DWORD length = 0;
        note("derive",
             table()->DeriveKey(handle(), secret, kdf, &list, room.data(), 64, &length, flags));
    }

    void secrets()
    {
        import({1, 2, 3});
        import(peerBlob(0x7391, 32));
        const NCRYPT_KEY_HANDLE peer = import(peerBlob(ecdhP256, 32));
        NCRYPT_SECRET_HANDLE none = 0;
        NCRYPT_SECRET_HANDLE secret = 0;
        agree(rsa, peer, none);
        agree(ec, peer, secret);

        wchar_t sha256[] = L"SHA256";
        wchar_t unknown[] = L"unknown";
        BYTE bytes[4] = {1, 2, 3, 4};
        const BCryptBuffer name{sizeof sha256, 0, sha256};
        const BCryptBuffer wrongName{sizeof unknown, 0, unknown};
        const BCryptBuffer prepend{4, 1, bytes};
        const BCryptBuffer append{4, 2, bytes};
        const BCryptBuffer key{4, 3, bytes};
        derive(secret, L"HASH", {name, prepend, append});
        derive(secret, L"HMAC", {name, key});
        derive(secret, L"HMAC", {name, key}, 1);
        derive(secret, L"HASH", {name, key});
        derive(secret, L"HASH", {wrongName});
        derive(secret, L"HASH", {{4, 9, bytes}});
        derive(secret, L"HASH", {{4, 1, nullptr}});
        derive(secret, L"TLS_PRF", {name});
        derive(secret, L"unknown", {name});
        derive(0x77, L"HASH", {name});
        note("free the secret", table()->FreeSecret(handle(), secret));
        note("free it again", table()->FreeSecret(handle(), secret));
        note("free the peer's key", table()->FreeKey(handle(), peer));
    }

    std::string results_;
};

}  // namespace

TEST(WithoutLog, everyCallHasTheResultThatItHasWithTheLog)
{
    std::string withLog;
    {
        CallList run(true);
        withLog = run.results();
    }
    CallList run(false);
    EXPECT_EQ(withLog, run.results());
    EXPECT_TRUE(run.silent());
}

}  // namespace NV::test
