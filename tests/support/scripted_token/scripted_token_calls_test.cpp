// The scripted token's test, second part: how calls are recorded, what the operations return, and
// that each of the 68 functions can succeed.

#include <array>
#include <thread>

#include "scripted_token_fixture.h"

namespace NV::test {

namespace {

CK_ULONG sizeOf(const Bytes& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

class ScriptedOperationTest : public ScriptedTokenTest {
protected:
    KeyPair rsa = token.addRsaKeyPair({0x05}, 1024);
    KeyPair ec = token.addEcKeyPair({0x06}, 66);
    CK_SESSION_HANDLE session = openSession(CKF_RW_SESSION);
    Bytes data{0x11, 0x22, 0x33, 0x44, 0x55};

    void SetUp() override { ASSERT_EQ(CKR_OK, logIn(session)); }

    Bytes sign(CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, Bytes input)
    {
        EXPECT_EQ(CKR_OK, p11.C_SignInit(session, &mechanism, key));
        CK_ULONG length = 0;
        EXPECT_EQ(CKR_OK, p11.C_Sign(session, input.data(), sizeOf(input), nullptr, &length));
        Bytes signature(length);
        EXPECT_EQ(CKR_OK,
                  p11.C_Sign(session, input.data(), sizeOf(input), signature.data(), &length));
        return signature;
    }

    CK_RV verify(CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, Bytes input, Bytes signature)
    {
        EXPECT_EQ(CKR_OK, p11.C_VerifyInit(session, &mechanism, key));
        return p11.C_Verify(session, input.data(), sizeOf(input), signature.data(),
                            sizeOf(signature));
    }

    // Encrypts with the public key and decrypts with the private one.
    Bytes roundTrip(CK_MECHANISM mechanism, Bytes input)
    {
        EXPECT_EQ(CKR_OK, p11.C_EncryptInit(session, &mechanism, rsa.publicKey));
        Bytes encrypted(128);
        CK_ULONG length = 128;
        EXPECT_EQ(CKR_OK,
                  p11.C_Encrypt(session, input.data(), sizeOf(input), encrypted.data(), &length));
        EXPECT_EQ(128U, length);
        EXPECT_EQ(CKR_OK, p11.C_DecryptInit(session, &mechanism, rsa.privateKey));
        EXPECT_EQ(CKR_OK, p11.C_Decrypt(session, encrypted.data(), 128, nullptr, &length));
        const CK_ULONG expected = length;
        Bytes decrypted(128);  // never empty: a null buffer would be a length query
        length = 128;
        EXPECT_EQ(CKR_OK, p11.C_Decrypt(session, encrypted.data(), 128, decrypted.data(), &length));
        EXPECT_EQ(expected, length);
        decrypted.resize(length);
        return decrypted;
    }
};

TEST_F(ScriptedTokenTest, RecordsCallsInOrderWithTheirArguments)
{
    token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x00});
    const CK_SESSION_HANDLE session = openSession();
    logIn(session);
    CK_BYTE buffer[20];
    CK_ATTRIBUTE wanted[] = {{CKA_VALUE, nullptr, 0}, {CKA_ID, buffer, 20}};
    p11.C_GetAttributeValue(session, 0xB1, wanted, 2);
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    p11.C_SignInit(session, &mechanism, 0xB1);
    CK_ULONG length = 20;
    CK_BYTE data[] = {0x0F, 0xF0};
    p11.C_Sign(session, data, 2, buffer, &length);
    p11.C_Sign(session, nullptr, 3, nullptr, &length);
    find(session, {{CKA_ID, {0x01, 0xAB}}, flagAttribute(CKA_TOKEN, true)});
    p11.C_Finalize(nullptr);

