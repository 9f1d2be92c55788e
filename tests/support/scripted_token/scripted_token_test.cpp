// The scripted token's test, first part: the order of calls, slots, sessions, logins and objects.

#include "scripted_token_fixture.h"

namespace NV::test {

namespace {

constexpr CK_ULONG kUnavailable = static_cast<CK_ULONG>(-1);

std::string textOf(const CK_BYTE* field, size_t size)
{
    return {field, field + size};
}

TEST_F(ScriptedTokenTest, AnswersOnlyBetweenInitializeAndFinalize)
{
    CK_INFO info{};
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetInfo(&info));
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_Finalize(nullptr));
    EXPECT_EQ(CKR_OK, p11.C_Initialize(nullptr));
    EXPECT_TRUE(token.initialised());
    EXPECT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    EXPECT_EQ(CKR_OK, p11.C_GetInfo(&info));
    EXPECT_EQ(2, info.cryptokiVersion.major);
    EXPECT_EQ(40, info.cryptokiVersion.minor);
    EXPECT_EQ("Odd Token Works                 ", textOf(info.manufacturerID, 32));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_Finalize(&info));
    EXPECT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11.C_GetInfo(&info));
}

TEST_F(ScriptedTokenTest, FinalizeClosesEverything)
{
    const CK_SESSION_HANDLE session = openSession();
    ASSERT_EQ(CKR_OK, logIn(session));
    ASSERT_EQ(CKR_OK, p11.C_Finalize(nullptr));
    EXPECT_EQ(0U, token.openSessions());
    EXPECT_FALSE(token.userLoggedIn());
    initialise();
    CK_SESSION_INFO info{};
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, p11.C_GetSessionInfo(session, &info));
}

TEST_F(ScriptedTokenTest, ListsSlotsWithAndWithoutToken)
{
    initialise();
    CK_ULONG count = 0;
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_TRUE, nullptr, &count));
    EXPECT_EQ(1U, count);
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    EXPECT_EQ(2U, count);
    CK_SLOT_ID ids[2] = {};
    count = 1;
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, ids, &count));
    EXPECT_EQ(52U, ids[0]);
    EXPECT_EQ(77U, ids[1]);
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_GetSlotList(CK_FALSE, ids, nullptr));

    CK_SLOT_INFO slot{};
    EXPECT_EQ(CKR_OK, p11.C_GetSlotInfo(77, &slot));
    EXPECT_EQ(kEmptySlotFlags, slot.flags);
    EXPECT_EQ("Odd Slot 77", textOf(slot.slotDescription, 11));
    EXPECT_EQ(CKR_SLOT_ID_INVALID, p11.C_GetSlotInfo(0, &slot));
    CK_TOKEN_INFO info{};
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, p11.C_GetTokenInfo(77, &info));
    EXPECT_EQ(CKR_OK, p11.C_GetTokenInfo(52, &info));
    EXPECT_EQ("Odd Label 52                    ", textOf(info.label, 32));
    EXPECT_EQ("SN-7391-52      ", textOf(info.serialNumber, 16));
    EXPECT_EQ(15U, info.ulMaxPinLen);
    EXPECT_EQ(5U, info.ulMinPinLen);
}

TEST_F(ScriptedTokenTest, TakesTheSlotsThatATestGivesIt)
{
    token.clearSlots();
    token.addSlot(31, kSlotFlags, CKF_LOGIN_REQUIRED);
    token.addSlot(29);
    token.addSlot(31, kEmptySlotFlags, 0);
    initialise();
    CK_SLOT_ID ids[3] = {};
    CK_ULONG count = 3;
    ASSERT_EQ(CKR_OK, p11.C_GetSlotList(CK_FALSE, ids, &count));
    ASSERT_EQ(2U, count);
    EXPECT_EQ(31U, ids[0]);
    EXPECT_EQ(29U, ids[1]);
    CK_SLOT_INFO slot{};
    ASSERT_EQ(CKR_OK, p11.C_GetSlotInfo(31, &slot));
    EXPECT_EQ(kEmptySlotFlags, slot.flags);
}

