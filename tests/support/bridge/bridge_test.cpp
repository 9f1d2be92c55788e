// Tests p11bridge.dll with SoftHSM2: loading, information, sessions, objects and their attributes
// have the right values in the Windows interface.

#include <algorithm>

#include "bridge_fixture.h"

using namespace NV::test;

TEST(BridgeExports, AreTheFunctionList)
{
    const LoadedBridge p11;
    EXPECT_EQ(2, p11->version.major);
    EXPECT_EQ(40, p11->version.minor);
#define NV_SAME(name, parameters)                                                                  \
    EXPECT_NE(nullptr, p11->name) << #name;                                                        \
    EXPECT_EQ(p11->name, p11.symbol<decltype(CK_FUNCTION_LIST::name)>(#name)) << #name;
    NV_CK_FUNCTIONS(NV_SAME)
#undef NV_SAME
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11->C_GetFunctionList(nullptr));
}

// The bridge searches for the library again each time, so later tests are not affected.
TEST(BridgeLoading, FailsForAModuleThatIsNotThere)
{
    const LoadedBridge p11;
    for (const char* name : {"/nonexistent/module.so", "/etc/passwd", "libdl.so.2"}) {
        host::setEnvironment("P11_BRIDGE_MODULE", name);
        EXPECT_EQ(CKR_LIBRARY_LOAD_FAILED, p11->C_Initialize(nullptr)) << name;
    }
    host::removeEnvironment("P11_BRIDGE_MODULE");
}

TEST_F(Bridge, IsInitializedOnce)
{
    EXPECT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11->C_Initialize(nullptr));
    EXPECT_EQ(CKR_OK, p11->C_Finalize(nullptr));
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11->C_Finalize(nullptr));
    CK_INFO info{};
    EXPECT_EQ(CKR_CRYPTOKI_NOT_INITIALIZED, p11->C_GetInfo(&info));
    EXPECT_EQ(CKR_OK, p11->C_Initialize(nullptr));
}

TEST_F(Bridge, ReservedArgumentIsSeen)
{
    ASSERT_EQ(CKR_OK, p11->C_Finalize(nullptr));
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.pReserved = &arguments;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11->C_Initialize(&arguments));
    EXPECT_EQ(CKR_OK, p11->C_Initialize(nullptr));
}

TEST_F(Bridge, DescribesTheLibrary)
{
    CK_INFO info{};
    ASSERT_EQ(CKR_OK, p11->C_GetInfo(&info));
    EXPECT_EQ(2, info.cryptokiVersion.major);
    EXPECT_EQ(40, info.cryptokiVersion.minor);
    EXPECT_EQ("SoftHSM", trimmed(info.manufacturerID));
    EXPECT_EQ("Implementation of PKCS11", trimmed(info.libraryDescription));
    EXPECT_EQ(0U, info.flags);
    EXPECT_EQ(2, info.libraryVersion.major);
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11->C_GetInfo(nullptr));
}

TEST_F(Bridge, DescribesSlotAndToken)
{
    CK_SLOT_INFO slotInfo{};
    ASSERT_EQ(CKR_OK, p11->C_GetSlotInfo(slot, &slotInfo));
    EXPECT_EQ(CKF_TOKEN_PRESENT, slotInfo.flags);
    EXPECT_EQ("SoftHSM project", trimmed(slotInfo.manufacturerID));

    CK_TOKEN_INFO info{};
    ASSERT_EQ(CKR_OK, p11->C_GetTokenInfo(slot, &info));
    EXPECT_EQ("keywarden", trimmed(info.label));
    EXPECT_EQ("SoftHSM v2", trimmed(info.model));
    const CK_FLAGS expected =
        CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    EXPECT_EQ(expected, info.flags & expected);
    EXPECT_EQ(4U, info.ulMinPinLen);
    EXPECT_EQ(255U, info.ulMaxPinLen);
    EXPECT_EQ(allOnes, info.ulFreePublicMemory) << "CK_UNAVAILABLE_INFORMATION";

    EXPECT_EQ(CKR_SLOT_ID_INVALID, p11->C_GetTokenInfo(0x7FFFFFFF, &info));
}

