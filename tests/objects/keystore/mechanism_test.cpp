// Paddings as mechanisms: the choice is seen on the token in *_calls_test.cpp; here are the lines
// that tell it, and the ownership of the parameter block.

#include <malloc.h>

#include "key_fixture.h"

namespace NV::test {

namespace {

class MechanismTest : public KeyTest {
protected:
    CK_MECHANISM_TYPE ofSignature(void* padding, DWORD flags)
    {
        return checkedType(rsa->mechanismSignature(padding, flags));
    }
    CK_MECHANISM_TYPE ofEncryption(void* padding, DWORD flags)
    {
        return checkedType(rsa->mechanismEncryption(padding, flags));
    }

    BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
    BCRYPT_PSS_PADDING_INFO pss{L"SHA384", 17};
    BYTE label[3] = {1, 2, 3};
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA512", label, sizeof label};

private:
    static CK_MECHANISM_TYPE checkedType(OwnedMechanism owned)
    {
        const CK_MECHANISM& mechanism = *owned.get();
        EXPECT_EQ(mechanism.pParameter == nullptr, mechanism.ulParameterLen == 0);
        // The block has room for what was written into it.
        if (mechanism.pParameter != nullptr) {
            EXPECT_EQ(mechanism.ulParameterLen, _msize(mechanism.pParameter));
        }
        return owned.type();
    }
};

}  // namespace

TEST_F(MechanismTest, signatureWithoutFlagsTellsOnlyTheArguments)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(&pkcs1, 0x41));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x41
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, signaturePkcs1TellsTheAlgorithm)
{
    EXPECT_EQ(CKM_SHA256_RSA_PKCS, ofSignature(&pkcs1, BCRYPT_PAD_PKCS1));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x2
DBG NV::P11RSAKeyObject::mechanismSignature:BCRYPT_PAD_PKCS1 is enabled
DBG NV::P11RSAKeyObject::mechanismSignature:pkcs1PaddingInfo->pszAlgId=SHA256
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, signaturePkcs1WithoutInformationIsANote)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(nullptr, BCRYPT_PAD_PKCS1));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=NULL
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x2
DBG NV::P11RSAKeyObject::mechanismSignature:BCRYPT_PAD_PKCS1 is enabled
DBG NV::P11RSAKeyObject::mechanismSignature:There is no padding info for BCRYPT_PAD_PKCS1
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, signaturePssTellsAlgorithmAndSalt)
{
    EXPECT_EQ(CKM_RSA_PKCS_PSS, ofSignature(&pss, BCRYPT_PAD_PSS));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x8
DBG NV::P11RSAKeyObject::mechanismSignature:BCRYPT_PAD_PSS is enabled
DBG NV::P11RSAKeyObject::mechanismSignature:pssPaddingInfo->pszAlgId=SHA384
DBG NV::P11RSAKeyObject::mechanismSignature:pssPaddingInfo->cbSalt=17
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, signaturePssWithoutInformationIsANote)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(nullptr, BCRYPT_PAD_PSS));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=NULL
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x8
DBG NV::P11RSAKeyObject::mechanismSignature:BCRYPT_PAD_PSS is enabled
DBG NV::P11RSAKeyObject::mechanismSignature:There is no padding info for BCRYPT_PAD_PSS
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, encryptionWithoutFlagsHasNoMechanism)
{
    EXPECT_EQ(0U, ofEncryption(&oaep, 0x40));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismEncryption:ENTER
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[1]:dwFlags=0x40
TRC NV::P11RSAKeyObject::mechanismEncryption:LEAVE
)");
}

TEST_F(MechanismTest, encryptionTellsEveryPaddingAndTheLastWins)
{
    EXPECT_EQ(CKM_RSA_PKCS_OAEP,
              ofEncryption(&oaep, BCRYPT_PAD_NONE | BCRYPT_PAD_PKCS1 | BCRYPT_PAD_OAEP));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismEncryption:ENTER
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[1]:dwFlags=0x7
DBG NV::P11RSAKeyObject::mechanismEncryption:BCRYPT_PAD_NONE is enabled
DBG NV::P11RSAKeyObject::mechanismEncryption:BCRYPT_PAD_PKCS1 is enabled
DBG NV::P11RSAKeyObject::mechanismEncryption:pkcs1PaddingInfo->pszAlgId=SHA512
DBG NV::P11RSAKeyObject::mechanismEncryption:BCRYPT_PAD_OAEP is enabled
DBG NV::P11RSAKeyObject::mechanismEncryption:oaepPaddingInfo->pszAlgId=SHA512
DBG NV::P11RSAKeyObject::mechanismEncryption:oaepPaddingInfo->pbLabel=PTR
DBG NV::P11RSAKeyObject::mechanismEncryption:oaepPaddingInfo->cbLabel=3
TRC NV::P11RSAKeyObject::mechanismEncryption:LEAVE
)");
}

TEST_F(MechanismTest, encryptionWithoutInformationWarnsForPkcs1AndNotesForOaep)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofEncryption(nullptr, BCRYPT_PAD_PKCS1 | BCRYPT_PAD_OAEP));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismEncryption:ENTER
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[0]:pPaddingInfo=NULL
TRC NV::P11RSAKeyObject::mechanismEncryption:ARG[1]:dwFlags=0x6
DBG NV::P11RSAKeyObject::mechanismEncryption:BCRYPT_PAD_PKCS1 is enabled
WRN NV::P11RSAKeyObject::mechanismEncryption:There is no padding info for BCRYPT_PAD_PKCS1
DBG NV::P11RSAKeyObject::mechanismEncryption:BCRYPT_PAD_OAEP is enabled
DBG NV::P11RSAKeyObject::mechanismEncryption:There is no padding info for BCRYPT_PAD_OAEP
TRC NV::P11RSAKeyObject::mechanismEncryption:LEAVE
)");
}

TEST_F(MechanismTest, ecAlwaysAnswersEcdsa)
{
    for (const DWORD flags : {0x0U, 0x1U, 0x2U, 0x4U, 0x8U, 0xFFU}) {
        const CK_MECHANISM signature = *ec->mechanismSignature(&pss, flags).get();
        const CK_MECHANISM encryption = *ec->mechanismEncryption(&oaep, flags).get();
        EXPECT_EQ(0x1041U, signature.mechanism);
        EXPECT_EQ(0x1041U, encryption.mechanism);
        EXPECT_EQ(nullptr, signature.pParameter);
        EXPECT_EQ(nullptr, encryption.pParameter);
        EXPECT_EQ(0U, signature.ulParameterLen);
        EXPECT_EQ(0U, encryption.ulParameterLen);
    }
}

TEST_F(MechanismTest, ecTellsOnlyTheArguments)
{
    ec->mechanismSignature(nullptr, 0x2);
    ec->mechanismEncryption(&oaep, 0x4);
    expectBlock(log.takeLines(), R"(
TRC NV::P11ECKeyObject::mechanismSignature:ENTER
TRC NV::P11ECKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=NULL
TRC NV::P11ECKeyObject::mechanismSignature:ARG[1]:dwFlags=0x2
TRC NV::P11ECKeyObject::mechanismSignature:LEAVE
TRC NV::P11ECKeyObject::mechanismEncryption:ENTER
TRC NV::P11ECKeyObject::mechanismEncryption:ARG[0]:pPaddingInfo=PTR
TRC NV::P11ECKeyObject::mechanismEncryption:ARG[1]:dwFlags=0x4
TRC NV::P11ECKeyObject::mechanismEncryption:LEAVE
)");
}

}  // namespace NV::test
