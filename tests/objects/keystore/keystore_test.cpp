// Filing, cloning and deleting key objects, and the seven properties of each key.

#include "key_store_fixture.h"
#include "trace_file.h"

namespace NV::test {

TEST_F(KeyStoreTest, addPublicKeyFilesAnRsaKeyWithItsMembers)
{
    EXPECT_TRUE(addRsa(L"01AB"));
    ASSERT_EQ(1U, store.keyCount());
    const P11KeyObject* key = store.keyAt(0);
    ASSERT_NE(nullptr, key);
    EXPECT_EQ(L"01AB", key->keyId());
    EXPECT_EQ("RSA", key->algorithm());
    EXPECT_EQ(kSlot, key->slotId());
    EXPECT_EQ(L"1.2.840.113549.1.1.1", key->algorithmOid());
    EXPECT_EQ("AAEC", key->publicKey());
    EXPECT_EQ(2048U, key->keyLength());
    EXPECT_NE(nullptr, dynamic_cast<const P11RSAKeyObject*>(key));
}

TEST_F(KeyStoreTest, addPublicKeyFilesAnEcKey)
{
    EXPECT_TRUE(addEc(L"0256", 256));
    const P11KeyObject* key = store.keyAt(0);
    ASSERT_NE(nullptr, key);
    EXPECT_EQ("ECDSA", key->algorithm());
    EXPECT_NE(nullptr, dynamic_cast<const P11ECKeyObject*>(key));
}

TEST_F(KeyStoreTest, addPublicKeyIsTraced)
{
    addEc(L"0256", 256);
    const LogLines lines = log.takeLines();
    expectTrace(ofFunction(lines, "NV::KeyStore::addPublicKey"),
                "objects/keystore/keystore/add_public_key_is_traced");
    addRsa(L"01AB");
    EXPECT_TRUE(
        hasLine(log.takeLines(), "DBG NV::KeyStore::addPublicKey:Generate P11RSAKeyObject"));
}

TEST_F(KeyStoreTest, propertiesAreAddedInTheirOrder)
{
    addRsa(L"01AB");
    std::string order;
    for (const LogLine& line : ofFunction(log.takeLines(), "NV::P11KeyObject::addProperty")) {
        if (line.message.starts_with("ARG[0]:id = ") || line.message.starts_with("ARG[2]:"))
            order += line.message.substr(7) + "\n";
    }
    const std::string name = std::to_string(sizeof L"01AB");
    const std::string rsa = std::to_string(sizeof L"RSA");
    EXPECT_EQ(
        "id = Name\nsize = " + name + "\nid = Unique Name\nsize = " + name +
            "\nid = Key Usage\nsize = 4\nid = Impl Type\nsize = 4\nid = Algorithm Name\nsize = " +
            rsa + "\nid = Algorithm Group\nsize = " + rsa + "\nid = Export Policy\nsize = 4\n",
        order);
}

TEST_F(KeyStoreTest, rsaKeyHasItsSevenProperties)
{
    addRsa(L"01AB");
    const P11KeyObject& key = *store.keyAt(0);
    EXPECT_EQ(7U, key.properties().size());
    EXPECT_EQ(text(L"01AB"), value(key, L"Name"));
    EXPECT_EQ(text(L"01AB"), value(key, L"Unique Name"));
    EXPECT_EQ((Bytes{3, 0, 0, 0}), value(key, L"Key Usage"));
    EXPECT_EQ((Bytes{1, 0, 0, 0}), value(key, L"Impl Type"));
    EXPECT_EQ(text(L"RSA"), value(key, L"Algorithm Name"));
    EXPECT_EQ(text(L"RSA"), value(key, L"Algorithm Group"));
    EXPECT_EQ((Bytes{0, 0, 0, 0}), value(key, L"Export Policy"));
    for (const auto& [name, property] : key.properties())
        EXPECT_EQ(0U, property->type());
}

TEST_F(KeyStoreTest, ecKeyIsNamedByItsLength)
{
    const std::pair<uint32_t, const wchar_t*> rows[] = {
        {256, L"ECDSA_P256"}, {384, L"ECDSA_P384"}, {521, L"ECDSA_P521"}, {255, L"ECDSA"},
        {0, L"ECDSA"},        {512, L"ECDSA"},      {520, L"ECDSA"},
    };
    for (const auto& [bits, name] : rows) {
        const std::wstring id = std::to_wstring(bits);
        ASSERT_TRUE(addEc(id, bits));
        const NCRYPT_KEY_HANDLE handle = store.open(id);
        const P11KeyObject* key = store.findOpened(handle);
        ASSERT_NE(nullptr, key);
        EXPECT_EQ(text(name), value(*key, L"Algorithm Name")) << bits;
        EXPECT_EQ(text(L"ECDSA"), value(*key, L"Algorithm Group"));
        EXPECT_EQ((Bytes{3, 0, 0, 0}), value(*key, L"Key Usage"));
        EXPECT_EQ((Bytes{1, 0, 0, 0}), value(*key, L"Impl Type"));
        EXPECT_EQ((Bytes{0, 0, 0, 0}), value(*key, L"Export Policy"));
        EXPECT_EQ(text(id), value(*key, L"Unique Name"));
        EXPECT_EQ("ECDSA", key->algorithm());
    }
}

TEST_F(KeyStoreTest, rsaKeyOfACurvesLengthIsStillNamedRsa)
{
    store.addPublicKey(slot, L"0256", L"1.2.840.113549.1.1.1", "AAEC", 256);
    EXPECT_EQ(text(L"RSA"), value(*store.keyAt(0), L"Algorithm Name"));
}

TEST_F(KeyStoreTest, anyOtherAlgorithmIsNotFiledAndNoErrorIsLogged)
{
    for (const wchar_t* oid : {L"", L"1.3.101.112", L"1.2.840.113549.1.1.11", L"1.2.840.10045.2",
                               L"1.2.840.113549.1.1.1 "}) {
        EXPECT_FALSE(store.addPublicKey(slot, L"01AB", oid, "AAEC", 1024));
        const LogLines lines = log.takeLines();
        EXPECT_EQ("", messages(lines, "ERR"));
        EXPECT_EQ(7U, lines.size());
        EXPECT_EQ("LEAVE", lines.back().message);
    }
    EXPECT_EQ(0U, store.keyCount());
}

TEST_F(KeyStoreTest, secondKeyOfANameIsNotFiledAndTheCallSucceeds)
{
    EXPECT_TRUE(addRsa(L"01AB"));
    EXPECT_TRUE(addEc(L"01AB", 256));
    EXPECT_EQ(1U, store.keyCount());
    EXPECT_EQ("RSA", store.keyAt(0)->algorithm());
    EXPECT_EQ(text(L"RSA"), value(*store.keyAt(0), L"Algorithm Group"));
}

TEST_F(KeyStoreTest, keysAreInTheOrderOfTheirNames)
{
    for (const wchar_t* name : {L"B1", L"0A", L"B10", L""})
        addRsa(name);
    ASSERT_EQ(4U, store.keyCount());
    EXPECT_EQ(L"", store.keyAt(0)->keyId());
    EXPECT_EQ(L"0A", store.keyAt(1)->keyId());
    EXPECT_EQ(L"B1", store.keyAt(2)->keyId());
    EXPECT_EQ(L"B10", store.keyAt(3)->keyId());
    EXPECT_EQ(nullptr, store.keyAt(4));
    EXPECT_EQ(nullptr, store.keyAt(SIZE_MAX));
}

TEST_F(KeyStoreTest, positionsFollowWhatIsAddedBetweenTwoLooks)
{
    addRsa(L"B1");
    addRsa(L"D1");
    EXPECT_EQ(L"D1", store.keyAt(1)->keyId());
    addRsa(L"A1");
    EXPECT_EQ(L"B1", store.keyAt(1)->keyId());
    store.open(L"B0");
    EXPECT_EQ(nullptr, store.keyAt(1));
    EXPECT_EQ(L"B1", store.keyAt(2)->keyId());
    // Neither a look at a known name nor a clone's end is an addition.
    store.close(store.open(L"D1"));
    EXPECT_EQ(L"D1", store.keyAt(3)->keyId());
    EXPECT_EQ(nullptr, store.keyAt(4));
}

TEST_F(KeyStoreTest, openGivesACloneOfAnRsaKey)
{
    addRsa(L"01AB");
    log.takeLines();
    const NCRYPT_KEY_HANDLE handle = store.open(L"01AB");
    const LogLines lines = log.takeLines();
    expectTrace(ofFunction(lines, "NV::KeyStore::open"),
                "objects/keystore/keystore/open_gives_a_clone_of_an_rsa_key");
    EXPECT_TRUE(hasLine(lines, "TRC NV::P11KeyObject::P11KeyObject:Copy all the properties (7)"));
    P11KeyObject* clone = store.findOpened(handle);
    EXPECT_EQ(handle, reinterpret_cast<NCRYPT_KEY_HANDLE>(clone));
    EXPECT_NE(store.keyAt(0), clone);
    EXPECT_NE(nullptr, dynamic_cast<P11RSAKeyObject*>(clone));
    EXPECT_EQ(L"01AB", clone->keyId());
}

TEST_F(KeyStoreTest, openGivesACloneOfAnEcKey)
{
    addEc(L"0256", 256);
    log.takeLines();
    const NCRYPT_KEY_HANDLE handle = store.open(L"0256");
    expectTrace(ofFunction(log.takeLines(), "NV::KeyStore::open"),
                "objects/keystore/keystore/open_gives_a_clone_of_an_ec_key");
    EXPECT_NE(nullptr, dynamic_cast<P11ECKeyObject*>(store.findOpened(handle)));
}

TEST_F(KeyStoreTest, everyOpenGivesACloneOfItsOwn)
{
    addRsa(L"01AB");
    const NCRYPT_KEY_HANDLE first = store.open(L"01AB");
    const NCRYPT_KEY_HANDLE second = store.open(L"01AB");
    EXPECT_NE(first, second);
    EXPECT_TRUE(store.close(first));
    EXPECT_EQ(nullptr, store.findOpened(first));
    EXPECT_NE(nullptr, store.findOpened(second));
}

TEST_F(KeyStoreTest, openOfAnUnknownNameLeavesAnEntryWithoutAKey)
{
    addRsa(L"B1");
    log.takeLines();
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(0U, store.open(L"A0"));
        expectBlock(log.takeLines(), R"(
TRC NV::KeyStore::open:ENTER
TRC NV::KeyStore::open:Try to find [A0] from managed keys
ERR NV::KeyStore::open:Failed to open the key because Not Found KeyId = A0
TRC NV::KeyStore::open:LEAVE
)");
        ASSERT_EQ(2U, store.keyCount());
        EXPECT_EQ(nullptr, store.keyAt(0));
        EXPECT_EQ(L"B1", store.keyAt(1)->keyId());
    }
}