TEST_F(Bridge, SlotListNeedsRoom)
{
    CK_SLOT_ID slots[] = {77, 78};
    CK_ULONG count = 1;
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11->C_GetSlotList(CK_FALSE, slots, &count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(77U, slots[0]);
    EXPECT_EQ(78U, slots[1]);
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11->C_GetSlotList(CK_FALSE, slots, nullptr));
}

TEST_F(Bridge, ListsMechanisms)
{
    CK_ULONG count = 0;
    ASSERT_EQ(CKR_OK, p11->C_GetMechanismList(slot, nullptr, &count));
    ASSERT_LT(20U, count);
    std::vector<CK_MECHANISM_TYPE> types(count);
    ASSERT_EQ(CKR_OK, p11->C_GetMechanismList(slot, types.data(), &count));
    ASSERT_EQ(types.size(), count);
    for (const CK_MECHANISM_TYPE type : {CKM_RSA_PKCS, CKM_RSA_PKCS_PSS, CKM_ECDH1_DERIVE})
        EXPECT_EQ(1, std::count(types.begin(), types.end(), type)) << type;

    CK_MECHANISM_INFO info{};
    ASSERT_EQ(CKR_OK, p11->C_GetMechanismInfo(slot, CKM_ECDSA, &info));
    EXPECT_EQ(112U, info.ulMinKeySize);
    EXPECT_EQ(521U, info.ulMaxKeySize);
    EXPECT_EQ(0x2800U, info.flags & 0x2800U) << "sign and verify";
    EXPECT_EQ(CKR_MECHANISM_INVALID, p11->C_GetMechanismInfo(slot, 0x80004321, &info));
}

TEST_F(Bridge, LogsInAndOut)
{
    CK_SESSION_INFO info{};
    EXPECT_EQ(CKR_PIN_INCORRECT, login("wrong-pin"));
    ASSERT_EQ(CKR_OK, login(userPin));
    ASSERT_EQ(CKR_OK, p11->C_GetSessionInfo(session, &info));
    EXPECT_EQ(slot, info.slotID);
    EXPECT_EQ(3U, info.state) << "read and write, user";
    EXPECT_EQ(CKF_SERIAL_SESSION | CKF_RW_SESSION, info.flags);
    EXPECT_EQ(CKR_USER_ALREADY_LOGGED_IN, login(userPin));
    EXPECT_EQ(CKR_OK, p11->C_Logout(session));
    EXPECT_EQ(CKR_OK, p11->C_CloseSession(session));
    EXPECT_EQ(CKR_SESSION_HANDLE_INVALID, p11->C_CloseSession(session));
}

TEST_F(Bridge, FindsByTemplate)
{
    EXPECT_EQ(0U, find(CKO_PRIVATE_KEY, rsaId).size()) << "private keys need the PIN";
    EXPECT_EQ(1U, find(CKO_PUBLIC_KEY, rsaId).size());
    EXPECT_EQ(1U, find(CKO_CERTIFICATE, rsaId).size());
    ASSERT_EQ(CKR_OK, login(userPin));
    EXPECT_EQ(1U, find(CKO_PRIVATE_KEY, rsaId).size());
    EXPECT_EQ(1U, find(CKO_PRIVATE_KEY, ecId).size());
    EXPECT_EQ(0U, find(CKO_PRIVATE_KEY, {9, 9}).size());

    CK_BYTE shortClass[2] = {};
    CK_ATTRIBUTE wrong{CKA_CLASS, shortClass, sizeof(shortClass)};
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, p11->C_FindObjectsInit(session, &wrong, 1));
}

