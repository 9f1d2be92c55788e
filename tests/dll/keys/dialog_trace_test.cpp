// The whole log of one signature, from the entry point's ENTER to its LEAVE, and of a cancelled one.

#include "dialog_driver.h"
#include "dialog_trace.h"

namespace NV::test {

namespace {

using SignTraceTest = DialogTraceTest;

}  // namespace

TEST_F(SignTraceTest, ofASignature)
{
    BCRYPT_PKCS1_PADDING_INFO sha256{L"SHA256"};
    {
        const DialogDriver dialog(DialogDriver::entering(rightPin()));
        EXPECT_EQ(status(ERROR_SUCCESS), sign(rsa, 256, 0x2, &sha256));
    }
    const Bytes signature(output.at(), output.at() + 256);
    expectBlock(comparableLines(), R"(
TRC NVKSPSignHash:ENTER
TRC NV::Provider::SignHash:ENTER
TRC NV::Provider::SignHash:ARG[0]:hKey=PTR
TRC NV::Provider::SignHash:ARG[1]:pPaddingInfo=PTR
TRC NV::Provider::SignHash:ARG[2]:pbHashValue=PTR
TRC NV::Provider::SignHash:ARG[3]:cbHashValue=32
TRC NV::Provider::SignHash:ARG[4]:pbSignature=PTR
TRC NV::Provider::SignHash:ARG[5]:cbSignature=256
TRC NV::Provider::SignHash:ARG[6]:pcbResult=PTR
TRC NV::Provider::SignHash:ARG[7]:dwFlags=0x2
DBG NV::Provider::SignHash:BCRYPT_PAD_PKCS1 is enabled
DBG NV::Provider::SignHash:pkcs1PaddingInfo->pszAlgId=SHA256
TRC NV::Provider::SignHash:Found Key = PTR
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
TRC NV::PINDialog::open:ENTER
TRC NV::PINDialog::open:hInstance=PTR
TRC NV::PINDialog::open:hWnd(Parent)=NULL
TRC NV::PINDialog::open:self = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: self = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: hDlg = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: self->hDlg = PTR
TRC NV::PINDialog::Procedure:WM_INITDIALOG: EM_SETPASSWORDCHAR hwnd=PTR
TRC NV::PINDialog::Procedure:WM_INITDIALOG: GetWindowRect() w=#, h=#
TRC NV::PINDialog::Procedure:WM_INITDIALOG: Calcurated cordination x=#, y=#
TRC NV::PINDialog::Procedure:WM_INITDIALOG: Try to call SetWindowPos() hDlg=PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: return = 1
TRC NV::PINDialog::Procedure:WM_COMMAND[IDOK]: verified password(12:bytes)
TRC NV::PINDialog::open:result = 1
TRC NV::PINDialog::open:LEAVE
TRC NV::Provider::enterPIN:Entered Pin is 12 bytes
TRC NV::Provider::enterPIN:LEAVE
TRC NV::Provider::SignHash:Success to retrive the entered pin = 12 (bytes)
TRC NV::P11RSAKeyObject::sign:ENTER
TRC NV::P11RSAKeyObject::sign:ARG[0]:p11=PTR
TRC NV::P11RSAKeyObject::sign:ARG[1]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::sign:ARG[2]:pbHashValue=PTR
TRC NV::P11RSAKeyObject::sign:ARG[3]:cbHashValue=32
TRC NV::P11RSAKeyObject::sign:ARG[4]:pbSignature=PTR
TRC NV::P11RSAKeyObject::sign:ARG[5]:cbSignature=256
TRC NV::P11RSAKeyObject::sign:ARG[6]:dwFlags=0x2
TRC NV::P11RSAKeyObject::sign:ARG[7]:pin=12(bytes)
TRC NV::P11RSAKeyObject::sign:0) Try to initialize
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
TRC NV::P11RSAKeyObject::sign:1) Try to open a new session 
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
TRC NV::P11RSAKeyObject::sign:Success to open session (PTR)
TRC NV::P11RSAKeyObject::sign:2) Try to login the token 
TRC NV::Pkcs11::C_Login:ENTER
DBG NV::Pkcs11::C_Login:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_Login:ARG[1]:userType=1
DBG NV::Pkcs11::C_Login:ARG[2]:pPin=PTR
DBG NV::Pkcs11::C_Login:ARG[3]:ulPinLen=12
TRC NV::Pkcs11::C_Login:CALL C_Login(): START
TRC NV::Pkcs11::C_Login:CALL C_Login(): END [# msec]
TRC NV::Pkcs11::C_Login:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to login the token
TRC NV::P11RSAKeyObject::sign:3) Try to find private key object of the token 
TRC NV::Pkcs11::C_FindObjectsInit:ENTER
DBG NV::Pkcs11::C_FindObjectsInit:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_FindObjectsInit:ARG[1]:pTemplate=PTR
DBG NV::Pkcs11::C_FindObjectsInit:ARG[2]:ulCount=3
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[0]={type=CKA_CLASS(0),pValue=CKO_PRIVATE_KEY(3),ulValueLen=4}
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[1]={type=CKA_KEY_TYPE(256),pValue=CKO_DATA(0),ulValueLen=4}
TRC NV::Pkcs11::C_FindObjectsInit:ATTR[2]={type=CKA_ID(258),pValue=PTR,ulValueLen=2}
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): START
TRC NV::Pkcs11::C_FindObjectsInit:CALL C_FindObjectsInit(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsInit:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to initialize FindObject of the token
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
DBG NV::P11RSAKeyObject::sign:Success to Found 1 Object (must be 1)
TRC NV::P11RSAKeyObject::sign:Found private key object = PTR
TRC NV::Pkcs11::C_FindObjectsFinal:ENTER
DBG NV::Pkcs11::C_FindObjectsFinal:ARG[0]:hSession=PTR
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): START
TRC NV::Pkcs11::C_FindObjectsFinal:CALL C_FindObjectsFinal(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_FindObjectsFinal:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to finalize the FindObject
TRC NV::P11RSAKeyObject::sign:4) Try to sign the given hash by private key
TRC NV::P11RSAKeyObject::mechanismSignature:ENTER
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[0]:pPaddingInfo=PTR
TRC NV::P11RSAKeyObject::mechanismSignature:ARG[1]:dwFlags=0x2
DBG NV::P11RSAKeyObject::mechanismSignature:BCRYPT_PAD_PKCS1 is enabled
DBG NV::P11RSAKeyObject::mechanismSignature:pkcs1PaddingInfo->pszAlgId=SHA256
TRC NV::P11RSAKeyObject::mechanismSignature:LEAVE
TRC NV::Pkcs11::C_SignInit:ENTER
DBG NV::Pkcs11::C_SignInit:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_SignInit:ARG[1]:pMechanism=PTR
DBG NV::Pkcs11::C_SignInit:ARG[2]:hKey=PTR
DBG NV::Pkcs11::C_SignInit:pMechanism->mechanism = 0x1
DBG NV::Pkcs11::C_SignInit:pMechanism->pParameter = NULL
DBG NV::Pkcs11::C_SignInit:pMechanism->ulParameterLen = 0
TRC NV::Pkcs11::C_SignInit:CALL C_SignInit(): START
TRC NV::Pkcs11::C_SignInit:CALL C_SignInit(): END [# msec]
TRC NV::Pkcs11::C_SignInit:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to initialize sign process
TRC NV::Pkcs11::C_Sign:ENTER
DBG NV::Pkcs11::C_Sign:ARG[0]:hSession=PTR
DBG NV::Pkcs11::C_Sign:ARG[1]:pData=PTR
DBG NV::Pkcs11::C_Sign:ARG[2]:ulDataLen=51
DBG NV::Pkcs11::C_Sign:ARG[3]:pSignature=PTR
DBG NV::Pkcs11::C_Sign:ARG[4]:pulSignatureLen=PTR
TRC NV::Pkcs11::C_Sign:CALL C_Sign(): START
TRC NV::Pkcs11::C_Sign:CALL C_Sign(): END [# msec]
TRC NV::Pkcs11::C_Sign:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to sign data 256(bytes) for Signature
TRC NV::P11RSAKeyObject::sign:pbHashValue = )" +
                                       hexEncode(hash) + R"(
TRC NV::P11RSAKeyObject::sign:pbSignature = )" +
                                       hexEncode(signature) + R"(