TEST_F(KeyStoreTest, lowerCaseNamesAreOthers)
{
    addRsa(L"01AB");
    EXPECT_EQ(0U, store.open(L"01ab"));
    EXPECT_NE(0U, store.open(L"01AB"));
}

TEST_F(KeyStoreTest, aKeyIsNotFiledOverAnEmptyEntry)
{
    EXPECT_EQ(0U, store.open(L"01AB"));
    EXPECT_TRUE(addRsa(L"01AB"));
    EXPECT_EQ(nullptr, store.keyAt(0));
    EXPECT_EQ(0U, store.open(L"01AB"));
}

TEST_F(KeyStoreTest, closeDeletesTheClone)
{
    addRsa(L"01AB");
    const NCRYPT_KEY_HANDLE handle = store.open(L"01AB");
    log.takeLines();
    EXPECT_TRUE(store.close(handle));
    expectTrace(log.takeLines(), "objects/keystore/keystore/close_deletes_the_clone");
    EXPECT_EQ(nullptr, store.findOpened(handle));
}

TEST_F(KeyStoreTest, closeOfTheSameHandleTwiceFailsTheSecondTime)
{
    addRsa(L"01AB");
    const NCRYPT_KEY_HANDLE handle = store.open(L"01AB");
    EXPECT_TRUE(store.close(handle));
    log.takeLines();
    EXPECT_FALSE(store.close(handle));
    expectBlock(log.takeLines(), R"(
TRC NV::KeyStore::close:ENTER
ERR NV::KeyStore::close:Not Found Key by PTR
TRC NV::KeyStore::close:LEAVE
)");
}

