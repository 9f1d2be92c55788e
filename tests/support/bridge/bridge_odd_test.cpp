// Tests p11bridge.dll with odd_module, a native library whose values do not fit or that reads its
// parameters late. No value may be truncated silently, and the native library may call no Windows
// code.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "loaded_bridge.h"

using NV::test::LoadedBridge;
namespace host = NV::test::host;

namespace {

class OddModule : public testing::Test {
protected:
    OddModule() { host::setEnvironment("P11_BRIDGE_MODULE", NV_TEST_ODD_MODULE); }

    ~OddModule() override
    {
        p11->C_Finalize(nullptr);
        host::removeEnvironment("P11_BRIDGE_MODULE");
    }

    void SetUp() override { ASSERT_EQ(CKR_OK, p11->C_Initialize(nullptr)); }

    // What the module reports: callbacks, flags, notify callback, closed session.
    std::string seen()
    {
        CK_INFO info{};
        EXPECT_EQ(CKR_OK, p11->C_GetInfo(&info));
        return NV::test::trimmed(info.libraryDescription);
    }

    LoadedBridge p11;
};

CK_RV neverCreateMutex(CK_VOID_PTR_PTR)
{
    return CKR_GENERAL_ERROR;
}

CK_RV neverMutex(CK_VOID_PTR)
{
    return CKR_GENERAL_ERROR;
}

CK_RV neverNotify(CK_SESSION_HANDLE, CK_NOTIFICATION, CK_VOID_PTR)
{
    return CKR_GENERAL_ERROR;
}

constexpr CK_ULONG allOnes = 0xFFFFFFFF;

}  // namespace

TEST_F(OddModule, MutexCallbacksStayOnThisSide)
{
    ASSERT_EQ(CKR_OK, p11->C_Finalize(nullptr));
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.CreateMutex = neverCreateMutex;
    EXPECT_EQ(CKR_ARGUMENTS_BAD, p11->C_Initialize(&arguments));
    arguments.DestroyMutex = neverMutex;
    arguments.LockMutex = neverMutex;
    arguments.UnlockMutex = neverMutex;
    arguments.flags = CKF_LIBRARY_CANT_CREATE_OS_THREADS;
    ASSERT_EQ(CKR_OK, p11->C_Initialize(&arguments));
    EXPECT_EQ(0U, seen().find("cb=0 fl=2 ")) << seen();
}

TEST_F(OddModule, ParametersComeFromTheEnvironment)
{
    CK_C_INITIALIZE_ARGS arguments{};
    ASSERT_EQ(CKR_OK, p11->C_Finalize(nullptr));
    host::setEnvironment("P11_BRIDGE_PARAMETERS", " p=1");
    for (CK_C_INITIALIZE_ARGS* given : {&arguments, static_cast<CK_C_INITIALIZE_ARGS*>(nullptr)}) {
        EXPECT_EQ(CKR_OK, p11->C_Initialize(given));
        EXPECT_NE(std::string::npos, seen().find(" p=1")) << seen();
        ASSERT_EQ(CKR_OK, p11->C_Finalize(nullptr));
    }
    host::removeEnvironment("P11_BRIDGE_PARAMETERS");
    EXPECT_EQ(CKR_OK, p11->C_Initialize(&arguments));
    EXPECT_EQ(std::string::npos, seen().find(" p=1")) << seen();
}

TEST_F(OddModule, NotifyCallbackStaysOnThisSide)
{
    CK_SESSION_HANDLE session = 0;
    ASSERT_EQ(CKR_OK, p11->C_OpenSession(2, CKF_SERIAL_SESSION, this, neverNotify, &session));
    EXPECT_EQ(7U, session);
    EXPECT_NE(std::string::npos, seen().find("no=0")) << seen();
}

TEST_F(OddModule, ReturnValueBeyond32BitsIsAnError)
{
    CK_SLOT_INFO info{};
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetSlotInfo(1, &info));
}

TEST_F(OddModule, SlotBeyond32BitsIsAnError)
{
    CK_SLOT_ID slots[2] = {};
    CK_ULONG count = 2;
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetSlotList(CK_TRUE, slots, &count));
}