TRC NV::P11RSAKeyObject::sign:5) Try to logout the token 
TRC NV::Pkcs11::C_Logout:ENTER
DBG NV::Pkcs11::C_Logout:ARG[0]:hSession=PTR
TRC NV::Pkcs11::C_Logout:CALL C_Logout(): START
TRC NV::Pkcs11::C_Logout:CALL C_Logout(): END [# msec]
TRC NV::Pkcs11::C_Logout:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to logout the token
TRC NV::P11RSAKeyObject::sign:6) Try to close the session (PTR)
TRC NV::Pkcs11::C_CloseSession:ENTER
DBG NV::Pkcs11::C_CloseSession:ARG[0]:hSession=PTR
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): START
TRC NV::Pkcs11::C_CloseSession:CALL C_CloseSession(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_CloseSession:LEAVE
TRC NV::P11RSAKeyObject::sign:Success to close session
TRC NV::P11RSAKeyObject::sign:7) Try to finalize
TRC NV::Pkcs11::C_Finalize:ENTER
DBG NV::Pkcs11::C_Finalize:ARG[0]:pReserved=NULL
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): START
TRC NV::Pkcs11::C_Finalize:CALL C_Finalize(): Result = 00000000(CKR_OK), Elapsed [# msec]
TRC NV::Pkcs11::C_Finalize:LEAVE
TRC NV::P11RSAKeyObject::sign:LEAVE
TRC NV::Provider::SignHash:STATUS=0x0, ELAPSED:#(ms)
TRC NV::Provider::SignHash:LEAVE
TRC NVKSPSignHash:LEAVE
)");
}

