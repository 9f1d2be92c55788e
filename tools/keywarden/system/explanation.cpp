// The table, and finding a row in it.

#include "system/explanation.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>

#include "keystore/token_status.h"
#include "nearest.h"
#include "p11/cryptoki.h"
#include "text.h"

namespace NV::tool {

namespace {

// Advice that several rows have.
constexpr std::string_view askVendor =
    "Repeat it with \"keywarden log on\", and send the log to the vendor of the token's library.";
constexpr std::string_view insertToken = "Insert the token, and run \"keywarden check\".";
constexpr std::string_view checkReader =
    "Remove and insert the token, check the reader and its driver, and run \"keywarden check\".";
constexpr std::string_view tryAgain = "Repeat the operation.";
constexpr std::string_view closePrograms =
    "Close other programs that use the token, and repeat the operation.";
constexpr std::string_view otherPadding =
    "Choose another padding or hash. \"keywarden check\" shows whether the token is usable.";
constexpr std::string_view checkKey =
    "Check with the vendor's tool what this key may be used for, or choose another key.";
constexpr std::string_view otherInput = "Check the input and its length, and the padding and hash.";
constexpr std::string_view correctPin =
    "Make sure that you have the correct PIN before you try again: several wrong ones lock the token. "
    "\"keywarden check\" shows whether this is the last try.";
constexpr std::string_view unlockPin =
    "Do not try again. Ask the token's security officer to unlock the PIN with the vendor's tool.";
constexpr std::string_view changePin = "Change the PIN with the vendor's tool.";
constexpr std::string_view listKeys = "\"keywarden keys\" lists the keys.";
constexpr std::string_view registerAgain =
    "Run \"keywarden status\" to see what is registered with CNG.";
constexpr std::string_view callerFault =
    "The program passes wrong values to the provider: report it to the program's vendor.";
constexpr std::string_view startService =
    "Start the service \"Smart Card\" (SCardSvr), and check the reader and its driver.";
constexpr std::string_view desktop =
    "Run the program on a desktop, where the PIN dialog can be shown.";

// The name written once. Without a code, the operation has failed for another reason.
#define NV_ROW(name, meaning, advice, ...)                                                         \
    Explanation                                                                                    \
    {                                                                                              \
        static_cast<uint32_t>(name), #name, meaning, advice, exitCodeOr(__VA_ARGS__)               \
    }
constexpr ExitCode exitCodeOr(ExitCode code = ExitCode::failed)
{
    return code;
}

constexpr Explanation rows[] = {
    NV_ROW(CKR_OK, "The call succeeded.", "", ExitCode::good),
    NV_ROW(CKR_CANCEL, "The operation was cancelled.", tryAgain, ExitCode::pinCancelled),
    NV_ROW(CKR_HOST_MEMORY, "The computer has too little memory for the operation.",
           "Close other programs, and repeat the operation."),
    NV_ROW(CKR_SLOT_ID_INVALID, "The library no longer knows the slot of the token.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(CKR_GENERAL_ERROR, "The library failed for a reason that it does not tell.", askVendor),
    NV_ROW(CKR_FUNCTION_FAILED, "The token could not do what was asked; it does not tell why.",
           askVendor),
    NV_ROW(CKR_ARGUMENTS_BAD, "The library does not accept the values that it was given.",
           askVendor),
    NV_ROW(CKR_NO_EVENT, "No token was inserted or removed.", tryAgain),
    NV_ROW(CKR_NEED_TO_CREATE_THREADS, "The library must create threads, and may not.", askVendor),
    NV_ROW(CKR_CANT_LOCK, "The library cannot be used by several threads.", askVendor),
    NV_ROW(CKR_ATTRIBUTE_READ_ONLY, "The value of the object cannot be changed.", askVendor),
    NV_ROW(CKR_ATTRIBUTE_SENSITIVE, "The token does not give this value away.", checkKey),
    NV_ROW(CKR_ATTRIBUTE_TYPE_INVALID, "The object does not have this attribute.",
           "Check with the vendor's tool whether the key is complete."),
    NV_ROW(CKR_ATTRIBUTE_VALUE_INVALID, "The token does not accept the value of an attribute.",
           askVendor),
    NV_ROW(CKR_DATA_INVALID, "The token does not accept the data.", otherInput),
    NV_ROW(CKR_DATA_LEN_RANGE, "The data is too long or too short for the key and padding.",
           otherInput),
    NV_ROW(CKR_DEVICE_ERROR, "The token or its reader reports an error.", checkReader),
    NV_ROW(CKR_DEVICE_MEMORY, "The token has too little memory for the operation.", closePrograms),
    NV_ROW(CKR_DEVICE_REMOVED, "The token was removed during the operation.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(
        CKR_ENCRYPTED_DATA_INVALID,
        "The data cannot be decrypted: it is damaged, or was encrypted for another key or padding.",
        "Check the file, the key, the padding and the hash."),
    NV_ROW(CKR_ENCRYPTED_DATA_LEN_RANGE, "The encrypted data has the wrong length for the key.",
           "Check the file and the key."),
    NV_ROW(CKR_FUNCTION_CANCELED, "The operation was cancelled, for example at the PIN pad.",
           tryAgain, ExitCode::pinCancelled),
    NV_ROW(CKR_FUNCTION_NOT_PARALLEL, "No operation runs beside this one.", askVendor),
    NV_ROW(CKR_FUNCTION_NOT_SUPPORTED, "The library does not have this function.", otherPadding),
    NV_ROW(CKR_KEY_HANDLE_INVALID, "The library no longer knows the key.", checkReader),
    NV_ROW(CKR_KEY_SIZE_RANGE, "The token does not support keys of this length.", checkKey),
    NV_ROW(CKR_KEY_TYPE_INCONSISTENT, "The key is of another type than the operation needs.",
           checkKey),
    NV_ROW(CKR_KEY_NOT_NEEDED, "A key was given to an operation that has none.", askVendor),
    NV_ROW(CKR_KEY_CHANGED, "The key is no longer the one with which the operation began.",
           tryAgain),
    NV_ROW(CKR_KEY_NEEDED, "The operation needs a key, and none was given.", askVendor),
    NV_ROW(CKR_KEY_INDIGESTIBLE, "The value of the key cannot be hashed.", checkKey),
    NV_ROW(CKR_KEY_FUNCTION_NOT_PERMITTED, "The token does not allow this use of the key.",
           checkKey),
    NV_ROW(CKR_KEY_NOT_WRAPPABLE, "The key cannot be exported in encrypted form.", checkKey),
    NV_ROW(CKR_KEY_UNEXTRACTABLE, "The key cannot leave the token.", checkKey),
    NV_ROW(CKR_MECHANISM_INVALID, "The token does not support this algorithm or padding.",
           otherPadding),
    NV_ROW(CKR_MECHANISM_PARAM_INVALID,
           "The token does not support these parameters of the algorithm, such as the hash or the "
           "length of the salt.",
           otherPadding),
    NV_ROW(CKR_OBJECT_HANDLE_INVALID, "The library no longer knows the object.", checkReader),
    NV_ROW(CKR_OPERATION_ACTIVE, "Another operation of the session has not ended.", tryAgain),
    NV_ROW(CKR_OPERATION_NOT_INITIALIZED, "The operation was not begun, or was lost.", tryAgain),
    NV_ROW(CKR_PIN_INCORRECT, "The PIN is wrong. The token counts the attempt.", correctPin,
           ExitCode::pinWrong),
    NV_ROW(CKR_PIN_INVALID, "The PIN contains characters that the token does not accept.",
           correctPin, ExitCode::pinWrong),
    NV_ROW(CKR_PIN_LEN_RANGE, "The PIN is too long or too short for the token.", correctPin,
           ExitCode::pinWrong),
    NV_ROW(CKR_PIN_EXPIRED, "The PIN has expired.", changePin),
    NV_ROW(CKR_PIN_LOCKED, "The PIN is locked, usually after too many wrong ones.", unlockPin,
           ExitCode::pinLocked),
    NV_ROW(CKR_SESSION_CLOSED, "The session with the token ended during the operation.",
           checkReader),
    NV_ROW(CKR_SESSION_COUNT, "The token has too many sessions open.", closePrograms),
    NV_ROW(CKR_SESSION_HANDLE_INVALID, "The library no longer knows the session.", checkReader),
    NV_ROW(CKR_SESSION_PARALLEL_NOT_SUPPORTED, "The library wants serial sessions.", askVendor),
    NV_ROW(CKR_SESSION_READ_ONLY, "The session may not change the token.", askVendor),
    NV_ROW(CKR_SESSION_EXISTS, "Another session is open.", closePrograms),
    NV_ROW(CKR_SESSION_READ_ONLY_EXISTS, "Another session that only reads is open.", closePrograms),
    NV_ROW(CKR_SESSION_READ_WRITE_SO_EXISTS, "The security officer is logged in.",
           "Close the vendor's administration tool, and repeat the operation."),
    NV_ROW(CKR_SIGNATURE_INVALID, "The signature does not verify.",
           "The file, the key, the hash or the padding is not the one of the signature.",
           ExitCode::badSignature),
    NV_ROW(CKR_SIGNATURE_LEN_RANGE, "The signature has the wrong length for the key.",
           "The key is not the one of the signature, or the signature is damaged.",
           ExitCode::badSignature),
    NV_ROW(CKR_TEMPLATE_INCOMPLETE, "Attributes of an object are missing.", askVendor),
    NV_ROW(CKR_TEMPLATE_INCONSISTENT, "The attributes of an object contradict each other.",
           askVendor),
    NV_ROW(CKR_TOKEN_NOT_PRESENT, "There is no token in the reader.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(CKR_TOKEN_NOT_RECOGNIZED, "The library does not know this kind of token.",
           "Install the library of the token's vendor, and run \"keywarden init --force\".",
           ExitCode::noTokenOrKey),
    NV_ROW(CKR_TOKEN_WRITE_PROTECTED, "The token is write-protected.", askVendor),
    NV_ROW(CKR_UNWRAPPING_KEY_HANDLE_INVALID, "The library does not know the unwrapping key.",
           askVendor),
    NV_ROW(CKR_UNWRAPPING_KEY_SIZE_RANGE, "The unwrapping key has an unsupported length.",
           checkKey),
    NV_ROW(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT, "The unwrapping key is of the wrong type.",
           checkKey),
    NV_ROW(CKR_USER_ALREADY_LOGGED_IN, "The user is logged in to the token already.",
           closePrograms),
    NV_ROW(CKR_USER_NOT_LOGGED_IN, "The token wants a login for this operation.",
           "In modern, the certificate's public key is used instead: see docs/modes.md."),
    NV_ROW(CKR_USER_PIN_NOT_INITIALIZED, "The token has no PIN yet.",
           "Set a PIN with the vendor's tool."),
    NV_ROW(CKR_USER_TYPE_INVALID, "The token does not know this kind of user.", askVendor),
    NV_ROW(CKR_USER_ANOTHER_ALREADY_LOGGED_IN,
           "Another user, such as the security officer, is logged in to the token.",
           "Close the vendor's administration tool, and repeat the operation."),
    NV_ROW(CKR_USER_TOO_MANY_TYPES, "Too many kinds of users are logged in to the token.",
           closePrograms),
    NV_ROW(CKR_WRAPPED_KEY_INVALID, "The wrapped key is damaged.", otherInput),
    NV_ROW(CKR_WRAPPED_KEY_LEN_RANGE, "The wrapped key has the wrong length.", otherInput),
    NV_ROW(CKR_WRAPPING_KEY_HANDLE_INVALID, "The library does not know the wrapping key.",
           askVendor),
    NV_ROW(CKR_WRAPPING_KEY_SIZE_RANGE, "The wrapping key has an unsupported length.", checkKey),
    NV_ROW(CKR_WRAPPING_KEY_TYPE_INCONSISTENT, "The wrapping key is of the wrong type.", checkKey),
    NV_ROW(CKR_RANDOM_SEED_NOT_SUPPORTED, "The token's random numbers cannot be seeded.",
           askVendor),
    NV_ROW(CKR_RANDOM_NO_RNG, "The token has no random numbers.", askVendor),
    NV_ROW(CKR_DOMAIN_PARAMS_INVALID, "The token does not support this curve.", checkKey),
    NV_ROW(CKR_BUFFER_TOO_SMALL, "The result is longer than the room for it.", askVendor),
    NV_ROW(CKR_SAVED_STATE_INVALID, "The saved state of the operation is damaged.", tryAgain),
    NV_ROW(CKR_INFORMATION_SENSITIVE, "The token does not give this information away.", checkKey),
    NV_ROW(CKR_STATE_UNSAVEABLE, "The state of the operation cannot be saved.", askVendor),
    NV_ROW(CKR_CRYPTOKI_NOT_INITIALIZED,
           "The library is not initialised. Another part of the program may have ended it.",
           "Restart the program. In classic, that happens where a program uses the library itself: "
           "see docs/modes.md."),
    NV_ROW(CKR_CRYPTOKI_ALREADY_INITIALIZED,
           "The library is initialised already, by another part of the program.",
           "Set mode=modern in the configuration, which allows that."),
    NV_ROW(CKR_MUTEX_BAD, "The library was given a lock that is none.", askVendor),
    NV_ROW(CKR_MUTEX_NOT_LOCKED, "The library released a lock that it did not hold.", askVendor),
    NV_ROW(CKR_NEW_PIN_MODE, "The token wants a new PIN.", changePin),
    NV_ROW(CKR_NEXT_OTP, "The token wants the next one-time password.", tryAgain),
    NV_ROW(CKR_EXCEEDED_MAX_ITERATIONS, "The token gave up after too many attempts of its own.",
           tryAgain),
    NV_ROW(CKR_FIPS_SELF_TEST_FAILED,
           "The token's self-test failed. It does nothing until it passes.", checkReader),
    NV_ROW(CKR_LIBRARY_LOAD_FAILED, "The library could not load another one that it needs.",
           "Install the vendor's software again, and run \"keywarden check\"."),
    NV_ROW(CKR_PIN_TOO_WEAK, "The token does not accept so simple a PIN.", changePin),
    NV_ROW(CKR_PUBLIC_KEY_INVALID, "The public key is not valid.", otherInput),
    NV_ROW(CKR_FUNCTION_REJECTED, "The operation was refused, for example at the token itself.",
           tryAgain),

    NV_ROW(NTE_BAD_HASH, "The hash is not valid.", callerFault),
    NV_ROW(NTE_BAD_KEY, "The key is not valid.", callerFault),
    NV_ROW(NTE_BAD_LEN, "The data is too long or too short for the key and padding.", otherInput),
    NV_ROW(NTE_BAD_DATA, "The data is damaged.", otherInput),
    NV_ROW(NTE_BAD_SIGNATURE, "The signature does not verify.",
           "The file, the key, the hash or the padding is not the one of the signature.",
           ExitCode::badSignature),
    NV_ROW(NTE_BAD_ALGID, "The algorithm is not valid here.", otherPadding),
    NV_ROW(NTE_BAD_FLAGS, "The call has flags that are not valid.", callerFault),
    NV_ROW(NTE_BAD_TYPE, "The type is not valid.", callerFault),
    NV_ROW(NTE_NO_KEY, "The token has no key object for this certificate.",
           "Check with the vendor's tool that key and certificate have the same CKA_ID.",
           ExitCode::noTokenOrKey),
    NV_ROW(NTE_NO_MEMORY, "The computer or the token has too little memory.", closePrograms),
    NV_ROW(NTE_EXISTS, "There is such an object already.", callerFault),
    NV_ROW(NTE_PERM, "Access is denied.", "Run the command as an administrator."),
    NV_ROW(NTE_NOT_FOUND, "There is no such object or property.", callerFault),
    NV_ROW(NTE_BAD_PROVIDER, "The provider is not valid.", registerAgain),
    NV_ROW(NTE_BAD_PUBLIC_KEY, "The public key is not valid.", otherInput),
    NV_ROW(NTE_BAD_KEYSET, "There is no key of that name.", listKeys, ExitCode::noTokenOrKey),
    NV_ROW(NTE_KEYSET_NOT_DEF, "There is no provider of that name.", registerAgain),
    NV_ROW(NTE_PROVIDER_DLL_FAIL, "The provider's DLL could not be started.",
           "Run \"keywarden check\" to find the reason."),
    NV_ROW(NTE_PROV_DLL_NOT_FOUND, "The provider's DLL was not found.", registerAgain),
    NV_ROW(NTE_FAIL, "The call failed for a reason that is not told.",
           "Repeat it with \"keywarden log on\", and look at \"keywarden log\"."),
    NV_ROW(NTE_SYS_ERR, "The system reports an error.", tryAgain),
    NV_ROW(NTE_SILENT_CONTEXT, "The operation needs the PIN, and the PIN dialog cannot be shown.",
           "Run the program on a desktop. If it asks for no dialog (NCRYPT_SILENT_FLAG), "
           "silentPrompt=yes in the configuration shows one all the same.",
           ExitCode::noDesktop),
    NV_ROW(NTE_INVALID_HANDLE,
           "The key or the provider is closed. In classic, also: there is no key of that name.",
           listKeys),
    NV_ROW(NTE_INVALID_PARAMETER, "A value of the call is not valid.", callerFault),
    NV_ROW(NTE_BUFFER_TOO_SMALL, "The result is longer than the room for it.", callerFault),
    NV_ROW(
        NTE_NOT_SUPPORTED,
        "The provider or the token does not support the operation, the algorithm or the padding.",
        otherPadding),
    NV_ROW(NTE_NO_MORE_ITEMS, "The list has ended. This is no failure.", "Nothing is to be done.",
           ExitCode::good),
    NV_ROW(NTE_BUFFERS_OVERLAP, "Input and output share memory.", callerFault),
    NV_ROW(NTE_DECRYPTION_FAILURE, "The data cannot be decrypted.",
           "Check the file, the key, the padding and the hash."),
    NV_ROW(
        NTE_INTERNAL_ERROR,
        "The operation failed. In classic this is the status of every failure of the token, and in "
        "modern that of results without a status of their own.",
        "Repeat it with \"keywarden log on\": \"keywarden log\" then shows the PKCS#11 result."),
    NV_ROW(NTE_UI_REQUIRED, "The operation needs a dialog.", desktop, ExitCode::noDesktop),
    NV_ROW(NTE_DEVICE_NOT_READY, "The device is not ready.", checkReader),
    NV_ROW(NTE_AUTHENTICATION_IGNORED, "The authorisation that was given was not used.", tryAgain),
    NV_ROW(NTE_VALIDATION_FAILED, "The data could not be validated.", otherInput),
    NV_ROW(NTE_INCORRECT_PASSWORD, "The password is wrong.", correctPin, ExitCode::pinWrong),
    NV_ROW(NTE_ENCRYPTION_FAILURE, "The data cannot be encrypted.", otherInput),
    NV_ROW(NTE_DEVICE_NOT_FOUND, "The device with the key was not found.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(NTE_USER_CANCELLED, "The PIN dialog was cancelled, or closed without a PIN.", tryAgain,
           ExitCode::pinCancelled),
    NV_ROW(NTE_PASSWORD_CHANGE_REQUIRED, "The PIN has expired.", changePin),
    NV_ROW(NTE_NOT_ACTIVE_CONSOLE, "The program does not run on the active desktop.", desktop,
           ExitCode::noDesktop),
    NV_ROW(SCARD_E_TIMEOUT, "The reader did not answer in time.", startService),
    NV_ROW(SCARD_E_SHARING_VIOLATION, "Another program uses the card.", closePrograms),
    NV_ROW(SCARD_E_NO_SMARTCARD, "There is no card in the reader.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_F_COMM_ERROR, "The connection to the reader failed.", checkReader),
    NV_ROW(SCARD_E_READER_UNAVAILABLE, "The reader is not connected.", checkReader,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_E_NO_SERVICE, "The service for smart cards does not run.", startService,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_E_SERVICE_STOPPED, "The service for smart cards was stopped.", startService,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_E_NO_READERS_AVAILABLE, "There is no reader.", startService,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_E_NO_KEY_CONTAINER, "The card has no such key.", listKeys, ExitCode::noTokenOrKey),
    NV_ROW(SCARD_W_UNSUPPORTED_CARD, "The library does not know this kind of token.",
           "Install the library of the token's vendor, and run \"keywarden init --force\".",
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_W_UNRESPONSIVE_CARD, "The card does not answer.", checkReader),
    NV_ROW(SCARD_W_UNPOWERED_CARD, "The card has no power.", checkReader),
    NV_ROW(SCARD_W_RESET_CARD, "The card was reset by another program.", tryAgain),
    NV_ROW(SCARD_W_REMOVED_CARD, "The token was removed, or is not there.", insertToken,
           ExitCode::noTokenOrKey),
    NV_ROW(SCARD_W_SECURITY_VIOLATION, "The card refused access.", checkKey),
    NV_ROW(SCARD_W_WRONG_CHV, "The token did not accept the PIN.", correctPin, ExitCode::pinWrong),
    NV_ROW(SCARD_W_CHV_BLOCKED, "The PIN is locked, usually after too many wrong ones.", unlockPin,
           ExitCode::pinLocked),
    NV_ROW(SCARD_W_CANCELLED_BY_USER, "The user cancelled the operation.", tryAgain,
           ExitCode::pinCancelled),
    NV_ROW(SCARD_W_CARD_NOT_AUTHENTICATED, "The token has no PIN yet.",
           "Set a PIN with the vendor's tool."),
    // The compiler's headers lack the names of the TPM's statuses.
    {0x80280803, "TPM_E_DEFEND_LOCK_RUNNING", "The TPM is locked after too many wrong attempts.",
     "Wait, or ask the administrator to reset the lockout of the TPM.", ExitCode::pinLocked},
    {0x80280921, "TPM_20_E_LOCKOUT", "The TPM is locked after too many wrong attempts.",
     "Wait, or ask the administrator to reset the lockout of the TPM.", ExitCode::pinLocked},
    {0x8028098E, "TPM_20_E_AUTH_FAIL", "The TPM did not accept the authorisation.", correctPin,
     ExitCode::pinWrong},
    NV_ROW(TBS_E_SERVICE_NOT_RUNNING, "The service for the TPM does not run.",
           "Start the service \"TPM Base Services\" (TBS)."),
    {0x80290401, "TPM_E_PCP_DEVICE_NOT_READY", "The TPM is not ready.",
     "Ask the administrator to prepare the TPM (tpm.msc).", ExitCode::failed},
    {0x80290408, "TPM_E_PCP_AUTHENTICATION_FAILED", "The TPM did not accept the authorisation.",
     correctPin, ExitCode::pinWrong},
    // The header of the next ones conflicts with windows.h.
    {0xC0000002, "STATUS_NOT_IMPLEMENTED", "The system does not have this function.",
     "Update Windows, or run the command on Windows itself.", ExitCode::failed},
    {0xC0000008, "STATUS_INVALID_HANDLE", "A handle of the call is closed.", callerFault,
     ExitCode::failed},
    {0xC000000D, "STATUS_INVALID_PARAMETER", "A value of the call is not valid.", callerFault,
     ExitCode::failed},
    {0xC0000017, "STATUS_NO_MEMORY", "The computer has too little memory.",
     "Close other programs, and repeat the operation.", ExitCode::failed},
    {0xC0000022, "STATUS_ACCESS_DENIED", "Access is denied.",
     "Run the command as an administrator.", ExitCode::failed},
    {0xC0000023, "STATUS_BUFFER_TOO_SMALL", "The result is longer than the room for it.",
     callerFault, ExitCode::failed},
    {0xC0000034, "STATUS_OBJECT_NAME_NOT_FOUND", "There is no entry of that name.", registerAgain,
     ExitCode::failed},
    {0xC0000035, "STATUS_OBJECT_NAME_COLLISION", "There is an entry of that name already.",
     registerAgain, ExitCode::failed},
    {0xC00000BB, "STATUS_NOT_SUPPORTED", "The system does not support the operation.", otherPadding,
     ExitCode::failed},
    {0xC0000135, "STATUS_DLL_NOT_FOUND", "A DLL was not found.",
     "Run \"keywarden check\" to find the reason.", ExitCode::failed},
    {0xC0000225, "STATUS_NOT_FOUND", "There is no such entry or object.", registerAgain,
     ExitCode::failed},
    {0xC000A000, "STATUS_INVALID_SIGNATURE", "The signature does not verify.",
     "The file, the key, the hash or the padding is not the one of the signature.",
     ExitCode::badSignature},
};
#undef NV_ROW

static_assert(std::ranges::adjacent_find(rows, std::ranges::greater_equal(), &Explanation::value) ==
                  std::end(rows),
              "sorted, each value once");

std::string upperCase(std::string_view text)
{
    std::string upper(text);
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return upper;
}

// How far a text is from a name that it may mean. People leave out the beginning, "PIN_LOCKED", or the
// end, "NTE_INTERNAL".
size_t distanceFromName(std::string_view text, std::string_view name)
{
    constexpr size_t leastPart = 4;
    if (text.size() >= leastPart && name.find(text) != std::string_view::npos)
        return (name.size() - text.size()) / leastPart;
    return std::min(editDistance(text, name), editDistance(text, name.substr(name.find('_') + 1)));
}

}  // namespace

std::span<const Explanation> explanations()
{
    return rows;
}

const Explanation* explain(uint32_t value)
{
    const auto* row = std::ranges::lower_bound(rows, value, {}, &Explanation::value);
    return row != std::end(rows) && row->value == value ? row : nullptr;
}

const Explanation* explain(std::string_view name)
{
    const auto* row = std::ranges::find(rows, upperCase(name), &Explanation::name);
    return row != std::end(rows) ? row : nullptr;
}

std::string_view nearestName(std::string_view text)
{
    const std::string upper = upperCase(text);
    size_t least = std::numeric_limits<size_t>::max();
    std::string_view nearest;
    for (const Explanation& row : rows) {
        const size_t apart = distanceFromName(upper, row.name);
        if (apart < least) {
            least = apart;
            nearest = row.name;
        }
    }
    return least <= upper.size() / 2 ? nearest : std::string_view();
}

bool isResult(const Explanation& row)
{
    return row.name.starts_with("CKR_");
}

const Explanation& statusOfResult(uint32_t result)
{
    return *explain(tokenStatus(result).value);
}

std::vector<const Explanation*> resultsOfStatus(uint32_t status)
{
    std::vector<const Explanation*> results;
    for (const TokenStatus& row : tokenStatuses) {
        if (row.status.value == status)
            results.push_back(explain(row.result));
    }
    return results;
}

std::string statusText(SECURITY_STATUS status)
{
    const Explanation* row = explain(static_cast<uint32_t>(status));
    return row == nullptr ? hexText(status) : std::string(row->name) + " (" + hexText(status) + ")";
}

}  // namespace NV::tool