    const Strings expected{
        "C_Initialize(initArgs=null)",
        "C_OpenSession(slot=52, flags=0x4, application=null, notify=null)",
        "C_Login(session=0x5E55, userType=1, pin=odd-PIN-7391)",
        "C_GetAttributeValue(session=0x5E55, object=0xB1, template={0x11=null,0x102=room[20]})",
        "C_SignInit(session=0x5E55, mechanism=0x1, parameter=null, key=0xB1)",
        "C_Sign(session=0x5E55, data=0FF0, signature=room[20])",
        "C_Sign(session=0x5E55, data=null[3], signature=null)",
        "C_FindObjectsInit(session=0x5E55, template={0x102=01AB,0x1=01})",
        "C_FindObjects(session=0x5E55, max=16, objects=given, count=given)",
        "C_FindObjectsFinal(session=0x5E55)",
        "C_Finalize(reserved=null)"};
    EXPECT_EQ(expected, token.calls());
    EXPECT_EQ((Strings{expected[5], expected[6]}), token.calls("C_Sign"));
    EXPECT_EQ("C_OpenSession", token.callNames()[1]);
    token.clearCalls();
    EXPECT_TRUE(token.calls().empty());
}

TEST_F(ScriptedTokenTest, RecordsNothingWhileItIsSwitchedOffButFaultsStrike)
{
    token.setRecording(false);
    token.fail("C_GetSlotList", CKR_DEVICE_ERROR, 1);
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_DEVICE_ERROR, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
    EXPECT_TRUE(token.calls().empty());
    token.setRecording(true);
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(Strings{"C_Finalize(reserved=null)"}, token.calls());
    token.setRecording(false);
    token.reset();
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_EQ(Strings{"C_Initialize(initArgs=null)"}, token.calls());
    p11.C_Finalize(nullptr);
}

TEST_F(ScriptedTokenTest, RecordsMechanismParametersByContent)
{
    const CK_SESSION_HANDLE session = openSession();
    token.clearCalls();
    CK_BYTE label[] = {0xBE, 0xEF};
    CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA256, CKG_MGF1_SHA256, CKZ_DATA_SPECIFIED, label, 2};
    CK_RSA_PKCS_PSS_PARAMS pss{CKM_SHA_1, CKG_MGF1_SHA1, 20};
    CK_ECDH1_DERIVE_PARAMS ecdh{CKD_NULL, 0, nullptr, 2, label};
    CK_MECHANISM mechanisms[] = {{CKM_RSA_PKCS_OAEP, &oaep, sizeof(oaep)},
                                 {CKM_RSA_PKCS_PSS, &pss, sizeof(pss)},
                                 {CKM_ECDH1_DERIVE, &ecdh, sizeof(ecdh)}};
    p11.C_EncryptInit(session, &mechanisms[0], 7);
    p11.C_SignInit(session, &mechanisms[1], 7);
    p11.C_DeriveKey(session, &mechanisms[2], 7, nullptr, 0, nullptr);
    p11.C_DigestInit(session, nullptr);
    const Strings expected{
        "C_EncryptInit(session=0x5E55, mechanism=0x9, "
        "parameter={hash=0x250,mgf=0x2,source=0x1,sourceData=BEEF}, key=0x7)",
        "C_SignInit(session=0x5E55, mechanism=0xD, parameter=200200000100000014000000, key=0x7)",
        "C_DeriveKey(session=0x5E55, mechanism=0x1050, "
        "parameter={kdf=0x1,sharedData=null,publicData=BEEF}, baseKey=0x7, template=null)",
        "C_DigestInit(session=0x5E55, mechanism=null)"};
    EXPECT_EQ(expected, token.calls());
}

TEST_F(ScriptedTokenTest, RecordsCallsOfManyThreads)
{
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kCalls = 200;
    std::array<std::thread, kThreads> threads;
    for (std::thread& thread : threads)
        thread = std::thread([this] {
            for (uint32_t i = 0; i < kCalls; ++i)
                p11.C_GetInfo(nullptr);
        });
    for (std::thread& thread : threads)
        thread.join();
    std::vector<uint32_t> seen = token.callThreads();
    ASSERT_EQ(kThreads * kCalls, seen.size());
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(kThreads, std::unique(seen.begin(), seen.end()) - seen.begin());
}

TEST_F(ScriptedOperationTest, SignsByPatternAndVerifiesIt)
{
    const CK_MECHANISM raw{CKM_RSA_PKCS, nullptr, 0};
    const CK_MECHANISM hashed{CKM_SHA256_RSA_PKCS, nullptr, 0};
    const CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    const Bytes signature = sign(raw, rsa.privateKey, data);
    EXPECT_EQ(signatureOf(CKM_RSA_PKCS, data, 128), signature);
    EXPECT_NE(signature, sign(hashed, rsa.privateKey, data));
    EXPECT_EQ(signatureOf(CKM_ECDSA, data, 132), sign(ecdsa, ec.privateKey, data));

    EXPECT_EQ(CKR_OK, verify(raw, rsa.publicKey, data, signature));
    Bytes changed = signature;
    changed[77] ^= 1;
    EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(raw, rsa.publicKey, data, changed));
    changed.pop_back();
    EXPECT_EQ(CKR_SIGNATURE_LEN_RANGE, verify(raw, rsa.publicKey, data, changed));
    Bytes otherData = data;
    otherData[2] ^= 0x80;
    EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(raw, rsa.publicKey, otherData, signature));
    EXPECT_EQ(CKR_SIGNATURE_INVALID, verify(hashed, rsa.publicKey, data, signature));
}

