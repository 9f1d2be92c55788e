// The PKCS#11 calls of RSA encryption and decryption, literally, for every padding and hash.

#include "key_fixture.h"
#include "operation_calls.h"

namespace NV::test {

namespace {

enum class Information { none, pkcs1, oaep };

struct CipherRow {
    const char* name;
    DWORD flags;
    Information information;
    const wchar_t* hash;
    bool label;
    const char* mechanism;
    bool works;  // the token has no mechanism 0
};

void PrintTo(const CipherRow& row, std::ostream* out)
{
    *out << row.name;
}

constexpr const char* nothing = "mechanism=0x0, parameter=null";
constexpr const char* rawRsa = "mechanism=0x3, parameter=null";
constexpr const char* pkcs1 = "mechanism=0x1, parameter=null";

constexpr CipherRow rows[] = {
    {"noFlags", 0, Information::none, nullptr, false, nothing, false},
    {"noPadding", 0x1, Information::none, nullptr, false, rawRsa, true},
    {"pkcs1", 0x2, Information::pkcs1, L"SHA256", false, pkcs1, true},
    {"pkcs1WithoutHashName", 0x2, Information::pkcs1, nullptr, false, pkcs1, true},
    {"pkcs1WithoutInformation", 0x2, Information::none, nullptr, false, pkcs1, true},
    {"noneAndPkcs1", 0x3, Information::pkcs1, L"SHA1", false, pkcs1, true},
    {"oaepSha1", 0x4, Information::oaep, L"SHA1", false,
     "mechanism=0x9, parameter={hash=0x220,mgf=0x1,source=0x1,sourceData=null}", true},
    {"oaepSha256", 0x4, Information::oaep, L"SHA256", false,
     "mechanism=0x9, parameter={hash=0x250,mgf=0x2,source=0x1,sourceData=null}", true},
    {"oaepSha384", 0x4, Information::oaep, L"SHA384", false,
     "mechanism=0x9, parameter={hash=0x260,mgf=0x3,source=0x1,sourceData=null}", true},
    {"oaepSha512", 0x4, Information::oaep, L"SHA512", false,
     "mechanism=0x9, parameter={hash=0x270,mgf=0x4,source=0x1,sourceData=null}", true},
    {"oaepSha256WithLabel", 0x4, Information::oaep, L"SHA256", true,
     "mechanism=0x9, parameter={hash=0x250,mgf=0x2,source=0x1,sourceData=1A2B3C}", true},
    {"oaepMd5", 0x4, Information::oaep, L"MD5", false, nothing, false},
    {"oaepWithoutHashName", 0x4, Information::oaep, nullptr, false, nothing, false},
    {"oaepWithoutInformation", 0x4, Information::none, nullptr, false, nothing, false},
    {"pkcs1AndOaepMd5", 0x6, Information::oaep, L"MD5", false, pkcs1, true},
    {"noneAndOaepMd5", 0x5, Information::oaep, L"MD5", false, rawRsa, true},
    {"noneAndOaepWithoutInformation", 0x5, Information::none, nullptr, false, rawRsa, true},
    {"allThree", 0x7, Information::oaep, L"SHA1", false,
     "mechanism=0x9, parameter={hash=0x220,mgf=0x1,source=0x1,sourceData=null}", true},
    {"pssFlag", 0x8, Information::pkcs1, L"SHA256", false, nothing, false},
};

class CipherCallsTest : public KeyTest {};

class RsaCipherCallsTest : public CipherCallsTest, public testing::WithParamInterface<CipherRow> {
protected:
    void* padding()
    {
        switch (GetParam().information) {
        case Information::pkcs1:
            return &pkcs1_;
        case Information::oaep:
            return &oaep_;
        default:
            return nullptr;
        }
    }

