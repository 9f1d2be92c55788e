// Shared by the tests of p11bridge.dll with SoftHSM2: their token, a session, and helpers for
// objects, attributes, signatures and files of the host.

#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "loaded_bridge.h"

namespace NV::test {

using Bytes = std::vector<CK_BYTE>;

inline constexpr CK_ULONG allOnes = 0xFFFFFFFF;
inline const std::string userPin = "keywarden-pin-4711";
inline const Bytes rsaId{0x01, 0xAB};
inline const Bytes ecId{0x02, 0x56};

inline CK_BYTE_PTR bytesOf(std::string& text)
{
    return reinterpret_cast<CK_BYTE_PTR>(text.data());
}

inline CK_ULONG sizeOf(const Bytes& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

// One token for all tests of this suite.
class Bridge : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<host::TemporaryFolder>();
        ASSERT_EQ(0, host::run(host::quoted(NV_TEST_MAKE_TOKEN) + " --small " +
                               host::quoted(folder->unixPath() + "/token") + " " + userPin));
        host::setEnvironment("SOFTHSM2_CONF", folder->unixPath() + "/token/softhsm2.conf");
        host::removeEnvironment("P11_BRIDGE_MODULE");
    }

    static void TearDownTestSuite() { folder.reset(); }

    void SetUp() override
    {
        CK_C_INITIALIZE_ARGS arguments{};
        arguments.flags = CKF_OS_LOCKING_OK;
        ASSERT_EQ(CKR_OK, p11->C_Initialize(&arguments));
        CK_ULONG count = 0;
        ASSERT_EQ(CKR_OK, p11->C_GetSlotList(CK_TRUE, nullptr, &count));
        ASSERT_EQ(2U, count) << "the token, and the slot that SoftHSM2 keeps for a new one";
        std::vector<CK_SLOT_ID> slots(count);
        ASSERT_EQ(CKR_OK, p11->C_GetSlotList(CK_TRUE, slots.data(), &count));
        slot = slots[0];
        ASSERT_EQ(CKR_OK, p11->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                             nullptr, &session));
    }

    void TearDown() override { EXPECT_EQ(CKR_OK, p11->C_Finalize(nullptr)); }

    CK_RV login(std::string pin)
    {
        return p11->C_Login(session, CKU_USER, bytesOf(pin), static_cast<CK_ULONG>(pin.size()));
    }

    // The objects of a class with that CKA_ID.
    std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass, Bytes id)
    {
        CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &objectClass, sizeof(objectClass)},
                                     {CKA_ID, id.data(), sizeOf(id)}};
        std::vector<CK_OBJECT_HANDLE> objects(10);
        CK_ULONG count = 0;
        EXPECT_EQ(CKR_OK, p11->C_FindObjectsInit(session, attributes, 2));
        EXPECT_EQ(CKR_OK, p11->C_FindObjects(session, objects.data(), 10, &count));
        EXPECT_EQ(CKR_OK, p11->C_FindObjectsFinal(session));
        objects.resize(count);
        return objects;
    }

    CK_OBJECT_HANDLE findOne(CK_OBJECT_CLASS objectClass, const Bytes& id)
    {
        const std::vector<CK_OBJECT_HANDLE> objects = find(objectClass, id);
        EXPECT_EQ(1U, objects.size());
        return objects.size() == 1 ? objects[0] : 0;
    }

    Bytes attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
    {
        CK_ATTRIBUTE query{type, nullptr, 0};
        EXPECT_EQ(CKR_OK, p11->C_GetAttributeValue(session, object, &query, 1));
        Bytes value(query.ulValueLen);
        query.pValue = value.data();
        EXPECT_EQ(CKR_OK, p11->C_GetAttributeValue(session, object, &query, 1));
        EXPECT_EQ(value.size(), query.ulValueLen);
        return value;
    }

    Bytes sign(CK_MECHANISM mechanism, Bytes data)
    {
        EXPECT_EQ(CKR_OK, p11->C_SignInit(session, &mechanism, findOne(CKO_PRIVATE_KEY, rsaId)));
        CK_ULONG length = 0;
        EXPECT_EQ(CKR_OK, p11->C_Sign(session, data.data(), sizeOf(data), nullptr, &length));
        EXPECT_EQ(256U, length);
        Bytes signature(length);
        EXPECT_EQ(CKR_OK,
                  p11->C_Sign(session, data.data(), sizeOf(data), signature.data(), &length));
        signature.resize(length);
        return signature;
    }

    static std::string unixFile(const std::string& name)
    {
        return host::quoted(folder->unixPath() + "/" + name);
    }

    static void writeFile(const std::string& name, const Bytes& content)
    {
        std::ofstream stream{folder->path() / name, std::ios::binary};
        stream.write(reinterpret_cast<const char*>(content.data()),
                     static_cast<std::streamsize>(content.size()));
        ASSERT_TRUE(stream.flush());
    }

    // What a host command prints, as bytes.
    static Bytes outputOf(const std::string& command)
    {
        const host::Output output = host::runOutput(command);
        EXPECT_EQ(0, output.exitCode) << command;
        return {output.text.begin(), output.text.end()};
    }

    static inline std::unique_ptr<host::TemporaryFolder> folder;
    LoadedBridge p11;
    CK_SLOT_ID slot = 0;
    CK_SESSION_HANDLE session = 0;
};

}  // namespace NV::test