TEST_F(ScriptedOperationTest, SmallBufferKeepsTheOperationAndSuccessEndsIt)
{
    CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
    Bytes signature(132);
    CK_ULONG length = 131;
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED,
              p11.C_Sign(session, data.data(), 5, signature.data(), &length));
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &mechanism, ec.privateKey));
    EXPECT_EQ(CKR_OPERATION_ACTIVE, p11.C_SignInit(session, &mechanism, ec.privateKey));
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11.C_Sign(session, data.data(), 5, signature.data(), &length));
    EXPECT_EQ(132U, length);
    EXPECT_EQ(CKR_OK, p11.C_Sign(session, data.data(), 5, signature.data(), &length));
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED,
              p11.C_Sign(session, data.data(), 5, signature.data(), &length));
}

TEST_F(ScriptedOperationTest, RefusesWrongKeysMechanismsAndParameters)
{
    CK_MECHANISM ecdsa{CKM_ECDSA, nullptr, 0};
    EXPECT_EQ(CKR_KEY_TYPE_INCONSISTENT, p11.C_SignInit(session, &ecdsa, rsa.privateKey));
    EXPECT_EQ(CKR_KEY_TYPE_INCONSISTENT, p11.C_SignInit(session, &ecdsa, ec.publicKey));
    EXPECT_EQ(CKR_KEY_HANDLE_INVALID, p11.C_SignInit(session, &ecdsa, 0x1234));
    EXPECT_EQ(CKR_MECHANISM_INVALID, p11.C_EncryptInit(session, &ecdsa, ec.publicKey));
    CK_MECHANISM unknown{CKM_MD5, nullptr, 0};
    EXPECT_EQ(CKR_MECHANISM_INVALID, p11.C_DigestInit(session, &unknown));
    CK_MECHANISM pss{CKM_RSA_PKCS_PSS, nullptr, 0};
    EXPECT_EQ(CKR_MECHANISM_PARAM_INVALID, p11.C_SignInit(session, &pss, rsa.privateKey));
    ASSERT_EQ(CKR_OK, p11.C_Logout(session));
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, p11.C_SignInit(session, &ecdsa, ec.privateKey));
}

TEST_F(ScriptedOperationTest, ChecksTheLengthOfSignedData)
{
    CK_RSA_PKCS_PSS_PARAMS parameters{CKM_SHA256, CKG_MGF1_SHA256, 32};
    const CK_MECHANISM pss{CKM_RSA_PKCS_PSS, &parameters, sizeof(parameters)};
    EXPECT_EQ(128U, sign(pss, rsa.privateKey, Bytes(32, 0x77)).size());
    CK_MECHANISM again = pss;
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &again, rsa.privateKey));
    Bytes signature(128);
    CK_ULONG length = 128;
    EXPECT_EQ(CKR_DATA_LEN_RANGE, p11.C_Sign(session, data.data(), 5, signature.data(), &length));
    CK_MECHANISM raw{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &raw, rsa.privateKey));
    Bytes tooLong(118);
    EXPECT_EQ(CKR_DATA_LEN_RANGE,
              p11.C_Sign(session, tooLong.data(), 118, signature.data(), &length));
}

TEST_F(ScriptedOperationTest, ReadsParametersAgainWhenTold)
{
    token.setParametersReread(true);
    CK_RSA_PKCS_PSS_PARAMS parameters{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_MECHANISM pss{CKM_RSA_PKCS_PSS, &parameters, sizeof(parameters)};
    Bytes hash(32, 0x77);
    Bytes signature(128);
    CK_ULONG length = 128;
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &pss, rsa.privateKey));
    EXPECT_EQ(CKR_OK, p11.C_Sign(session, hash.data(), 32, signature.data(), &length));
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &pss, rsa.privateKey));
    parameters.sLen = 0xFEEE;
    EXPECT_EQ(CKR_MECHANISM_PARAM_INVALID,
              p11.C_Sign(session, hash.data(), 32, signature.data(), &length));
}