TEST_F(SignTraceTest, ofACancelledDialog)
{
    {
        const DialogDriver dialog(DialogDriver::cancelling());
        EXPECT_EQ(status(NTE_USER_CANCELLED), sign(rsa, 256));
    }
    expectBlock(comparableLines(), R"(
TRC NVKSPSignHash:ENTER
TRC NV::Provider::SignHash:ENTER
TRC NV::Provider::SignHash:ARG[0]:hKey=PTR
TRC NV::Provider::SignHash:ARG[1]:pPaddingInfo=NULL
TRC NV::Provider::SignHash:ARG[2]:pbHashValue=PTR
TRC NV::Provider::SignHash:ARG[3]:cbHashValue=32
TRC NV::Provider::SignHash:ARG[4]:pbSignature=PTR
TRC NV::Provider::SignHash:ARG[5]:cbSignature=256
TRC NV::Provider::SignHash:ARG[6]:pcbResult=PTR
TRC NV::Provider::SignHash:ARG[7]:dwFlags=0x0
TRC NV::Provider::SignHash:Found Key = PTR
TRC NV::Provider::enterPIN:ENTER
TRC NV::Provider::enterPIN:Trying to open PinPad
TRC NV::PINDialog::open:ENTER
TRC NV::PINDialog::open:hInstance=PTR
TRC NV::PINDialog::open:hWnd(Parent)=NULL
TRC NV::PINDialog::open:self = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: self = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: hDlg = PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: self->hDlg = PTR
TRC NV::PINDialog::Procedure:WM_INITDIALOG: EM_SETPASSWORDCHAR hwnd=PTR
TRC NV::PINDialog::Procedure:WM_INITDIALOG: GetWindowRect() w=#, h=#
TRC NV::PINDialog::Procedure:WM_INITDIALOG: Calcurated cordination x=#, y=#
TRC NV::PINDialog::Procedure:WM_INITDIALOG: Try to call SetWindowPos() hDlg=PTR
TRC NV::PINDialog::DialogProc:WM_INITDIALOG: return = 1
TRC NV::PINDialog::Procedure:WM_COMMAND[IDCANCEL]: canceled
TRC NV::PINDialog::open:result = 1
TRC NV::PINDialog::open:LEAVE
ERR NV::Provider::enterPIN:Caught Exception: User canceled(errorcode:2)
TRC NV::Provider::enterPIN:LEAVE
TRC NV::Provider::SignHash:STATUS=0x80090036, ELAPSED:#(ms)
TRC NV::Provider::SignHash:LEAVE
TRC NVKSPSignHash:LEAVE
)");
}

}  // namespace NV::test
