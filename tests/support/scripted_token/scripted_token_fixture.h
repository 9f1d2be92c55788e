// Shared by the scripted token's own tests (scripted_token*_test.cpp): a new token, its exported
// functions, and helpers for the states that most tests start from.

#pragma once

#include <gtest/gtest.h>

#include <string>

#include "scripted_token.h"

namespace NV::test {

class ScriptedTokenTest : public testing::Test {
protected:
    ScriptedToken token;
    CK_FUNCTION_LIST p11 = token.exports();

    void initialise() const { ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr)); }

    // An initialized library and a session; `flags` are added to the serial flag.
    CK_SESSION_HANDLE openSession(CK_FLAGS flags = 0)
    {
        if (!token.initialised())
            initialise();
        CK_SESSION_HANDLE session = 0;
        EXPECT_EQ(CKR_OK,
                  p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, &session));
        return session;
    }

    CK_RV logIn(CK_SESSION_HANDLE session, std::string pin = std::string(kPin)) const
    {
        return p11.C_Login(session, CKU_USER, bytesOf(pin), static_cast<CK_ULONG>(pin.size()));
    }

    // All objects that match, found in one complete search.
    std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session,
                                       std::vector<Attribute> wanted) const
    {
        std::vector<CK_ATTRIBUTE> entries;
        entries.reserve(wanted.size());
        for (Attribute& each : wanted)
            entries.push_back(
                {each.type, each.value.data(), static_cast<CK_ULONG>(each.value.size())});
        EXPECT_EQ(CKR_OK, p11.C_FindObjectsInit(session, entries.data(),
                                                static_cast<CK_ULONG>(entries.size())));
        std::vector<CK_OBJECT_HANDLE> found(16);
        CK_ULONG count = 0;
        EXPECT_EQ(CKR_OK, p11.C_FindObjects(session, found.data(), 16, &count));
        EXPECT_EQ(CKR_OK, p11.C_FindObjectsFinal(session));
        found.resize(count);
        return found;
    }

    static CK_BYTE* bytesOf(std::string& text) { return reinterpret_cast<CK_BYTE*>(text.data()); }
};

using Strings = std::vector<std::string>;
using Handles = std::vector<CK_OBJECT_HANDLE>;

}  // namespace NV::test