TEST_F(ScriptedOperationTest, DecryptionUndoesEncryption)
{
    CK_BYTE label[] = {0x0D, 0xD0};
    CK_RSA_PKCS_OAEP_PARAMS parameters{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, label, 2};
    CK_MECHANISM oaep{CKM_RSA_PKCS_OAEP, &parameters, sizeof(parameters)};
    const CK_MECHANISM pkcs{CKM_RSA_PKCS, nullptr, 0};
    const CK_MECHANISM raw{CKM_RSA_X_509, nullptr, 0};
    EXPECT_EQ(data, roundTrip(pkcs, data));
    EXPECT_EQ(Bytes{}, roundTrip(pkcs, {}));
    EXPECT_EQ(Bytes(117, 0x99), roundTrip(pkcs, Bytes(117, 0x99)));
    EXPECT_EQ(data, roundTrip(oaep, data));
    EXPECT_EQ(Bytes(86, 0x99), roundTrip(oaep, Bytes(86, 0x99)));
    EXPECT_EQ(Bytes(128, 0x12), roundTrip(raw, Bytes(128, 0x12)));

    Bytes encrypted(128);
    CK_ULONG length = 128;
    ASSERT_EQ(CKR_OK, p11.C_EncryptInit(session, &oaep, rsa.publicKey));
    Bytes tooLong(87);
    EXPECT_EQ(CKR_DATA_LEN_RANGE,
              p11.C_Encrypt(session, tooLong.data(), 87, encrypted.data(), &length));
    ASSERT_EQ(CKR_OK, p11.C_EncryptInit(session, &oaep, rsa.publicKey));
    ASSERT_EQ(CKR_OK, p11.C_Encrypt(session, data.data(), 5, encrypted.data(), &length));
    label[1] = 0xD1;
    ASSERT_EQ(CKR_OK, p11.C_DecryptInit(session, &oaep, rsa.privateKey));
    EXPECT_EQ(CKR_ENCRYPTED_DATA_INVALID,
              p11.C_Decrypt(session, encrypted.data(), 128, encrypted.data(), &length));
    ASSERT_EQ(CKR_OK, p11.C_DecryptInit(session, &oaep, rsa.privateKey));
    EXPECT_EQ(CKR_ENCRYPTED_DATA_LEN_RANGE,
              p11.C_Decrypt(session, encrypted.data(), 127, encrypted.data(), &length));
}

TEST_F(ScriptedOperationTest, DigestsAndHmacsDependOnTheirInput)
{
    CK_MECHANISM sha{CKM_SHA384, nullptr, 0};
    Bytes digest(48);
    CK_ULONG length = 48;
    ASSERT_EQ(CKR_OK, p11.C_DigestInit(session, &sha));
    ASSERT_EQ(CKR_OK, p11.C_Digest(session, data.data(), 5, digest.data(), &length));
    EXPECT_EQ(digestOf(CKM_SHA384, data), digest);

    const Bytes key{0x6B, 0x65};
    const CK_OBJECT_HANDLE secret =
        token.addObject({numberAttribute(CKA_CLASS, CKO_SECRET_KEY), {CKA_VALUE, key}});
    const Bytes hmac = sign({CKM_SHA_1_HMAC, nullptr, 0}, secret, data);
    EXPECT_EQ(20U, hmac.size());
    EXPECT_EQ(hmacOf(CKM_SHA_1_HMAC, key, data), hmac);
    EXPECT_NE(hmacOf(CKM_SHA_1_HMAC, data, data), hmac);
}