    Run withPadding(Operation operation, Bytes input)
    {
        return {.operation = operation,
                .flags = GetParam().flags,
                .padding = padding(),
                .input = std::move(input)};
    }

private:
    BYTE label_[3] = {0x1A, 0x2B, 0x3C};
    BCRYPT_PKCS1_PADDING_INFO pkcs1_{GetParam().hash};
    BCRYPT_OAEP_PADDING_INFO oaep_{GetParam().hash, GetParam().label ? label_ : nullptr,
                                   GetParam().label ? ULONG{sizeof label_} : 0};
};

}  // namespace

TEST_P(RsaCipherCallsTest, encrypt)
{
    const CipherRow& row = GetParam();
    const Result result = run(withPadding(Operation::rsaEncrypt, someBytes(4)));
    const std::string work =
        row.works ? "C_Encrypt(session=0x5E55, data=A0A1A2A3, encryptedData=room[256])\n" : "";
    EXPECT_EQ(publicKeyCalls(rsaKey, std::string("C_EncryptInit(session=0x5E55, ") + row.mechanism +
                                         ", key=0xB1)\n" + work),
              joined(token.calls()));
    EXPECT_EQ(row.works ? SECURITY_STATUS{ERROR_SUCCESS} : SECURITY_STATUS{NTE_INTERNAL_ERROR},
              result.status);
    EXPECT_EQ(row.works ? 256U : 0xEEU, result.length);
}

TEST_P(RsaCipherCallsTest, decrypt)
{
    const CipherRow& row = GetParam();
    Bytes cipherText = run(withPadding(Operation::rsaEncrypt, someBytes(4))).output;
    token.clearCalls();
    const Result result = run(withPadding(Operation::rsaDecrypt, cipherText));
    const std::string work =
        row.works ? "C_Decrypt(session=0x5E56, encryptedData=" + hexEncode(cipherText) +
                        ", data=room[256])\n"
                  : "";
    EXPECT_EQ(privateKeyCalls(rsaKey,
                              std::string("C_DecryptInit(session=0x5E56, ") + row.mechanism +
                                  ", key=0xB2)\n" + work,
                              "0x5E56"),
              joined(token.calls()));
    if (row.works) {
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
        const bool whole = std::string(row.mechanism) == rawRsa;
        ASSERT_EQ(whole ? 256U : 4U, result.length);
        EXPECT_EQ(someBytes(4), Bytes(result.output.begin() + (result.length - 4),
                                      result.output.begin() + result.length));
    } else {
        EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
        EXPECT_EQ(0xEEU, result.length);
    }
}

TEST_P(RsaCipherCallsTest, parametersLiveUntilTheWorkIsDone)
{
    token.setParametersReread(true);
    const Result result = run(withPadding(Operation::rsaEncrypt, someBytes(4)));
    EXPECT_EQ(GetParam().works, result.status == ERROR_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Paddings, RsaCipherCallsTest, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(CipherCallsTest, aNullBufferAsksTheTokenForTheEncryptedLength)
{
    const Result result =
        run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(4), .room = 0});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(256U, result.length);
    EXPECT_EQ("C_Encrypt(session=0x5E55, data=A0A1A2A3, encryptedData=null)\n",
              joined(token.calls("C_Encrypt")));
}

TEST_F(CipherCallsTest, aNullBufferAsksTheTokenForTheDecryptedLength)
{
    const Bytes cipherText =
        run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(5)}).output;
    const Result result =
        run({.operation = Operation::rsaDecrypt, .flags = 0x2, .input = cipherText, .room = 0});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(5U, result.length);
}

TEST_F(CipherCallsTest, aShortBufferFailsAndWritesNothing)
{
    const Bytes cipherText =
        run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(9)}).output;
    log.takeLines();
    const Result encrypted = run({.operation = Operation::rsaEncrypt, .flags = 0x2, .room = 255});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, encrypted.status);
    EXPECT_EQ(0xEEU, encrypted.length);
    EXPECT_EQ(Bytes(255, 0xEE), encrypted.output);
    EXPECT_EQ("Failed to encrypt data, C_Encrypt() returned (00000150(CKR_BUFFER_TOO_SMALL))\n",
              messages(log.takeLines(), "ERR"));
    const Result decrypted =
        run({.operation = Operation::rsaDecrypt, .flags = 0x2, .input = cipherText, .room = 8});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, decrypted.status);
    EXPECT_EQ(0xEEU, decrypted.length);
    EXPECT_EQ(Bytes(8, 0xEE), decrypted.output);
    EXPECT_EQ("Failed to decrypt data, C_Decrypt() returned (00000150(CKR_BUFFER_TOO_SMALL))\n",
              messages(log.takeLines(), "ERR"));
}

TEST_F(CipherCallsTest, lengthsPastTheBufferAreCutToIt)
{
    token.lengthPastBuffer("C_Encrypt");
    const Result result = run({.operation = Operation::rsaEncrypt, .flags = 0x2, .room = 300});
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, result.status);
    EXPECT_EQ(300U, result.length);
}

TEST_F(CipherCallsTest, inputLongerThanTheKeyFails)
{
    const Result result =
        run({.operation = Operation::rsaEncrypt, .flags = 0x2, .input = someBytes(246)});
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR}, result.status);
    EXPECT_EQ(0xEEU, result.length);
}

TEST_F(CipherCallsTest, emptyInputReachesTheToken)
{
    DWORD length = 0;
    Bytes output(256);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS},
              rsa->encrypt(&p11, nullptr, nullptr, 0, output.data(), 256, &length, 0x2));
    EXPECT_EQ("C_Encrypt(session=0x5E55, data=null, encryptedData=room[256])\n",
              joined(token.calls("C_Encrypt")));
}

}  // namespace NV::test
