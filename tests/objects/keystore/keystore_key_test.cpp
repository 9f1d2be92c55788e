// What RSA and EC key objects share: members, copies, properties, and what is not supported.

#include <algorithm>
#include <chrono>
#include <thread>

#include "base/secret.h"
#include "key_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class KeyObjectTest : public KeyTest {
protected:
    static void waitForNextMillisecond()
    {
        const uint32_t now = creationStamp();
        while (creationStamp() == now)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
};

}  // namespace

TEST_F(KeyObjectTest, defaultRsaKeyIsEmptyAndNamesItsAlgorithm)
{
    const P11RSAKeyObject key;
    EXPECT_EQ("RSA", key.algorithm());
    EXPECT_EQ(0U, key.slotId());
    EXPECT_EQ(0U, key.keyLength());
    EXPECT_TRUE(key.keyId().empty());
    EXPECT_TRUE(key.publicKey().empty());
    EXPECT_TRUE(key.algorithmOid().empty());
    EXPECT_TRUE(key.properties().empty());
    expectBlock(log.takeLines(), R"(
TRC NV::P11KeyObject::P11KeyObject:ENTER
TRC NV::P11KeyObject::P11KeyObject:LEAVE
TRC NV::P11RSAKeyObject::P11RSAKeyObject:ENTER
TRC NV::P11RSAKeyObject::P11RSAKeyObject:LEAVE
)");
}

TEST_F(KeyObjectTest, defaultEcKeyNamesItsAlgorithm)
{
    const P11ECKeyObject key;
    EXPECT_EQ("ECDSA", key.algorithm());
    expectBlock(log.takeLines(), R"(
TRC NV::P11KeyObject::P11KeyObject:ENTER
TRC NV::P11KeyObject::P11KeyObject:LEAVE
TRC NV::P11ECKeyObject::P11ECKeyObject:ENTER
TRC NV::P11ECKeyObject::P11ECKeyObject:LEAVE
)");
}

TEST_F(KeyObjectTest, destructionIsTraced)
{
    rsa.reset();
    expectBlock(log.takeLines(), R"(
TRC NV::P11KeyObject::~P11KeyObject:ENTER
TRC NV::P11KeyObject::~P11KeyObject:LEAVE
)");
}

TEST_F(KeyObjectTest, addPropertyLogsArgumentsAndCount)
{
    constexpr DWORD value = 3;
    rsa->addProperty(L"Key Usage", &value, sizeof value);
    rsa->addProperty(L"Impl Type", &value, sizeof value);
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_key/add_property_logs_arguments_and_count");
    ASSERT_NE(nullptr, rsa->findProperty(L"Key Usage"));
    EXPECT_EQ((SecretBytes{3, 0, 0, 0}), rsa->findProperty(L"Key Usage")->value());
    EXPECT_EQ(0U, rsa->findProperty(L"Key Usage")->type());
}

TEST_F(KeyObjectTest, addPropertyWithoutDataAddsNothing)
{
    rsa->addProperty(L"Key Usage", nullptr, 4);
    EXPECT_TRUE(rsa->properties().empty());
    EXPECT_EQ("Failed to allocate memory\n", messages(log.takeLines(), "ERR"));
}

TEST_F(KeyObjectTest, addPropertyOfSizeBelowOneAddsNothing)
{
    constexpr DWORD value = 3;
    for (const int32_t size : {0, -1, INT32_MIN}) {
        rsa->addProperty(L"Key Usage", &value, size);
        EXPECT_TRUE(rsa->properties().empty());
        EXPECT_EQ("Failed to allocate memory\n", messages(log.takeLines(), "ERR"));
    }
}

TEST_F(KeyObjectTest, addPropertyOfAPresentNameKeepsTheFirstValue)
{
    constexpr DWORD first = 1;
    constexpr DWORD second = 2;
    rsa->addProperty(L"Key Usage", &first, sizeof first);
    rsa->addProperty(L"Key Usage", &second, sizeof second);
    EXPECT_EQ(1U, rsa->properties().size());
    EXPECT_EQ((SecretBytes{1, 0, 0, 0}), rsa->findProperty(L"Key Usage")->value());
    EXPECT_EQ("", messages(log.takeLines(), "ERR"));
}

TEST_F(KeyObjectTest, propertyNamesAreCaseSensitive)
{
    constexpr DWORD value = 1;
    rsa->addProperty(L"Name", &value, sizeof value);
    EXPECT_EQ(nullptr, rsa->findProperty(L"name"));
    EXPECT_NE(nullptr, rsa->findProperty(L"Name"));
}

TEST_F(KeyObjectTest, copyHasAllMembersAndProperties)
{
    constexpr DWORD value = 3;
    ec->addProperty(L"Key Usage", &value, sizeof value);
    ec->addProperty(L"Export Policy", &value, sizeof value);
    log.takeLines();
    const P11ECKeyObject copy(static_cast<const P11ECKeyObject&>(*ec));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_key/copy_has_all_members_and_properties");
    EXPECT_EQ(kSlot, copy.slotId());
    EXPECT_EQ(L"0256", copy.keyId());
    EXPECT_EQ("ECDSA", copy.algorithm());
    EXPECT_EQ(ec->publicKey(), copy.publicKey());
    EXPECT_EQ(L"1.2.840.10045.2.1", copy.algorithmOid());
    EXPECT_EQ(256U, copy.keyLength());
    EXPECT_EQ(2U, copy.properties().size());
    EXPECT_EQ(&ec->findProperty(L"Key Usage")->value(), &copy.findProperty(L"Key Usage")->value());
}

