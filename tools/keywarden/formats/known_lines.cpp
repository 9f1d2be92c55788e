// The forms of all harmless messages of the module. A test compares them with the sources of the module: a
// new line of the log has no form until somebody has looked at what it shows.

#include "formats/known_lines.h"

#include <algorithm>
#include <iterator>

#include "formats/log_pattern.h"

namespace NV::tool {

namespace {

// clang-format off
// In the order of their first characters.
constexpr std::string_view knownForms[] = {
    "%d) Try to close the session (%x)",
    "%d) Try to finalize",
    "%d) Try to find private key object of the token ",
    "%d) Try to find public key object of the token ",
    "%d) Try to logout the token ",
    "%d) Try to open a new session",
    "%d) Try to open a new session ",
    "%w recieved, length=%d bytes",
    "0) Parse Input BLOB to get keysize (in bytes)..",
    "0) Try to initialize",
    "1) Check Precondition",
    "1) Compute Public key (uncompressed format from X and Y points)..",
    "1) Open System Store (My)",
    "2) Create KeyObject to get NCRYPT_KEY_HANDLE..",
    "2) Create a certificate context",
    "2) Load Module",
    "2) Skip creating HMAC secret key session object, since using Hash based KDF",
    "2) Try to create HMAC secret key session object",
    "2) Try to login the token ",
    "3) Add the context to the store",
    "3) Get EntryPoint for C_GetFunctionList()",
    "3) Try to encrypt the input data using the public key",
    "3) Try to verify the given signature by public key",
    "3) Trying to compute KDF input data: [KDF_SECRET_PREPEND || SHARED_SECRET || KDF_SECRET_APPEND]",
    "4) Associate the provInfo to the context",
    "4) Call C_GetFunctionList()",
    "4) Try to decrypt the input data using the private key",
    "4) Try to derive the secret key using peer's public key..",
    "4) Try to sign the given hash by private key",
    "4) Trying to derive the key using [%w] based KDF..",
    "5) Verify obtained FunctionList (Optional Check)",
    "ALGOObjID = %s",
    "ARGS.CreateMutex=%x",
    "ARGS.DestroyMutex=%x",
    "ARGS.LockMutex=%x",
    "ARGS.UnlockMutex=%x",
    "ARGS.flags=0x%x",
    "ARGS.pReserved=%x",
    "ATTR[%d]=%s",
    "Add Mechanism[%w(0x%x)]:Flag=0x%x,MinKeySize=%d,MaxKeySize=%d",
    "Aloocate index %x for enumulation",
    "Another part of the process has finalized the library",
    "BCRYPT_PAD_NONE is enabled",
    "BCRYPT_PAD_OAEP is enabled",
    "BCRYPT_PAD_PKCS1 is enabled",
    "BCRYPT_PAD_PSS is enabled",
    "BCrypt cannot %w with this key and padding",
    "CALL %w(): END [%f msec]",
    "CALL %w(): Result = %r, Elapsed [%f msec]",
    "CALL %w(): START",
    "CALL C_Login(): RETURN CODE:%r",
    "CERT_SUBJECT_PUB_KEY_BIT_LENGTH_PROP_ID=%d",
    "CKA_ID = %s",
    "CKF_RW_SESSION is enabled",
    "CKF_SERIAL_SESSION is enabled",
    "CK_INFO = %s",
    "CK_SESSION_INFO = %s",
    "CK_SLOT_INFO = %s",
    "CK_TOKEN_INFO = %s",
    "CURVE = %s (%d bits)",
    "C_CreateObject() failed while creating Hmac secret key object, error-code=(%r)",
    "C_DeriveKey(): Failed with error-code:(%r)",
    "C_DeriveKey(): successful to get the agreed shared-secret handle, handle=[%x]",
    "C_GetAttributeValue() failed while getting attributeValue length with error-code:(%r)",
    "C_GetAttributeValue() failed with error-code:(%r)",
    "C_Initialize in DLL = [%x]",
    "C_Initialize in LST = [%x]",
    "Call C_Finalize(): END",
    "Call C_Finalize(): START",
    "Call C_Finalize():END RV=%r",
    "Call C_Finalize():START",
    "Call C_GetFunctionList():END RV=%r",
    "Call C_GetFunctionList():START",
    "Call C_GetInfo():END RV=%r",
    "Call C_GetInfo():START",
    "Call C_GetMechanismInfo():END RV=%r",
    "Call C_GetMechanismInfo():START",
    "Call C_GetMechanismList():END RV=%r",
    "Call C_GetMechanismList():START",
    "Call C_GetSlotInfo():END RV=%r",
    "Call C_GetSlotInfo():START",
    "Call C_GetSlotList():END RV=%r",
    "Call C_GetSlotList():START",
    "Call C_GetTokenInfo():END RV=%r",
    "Call C_GetTokenInfo():START",
    "Call C_Initialize():END RV=%r",
    "Call C_Initialize():START",
    "Call CreateMutex():END RV=%r",
    "Call CreateMutex():START",
    "Call LockMutex():END RV=%r",
    "Call LockMutex():START",
    "Call UnlockMutex():END RV=%r",
    "Call UnlockMutex():START",
    "Caught Enxception",
    "Caught Exception",
    "Caught Exception.",
    "Caught Exception: %s",
    "Caught Exception: %s(errorcode:%d)",
    "Caught Signal: %d , Terminate Process",
    "Caught Unknown Exception",
    "CertAddCertificateContextToStore() failed",
    "CertCreateCertificateContext() failed",
    "CertOpenSystemStore() failed",
    "CertSetCertificateContextProperty() failed",
    "Clone the ECkey as [%x]",
    "Clone the RSAkey as [%x]",
    "Copy all the members",
    "Copy all the properties (%d)",
    "Copy the public key data",
    "DONE, STATUS=0x%x, ELAPSED:%f(ms)",
    "DONE, STATUS=0x%x, ELAPSED:%f(ms), KEY=%s",
    "DONE, STATUS=0x%x, ELAPSED:%f(ms), RESULT=%w",
    "DONE, STATUS=0x%x, ELAPSED:%f(ms), RESULT=%w, KEY=%s",
    "Delete _initArgs[%x]",
    "ENTER",
    "Enabled AT_KEYEXCHANGE Option",
    "Enabled AT_SIGNATURE Option",
    "Enabled Silent Option",
    "Entered PIN is empty",
    "Enum keys[%d/%d]",
    "Error finalizing the cryptoki library: 0x%x",
    "Error initializing the cryptoki library: 0x%x",
    "FAILURE: %s file does not exist",
    "FAILURE: %s is not an absolute path",
    "FAILURE: %w() reports %d entries, more than %d",
    "FAILURE: C_GetInfo() : 0x%x",
    "FAILURE: C_GetSlotList() : 0x%x",
    "FAILURE: Failed to get function list: 0x%x",
    "FAILURE: Failed to get location of C_GetFunctionList()",
    "FAILURE: Module [%s] cannot be loaded",
    "FAILURE: The function list cannot be written",
    "FAILURE: the name module is empty",
    "Failed C_Finalize (%r)",
    "Failed C_Initialize (%r)",
    "Failed C_OpenSession()",
    "Failed to %w by the public key (0x%x)",
    "Failed to Digest data, error-code:(%r)",
    "Failed to HMAC data, error-code:(%r)",
    "Failed to allocate memory",
    "Failed to call C_Initialize()",
    "Failed to change password charactor",
    "Failed to close session (%r)",
    "Failed to copy the key",
    "Failed to decrypt data, C_Decrypt() returned (%r)",
    "Failed to encrypt data, C_Encrypt() returned (%r)",
    "Failed to finalize the FindObject (%r)",
    "Failed to find Object (%r)",
    "Failed to free the key(0x%x)",
    "Failed to initialize Digest Process (%r)",
    "Failed to initialize FindObject (%r)",
    "Failed to initialize HMAC Process (%r)",
    "Failed to initialize Sign Process (%r)",
    "Failed to initialize decrypt, C_DecryptInit() returned (%r)",
    "Failed to initialize encrypt, C_EncryptInit() returned (%r)",
    "Failed to initialize verify process (%r)",
    "Failed to load config file",
    "Failed to login the token (%r)",
    "Failed to logout the token (%r)",
    "Failed to move to center",
    "Failed to open key",
    "Failed to open session (%r)",
    "Failed to open the key because Not Found KeyId = %s",
    "Failed to sign Process (%r)",
    "Failed to verify Process (%r)",
    "Failure: Failed to Load PKCS#11",
    "Failure: Failed to allocate memory",
    "Failure: Provider[%x] is already opened",
    "Failure: Provider[%x] not found",
    "Found %d Objects",
    "Found CKA_ID Attribute %d bytes",
    "Found CKA_VALUE Attribute %d bytes",
    "Found ECDSA key, Try to clone the key",
    "Found Key %s,",
    "Found Key = %x",
    "Found Key Property (%s)",
    "Found Provider Property (%s)",
    "Found RSA key, Try to clone the key",
    "Found private key object = %x",
    "Found public key object = %x",
    "Found secretHandle(%x) in managed Global SecretHandle List of size (%d)",
    "Found the key (%x)",
    "Function List is not initialized",
    "Generate P11ECKeyObject",
    "Generate P11RSAKeyObject",
    "Handle = %x",
    "Imported the public key, length=%d bits",
    "InitArgs will be generated because it is null",
    "Invalid Argument ulPinLen is zero",
    "Invalid Argument: phKey is null",
    "Invalid Argument: pszKeyName is null",
    "Invalid Argument[0]:hProvider is null",
    "Invalid Argument[0]:phProvider is null",
    "Invalid Argument[1]:pszProviderName is null",
    "Invalid Argument[1]:pszProviderName is too long",
    "Invalid lines: %d more",
    "Invalid mode: %s",
    "Invalid window handle = NULL",
    "KDF_HMAC_KEY is only expected for HMAC based KDF (BCRYPT_KDF_HMAC)!!",
    "KDF_USE_SECRET_AS_HMAC_KEY_FLAG flag is enabled",
    "KEYLENGTH = %d",
    "LEAVE",
    "LEAVE(%d)",
    "LOGGER():LogLevel = 0x%x",
    "LOGGER():LogRotate = %d",
    "LOGGER():LogStore = %s",
    "LOGGER():LogTypes = 0x%x",
    "LOGGER():STARTED",
    "LOGGER: %d records could not be written",
    "Module [%s] has been unloaded",
    "NCRYPT_SILENT_FLAG is enabled",
    "No KDF Hash Algorithm is given, using [SHA1]",
    "Not Found Key = %x",
    "Not Found Key Property (%s)",
    "Not Found Key by %x",
    "Not Found key",
    "Not Found public Key of a curve = %x",
    "Not Found the key (%x)",
    "Not Supported BlobType = %s",
    "Not Supported Key Property (%s)",
    "Not found secretHandle(%x) in managed Global SecretHandle List",
    "OBJECT COUNT = %d",
    "OBJECT[%d]=%x",
    "Original FuncList = %s",
    "Output the list of keys = %d",
    "Owner Window Handle is %x",
    "Path (u8) = %s",
    "Popup Dialog: END",
    "Popup Dialog: START",
    "Present Slot Count = %d",
    "Program=%s, USER=%s, VERSION=%s",
    "RESULT=%d, ELAPSED:%f(ms)",
    "RETURN CODE:%r",
    "RSA_secretAgreement NOT supported yet!!",
    "Received : %w",
    "Received : DLL_PROCESS_ATTACH",
    "Received : DLL_PROCESS_DETACH",
    "Retrieved public key = %d (bytes)",
    "Retrieved public key blob = %d (bytes)",
    "STATUS=0x%x, ELAPSED:%f(ms)",
    "SUCCESS: %s file exists",
    "SUCCESS: C_GetFunctionList() is located at %x",
    "SUCCESS: C_GetInfo()",
    "SUCCESS: C_GetMechanismList(): Count=%d",
    "SUCCESS: C_GetSlotInfo()",
    "SUCCESS: C_GetSlotList()",
    "SUCCESS: C_GetTokenInfo()",
    "SUCCESS: Module [%s] is loaded as %x",
    "SUCCESS: PKCS#11 Version %d.%d",
    "SUCCESS: The address of C_Initialize() is verified",
    "SecretAgreement() failed with error-code:0x%x",
    "SecretAgreement() succeeded, handle =%x",
    "Set NCRYPT_WINDOW_HANDLE_PROPERTY",
    "Size of Properties = %d",
    "Skip a certificate without CKA_ID",
    "Skip the certificate of an authority, CKA_ID = %s",
    "Slot Count = %d",
    "Slot Count: %d",
    "SlotInfo: %s",
    "Slot[%d] = %d",
    "Success to %w by the public key",
    "Success to Digest data %d(bytes)",
    "Success to Found %d Object (must be 1)",
    "Success to HMAC data %d(bytes)",
    "Success to call C_Initialize()",
    "Success to close session",
    "Success to decrypt data(%d bytes), C_Decrypt() returned CKR_OK",
    "Success to encrypt data(%d bytes), C_Encrypt() returned CKR_OK",
    "Success to finalize the FindObject",
    "Success to free the key(0x%x)",
    "Success to initialize Digest process",
    "Success to initialize FindObject of the token",
    "Success to initialize HMAC process",
    "Success to initialize sign process",
    "Success to initialize verify process",
    "Success to initiate decrypt, C_DecryptInit() returned CKR_OK",
    "Success to initiate encrypt, C_EncryptInit() returned CKR_OK",
    "Success to load PKCS11 library",
    "Success to login the token",
    "Success to logout the token",
    "Success to open session (%x)",
    "Success to open the key (%x)",
    "Success to sign data %d(bytes) for Signature",
    "Success to verify signature",
    "Success: Provider[%x] Allocated",
    "Success: Provider[%x] is freed",
    "The BLOB is damaged or short",
    "The BLOB is of another kind of key or of another curve",
    "The BLOB is shorter than its header says..",
    "The PIN is needed, and NCRYPT_SILENT_FLAG forbids the dialog",
    "The allocated buffer length is too short",
    "The allocated buffer length is too short: %d of %d (bytes)",
    "The dialog cannot be shown",
    "The end of the enumeration has been reached",
    "The given index is %d",
    "The hash has %d bytes, and a hash of [%s] has %d",
    "The length of output buffer is too short",
    "The length of the signature is not known",
    "The library is not initialized",
    "The signature has not the length of the key's: %d (bytes)",
    "The token has a login already",
    "There are multiple private key objects for the token (use first one)",
    "There are multiple public key objects for the token (use first one)",
    "There is no padding flag",
    "There is no padding info for BCRYPT_PAD_OAEP",
    "There is no padding info for BCRYPT_PAD_PKCS1",
    "There is no padding info for BCRYPT_PAD_PSS",
    "There is no suitable private key object",
    "There is no suitable public key object",
    "This module has already been loaded as %x",
    "This operation is not available",
    "TokenInfo: %s",
    "Try to %w by the public key, without the token",
    "Try to find [%s] from managed keys",
    "Try to load PKCS11 library by configuration",
    "Try to obtain exported entrypoint from DLL",
    "Trying to open PinPad",
    "Unknown NCryptBufferType encountered!!",
    "Unknown key derivation function (KDF) identifier!!",
    "Unsupported BLOB type=[%s] (only RSA/ECC_PUBLIC_BLOB supported)!!",
    "Unsupported KDF Hash Algorithm [%s]",
    "Unsupported hash algorithm [%s]",
    "Unsupported/Unknown MAGIC received..",
    "Updated FuncList = %s",
    "Use first active slot[%d]",
    "Using KDF Hash Algorithm (KDF_HASH_ALGORITHM) as [%s]",
    "Using secret append item (KDF_SECRET_APPEND)..",
    "Using secret prepend item (KDF_SECRET_PREPEND)..",
    "Using the HASH based KDF (BCRYPT_KDF_HASH)",
    "Using the HMAC based KDF (BCRYPT_KDF_HMAC)",
    "Using the TLS-PRF based KDF (BCRYPT_KDF_TLS_PRF) not supported",
    "WARNING: The address of C_Initialize() is not match",
    "WM_COMMAND[IDCANCEL]: canceled",
    "WM_INITDIALOG: Calcurated cordination x=%d, y=%d",
    "WM_INITDIALOG: EM_SETPASSWORDCHAR hwnd=%x",
    "WM_INITDIALOG: GetWindowRect() w=%d, h=%d",
    "WM_INITDIALOG: Try to call SetWindowPos() hDlg=%x",
    "WM_INITDIALOG: hDlg = %x",
    "WM_INITDIALOG: return = %d",
    "WM_INITDIALOG: self = %x",
    "WM_INITDIALOG: self->hDlg = %x",
    "dwExponent = %d",
    "dwMagic = %x",
    "dwModulusSize = %d",
    "hInstance=%x",
    "hWnd(Parent)=%x",
    "oaepPaddingInfo->cbLabel=%d",
    "oaepPaddingInfo->pbLabel=%x",
    "oaepPaddingInfo->pszAlgId=%s",
    "pMechanism->mechanism = 0x%x",
    "pMechanism->pParameter = %x",
    "pMechanism->ulParameterLen = %d",
    "pParameterList is non-empty!!",
    "pParameterList(optional) field is NULL!!",
    "pkcs1PaddingInfo->pszAlgId=%s",
    "pssPaddingInfo->cbSalt=%d",
    "pssPaddingInfo->pszAlgId=%s",
    "result = %d",
    "self = %x",
    "src._id = %s",
    "src._type = %d",
};

// Forms that would fit too much in other functions.
struct LineOfFunction {
    std::string_view function;
    std::string_view form;
};
constexpr LineOfFunction linesOfFunctions[] = {
    {"NV::P11Module::P11Module", "ARG[0]:%s"},
};

// The arguments of functions by the form of their values: "ARG[2]:cbHashValue=32", in some functions with
// blanks around the equals sign.
struct Arguments {
    std::string_view form;
    std::string_view names;  // with one blank between two
};
constexpr Arguments knownArguments[] = {
    {"%x",
     "Notify RandomData data hAuthenticationKey hBaseKey hEncryptionKey hExportKey "
     "hImportKey hKey hObject hPrivKey hProvider hPubKey hSession hSharedSecret "
     "hUnwrappingKey hWrappingKey p11 pApplication pData pDigest pEncryptedData "
     "pEncryptedPart pInfo pInitArgs pLabel pLastEncryptedPart pLastPart pMechanism "
     "pMechanismList pNewPin pOldPin pOperationState pPaddingInfo pParameterList pPart "
     "pPin pPrivateKeyTemplate pPublicKeyTemplate pReserved pRserved pSeed pSignature "
     "pSlot pSlotList pTemplate pWrappedKey pbData pbDerivedKey pbHashValue pbHmacKey "
     "pbInput pbKdfAppend pbKdfPrepend pbOutput pbPeerPubkey pbSignature pcbResult "
     "pdwAlgCount phAgreedSecret phEvent phKey phNewObject phObject phPrivateKey "
     "phProvider phPublicKey phSession ppAlgList ppEnumState ppFunctionList ppKeyName "
     "pulCount pulDataLen pulDigestLen pulEncryptedDataLen pulEncryptedPartLen "
     "pulLastEncryptedPartLen pulObjectCount pulOperationStateLen pulPartLen "
     "pulSignatureLen pulSize pulWrappedKeyLen slot"},
    {"%d",
     "cbData cbDerivedKey cbHashValue cbHmacKey cbInput cbKdfAppend cbKdfPrepend cbOutput "
     "cbPeerPubkey cbSignature length pulLastPartLen slotID tokenPresent type "
     "ulAttributeCount ulCount ulDataLen ulEncryptedDataLen ulEncryptedPartLen "
     "ulMaxObjectCount ulOperationStateLen ulPartLen ulPrivateKeyAttributeCount "
     "ulPublicKeyAttributeCount ulRandomLen ulSeedLen ulSignatureLen ulWrappedKeyLen "
     "useHmacKdf userType"},
    {"0x%x",
     "dwAlgOperations dwFlags dwLegacyKeySpec flags"},
    {"%x",
     "flags"},
    {"%s",
     "hashAlgo id oid path pszAlgId pszBlobType pszKeyName pszOperation pszProperty "
     "pszProviderName pszScope pwszContainerName pwszKDF"},
};
// clang-format on

constexpr char firstCharacter(std::string_view form)
{
    return form.front();
}
static_assert(std::ranges::is_sorted(knownForms, {}, firstCharacter));

// The row of '=' of the lines with which a process begins its log.
bool isRule(std::string_view message)
{
    return message.size() == 76 && message.find_first_not_of('=') == std::string_view::npos;
}

bool isKnownArgument(std::string_view message, std::vector<LogValue>& values)
{
    for (const std::string_view form : {"ARG[%d]:%w=%s", "ARG[%d]:%w = %s"}) {
        if (!hasForm(form, message, values))
            continue;
        const std::string_view name = values[1].text;
        const std::string_view value = values[2].text;
        for (const Arguments& arguments : knownArguments) {
            values.clear();
            if (hasWord(arguments.names, name) && hasForm(arguments.form, value, values))
                return true;
        }
    }
    values.clear();
    return false;
}

}  // namespace

bool hasWord(std::string_view words, std::string_view word)
{
    while (!words.empty()) {
        const std::string_view first = words.substr(0, words.find(' '));
        if (first == word)
            return true;
        words.remove_prefix(std::min(first.size() + 1, words.size()));
    }
    return false;
}

bool isKnown(std::string_view function, std::string_view message, std::vector<LogValue>& values)
{
    values.clear();
    if (message.empty())
        return true;  // the logger writes a message that is too long as an empty one
    if (isRule(message) || isKnownArgument(message, values))
        return true;
    // Forms that begin with the same character, and those that begin with a value.
    for (const char first : {message.front(), '%'}) {
        for (const std::string_view form :
             std::ranges::equal_range(knownForms, first, {}, firstCharacter)) {
            values.clear();
            if (hasForm(form, message, values))
                return true;
        }
    }
    return std::ranges::any_of(linesOfFunctions, [&](const LineOfFunction& line) {
        values.clear();
        return line.function == function && hasForm(line.form, message, values);
    });
}

}  // namespace NV::tool