TEST_F(KeyStoreTest, closeOfAnUnknownHandlePrintsTheHandle)
{
    EXPECT_FALSE(store.close(0x12345678));
    EXPECT_EQ("Not Found Key by 0000000012345678", ofLevel(log.takeLines(), "ERR").at(0).message);
}

TEST_F(KeyStoreTest, closeOfAFiledKeysAddressFails)
{
    addRsa(L"01AB");
    const auto address = reinterpret_cast<NCRYPT_KEY_HANDLE>(store.keyAt(0));
    EXPECT_FALSE(store.close(address));
    EXPECT_EQ(L"01AB", store.keyAt(0)->keyId());
    EXPECT_EQ(nullptr, store.findOpened(address));
}

TEST_F(KeyStoreTest, aHandleThatCloseHasMissedCanBeHandedOutLater)
{
    addRsa(L"01AB");
    const NCRYPT_KEY_HANDLE first = store.open(L"01AB");
    EXPECT_TRUE(store.close(first));
    EXPECT_FALSE(store.close(first));
    // The heap hands the address out again, sooner or later.
    for (int time = 0; time < 50; ++time) {
        const NCRYPT_KEY_HANDLE again = store.open(L"01AB");
        ASSERT_NE(0U, again);
        EXPECT_NE(nullptr, store.findOpened(again));
        EXPECT_TRUE(store.close(again));
    }
}