TEST_F(ScriptedTokenTest, ListsMechanisms)
{
    initialise();
    CK_ULONG count = 0;
    ASSERT_EQ(CKR_OK, p11.C_GetMechanismList(kSlot, nullptr, &count));
    ASSERT_EQ(std::size(kMechanisms), count);
    std::vector<CK_MECHANISM_TYPE> types(count);
    ASSERT_EQ(CKR_OK, p11.C_GetMechanismList(kSlot, types.data(), &count));
    EXPECT_EQ(CKM_ECDSA, types[0]);
    CK_MECHANISM_INFO info{};
    ASSERT_EQ(CKR_OK, p11.C_GetMechanismInfo(kSlot, CKM_RSA_PKCS_PSS, &info));
    EXPECT_EQ(1019U, info.ulMinKeySize);
    EXPECT_EQ(8185U, info.ulMaxKeySize);
    EXPECT_EQ(0x2801U, info.flags);
    EXPECT_EQ(CKR_MECHANISM_INVALID, p11.C_GetMechanismInfo(kSlot, CKM_MD5, &info));
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, p11.C_GetMechanismInfo(kOtherSlot, CKM_SHA256, &info));
}

TEST_F(ScriptedTokenTest, NumbersSessionsFrom5E55)
{
    EXPECT_EQ(0x5E55U, openSession());
    EXPECT_EQ(0x5E56U, openSession(CKF_RW_SESSION));
    EXPECT_EQ(2U, token.openSessions());
    CK_SESSION_INFO info{};
    ASSERT_EQ(CKR_OK, p11.C_GetSessionInfo(0x5E56, &info));
    EXPECT_EQ(kSlot, info.slotID);
    EXPECT_EQ(2U, info.state);  // read/write, public
    EXPECT_EQ(6U, info.flags);
    EXPECT_EQ(CKR_OK, p11.C_CloseSession(0x5E55));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, p11.C_CloseSession(0x5E55));
    EXPECT_EQ(CKR_OK, p11.C_CloseAllSessions(kSlot));
    EXPECT_EQ(0U, token.openSessions());
    EXPECT_EQ(0x5E57U, openSession());
}

TEST_F(ScriptedTokenTest, RefusesSessionsThatATokenRefuses)
{
    token.addSlot(kOtherSlot, kSlotFlags, 0);  // present, not initialised
    token.addSlot(79, kEmptySlotFlags, 0);
    token.addSlot(81, kSlotFlags, kTokenFlags | CKF_WRITE_PROTECTED);
    initialise();
    CK_SESSION_HANDLE session = 0;
    const auto open = [&](CK_SLOT_ID slot, CK_FLAGS flags) {
        return p11.C_OpenSession(slot, flags, nullptr, nullptr, &session);
    };
    EXPECT_EQ(CKR_SESSION_PARALLEL_NOT_SUPPORTED, open(kSlot, 0));
    EXPECT_EQ(CKR_SLOT_ID_INVALID, open(1, CKF_SERIAL_SESSION));
    EXPECT_EQ(CKR_TOKEN_NOT_RECOGNIZED, open(kOtherSlot, CKF_SERIAL_SESSION));
    EXPECT_EQ(CKR_TOKEN_NOT_PRESENT, open(79, CKF_SERIAL_SESSION));
    EXPECT_EQ(CKR_TOKEN_WRITE_PROTECTED, open(81, CKF_SERIAL_SESSION | CKF_RW_SESSION));
    EXPECT_EQ(0U, session);
}

