// Tests p11bridge.dll with SoftHSM2: mechanisms and their parameters, and operations. OpenSSL on
// the host verifies the results.

#include <algorithm>

#include "bridge_fixture.h"

using namespace NV::test;

namespace {

Bytes sequence(size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<CK_BYTE>(i * 7 + 1);
    return bytes;
}

}  // namespace

TEST_F(Bridge, SignsWithPkcs1)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    const Bytes data = sequence(100);
    writeFile("data", data);
    writeFile("signature", sign({CKM_SHA256_RSA_PKCS, nullptr, 0}, data));
    EXPECT_EQ(0, host::run("openssl x509 -in " + unixFile("token/keys/rsa2048.crt.pem") +
                           " -noout -pubkey > " + unixFile("public.pem") +
                           " && openssl dgst -sha256 -verify " + unixFile("public.pem") +
                           " -signature " + unixFile("signature") + " " + unixFile("data") +
                           " > /dev/null"));
}

TEST_F(Bridge, SignsWithPss)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    CK_RSA_PKCS_PSS_PARAMS parameter{CKM_SHA256, CKG_MGF1_SHA256, 20};
    const Bytes digest = sequence(32);
    writeFile("digest", digest);
    writeFile("signature", sign({CKM_RSA_PKCS_PSS, &parameter, sizeof(parameter)}, digest));
    const std::string verify =
        "openssl pkeyutl -verify -certin -inkey " + unixFile("token/keys/rsa2048.crt.pem") +
        " -in " + unixFile("digest") + " -sigfile " + unixFile("signature") +
        " -pkeyopt digest:sha256 -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:";
    EXPECT_EQ(0, host::run(verify + "20 > /dev/null"));
    EXPECT_NE(0, host::run(verify + "32 > /dev/null 2>&1"))
        << "the salt length is not carried over";

    CK_MECHANISM wrong{CKM_RSA_PKCS_PSS, &parameter, sizeof(parameter) - 1};
    EXPECT_EQ(CKR_MECHANISM_PARAM_INVALID,
              p11->C_SignInit(session, &wrong, findOne(CKO_PRIVATE_KEY, rsaId)));
}

TEST_F(Bridge, OutputStaysInsideTheCallersLength)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(CKR_OK, p11->C_SignInit(session, &mechanism, findOne(CKO_PRIVATE_KEY, rsaId)));
    Bytes data = sequence(20);
    Bytes room(300, 0x55);
    CK_ULONG length = 255;
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL,
              p11->C_Sign(session, data.data(), sizeOf(data), room.data(), &length));
    EXPECT_EQ(256U, length);
    EXPECT_EQ(Bytes(300, 0x55), room);
    ASSERT_EQ(CKR_OK, p11->C_Sign(session, data.data(), sizeOf(data), room.data(), &length));
    EXPECT_EQ(256U, length);
    EXPECT_EQ(44, std::count(room.begin() + 256, room.end(), 0x55));
}

// SoftHSM2 supports OAEP with SHA-1 only.
TEST_F(Bridge, EncryptsAndDecryptsWithOaep)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    CK_RSA_PKCS_OAEP_PARAMS parameter{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
    CK_MECHANISM mechanism{CKM_RSA_PKCS_OAEP, &parameter, sizeof(parameter)};
    Bytes plain = sequence(60);

    Bytes encrypted(256);
    CK_ULONG length = sizeOf(encrypted);
    ASSERT_EQ(CKR_OK, p11->C_EncryptInit(session, &mechanism, findOne(CKO_PUBLIC_KEY, rsaId)));
    ASSERT_EQ(CKR_OK,
              p11->C_Encrypt(session, plain.data(), sizeOf(plain), encrypted.data(), &length));
    ASSERT_EQ(256U, length);
    writeFile("encrypted", encrypted);
    const std::string oaep = " -pkeyopt rsa_padding_mode:oaep -in ";
    EXPECT_EQ(plain,
              outputOf("openssl pkeyutl -decrypt -inkey " + unixFile("token/keys/rsa2048.key.pem") +
                       oaep + unixFile("encrypted")));

    writeFile("plain", plain);
    Bytes fromHost = outputOf("openssl pkeyutl -encrypt -certin -inkey " +
                              unixFile("token/keys/rsa2048.crt.pem") + oaep + unixFile("plain"));
    ASSERT_EQ(256U, fromHost.size());
    Bytes decrypted(256);
    length = sizeOf(decrypted);
    ASSERT_EQ(CKR_OK, p11->C_DecryptInit(session, &mechanism, findOne(CKO_PRIVATE_KEY, rsaId)));
    ASSERT_EQ(CKR_OK, p11->C_Decrypt(session, fromHost.data(), sizeOf(fromHost), decrypted.data(),
                                     &length));
    decrypted.resize(length);
    EXPECT_EQ(plain, decrypted);

    parameter.hashAlg = CKM_SHA256;
    EXPECT_EQ(CKR_ARGUMENTS_BAD,
              p11->C_EncryptInit(session, &mechanism, findOne(CKO_PUBLIC_KEY, rsaId)))
        << "SoftHSM2 sees another hash";
}

