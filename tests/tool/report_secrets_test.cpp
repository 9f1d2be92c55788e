// A run with everything that the log shows of secrets, and the report of it. report_search.py searches the
// report, which is left in the build, for each secret of the run.

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "dialog_driver.h"
#include "module_fixture.h"
#include "scripted_token_values.h"
#include "tool_program.h"

namespace NV::test {

namespace {

const std::wstring pin(kPin.begin(), kPin.end());
constexpr std::wstring_view wrongPin = L"odd-PIN-0000";

class ReportOfARun : public ServedKeysTest {
protected:
    explicit ReportOfARun(Behaviour behaviour = Behaviour::classic)
        : ServedKeysTest(true, behaviour), showsSecrets_(behaviour == Behaviour::classic)
    {
    }

    // `logged`: whether the log shows it, as hexadecimal digits.
    void keep(const char* name, const Bytes& bytes, bool logged)
    {
        secrets_.push_back({{"name", name},
                            {"hex", hexEncode(bytes.data(), static_cast<int>(bytes.size()))},
                            {"logged", logged}});
    }

    void sign(NCRYPT_KEY_HANDLE key, const char* name, std::wstring_view entered)
    {
        BCRYPT_PKCS1_PADDING_INFO sha256{BCRYPT_SHA256_ALGORITHM};
        const bool isRsa = key == rsa;
        Bytes signature(isRsa ? 256 : 64);
        DWORD length = 0;
        const DialogDriver dialog(DialogDriver::entering(std::wstring(entered)));
        const SECURITY_STATUS done = table()->SignHash(
            handle(), key, isRsa ? &sha256 : nullptr, hash.data(), 32, signature.data(),
            static_cast<DWORD>(signature.size()), &length, isRsa ? BCRYPT_PAD_PKCS1 : 0);
        EXPECT_EQ(done == ERROR_SUCCESS, entered == pin) << done;
        if (done != ERROR_SUCCESS)
            return;
        keep(name, signature, true);
        // Classic gives the scripted token another form of the hash than for signing, which it refuses.
        table()->VerifySignature(handle(), key, isRsa ? &sha256 : nullptr, hash.data(), 32,
                                 signature.data(), length, isRsa ? BCRYPT_PAD_PKCS1 : 0);
    }

    void encryptAndDecrypt()
    {
        Bytes plain = someBytes(24);
        std::ranges::reverse(plain);
        Bytes cipher = encryptPkcs1(plain);
        Bytes again(256);
        DWORD length = 0;
        const DialogDriver dialog(DialogDriver::entering(pin));
        EXPECT_EQ(table()->Decrypt(handle(), rsa, cipher.data(), static_cast<DWORD>(cipher.size()),
                                   nullptr, again.data(), static_cast<DWORD>(again.size()), &length,
                                   BCRYPT_PAD_PKCS1),
                  ERROR_SUCCESS);
        again.resize(length);
        EXPECT_EQ(again, plain);
        keep("plain text", plain, false);
    }

    Bytes derive(NCRYPT_SECRET_HANDLE secret, const wchar_t* kdf, Bytes hmacKey)
    {
        wchar_t hashName[] = L"SHA256";
        NCryptBuffer buffers[] = {
            {sizeof hashName, KDF_HASH_ALGORITHM, hashName},
            {static_cast<ULONG>(hmacKey.size()), KDF_HMAC_KEY, hmacKey.data()}};
        NCryptBufferDesc list{NCRYPTBUFFER_VERSION, hmacKey.empty() ? 1U : 2U, buffers};
        Bytes key(32);
        DWORD length = 0;
        EXPECT_EQ(table()->DeriveKey(handle(), secret, kdf, &list, key.data(), 32, &length, 0),
                  ERROR_SUCCESS);
        return key;
    }