TEST_F(ScriptedTokenTest, KeepsLoginPerToken)
{
    const CK_SESSION_HANDLE session = openSession();
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, p11.C_Logout(session));
    EXPECT_EQ(CKR_PIN_INCORRECT, logIn(session, "odd-PIN-7392"));
    EXPECT_EQ(CKR_PIN_INCORRECT, logIn(session, "odd-PIN-739"));
    EXPECT_EQ(CKR_PIN_INCORRECT, logIn(session, ""));
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11.C_Login(session, CKU_USER, nullptr, 0));
    EXPECT_EQ(CKR_USER_TYPE_INVALID, p11.C_Login(session, 9, nullptr, 0));
    EXPECT_FALSE(token.userLoggedIn());
    EXPECT_EQ(CKR_OK, logIn(session));
    EXPECT_TRUE(token.userLoggedIn());
    const CK_SESSION_HANDLE second = openSession();
    EXPECT_EQ(CKR_USER_ALREADY_LOGGED_IN, logIn(second));
    CK_SESSION_INFO info{};
    ASSERT_EQ(CKR_OK, p11.C_GetSessionInfo(second, &info));
    EXPECT_EQ(1U, info.state);  // read-only, user
    EXPECT_EQ(CKR_OK, p11.C_Logout(second));
    EXPECT_FALSE(token.userLoggedIn());
}

TEST_F(ScriptedTokenTest, ClosingTheLastSessionLogsOut)
{
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession();
    ASSERT_EQ(CKR_OK, logIn(first));
    ASSERT_EQ(CKR_OK, p11.C_CloseSession(first));
    EXPECT_TRUE(token.userLoggedIn());
    ASSERT_EQ(CKR_OK, p11.C_CloseSession(second));
    EXPECT_FALSE(token.userLoggedIn());
}

TEST_F(ScriptedTokenTest, LetsTheSecurityOfficerIn)
{
    CK_SESSION_HANDLE session = openSession();
    std::string pin{kSecurityOfficerPin};
    const auto length = static_cast<CK_ULONG>(pin.size());
    EXPECT_EQ(CKR_SESSION_READ_ONLY_EXISTS, p11.C_Login(session, CKU_SO, bytesOf(pin), length));
    ASSERT_EQ(CKR_OK, p11.C_CloseSession(session));
    session = openSession(CKF_RW_SESSION);
    EXPECT_EQ(CKR_OK, p11.C_Login(session, CKU_SO, bytesOf(pin), length));
    EXPECT_EQ(1U, token.state().securityOfficerLoggedIn);
    EXPECT_EQ(CKR_USER_ANOTHER_ALREADY_LOGGED_IN, logIn(session));
    CK_SESSION_HANDLE other = 0;
    EXPECT_EQ(CKR_SESSION_READ_WRITE_SO_EXISTS,
              p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &other));
}

TEST_F(ScriptedTokenTest, TokenFlagsDecideAboutLogin)
{
    token.addSlot(kSlot, kSlotFlags, kTokenFlags | CKF_PROTECTED_AUTHENTICATION_PATH);
    const CK_SESSION_HANDLE session = openSession();
    EXPECT_EQ(CKR_OK, p11.C_Login(session, CKU_USER, nullptr, 0));
    ASSERT_EQ(CKR_OK, p11.C_Logout(session));
    token.addSlot(kSlot, kSlotFlags, CKF_TOKEN_INITIALIZED | CKF_LOGIN_REQUIRED);
    EXPECT_EQ(CKR_USER_PIN_NOT_INITIALIZED, logIn(session));
}