TEST_F(OddModule, TokenNumbersFitOrAreAnError)
{
    CK_TOKEN_INFO info{};
    EXPECT_EQ(CKR_OK, p11->C_GetTokenInfo(0, &info));
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetTokenInfo(1, &info)) << "flags of 33 bits";
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetTokenInfo(2, &info)) << "5 GiB";
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetTokenInfo(3, &info)) << "would turn into a magic value";
    EXPECT_EQ(CKR_OK, p11->C_GetTokenInfo(4, &info));
    EXPECT_EQ(allOnes, info.ulFreePublicMemory);
}

TEST_F(OddModule, SessionBeyond32BitsHasANumberInItsPlace)
{
    CK_SESSION_HANDLE session = 99;
    ASSERT_EQ(CKR_OK, p11->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    EXPECT_EQ(0xF0000000U, session);
    CK_SESSION_HANDLE again = 99;
    ASSERT_EQ(CKR_OK, p11->C_OpenSession(1, CKF_SERIAL_SESSION, nullptr, nullptr, &again));
    EXPECT_EQ(session, again);
    EXPECT_EQ(CKR_OK, p11->C_CloseSession(session));
    EXPECT_NE(std::string::npos, seen().find("closed=100000007")) << seen();
    EXPECT_EQ(CKR_OK, p11->C_CloseSession(0xF0000001));
    EXPECT_NE(std::string::npos, seen().find("closed=f0000001")) << seen();
}

TEST_F(OddModule, MissingNativeFunctionIsNotSupported)
{
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, p11->C_Logout(7));
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, p11->C_SeedRandom(7, nullptr, 0));
}

TEST_F(OddModule, MechanismArraysChangeTheirWidth)
{
    CK_MECHANISM_TYPE given[3] = {CKM_RSA_PKCS, CKM_RSA_PKCS_PSS, 0x80001234};
    CK_ATTRIBUTE attribute{CKA_ALLOWED_MECHANISMS, given, sizeof(given)};
    CK_OBJECT_HANDLE object = 0;
    ASSERT_EQ(CKR_OK, p11->C_CreateObject(7, &attribute, 1, &object));

    attribute = {CKA_ALLOWED_MECHANISMS, nullptr, 0};
    ASSERT_EQ(CKR_OK, p11->C_GetAttributeValue(7, object, &attribute, 1));
    EXPECT_EQ(12U, attribute.ulValueLen);

    CK_MECHANISM_TYPE received[4] = {1, 2, 3, 4};
    attribute = {CKA_ALLOWED_MECHANISMS, received, sizeof(received)};
    ASSERT_EQ(CKR_OK, p11->C_GetAttributeValue(7, object, &attribute, 1));
    EXPECT_EQ(12U, attribute.ulValueLen);
    EXPECT_TRUE(std::equal(std::begin(given), std::end(given), received));
    EXPECT_EQ(4U, received[3]) << "written past the value";

    attribute = {CKA_ALLOWED_MECHANISMS, received, 8};
    EXPECT_EQ(CKR_BUFFER_TOO_SMALL, p11->C_GetAttributeValue(7, object, &attribute, 1));
    EXPECT_EQ(allOnes, attribute.ulValueLen);

    attribute = {CKA_ALLOWED_MECHANISMS, received, 7};
    EXPECT_EQ(CKR_ATTRIBUTE_VALUE_INVALID, p11->C_CreateObject(7, &attribute, 1, &object));
}

TEST_F(OddModule, AttributeNumbersFitOrAreAnError)
{
    CK_ULONG type = 5;
    CK_ULONG origin = 5;
    CK_ATTRIBUTE attributes[] = {{CKA_KEY_GEN_MECHANISM, &origin, sizeof(origin)},
                                 {CKA_KEY_TYPE, &type, sizeof(type)}};
    ASSERT_EQ(CKR_OK, p11->C_GetAttributeValue(7, 3, attributes, 1));
    EXPECT_EQ(allOnes, origin);
    EXPECT_EQ(4U, attributes[0].ulValueLen);

    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetAttributeValue(7, 3, attributes, 2));
    EXPECT_EQ(4U, attributes[0].ulValueLen) << "the attribute beside the odd one";
    EXPECT_EQ(allOnes, attributes[1].ulValueLen);
    EXPECT_EQ(5U, type);

    CK_ATTRIBUTE label{CKA_LABEL, nullptr, 0};
    EXPECT_EQ(CKR_GENERAL_ERROR, p11->C_GetAttributeValue(7, 3, &label, 1));
    EXPECT_EQ(allOnes, label.ulValueLen);
}

