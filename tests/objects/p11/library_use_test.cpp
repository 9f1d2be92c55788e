// What the call layer gives back when nobody else does.

#include "p11/library_use.h"

#include "token_layer_fixture.h"

namespace NV::test {

namespace {

class Pkcs11LibraryUseTest : public LoadedLayerTest {
protected:
    CK_SESSION_HANDLE session = 0;

    void takeAll()
    {
        CK_BYTE pin[] = {'o', 'd', 'd', '-', 'P', 'I', 'N', '-', '7', '3', '9', '1'};
        ASSERT_EQ(CKR_OK, p11.C_Initialize(nullptr));
        ASSERT_EQ(CKR_OK, p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session));
        ASSERT_EQ(CKR_OK, p11.C_Login(session, CKU_USER, pin, sizeof pin));
        token.clearCalls();
        capture.takeLines();
    }
};

TEST_F(Pkcs11LibraryUseTest, GivesAllBackInTheReverseOrderWithoutLines)
{
    takeAll();
    p11.giveBack();
    EXPECT_EQ((Strings{"C_Logout", "C_CloseSession", "C_Finalize"}), token.callNames());
    EXPECT_EQ("", log());
    EXPECT_FALSE(token.initialised());

    token.clearCalls();
    p11.giveBack();
    EXPECT_EQ(Strings{}, token.callNames());
}

TEST_F(Pkcs11LibraryUseTest, TheSessionAloneCanGoBack)
{
    takeAll();
    p11.giveBackSession();
    EXPECT_EQ((Strings{"C_Logout", "C_CloseSession"}), token.callNames());
    EXPECT_TRUE(token.initialised());
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(Pkcs11LibraryUseTest, TheLoginAloneCanGoBack)
{
    takeAll();
    p11.giveBackLogin();
    EXPECT_EQ(Strings{"C_Logout"}, token.callNames());
    EXPECT_EQ(1U, token.openSessions());
    token.clearCalls();
    p11.giveBackSession();
    EXPECT_EQ(Strings{"C_CloseSession"}, token.callNames());
}

TEST_F(Pkcs11LibraryUseTest, WhatWasGivenBackByItsWrapperIsNotGivenBackAgain)
{
    takeAll();
    EXPECT_EQ(CKR_OK, p11.C_Logout(session));
    token.fail("C_CloseSession", CKR_DEVICE_ERROR);
    EXPECT_EQ(CKR_DEVICE_ERROR, p11.C_CloseSession(session));
    token.throwFrom("C_Finalize");
    EXPECT_EQ(CKR_FUNCTION_FAILED, p11.C_Finalize(nullptr));
    token.clearCalls();
    p11.giveBack();
    EXPECT_EQ(Strings{}, token.callNames());
}

TEST_F(Pkcs11LibraryUseTest, WhatTheTokenRefusedIsNotHeld)
{
    ASSERT_EQ(CKR_OK, token.exports().C_Initialize(nullptr));
    EXPECT_EQ(CKR_CRYPTOKI_ALREADY_INITIALIZED, p11.C_Initialize(nullptr));
    token.fail("C_OpenSession", CKR_SLOT_ID_INVALID);
    p11.C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
    token.clearCalls();
    p11.giveBack();
    EXPECT_EQ(Strings{}, token.callNames());
    EXPECT_TRUE(token.initialised());
}

TEST_F(Pkcs11LibraryUseTest, AnotherSessionsEndLeavesTheOneThatIsHeld)
{
    takeAll();
    p11.C_CloseSession(session + 1);
    token.clearCalls();
    p11.giveBack();
    EXPECT_EQ((Strings{"C_Logout", "C_CloseSession", "C_Finalize"}), token.callNames());
}

TEST_F(Pkcs11LibraryUseTest, AThrowingStepDoesNotStopTheOthers)
{
    takeAll();
    token.throwFrom("C_Logout");
    token.throwFrom("C_CloseSession");
    p11.giveBack();
    EXPECT_EQ((Strings{"C_Logout", "C_CloseSession", "C_Finalize"}), token.callNames());
    EXPECT_FALSE(token.initialised());
}

TEST(Pkcs11WithoutALibrary, HasNothingToGiveBack)
{
    Pkcs11 p11;
    p11.giveBack();
    p11.giveBackSession();
    EXPECT_EQ(nullptr, p11.module());
}

}  // namespace

}  // namespace NV::test