TEST_F(ScriptedTokenTest, FindsByTemplateAndHidesPrivateObjects)
{
    const CK_OBJECT_HANDLE certificate = token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x00});
    const KeyPair rsa = token.addRsaKeyPair({0x01, 0xAB}, 2048);
    const KeyPair ec = token.addEcKeyPair({0x02}, 48);
    const CK_OBJECT_HANDLE nameless = token.addCertificate(std::nullopt, {0x30, 0x01, 0x00});
    token.addSlot(kOtherSlot);
    token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x00}, kOtherSlot);
    EXPECT_EQ(0xB1U, certificate);
    EXPECT_EQ(0xB2U, rsa.publicKey);
    EXPECT_EQ(0xB3U, rsa.privateKey);
    EXPECT_EQ(0xB5U, ec.privateKey);
    EXPECT_EQ(0xB6U, nameless);

    const CK_SESSION_HANDLE session = openSession();
    const std::vector<Attribute> ofId{{CKA_ID, {0x01, 0xAB}}};
    const std::vector<Attribute> privateKeys{numberAttribute(CKA_CLASS, CKO_PRIVATE_KEY)};
    EXPECT_EQ((Handles{certificate, rsa.publicKey}), find(session, ofId));
    EXPECT_EQ(Handles{}, find(session, privateKeys));
    ASSERT_EQ(CKR_OK, logIn(session));
    EXPECT_EQ((Handles{certificate, rsa.publicKey, rsa.privateKey}), find(session, ofId));
    EXPECT_EQ((Handles{rsa.privateKey, ec.privateKey}), find(session, privateKeys));
    EXPECT_EQ((Handles{ec.privateKey}), find(session, {privateKeys[0], {CKA_ID, {0x02}}}));
    EXPECT_EQ(6U, find(session, {}).size());
    token.clearObjects();
    EXPECT_EQ(Handles{}, find(session, {}));
}

TEST_F(ScriptedTokenTest, SearchRunsFromInitToFinal)
{
    for (CK_BYTE id = 1; id <= 3; ++id)
        token.addCertificate(Bytes{id}, {0x30, 0x00});
    const CK_SESSION_HANDLE session = openSession();
    CK_OBJECT_HANDLE found[2] = {};
    CK_ULONG count = 9;
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjects(session, found, 2, &count));
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjectsFinal(session));
    EXPECT_EQ(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    EXPECT_EQ(CKR_OPERATION_ACTIVE, p11.C_FindObjectsInit(session, nullptr, 0));
    EXPECT_EQ(CKR_OK, p11.C_FindObjects(session, found, 2, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(0xB2U, found[1]);
    EXPECT_EQ(CKR_OK, p11.C_FindObjects(session, found, 2, &count));
    EXPECT_EQ(1U, count);
    EXPECT_EQ(0xB3U, found[0]);
    EXPECT_EQ(CKR_OK, p11.C_FindObjects(session, found, 2, &count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ(CKR_OK, p11.C_FindObjectsFinal(session));
}

TEST_F(ScriptedTokenTest, AnswersAttributesAsTheStandardSays)
{
    const CK_OBJECT_HANDLE certificate = token.addCertificate(Bytes{0x01, 0xAB}, {0x30, 0x01, 7});
    const KeyPair rsa = token.addRsaKeyPair({0x05}, 1024);
    const CK_SESSION_HANDLE session = openSession();
    CK_BYTE value[3] = {};
    CK_BYTE small[1] = {};
    CK_ATTRIBUTE wanted[] = {{CKA_ID, nullptr, 0}, {CKA_LABEL, value, 3}, {CKA_VALUE, value, 3}};
    EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, p11.C_GetAttributeValue(session, certificate, wanted, 3));
    EXPECT_EQ(2U, wanted[0].ulValueLen);
    EXPECT_EQ(kUnavailable, wanted[1].ulValueLen);
    EXPECT_EQ(3U, wanted[2].ulValueLen);
    EXPECT_EQ(7, value[2]);

    CK_ATTRIBUTE tooSmall{CKA_ID, small, 1};
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11.C_GetAttributeValue(session, certificate, &tooSmall, 1));
    EXPECT_EQ(kUnavailable, tooSmall.ulValueLen);

    CK_ATTRIBUTE exponent{CKA_PUBLIC_EXPONENT, value, 3};
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN,
              p11.C_GetAttributeValue(session, rsa.privateKey, &exponent, 1));
    ASSERT_EQ(CKR_OK, logIn(session));
    EXPECT_EQ(CKR_OK, p11.C_GetAttributeValue(session, rsa.privateKey, &exponent, 1));
    EXPECT_EQ(CKR_OBJECT_HANDLE_INVALID, p11.C_GetAttributeValue(session, 0x77, &exponent, 1));

    const CK_OBJECT_HANDLE secret = token.addObject({numberAttribute(CKA_CLASS, CKO_SECRET_KEY),
                                                     flagAttribute(CKA_SENSITIVE, true),
                                                     {CKA_VALUE, {1, 2, 3}}});
    CK_ATTRIBUTE hidden{CKA_VALUE, value, 3};
    EXPECT_EQ(CKR_ATTRIBUTE_SENSITIVE, p11.C_GetAttributeValue(session, secret, &hidden, 1));
    EXPECT_EQ(kUnavailable, hidden.ulValueLen);
}

TEST_F(ScriptedTokenTest, SessionObjectsVanishWithTheirSession)
{
    const CK_SESSION_HANDLE first = openSession();
    const CK_SESSION_HANDLE second = openSession();
    CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    CK_BBOOL yes = CK_TRUE;
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                                 {CKA_PRIVATE, &yes, 1}};
    CK_OBJECT_HANDLE created = 0;
    EXPECT_EQ(CKR_USER_NOT_LOGGED_IN, p11.C_CreateObject(first, attributes, 2, &created));
    EXPECT_EQ(CKR_TEMPLATE_INCOMPLETE, p11.C_CreateObject(first, attributes + 1, 1, &created));
    attributes[1].type = CKA_TOKEN;
    EXPECT_EQ(CKR_SESSION_READ_ONLY, p11.C_CreateObject(first, attributes, 2, &created));
    EXPECT_EQ(CKR_OK, p11.C_CreateObject(first, attributes, 1, &created));
    EXPECT_EQ(0xD501U, created);
    EXPECT_EQ(1U, token.state().objects);
    EXPECT_EQ((Handles{created}), find(second, {}));
    ASSERT_EQ(CKR_OK, p11.C_CloseSession(first));
    EXPECT_EQ(0U, token.state().objects);
    EXPECT_EQ(Handles{}, find(second, {}));
}