TEST_F(Bridge, DerivesWithEcdh)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    const std::string peer = unixFile("peer.pem");
    ASSERT_EQ(0, host::run("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out " +
                           peer));
    // The point is at the end of the DER form of the public key.
    Bytes point = outputOf("openssl pkey -in " + peer + " -pubout -outform DER | tail -c 65");
    ASSERT_EQ(65U, point.size());

    CK_ECDH1_DERIVE_PARAMS parameter{CKD_NULL, 0, nullptr, sizeOf(point), point.data()};
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameter, sizeof(parameter)};
    CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    CK_KEY_TYPE type = CKK_GENERIC_SECRET;
    CK_ULONG size = 32;
    CK_BBOOL no = CK_FALSE;
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                                 {CKA_KEY_TYPE, &type, sizeof(type)},
                                 {CKA_VALUE_LEN, &size, sizeof(size)},
                                 {CKA_SENSITIVE, &no, sizeof(no)},
                                 {CKA_EXTRACTABLE, &yes, sizeof(yes)}};
    CK_OBJECT_HANDLE secret = 0;
    ASSERT_EQ(CKR_OK, p11->C_DeriveKey(session, &mechanism, findOne(CKO_PRIVATE_KEY, ecId),
                                       attributes, 5, &secret));
    const Bytes expected =
        outputOf("openssl pkey -in " + peer + " -pubout -out " + unixFile("peer-public.pem") +
                 " && openssl pkeyutl -derive -inkey " + unixFile("token/keys/p256.key.pem") +
                 " -peerkey " + unixFile("peer-public.pem"));
    EXPECT_EQ(32U, expected.size());
    EXPECT_EQ(expected, attribute(secret, CKA_VALUE));
}

TEST_F(Bridge, ByteParametersPassAndUnknownOnesAreRefused)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    Bytes value = sequence(16);
    CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    CK_KEY_TYPE type = 0x1F;  // CKK_AES
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                                 {CKA_KEY_TYPE, &type, sizeof(type)},
                                 {CKA_VALUE, value.data(), sizeOf(value)}};
    CK_OBJECT_HANDLE key = 0;
    ASSERT_EQ(CKR_OK, p11->C_CreateObject(session, attributes, 3, &key));

    Bytes iv(16, 0x11);
    Bytes plain = sequence(32);
    CK_MECHANISM cbc{CKM_AES_CBC, iv.data(), sizeOf(iv)};
    Bytes encrypted(32);
    CK_ULONG length = sizeOf(encrypted);
    ASSERT_EQ(CKR_OK, p11->C_EncryptInit(session, &cbc, key));
    ASSERT_EQ(CKR_OK,
              p11->C_Encrypt(session, plain.data(), sizeOf(plain), encrypted.data(), &length));
    writeFile("plain", plain);
    EXPECT_EQ(outputOf("openssl enc -aes-128-cbc -nopad -K 01080f161d242b323940474e555c636a"
                       " -iv 11111111111111111111111111111111 -in " +
                       unixFile("plain")),
              encrypted);

    CK_BYTE structure[64] = {};
    for (const CK_MECHANISM_TYPE mechanism : {CKM_AES_CTR, CKM_AES_GCM, CKM_RC2_CBC}) {
        CK_MECHANISM refused{mechanism, structure, sizeof(structure)};
        EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, p11->C_EncryptInit(session, &refused, key));
    }
}

TEST_F(Bridge, DigestsInParts)
{
    CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
    Bytes data = sequence(1000);
    ASSERT_EQ(CKR_OK, p11->C_DigestInit(session, &mechanism));
    ASSERT_EQ(CKR_OK, p11->C_DigestUpdate(session, data.data(), 400));
    ASSERT_EQ(CKR_OK, p11->C_DigestUpdate(session, data.data() + 400, 600));
    Bytes digest(32);
    CK_ULONG length = sizeOf(digest);
    ASSERT_EQ(CKR_OK, p11->C_DigestFinal(session, digest.data(), &length));
    writeFile("data", data);
    EXPECT_EQ(outputOf("openssl dgst -sha256 -binary " + unixFile("data")), digest);
}

TEST_F(Bridge, GeneratesAKeyPair)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    CK_MECHANISM mechanism{CKM_EC_KEY_PAIR_GEN, nullptr, 0};
    Bytes curve{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};  // P-384
    CK_BBOOL no = CK_FALSE;
    CK_ATTRIBUTE publicKey[] = {{CKA_EC_PARAMS, curve.data(), sizeOf(curve)},
                                {CKA_TOKEN, &no, sizeof(no)}};
    CK_ATTRIBUTE privateKey[] = {{CKA_TOKEN, &no, sizeof(no)}};
    CK_OBJECT_HANDLE publicHandle = 0;
    CK_OBJECT_HANDLE privateHandle = 0;
    ASSERT_EQ(CKR_OK, p11->C_GenerateKeyPair(session, &mechanism, publicKey, 2, privateKey, 1,
                                             &publicHandle, &privateHandle));
    EXPECT_NE(publicHandle, privateHandle);
    EXPECT_EQ(2 + 97U, attribute(publicHandle, CKA_EC_POINT).size());
    EXPECT_EQ((Bytes{0x40, 0x10, 0, 0}), attribute(privateHandle, CKA_KEY_GEN_MECHANISM));
}