TEST_F(KeyStoreTest, theFirstClosedCloneEmptiesTheValuesOfTheFiledKeyAndOfLaterClones)
{
    addRsa(L"01AB");
    const NCRYPT_KEY_HANDLE first = store.open(L"01AB");
    const NCRYPT_KEY_HANDLE second = store.open(L"01AB");
    EXPECT_EQ(text(L"01AB"), value(*store.findOpened(second), L"Name"));
    EXPECT_TRUE(store.close(first));
    const NCRYPT_KEY_HANDLE third = store.open(L"01AB");
    for (const P11KeyObject* key :
         {store.keyAt(0), store.findOpened(second), store.findOpened(third)}) {
        EXPECT_EQ(7U, key->properties().size());
        for (const auto& [name, property] : key->properties())
            EXPECT_TRUE(property->value().empty());
        EXPECT_EQ(L"01AB", key->keyId());
    }
}

TEST_F(KeyStoreTest, destructionDeletesClonesThenFiledKeysAndSkipsEmptyEntries)
{
    auto owned = std::make_unique<KeyStore>();
    owned->addPublicKey(slot, L"B1", L"1.2.840.113549.1.1.1", "AAEC", 2048);
    owned->addPublicKey(slot, L"B2", L"1.2.840.10045.2.1", "AAEC", 256);
    owned->open(L"B1");
    owned->open(L"A0");
    owned->close(0x77);
    log.takeLines();
    owned.reset();
    EXPECT_EQ(3U, countLines(log.takeLines(), "TRC NV::P11KeyObject::~P11KeyObject:ENTER"));
}

}  // namespace NV::test
