// Paddings as mechanisms: the choice is seen on the token in *_calls_test.cpp; here are the lines
// that tell it, and the ownership of the parameter block.

#include <malloc.h>

#include "key_fixture.h"
#include "trace_file.h"

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

TEST_F(MechanismTest, signatureWithoutFlagsLogsOnlyTheArguments)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(&pkcs1, 0x41));
    expectBlock(log.takeLines(), R"(
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x41
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
)");
}

TEST_F(MechanismTest, signaturePkcs1LogsTheAlgorithm)
{
    EXPECT_EQ(CKM_SHA256_RSA_PKCS, ofSignature(&pkcs1, BCRYPT_PAD_PKCS1));
    expectTrace(log.takeLines(), "keys/signature_pkcs1");
}

TEST_F(MechanismTest, signaturePkcs1WithoutInformationIsANote)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(nullptr, BCRYPT_PAD_PKCS1));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_rsa/signature_pkcs1_without_information_is_a_note");
}

TEST_F(MechanismTest, signaturePssLogsAlgorithmAndSalt)
{
    EXPECT_EQ(CKM_RSA_PKCS_PSS, ofSignature(&pss, BCRYPT_PAD_PSS));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_rsa/signature_pss_logs_algorithm_and_salt");
}

TEST_F(MechanismTest, signaturePssWithoutInformationIsANote)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofSignature(nullptr, BCRYPT_PAD_PSS));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_rsa/signature_pss_without_information_is_a_note");
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

TEST_F(MechanismTest, encryptionLogsEveryPaddingAndTheLastWins)
{
    EXPECT_EQ(CKM_RSA_PKCS_OAEP,
              ofEncryption(&oaep, BCRYPT_PAD_NONE | BCRYPT_PAD_PKCS1 | BCRYPT_PAD_OAEP));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_rsa/encryption_logs_every_padding_and_the_last_wins");
}

TEST_F(MechanismTest, encryptionWithoutInformationWarnsForPkcs1AndNotesForOaep)
{
    EXPECT_EQ(CKM_RSA_PKCS, ofEncryption(nullptr, BCRYPT_PAD_PKCS1 | BCRYPT_PAD_OAEP));
    expectTrace(
        log.takeLines(),
        "objects/keystore/keystore_rsa/encryption_without_information_warns_for_pkcs1_and_notes_for_oaep");
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

TEST_F(MechanismTest, ecLogsOnlyTheArguments)
{
    ec->mechanismSignature(nullptr, 0x2);
    ec->mechanismEncryption(&oaep, 0x4);
    expectTrace(log.takeLines(), "objects/keystore/keystore_rsa/ec_logs_only_the_arguments");
}

}  // namespace NV::test
