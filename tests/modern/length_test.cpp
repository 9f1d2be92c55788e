// Lengths are told and checked before the user and the token are asked: M4.

#include <algorithm>
#include <array>

#include "operation_fixture.h"

namespace NV::test {

namespace {

class LengthTest : public TokenOperationTest {
protected:
    // The length needed, and nothing else.
    void expectTooSmall(DWORD needed, SECURITY_STATUS given)
    {
        EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL), given);
        EXPECT_EQ(needed, output.length);
        EXPECT_TRUE(output.onlyWritten(0));
        EXPECT_TRUE(token.calls().empty());
    }
};

}  // namespace

// There is no driver: a dialog would give no PIN, and the status would be another one.
TEST_F(LengthTest, aSignatureBufferThatIsTooSmallIsToldItsLength)
{
    for (const DWORD room : {1U, 255U})
        expectTooSmall(256, sign(rsa, room));
    for (const DWORD room : {1U, 63U})
        expectTooSmall(64, sign(ec, room));
    takeLines();
    expectTooSmall(256, sign(rsa, 255));
    EXPECT_NE(std::string::npos,
              messages(takeLines(), "ERR")
                  .find("The allocated buffer length is too short: 255 of 256 (bytes)\n"));
}

TEST_F(LengthTest, aSignatureBufferOfTheRightSizeOrLargerIsFilled)
{
    for (const DWORD room : {256U, 257U}) {
        output = Output();
        EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return sign(rsa, room); }));
        EXPECT_EQ(256U, output.length);
        EXPECT_EQ(signatureOf(CKM_RSA_PKCS, hash, 256), written(256));
    }
    output = Output();
    EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return sign(ec, 64); }));
    EXPECT_EQ(64U, output.length);
    EXPECT_TRUE(output.onlyWritten(64));
}

TEST_F(LengthTest, aSizeQueryAsksNobody)
{
    EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 0));
    EXPECT_EQ(256U, output.length);
    EXPECT_EQ(status(ERROR_SUCCESS), sign(ec, 0));
    EXPECT_EQ(64U, output.length);
    output.length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, hash, 0));
    EXPECT_EQ(256U, output.length);
    output.length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS), decrypt(rsa, Bytes(256), 0));
    EXPECT_EQ(256U, output.length);
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(LengthTest, aCipherTextBufferThatIsTooSmallIsToldItsLength)
{
    for (const DWORD room : {1U, 255U})
        expectTooSmall(256, encrypt(rsa, hash, room));
    output = Output();
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(rsa, hash, 256));
    EXPECT_EQ(256U, output.length);
    EXPECT_TRUE(output.onlyWritten(256));
}

TEST_F(LengthTest, aBufferOfSizeZeroStaysAnInvalidParameter)
{
    Bytes cipher(256);
    expectRefused(NTE_INVALID_PARAMETER, table()->SignHash(handle(), rsa, nullptr, hash.data(), 32,
                                                           output.at(), 0, &output.length, 0));
    expectRefused(NTE_INVALID_PARAMETER,
                  table()->Encrypt(handle(), rsa, hash.data(), 32, nullptr, output.at(), 0,
                                   &output.length, BCRYPT_PAD_PKCS1));
    expectRefused(NTE_INVALID_PARAMETER,
                  table()->Decrypt(handle(), rsa, cipher.data(), 256, nullptr, output.at(), 0,
                                   &output.length, BCRYPT_PAD_PKCS1));
    expectRefused(NTE_INVALID_PARAMETER, table()->SignHash(handle(), rsa, nullptr, hash.data(), 32,
                                                           nullptr, 0, nullptr, 0));
    expectRefused(NTE_INVALID_PARAMETER,
                  table()->Decrypt(handle(), rsa, nullptr, 256, nullptr, output.at(), 256,
                                   &output.length, BCRYPT_PAD_PKCS1));
}

TEST_F(LengthTest, theTokenDecryptsIntoABufferOfTheModulus)
{
    const Bytes cipher = encryptPkcs1(someBytes(5));
    for (const DWORD room : {5U, 6U, 300U}) {
        output = Output();
        forget();
        EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return decrypt(rsa, cipher, room); }));
        EXPECT_EQ(5U, output.length);
        EXPECT_TRUE(output.onlyWritten(5));
        EXPECT_EQ(someBytes(5), written(5));
        ASSERT_EQ(1U, token.calls("C_Decrypt").size());
        EXPECT_TRUE(token.calls("C_Decrypt").front().ends_with("data=room[256])"));
    }
}

TEST_F(LengthTest, roomTooSmallForThePlainTextIsToldItsLength)
{
    const Bytes cipher = encryptPkcs1(someBytes(5));
    for (const DWORD room : {1U, 4U}) {
        EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL),
                  withPin([&] { return decrypt(rsa, cipher, room); }));
        EXPECT_EQ(5U, output.length);
        EXPECT_TRUE(output.onlyWritten(0));
    }
}