TEST_F(KeyObjectTest, copyWithoutPropertiesSaysNothingOfThem)
{
    const P11RSAKeyObject copy(static_cast<const P11RSAKeyObject&>(*rsa));
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_key/copy_without_properties_says_nothing_of_them");
}

TEST_F(KeyObjectTest, copyTakesANewStamp)
{
    waitForNextMillisecond();
    const P11RSAKeyObject copy(static_cast<const P11RSAKeyObject&>(*rsa));
    EXPECT_NE(rsa->stamp(), copy.stamp());
}

TEST_F(KeyObjectTest, destructionOfACloneThatNobodyGotLeavesTheSourcesProperties)
{
    constexpr DWORD value = 3;
    rsa->addProperty(L"Key Usage", &value, sizeof value);
    std::make_unique<P11RSAKeyObject>(static_cast<const P11RSAKeyObject&>(*rsa)).reset();
    EXPECT_EQ(sizeof value, rsa->findProperty(L"Key Usage")->value().size());
}

TEST_F(KeyObjectTest, destructionOfACloneEmptiesTheSourcesProperties)
{
    constexpr DWORD value = 3;
    rsa->addProperty(L"Key Usage", &value, sizeof value);
    rsa->addProperty(L"Export Policy", &value, sizeof value);
    {
        P11RSAKeyObject clone(static_cast<const P11RSAKeyObject&>(*rsa));
        clone.setEmptiesValues(true);
    }
    EXPECT_EQ(2U, rsa->properties().size());
    for (const auto& [name, property] : rsa->properties())
        EXPECT_TRUE(property->value().empty());
}

TEST_F(KeyObjectTest, signatureLengthOfRsaIsTheModulusInWholeBytes)
{
    EXPECT_EQ(256U, rsa->signatureLength());
    rsa->setKeyLength(1024);
    EXPECT_EQ(128U, rsa->signatureLength());
    rsa->setKeyLength(2047);
    EXPECT_EQ(256U, rsa->signatureLength());
}

TEST_F(KeyObjectTest, signatureLengthOfEcIsTwiceTheCoordinate)
{
    EXPECT_EQ(64U, ec->signatureLength());
    ec->setKeyLength(384);
    EXPECT_EQ(96U, ec->signatureLength());
    ec->setKeyLength(521);
    EXPECT_EQ(132U, ec->signatureLength());
}

TEST_F(KeyObjectTest, rsaDoesNotAgreeSecrets)
{
    BYTE peer[] = {4, 1, 2};
    NCRYPT_SECRET_HANDLE secret = 0xEE;
    EXPECT_EQ(SECURITY_STATUS{NTE_NOT_SUPPORTED},
              rsa->secretAgreement(&p11, peer, sizeof peer, &secret, pin()));
    EXPECT_EQ(0xEEU, secret);
    EXPECT_TRUE(token.calls().empty());
    const LogLines lines = log.takeLines();
    ASSERT_EQ(8U, lines.size());
    EXPECT_EQ("RSA_secretAgreement NOT supported yet!!", lines[6].message);
    EXPECT_EQ("NV::P11RSAKeyObject::secretAgreement", lines[6].function);
}

TEST_F(KeyObjectTest, ecDoesNotEncryptAndLeavesTheTokenAlone)
{
    Bytes input = someBytes(3);
    Bytes output(9, 0xEE);
    DWORD length = 0xEE;
    BCRYPT_PKCS1_PADDING_INFO info{L"SHA1"};
    EXPECT_EQ(SECURITY_STATUS{NTE_NOT_SUPPORTED},
              ec->encrypt(&p11, &info, input.data(), 3, output.data(), 9, &length, 0x2));
    EXPECT_TRUE(token.calls().empty());
    EXPECT_EQ(0xEEU, length);
    EXPECT_EQ(Bytes(9, 0xEE), output);
    expectTrace(log.takeLines(),
                "objects/keystore/keystore_key/ec_does_not_encrypt_and_leaves_the_token_alone");
}

TEST_F(KeyObjectTest, ecDoesNotDecryptAndLogsOnlyTheLengthOfThePin)
{
    Bytes input = someBytes(3);
    DWORD length = 0xEE;
    EXPECT_EQ(SECURITY_STATUS{NTE_NOT_SUPPORTED},
              ec->decrypt(&p11, nullptr, input.data(), 3, nullptr, 0, &length, 0x1, pin()));
    EXPECT_TRUE(token.calls().empty());
    EXPECT_EQ(0xEEU, length);
    expectTrace(
        log.takeLines(),
        "objects/keystore/keystore_key/ec_does_not_decrypt_and_logs_only_the_length_of_the_pin");
}

}  // namespace NV::test
