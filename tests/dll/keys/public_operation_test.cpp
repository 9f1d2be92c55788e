// Verification and encryption through the table: the token's calls, and the whole trace of one of
// each.

#include "module_fixture.h"

namespace NV::test {

namespace {

class PublicOperationTest : public ServedKeysTest {
protected:
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, Bytes signature)
    {
        return table()->VerifySignature(handle(), key, nullptr, hash.data(), 32, signature.data(),
                                        static_cast<DWORD>(signature.size()), 0);
    }
    SECURITY_STATUS encrypt(Output& output, DWORD room)
    {
        return table()->Encrypt(handle(), rsa, hash.data(), 4, nullptr, output.at(), room,
                                &output.length, 0x2);
    }
};

}  // namespace

TEST_F(PublicOperationTest, verifyRunsOneSequence)
{
    EXPECT_EQ(status(ERROR_SUCCESS), verify(rsa, signatureOf(CKM_RSA_PKCS, hash, 256)));
    EXPECT_EQ("C_Initialize\nC_OpenSession\nC_FindObjectsInit\nC_FindObjects\n"
              "C_FindObjectsFinal\nC_VerifyInit\nC_Verify\nC_CloseSession\nC_Finalize\n",
              joined(token.callNames()));
    EXPECT_FALSE(token.initialised());
}

TEST_F(PublicOperationTest, aWrongSignatureIsAnInternalError)
{
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, Bytes(256)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(rsa, Bytes(255)));
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), verify(ec, Bytes(64)));
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, signatureOf(CKM_ECDSA, hash, 64)));
    EXPECT_EQ(0U, token.openSessions());
}

TEST_F(PublicOperationTest, aShortCipherTextBufferFailsAndStaysUntouched)
{
    Output output;
    EXPECT_EQ(status(NTE_INTERNAL_ERROR), encrypt(output, 255));
    EXPECT_TRUE(output.untouched());
    EXPECT_EQ(status(ERROR_SUCCESS), encrypt(output, 256));
    EXPECT_TRUE(output.onlyWritten(256));
    EXPECT_EQ(256U, output.length);
}

TEST_F(PublicOperationTest, encryptAnswersASizeQueryFromTheToken)
{
    DWORD length = 0;
    EXPECT_EQ(status(ERROR_SUCCESS),
              table()->Encrypt(handle(), rsa, hash.data(), 4, nullptr, nullptr, 0, &length, 0x2));
    EXPECT_EQ(256U, length);
}