TEST_F(Bridge, NumbersAreFourBytesWide)
{
    const CK_OBJECT_HANDLE key = findOne(CKO_PUBLIC_KEY, rsaId);
    CK_ULONG bits[2] = {0, 0x55555555};
    CK_ULONG type = 99;
    CK_ATTRIBUTE attributes[] = {{CKA_MODULUS_BITS, bits, sizeof(bits)},
                                 {CKA_KEY_TYPE, &type, sizeof(type)},
                                 {CKA_CLASS, nullptr, 0}};
    ASSERT_EQ(CKR_OK, p11->C_GetAttributeValue(session, key, attributes, 3));
    EXPECT_EQ(2048U, bits[0]);
    EXPECT_EQ(0x55555555U, bits[1]) << "written past the number";
    EXPECT_EQ(4U, attributes[0].ulValueLen);
    EXPECT_EQ(CKK_RSA, type);
    EXPECT_EQ(4U, attributes[1].ulValueLen);
    EXPECT_EQ(4U, attributes[2].ulValueLen);

    bits[0] = 7;
    attributes[0] = {CKA_MODULUS_BITS, bits, 3};
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11->C_GetAttributeValue(session, key, attributes, 1));
    EXPECT_EQ(allOnes, attributes[0].ulValueLen);
    EXPECT_EQ(7U, bits[0]);
}

TEST_F(Bridge, BytesAreCopied)
{
    const Bytes certificate = outputOf("cat " + unixFile("token/keys/rsa2048.crt.der"));
    EXPECT_EQ(certificate, attribute(findOne(CKO_CERTIFICATE, rsaId), CKA_VALUE));

    const CK_OBJECT_HANDLE key = findOne(CKO_PUBLIC_KEY, rsaId);
    EXPECT_EQ((Bytes{1, 0, 1}), attribute(key, CKA_PUBLIC_EXPONENT));
    EXPECT_EQ(256U, attribute(key, CKA_MODULUS).size());
    EXPECT_EQ(rsaId, attribute(key, CKA_ID));

    Bytes tooShort(10, 0x55);
    CK_ATTRIBUTE modulus{CKA_MODULUS, tooShort.data(), sizeOf(tooShort)};
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11->C_GetAttributeValue(session, key, &modulus, 1));
    EXPECT_EQ(allOnes, modulus.ulValueLen);
    EXPECT_EQ(Bytes(10, 0x55), tooShort);
}

TEST_F(Bridge, AttributeFailuresAreKeptApart)
{
    ASSERT_EQ(CKR_OK, login(userPin));
    CK_BYTE room[512] = {};
    CK_ULONG type = 99;
    CK_ATTRIBUTE attributes[] = {{CKA_PRIVATE_EXPONENT, room, sizeof(room)},
                                 {CKA_KEY_TYPE, &type, sizeof(type)}};
    const CK_OBJECT_HANDLE key = findOne(CKO_PRIVATE_KEY, rsaId);
    EXPECT_EQ(CKR_ATTRIBUTE_SENSITIVE, p11->C_GetAttributeValue(session, key, attributes, 2));
    EXPECT_EQ(allOnes, attributes[0].ulValueLen);
    EXPECT_EQ(4U, attributes[1].ulValueLen);
    EXPECT_EQ(CKK_RSA, type);

    attributes[0] = {CKA_PIXEL_X, room, sizeof(room)};
    EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, p11->C_GetAttributeValue(session, key, attributes, 2));
    EXPECT_EQ(allOnes, attributes[0].ulValueLen);
    EXPECT_EQ(4U, attributes[1].ulValueLen);
}

TEST_F(Bridge, ObsoleteFunctionsAnswerAsTheLibraryDoes)
{
    EXPECT_EQ(CKR_FUNCTION_NOT_PARALLEL, p11->C_GetFunctionStatus(session));
    EXPECT_EQ(CKR_FUNCTION_NOT_PARALLEL, p11->C_CancelFunction(session));
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED,
              p11->C_DigestEncryptUpdate(session, nullptr, 0, nullptr, nullptr));
}