    void agreeAndDerive()
    {
        NCRYPT_SECRET_HANDLE secret = 0;
        {
            const DialogDriver dialog(DialogDriver::entering(pin));
            EXPECT_EQ(table()->SecretAgreement(handle(), ec, ec, &secret, 0), ERROR_SUCCESS);
        }
        // The scripted token's agreed secrets repeat these bytes.
        keep("agreed secret", hexDecode("C35A17E18DC35A17E18D"), showsSecrets_);
        keep("key derived by a hash", derive(secret, BCRYPT_KDF_HASH, {}), showsSecrets_);
        Bytes hmacKey(20, 0x4B);
        hmacKey[3] = 0x99;
        keep("HMAC key", hmacKey, showsSecrets_);
        keep("key derived by an HMAC", derive(secret, BCRYPT_KDF_HMAC, hmacKey), showsSecrets_);
        EXPECT_EQ(table()->FreeSecret(handle(), secret), ERROR_SUCCESS);
    }

    void setPinProperties()
    {
        std::wstring value = L"property-PIN-58";
        auto* bytes = reinterpret_cast<PBYTE>(value.data());
        const auto size = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
        table()->SetKeyProperty(handle(), rsa, NCRYPT_PIN_PROPERTY, bytes, size, 0);
        EXPECT_EQ(table()->SetProviderProperty(handle(), NCRYPT_PIN_PROPERTY, bytes, size, 0),
                  ERROR_SUCCESS);
        Bytes back(size);
        DWORD length = 0;
        EXPECT_EQ(table()->GetProviderProperty(handle(), NCRYPT_PIN_PROPERTY, back.data(), size,
                                               &length, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(length, size);
        keep("PIN as a property", Bytes(bytes, bytes + value.size() * sizeof(wchar_t)), false);
    }

    static Bytes narrowed(std::wstring_view text) { return Bytes(text.begin(), text.end()); }

    // Runs everything, makes the report, and leaves it with the log and the list of secrets.
    void runAndReport(const std::wstring& name)
    {
        keep("PIN", narrowed(pin), false);
        keep("wrong PIN", narrowed(wrongPin), false);
        keep("hash", hash, true);
        sign(rsa, "RSA signature", pin);
        sign(ec, "ECDSA signature", pin);
        sign(rsa, "none", wrongPin);
        encryptAndDecrypt();
        agreeAndDerive();
        setPinProperties();

        const std::filesystem::path folder = std::filesystem::path(REPORTS) / name;
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        const std::filesystem::path report = folder / "report.zip";
        const ChildResult result = runTool({"--profile", narrowPath(profile.path()), "--json",
                                            "report", "--yes", "-o", narrowPath(report)});
        EXPECT_EQ(result.exitCode, 0U) << result.output;
        // Each line of the log is known: none was taken out whole.
        for (const Json& file : parsed(result.output)["files"])
            EXPECT_EQ(file["contents"].get<std::string>().find("whole"), std::string::npos) << file;
        const auto logs = entryNames(profile.logDirectory());
        ASSERT_EQ(logs.size(), 1U);
        const std::string log = readFile(profile.logDirectory() / logs.front());
        for (const char* call : {"C_Sign(", "C_Verify(", "C_Encrypt(", "C_Decrypt(", "C_DeriveKey(",
                                 "CKR_PIN_INCORRECT", "SmartCardPin"})
            EXPECT_NE(log.find(call), std::string::npos) << call;
        writeFile(folder / "whole.log", log);
        writeFile(folder / "secrets.json", secrets_.dump(2));
    }

private:
    // Of agreements and derivations; modern hides them.
    bool showsSecrets_;
    Json secrets_ = Json::array();
};

class ReportOfAModernRun : public ReportOfARun {
protected:
    ReportOfAModernRun() : ReportOfARun(Behaviour::modern) {}
};

TEST_F(ReportOfARun, TakesOutNoLineWhole)
{
    runAndReport(L"classic");
}

TEST_F(ReportOfAModernRun, TakesOutNoLineWhole)
{
    runAndReport(L"modern");
}

}  // namespace

}  // namespace NV::test