TEST_F(ScriptedOperationTest, PartsGiveWhatTheWholeGives)
{
    CK_MECHANISM sha{CKM_SHA256, nullptr, 0};
    Bytes output(128);
    CK_ULONG length = 128;
    ASSERT_EQ(CKR_OK, p11.C_DigestInit(session, &sha));
    ASSERT_EQ(CKR_OK, p11.C_DigestUpdate(session, data.data(), 2));
    ASSERT_EQ(CKR_OK, p11.C_DigestUpdate(session, data.data() + 2, 3));
    ASSERT_EQ(CKR_OK, p11.C_DigestFinal(session, output.data(), &length));
    output.resize(length);
    EXPECT_EQ(digestOf(CKM_SHA256, data), output);

    CK_MECHANISM raw{CKM_RSA_PKCS, nullptr, 0};
    output.resize(128);
    length = 128;
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &raw, rsa.privateKey));
    ASSERT_EQ(CKR_OK, p11.C_SignUpdate(session, data.data(), 5));
    ASSERT_EQ(CKR_OK, p11.C_SignFinal(session, output.data(), &length));
    EXPECT_EQ(signatureOf(CKM_RSA_PKCS, data, 128), output);
    ASSERT_EQ(CKR_OK, p11.C_VerifyInit(session, &raw, rsa.publicKey));
    ASSERT_EQ(CKR_OK, p11.C_VerifyUpdate(session, data.data(), 5));
    EXPECT_EQ(CKR_OK, p11.C_VerifyFinal(session, output.data(), 128));
}

TEST_F(ScriptedOperationTest, AgreesOnASecretOfTheCoordinateSize)
{
    Bytes point(133, 0x21);
    point[0] = 0x04;
    CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, 133, point.data()};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof(parameters)};
    CK_OBJECT_HANDLE secret = 0;
    const auto derive = [&] {
        return p11.C_DeriveKey(session, &mechanism, ec.privateKey, nullptr, 0, &secret);
    };
    const auto value = [&] {
        Bytes bytes(100);
        CK_ATTRIBUTE wanted{CKA_VALUE, bytes.data(), 100};
        EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, secret, &wanted, 1));
        bytes.resize(wanted.ulValueLen);
        return bytes;
    };
    ASSERT_EQ(CKR_OK, derive());
    EXPECT_EQ(repeated(kSecretPattern, 66), value());
    token.setSecretPattern({0x0A, 0x0B});
    ASSERT_EQ(CKR_OK, derive());
    EXPECT_EQ(repeated(Bytes{0x0A, 0x0B}, 66), value());

    parameters.ulPublicDataLen = 132;
    EXPECT_EQ(CKR_MECHANISM_PARAM_INVALID, derive());
    EXPECT_EQ(CKR_KEY_TYPE_INCONSISTENT,
              p11.C_DeriveKey(session, &mechanism, rsa.privateKey, nullptr, 0, &secret));
}