TEST_F(OddModule, AttributesOfUnknownShapeAreRefused)
{
    CK_BYTE room[64] = {};
    for (const CK_ATTRIBUTE_TYPE type :
         {CKA_WRAP_TEMPLATE, CKA_UNWRAP_TEMPLATE, CKA_DERIVE_TEMPLATE, CKA_VENDOR_DEFINED + 1}) {
        CK_ULONG origin = 5;
        CK_ATTRIBUTE attributes[] = {{type, room, sizeof(room)},
                                     {CKA_KEY_GEN_MECHANISM, &origin, sizeof(origin)}};
        EXPECT_EQ(CKR_ATTRIBUTE_TYPE_INVALID, p11->C_GetAttributeValue(7, 3, attributes, 2));
        EXPECT_EQ(allOnes, attributes[0].ulValueLen);
        EXPECT_EQ(allOnes, origin) << "the attribute beside the refused one";

        CK_OBJECT_HANDLE object = 0;
        attributes[0] = {type, room, sizeof(CK_ATTRIBUTE)};
        EXPECT_EQ(type > CKA_VENDOR_DEFINED ? CKR_ATTRIBUTE_TYPE_INVALID
                                            : CKR_FUNCTION_NOT_SUPPORTED,
                  p11->C_CreateObject(7, attributes, 1, &object));
    }
}

// The native library reads the parameter in C_Sign, long after C_SignInit has returned.
TEST_F(OddModule, MechanismParameterOutlivesItsInit)
{
    CK_RSA_PKCS_PSS_PARAMS parameter{CKM_SHA384, CKG_MGF1_SHA384, 48};
    CK_MECHANISM mechanism{CKM_RSA_PKCS_PSS, &parameter, sizeof(parameter)};
    ASSERT_EQ(CKR_OK, p11->C_SignInit(7, &mechanism, 1));
    CK_RSA_PKCS_PSS_PARAMS other{CKM_SHA_1, CKG_MGF1_SHA1, 20};
    CK_MECHANISM otherMechanism{CKM_RSA_PKCS_PSS, &other, sizeof(other)};
    ASSERT_EQ(CKR_OK, p11->C_SignInit(8, &otherMechanism, 1));  // would reuse freed memory

    uint64_t native[3] = {};
    CK_BYTE bytes[sizeof(native)] = {};
    CK_ULONG length = sizeof(bytes);
    ASSERT_EQ(CKR_OK, p11->C_Sign(7, nullptr, 0, bytes, &length));
    ASSERT_EQ(sizeof(native), length);
    std::memcpy(native, bytes, sizeof(native));
    EXPECT_EQ(uint64_t{CKM_SHA384}, native[0]);
    EXPECT_EQ(uint64_t{CKG_MGF1_SHA384}, native[1]);
    EXPECT_EQ(48U, native[2]);
}

TEST_F(OddModule, LongSearchesAreComplete)
{
    std::vector<CK_OBJECT_HANDLE> expected(2500);
    std::iota(expected.begin(), expected.end(), 1U);
    for (const CK_ULONG most : {CK_ULONG{2500}, CK_ULONG{4000}}) {
        std::vector<CK_OBJECT_HANDLE> objects(most);
        CK_ULONG count = 0;
        ASSERT_EQ(CKR_OK, p11->C_FindObjectsInit(7, nullptr, 0));
        ASSERT_EQ(CKR_OK, p11->C_FindObjects(7, objects.data(), most, &count));
        ASSERT_EQ(2500U, count);
        objects.resize(count);
        EXPECT_EQ(expected, objects);
    }
}