TEST_F(PublicOperationTest, theTraceOfAWholeVerification)
{
    EXPECT_EQ(status(ERROR_SUCCESS), verify(ec, signatureOf(CKM_ECDSA, hash, 64)));
    expectBlock(takeLines(), R"(
TRC NVKSPVerifySignature:ENTER
TRC NV::Provider::VerifySignature:ENTER
TRC NV::Provider::VerifySignature:ARG[0]:hKey=PTR
TRC NV::Provider::VerifySignature:ARG[1]:pPaddingInfo=NULL
TRC NV::Provider::VerifySignature:ARG[2]:pbHashValue=PTR
TRC NV::Provider::VerifySignature:ARG[3]:cbHashValue=32
TRC NV::Provider::VerifySignature:ARG[4]:pbSignature=PTR
TRC NV::Provider::VerifySignature:ARG[5]:cbSignature=64
TRC NV::Provider::VerifySignature:ARG[6]:dwFlags=0x0
TRC NV::Provider::VerifySignature:Found Key = PTR
TRC NV::P11ECKeyObject::verify:ENTER
TRC NV::P11ECKeyObject::verify:ARG[0]:p11=PTR
TRC NV::P11ECKeyObject::verify:ARG[1]:pPaddingInfo=NULL
TRC NV::P11ECKeyObject::verify:ARG[2]:pbHashValue=PTR
TRC NV::P11ECKeyObject::verify:ARG[3]:cbHashValue=32
TRC NV::P11ECKeyObject::verify:ARG[4]:pbSignature=PTR
TRC NV::P11ECKeyObject::verify:ARG[5]:cbSignature=64
TRC NV::P11ECKeyObject::verify:ARG[6]:dwFlags=0x0
TRC NV::P11ECKeyObject::verify:0) Try to initialize
TRC NV::Pkcs11::C_Initialize:ENTER
DBG NV::Pkcs11::C_Initialize:ARG[0]:pInitArgs=NULL
INF NV::Pkcs11::C_Initialize:InitArgs will be generated because it is null
INF NV::Pkcs11::C_Initialize:ARGS.CreateMutex=PTR
INF NV::Pkcs11::C_Initialize:ARGS.DestroyMutex=PTR
INF NV::Pkcs11::C_Initialize:ARGS.LockMutex=PTR
INF NV::Pkcs11::C_Initialize:ARGS.UnlockMutex=PTR
INF NV::Pkcs11::C_Initialize:ARGS.pReserved=NULL
INF NV::Pkcs11::C_Initialize:ARGS.flags=0x03
TRC NV::Pkcs11::C_Initialize:CALL C_Initialize(): START
TRC NV::Pkcs11::C_Initialize:CALL C_Initialize(): Result = 00000000(CKR_OK), Elapsed [# msec]
INF NV::Pkcs11::C_Initialize:RETURN CODE:00000000(CKR_OK)
TRC NV::Pkcs11::C_Initialize:LEAVE
TRC NV::P11ECKeyObject::verify:1) Try to open a new session 
TRC NV::Pkcs11::C_OpenSession:ENTER
DBG NV::Pkcs11::C_OpenSession:ARG[0]:slotID=52
DBG NV::Pkcs11::C_OpenSession:ARG[1]:flags=0x4
DBG NV::Pkcs11::C_OpenSession:ARG[2]:pApplication=NULL
DBG NV::Pkcs11::C_OpenSession:ARG[3]:Notify=NULL
DBG NV::Pkcs11::C_OpenSession:ARG[4]:phSession=PTR
DBG NV::Pkcs11::C_OpenSession:CKF_SERIAL_SESSION is enabled
TRC NV::Pkcs11::C_OpenSession:CALL C_OpenSession(): START
TRC NV::Pkcs11::C_OpenSession:CALL C_OpenSession(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_OpenSession:LEAVE
TRC NV::P11ECKeyObject::verify:Success to open session (PTR)
TRC NV::P11ECKeyObject::verify:2) Try to find public key object of the token 
TRC NV::Pkcs11::C_FindObjectsInit:ENTER
DBG NV::Pkcs11::C_FindObjectsInit:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_FindObjectsInit:ARG[1]:pTemplate=PTR
DBG NV::Pkcs11::C_FindObjectsInit:ARG[2]:ulCount=3
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[0]={type=CKA_CLASS(0),pValue=CKO_PUBLIC_KEY(2),ulValueLen=4}
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[1]={type=CKA_KEY_TYPE(256),pValue=CKO_PRIVATE_KEY(3),ulValueLen=4}
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[2]={type=CKA_ID(258),pValue=PTR,ulValueLen=2}
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): START
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsInit:LEAVE
TRC NV::P11ECKeyObject::verify:Success to initialize FindObject of the token
TRC NV::Pkcs11::C_FindObjects:ENTER
DBG NV::Pkcs11::C_FindObjects:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_FindObjects:ARG[1]:phObject=PTR
DBG NV::Pkcs11::C_FindObjects:ARG[2]:ulMaxObjectCount=1024
DBG NV::Pkcs11::C_FindObjects:ARG[3]:pulObjectCount=PTR
TRC NV::Pkcs11::C_FindObjects:CALL C_FindObjects(): START
TRC NV::Pkcs11::C_FindObjects:CALL C_FindObjects(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjects:OBJECT COUNT = 1
TRC NV::Pkcs11::C_FindObjects:OBJECT[0]=PTR
TRC NV::Pkcs11::C_FindObjects:LEAVE
DBG NV::P11ECKeyObject::verify:Success to Found 1 Object (must be 1)
TRC NV::P11ECKeyObject::verify:Found public key object = PTR
TRC NV::Pkcs11::C_FindObjectsFinal:ENTER
DBG NV::Pkcs11::C_FindObjectsFinal:ARG[0]:hSession=PTR
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): START
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsFinal:LEAVE
TRC NV::P11ECKeyObject::verify:Success to finalize the FindObject
TRC NV::P11ECKeyObject::verify:3) Try to verify the given signature by public key
TRC NV::P11ECKeyObject::mechanismSignature:ENTER
TRC NV::P11ECKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=NULL
TRC NV::P11ECKeyObject::mechanismSignature:ARG[1]:dwFlags=0x0
TRC NV::P11ECKeyObject::mechanismSignature:LEAVE
TRC NV::Pkcs11::C_VerifyInit:ENTER
DBG NV::Pkcs11::C_VerifyInit:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_VerifyInit:ARG[1]:pMechanism=PTR
DBG NV::Pkcs11::C_VerifyInit:ARG[2]:hKey=PTR
TRC NV::Pkcs11::C_VerifyInit:CALL C_VerifyInit(): START
TRC NV::Pkcs11::C_VerifyInit:CALL C_VerifyInit(): END [# msec]
TRC NV::Pkcs11::C_VerifyInit:LEAVE
TRC NV::P11ECKeyObject::verify:Success to initialize verify process
TRC NV::Pkcs11::C_Verify:ENTER
DBG NV::Pkcs11::C_Verify:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_Verify:ARG[1]:pData=PTR
DBG NV::Pkcs11::C_Verify:ARG[2]:ulDataLen=32
DBG NV::Pkcs11::C_Verify:ARG[3]:pSignature=PTR
DBG NV::Pkcs11::C_Verify:ARG[4]:ulSignatureLen=64
TRC NV::Pkcs11::C_Verify:CALL C_Verify(): START
TRC NV::Pkcs11::C_Verify:CALL C_Verify(): END [# msec]
TRC NV::Pkcs11::C_Verify:LEAVE
TRC NV::P11ECKeyObject::verify:Success to verify signature
TRC NV::P11ECKeyObject::verify:4) Try to close the session (PTR)
TRC NV::Pkcs11::C_CloseSession:ENTER
DBG NV::Pkcs11::C_CloseSession:ARG[0]:hSession=PTR
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): START
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_CloseSession:LEAVE
TRC NV::P11ECKeyObject::verify:Success to close session
TRC NV::P11ECKeyObject::verify:5) Try to finalize
TRC NV::Pkcs11::C_Finalize:ENTER
DBG NV::Pkcs11::C_Finalize:ARG[0]:pReserved=NULL
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): START
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_Finalize:LEAVE
TRC NV::P11ECKeyObject::verify:LEAVE
TRC NV::Provider::VerifySignature:STATUS=0x0, ELAPSED:#(ms)
TRC NV::Provider::VerifySignature:LEAVE
TRC NVKSPVerifySignature:LEAVE
)");
}

}  // namespace NV::test