TEST_F(LengthTest, anEmptyPlainTextHasTheLengthZero)
{
    const Bytes cipher = encryptPkcs1({});
    EXPECT_EQ(status(ERROR_SUCCESS), withPin([&] { return decrypt(rsa, cipher, 1); }));
    EXPECT_EQ(0U, output.length);
    EXPECT_TRUE(output.onlyWritten(0));
}

TEST_F(LengthTest, aFailedDecryptionWritesNothing)
{
    const Bytes cipher = encryptPkcs1(someBytes(5));
    token.fail("C_CloseSession", CKR_DEVICE_REMOVED, 1);
    EXPECT_EQ(status(SCARD_W_REMOVED_CARD), withPin([&] { return decrypt(rsa, cipher, 100); }));
    EXPECT_TRUE(output.untouched());
}

TEST_F(LengthTest, anEcKeyDoesNotEncryptAndAsksNobody)
{
    for (const DWORD room : {0U, 64U}) {
        expectRefused(NTE_NOT_SUPPORTED, encrypt(ec, hash, room));
        expectRefused(NTE_NOT_SUPPORTED, decrypt(ec, hash, room));
    }
}

// Its length is not in the certificate, so it is that of the point.
TEST_F(ModernModuleTest, aKeyWithAnUnknownCurveTellsTheLengthOfItsPoint)
{
    addCertificateWithKey(token, {0x03, 0x20}, "brainpoolP320r1");
    start();
    const NCRYPT_KEY_HANDLE key = openKey(L"0320");
    Bytes hash = someBytes(32);
    Bytes signature(80);
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->SignHash(handle(), key, nullptr, hash.data(), 32, nullptr, 0, &length, 0));
    EXPECT_EQ(80U, length);
    length = 0;
    EXPECT_EQ(status(NTE_BUFFER_TOO_SMALL),
              table()->SignHash(handle(), key, nullptr, hash.data(), 32, signature.data(), 79,
                                &length, 0));
    EXPECT_EQ(80U, length);
    EXPECT_TRUE(token.calls().empty());
}

// The BIT STRING with the point of a certificate of the curve brainpoolP320r1.
Bytes::iterator pointOf(Bytes& der)
{
    constexpr std::array<unsigned char, 4> head = {0x03, 0x52, 0x00, 0x04};
    const auto bits = std::search(der.begin(), der.end(), head.begin(), head.end());
    EXPECT_NE(der.end(), bits);
    return bits;
}

// A certificate of a curve that the module does not know, without a point: 81 bytes less in the BIT STRING
// and in the three sequences around it.
Bytes certificateWithoutPoint()
{
    constexpr unsigned char pointSize = 81;
    Bytes der = certificateDer("brainpoolP320r1");
    const auto bits = pointOf(der);
    bits[1] = 1;
    bits[-23] = static_cast<unsigned char>(bits[-23] - pointSize);
    der.erase(bits + 3, bits + 3 + pointSize);
    for (const size_t sequence : {0U, 4U}) {
        const unsigned size = der[sequence + 2] * 256U + der[sequence + 3] - pointSize;
        der[sequence + 2] = static_cast<unsigned char>(size / 256);
        der[sequence + 3] = static_cast<unsigned char>(size % 256);
    }
    return der;
}

TEST_F(ModernModuleTest, aKeyWithoutAPointHasNoLengthAndNoBlob)
{
    token.addCertificate(Bytes{0x0E}, certificateWithoutPoint());
    token.addRsaKeyPair({0x0E}, 2048);  // any key objects
    start();
    const NCRYPT_KEY_HANDLE key = openKey(L"0E");
    Bytes hash = someBytes(32);
    DWORD length = 0xEE;
    takeLines();
    EXPECT_EQ(status(NTE_INTERNAL_ERROR),
              table()->SignHash(handle(), key, nullptr, hash.data(), 32, nullptr, 0, &length, 0));
    EXPECT_EQ(0xEEU, length);
    EXPECT_NE(std::string::npos,
              messages(takeLines(), "ERR").find("The length of the signature is not known\n"));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), table()->ExportKey(handle(), key, 0, L"ECCPUBLICBLOB",
                                                             nullptr, nullptr, 0, &length, 0));
    EXPECT_EQ(0xEEU, length);
}

// SEC 1 knows points that begin with 02, 03 and 04.
TEST_F(ModernModuleTest, theLengthOfAKeyIsNotTakenFromWhatIsNoPoint)
{
    Bytes der = certificateDer("brainpoolP320r1");
    pointOf(der)[3] = 0x05;
    token.addCertificate(Bytes{0x0E}, der);
    token.addRsaKeyPair({0x0E}, 2048);  // any key objects
    start();
    const NCRYPT_KEY_HANDLE key = openKey(L"0E");
    DWORD bits = 0xEE;
    DWORD length = 0;
    EXPECT_EQ(status(NTE_NOT_SUPPORTED),
              table()->GetKeyProperty(handle(), key, L"Length", reinterpret_cast<PBYTE>(&bits),
                                      sizeof bits, &length, 0));
    EXPECT_EQ(0xEEU, bits);
}

}  // namespace NV::test