// The functions that the tests above do not call; each is called once and succeeds.
TEST_F(ScriptedOperationTest, AnswersTheOtherFunctionsWithFixedOutput)
{
    Bytes out(128);
    CK_ULONG length = 128;
    CK_OBJECT_HANDLE made = 0;
    CK_OBJECT_HANDLE madeToo = 0;
    CK_MECHANISM raw{CKM_RSA_PKCS, nullptr, 0};
    CK_MECHANISM generate{CKM_GENERIC_SECRET_KEY_GEN, nullptr, 0};
    CK_MECHANISM generatePair{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    CK_MECHANISM sha{CKM_SHA256, nullptr, 0};
    std::string pin{kPin};
    const auto room = [&] {
        length = 128;
        return &length;
    };
    const auto dualOutputs = [&](auto function) {
        EXPECT_EQ(CKR_OK, function(session, data.data(), 5, out.data(), room()));
        EXPECT_TRUE(std::equal(std::begin(kDualOutput), std::end(kDualOutput), out.begin()));
        EXPECT_EQ(std::size(kDualOutput), length);
    };

    EXPECT_EQ(CKR_OK, p11.C_InitPIN(session, bytesOf(pin), 12));
    EXPECT_EQ(CKR_OK, p11.C_SetPIN(session, bytesOf(pin), 12, bytesOf(pin), 12));
    EXPECT_EQ(CKR_OK, p11.C_GetOperationState(session, out.data(), room()));
    EXPECT_EQ(std::size(kOperationState), length);
    EXPECT_EQ(CKR_OK, p11.C_SetOperationState(session, out.data(), length, 0, 0));
    EXPECT_EQ(CKR_OK, p11.C_CopyObject(session, rsa.publicKey, nullptr, 0, &made));
    CK_BYTE newId[] = {0x5A, 0x5B};
    CK_ATTRIBUTE change{CKA_ID, newId, 2};
    EXPECT_EQ(CKR_OK, p11.C_SetAttributeValue(session, made, &change, 1));
    EXPECT_EQ((Handles{made}), find(session, {{CKA_ID, {0x5A, 0x5B}}}));
    EXPECT_EQ(CKR_OK, p11.C_GetObjectSize(session, made, room()));
    // class, type, token, private, id, modulus, exponent, modulus bits
    EXPECT_EQ(13U + 4 + 4 + 1 + 1 + 2 + 128 + 3 + 4, length);
    EXPECT_EQ(CKR_OK, p11.C_DestroyObject(session, made));

    EXPECT_EQ(CKR_OK, p11.C_EncryptInit(session, &raw, rsa.publicKey));
    EXPECT_EQ(CKR_OK, p11.C_EncryptUpdate(session, data.data(), 5, out.data(), room()));
    EXPECT_EQ(CKR_OK, p11.C_EncryptFinal(session, out.data(), room()));
    EXPECT_EQ(CKR_OK, p11.C_DecryptInit(session, &raw, rsa.privateKey));
    Bytes decrypted(128);
    EXPECT_EQ(CKR_OK, p11.C_DecryptUpdate(session, out.data(), 128, decrypted.data(), room()));
    EXPECT_EQ(0U, length);
    EXPECT_EQ(CKR_OK, p11.C_DecryptFinal(session, decrypted.data(), room()));
    decrypted.resize(length);
    EXPECT_EQ(data, decrypted);

    EXPECT_EQ(CKR_OK, p11.C_GenerateKey(session, &generate, nullptr, 0, &made));
    EXPECT_EQ(CKR_OK, p11.C_DigestInit(session, &sha));
    EXPECT_EQ(CKR_OK, p11.C_DigestKey(session, made));
    EXPECT_EQ(CKR_OK, p11.C_DigestFinal(session, out.data(), room()));
    EXPECT_EQ(CKR_OK, p11.C_SignRecoverInit(session, &raw, rsa.privateKey));
    EXPECT_EQ(CKR_OK, p11.C_SignRecover(session, data.data(), 5, out.data(), room()));
    EXPECT_EQ(CKR_OK, p11.C_VerifyRecoverInit(session, &raw, rsa.publicKey));
    EXPECT_EQ(CKR_OK, p11.C_VerifyRecover(session, data.data(), 5, out.data(), room()));
    EXPECT_EQ(std::size(kRecoveredData), length);
    dualOutputs(p11.C_DigestEncryptUpdate);
    dualOutputs(p11.C_DecryptDigestUpdate);
    dualOutputs(p11.C_SignEncryptUpdate);
    dualOutputs(p11.C_DecryptVerifyUpdate);

    EXPECT_EQ(CKR_OK, p11.C_GenerateKeyPair(session, &generatePair, nullptr, 0, nullptr, 0, &made,
                                            &madeToo));
    EXPECT_NE(made, madeToo);
    EXPECT_EQ(CKR_OK, p11.C_WrapKey(session, &raw, made, madeToo, out.data(), room()));
    EXPECT_EQ(std::size(kWrappedKey), length);
    EXPECT_EQ(CKR_OK,
              p11.C_UnwrapKey(session, &raw, made, out.data(), length, nullptr, 0, &madeToo));
    EXPECT_EQ(CKR_OK, p11.C_SeedRandom(session, data.data(), 5));
    EXPECT_EQ(CKR_OK, p11.C_GenerateRandom(session, out.data(), 128));
    EXPECT_EQ(pattern(kRandomTag, {}, 128), out);
    EXPECT_EQ(CKR_OK, p11.C_GetFunctionStatus(session));
    EXPECT_EQ(CKR_OK, p11.C_CancelFunction(session));
    CK_SLOT_ID slot = 0;
    EXPECT_EQ(CKR_OK, p11.C_WaitForSlotEvent(0, &slot, nullptr));
    EXPECT_EQ(kSlot, slot);
    std::string label(32, ' ');
    EXPECT_EQ(CKR_SESSION_EXISTS, p11.C_InitToken(kSlot, bytesOf(pin), 12, bytesOf(label)));
    EXPECT_EQ(CKR_OK, p11.C_CloseAllSessions(kSlot));
    EXPECT_EQ(CKR_OK, p11.C_InitToken(kSlot, bytesOf(pin), 12, bytesOf(label)));
}

}  // namespace

}  // namespace NV::test