TEST_F(ScriptedTokenTest, LogoutEndsWorkWithPrivateKeys)
{
    const KeyPair rsa = token.addRsaKeyPair({0x05}, 1024);
    const CK_SESSION_HANDLE session = openSession();
    ASSERT_EQ(CKR_OK, logIn(session));
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(CKR_OK, p11.C_SignInit(session, &mechanism, rsa.privateKey));
    ASSERT_EQ(CKR_OK, p11.C_Logout(session));
    CK_BYTE data[4] = {};
    CK_BYTE signature[128];
    CK_ULONG length = sizeof(signature);
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED, p11.C_Sign(session, data, 4, signature, &length));
}

TEST_F(ScriptedTokenTest, ResetRestoresEverything)
{
    token.addCertificate(Bytes{0x01}, {0x30, 0x00});
    token.addSlot(33);
    token.fail("C_GetInfo", CKR_DEVICE_ERROR);
    openSession();
    token.reset();
    EXPECT_TRUE(token.calls().empty());
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ(0U, token.openSessions());
    EXPECT_EQ(0U, token.state().objects);
    initialise();
    CK_INFO info{};
    EXPECT_EQ(CKR_OK, p11.C_GetInfo(&info));
    CK_SLOT_INFO slot{};
    EXPECT_EQ(CKR_SLOT_ID_INVALID, p11.C_GetSlotInfo(33, &slot));
    EXPECT_EQ(0x5E55U, openSession());
    EXPECT_EQ(0xB1U, token.addCertificate(Bytes{0x01}, {0x30, 0x00}));
}

}  // namespace

}  // namespace NV::test
