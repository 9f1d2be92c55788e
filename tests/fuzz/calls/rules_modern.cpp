// The rules of modern, by the rows of docs/modes.md.

#include <algorithm>
#include <iterator>

#include "../target.h"
#include "rules.h"

namespace NV::fuzz {

namespace {

// What the first failure makes of a sequence: that of the disturbance, or one that was to come anyway.
bool isFirstFailure(const Answer& answer, const Expected& expected)
{
    if (answer.by.wantsLogin && expected.byCertificate)
        return answer.status == expected.byCertificate;
    return answer.status == answer.by.tokenStatus ||
           (expected.status != ERROR_SUCCESS && answer.status == expected.status);
}

// Nothing leaves an entry point, and the log changes nothing.
void judge(const Answer& answer, const Expected& expected, Reach reach)
{
    HOLDS(answer.left == Left::normally);
    const Disturbance& by = answer.by;
    const SECURITY_STATUS status = answer.status;
    if (by.memory && status == NTE_NO_MEMORY)
        return;
    if (by.claim && reach != Reach::module) {
        // No key, a key of the certificate in its place, a result that does not fit.
        constexpr SECURITY_STATUS claimed[] = {ERROR_SUCCESS, NTE_INTERNAL_ERROR, NTE_NO_KEY,
                                               NTE_BAD_SIGNATURE, NTE_BUFFER_TOO_SMALL};
        HOLDS(status == expected.status || status == by.tokenStatus ||
              status == expected.byCertificate ||
              std::ranges::find(claimed, status) != std::end(claimed));
    } else if (by.token && reach == Reach::sequence) {
        HOLDS(isFirstFailure(answer, expected));
    } else if (by.token && reach == Reach::library) {
        HOLDS(status == expected.status || status == NTE_INTERNAL_ERROR);
    } else {
        HOLDS(status == expected.status);
    }
}

// The rows that the faults of the programs reach.
struct StatusRow {
    CK_RV result;
    SECURITY_STATUS status;
};

constexpr auto removedCard = static_cast<SECURITY_STATUS>(SCARD_W_REMOVED_CARD);
constexpr auto wrongPin = static_cast<SECURITY_STATUS>(SCARD_W_WRONG_CHV);

constexpr StatusRow statusRows[] = {
    {CKR_DEVICE_REMOVED, removedCard},
    {CKR_TOKEN_NOT_PRESENT, removedCard},
    {CKR_SLOT_ID_INVALID, removedCard},
    {CKR_TOKEN_NOT_RECOGNIZED, static_cast<SECURITY_STATUS>(SCARD_W_UNSUPPORTED_CARD)},
    {CKR_PIN_INCORRECT, wrongPin},
    {CKR_PIN_LOCKED, static_cast<SECURITY_STATUS>(SCARD_W_CHV_BLOCKED)},
    {CKR_PIN_EXPIRED, NTE_PASSWORD_CHANGE_REQUIRED},
    {CKR_USER_PIN_NOT_INITIALIZED, static_cast<SECURITY_STATUS>(SCARD_W_CARD_NOT_AUTHENTICATED)},
    {CKR_FUNCTION_CANCELED, NTE_USER_CANCELLED},
    {CKR_BUFFER_TOO_SMALL, NTE_BUFFER_TOO_SMALL},
    {CKR_DATA_LEN_RANGE, NTE_BAD_LEN},
    {CKR_MECHANISM_INVALID, NTE_NOT_SUPPORTED},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, NTE_NOT_SUPPORTED},
    {CKR_SIGNATURE_INVALID, NTE_BAD_SIGNATURE},
    {CKR_HOST_MEMORY, NTE_NO_MEMORY},
};

// Those besides the ones that classic does not tell apart.
constexpr CK_RV moreCodes[] = {CKR_SLOT_ID_INVALID,
                               CKR_TOKEN_NOT_RECOGNIZED,
                               CKR_PIN_INCORRECT,
                               CKR_PIN_EXPIRED,
                               CKR_USER_PIN_NOT_INITIALIZED,
                               CKR_FUNCTION_CANCELED,
                               CKR_DATA_LEN_RANGE,
                               CKR_MECHANISM_INVALID,
                               CKR_KEY_FUNCTION_NOT_PERMITTED,
                               CKR_SIGNATURE_INVALID,
                               CKR_HOST_MEMORY,
                               CKR_USER_NOT_LOGGED_IN};

SECURITY_STATUS statusOfFault(const test::StruckFault& struck)
{
    using test::Fault;
    CK_RV result = CKR_FUNCTION_FAILED;
    if (struck.fault == Fault::returnValue || struck.fault == Fault::returnAfterWork)
        result = struck.value;
    else if (struck.fault == Fault::bufferTooSmall)
        result = CKR_BUFFER_TOO_SMALL;
    // The library is initialized once more when somebody has finalized it. If that fails, so does the
    // operation, without a reason of its own.
    if (std::string_view(struck.function) == "C_Initialize")
        result = CKR_FUNCTION_FAILED;
    const auto* const row = std::ranges::find(statusRows, result, &StatusRow::result);
    return row != std::end(statusRows) ? row->status : NTE_INTERNAL_ERROR;
}

constexpr PinRow pins[] = {
    {Pin::right, {}},
    {Pin::wrong, {std::nullopt, true}},
    {Pin::empty, {NTE_USER_CANCELLED}},
    {Pin::tooLong, {std::nullopt, true}},
    {Pin::cancelled, {NTE_USER_CANCELLED}},
    {Pin::broken, {NTE_SILENT_CONTEXT}},
};

Bytes usageOf(const KeyFacts& key)
{
    constexpr DWORD decryptionAndSigning = 3;
    constexpr DWORD signingAndAgreement = 6;
    return bytesOf(key.rsa ? decryptionAndSigning : signingAndAgreement);
}

constexpr PropertyRow keyProperties[] = {
    {L"Name", nameOf},
    {L"Unique Name", nameOf},
    {L"Key Usage", usageOf},
    {L"Impl Type", numberOf<1>},  // hardware
    {L"Algorithm Name", algorithmOf},
    {L"Algorithm Group", algorithmGroupOf},
    {L"Export Policy", numberOf<0>},
    {L"Length", bitsOf},
    {L"PublicKeyLength", bitsOf},
    {L"Lengths", lengthsOf},
    {L"SignatureLength", signatureLengthOf},
    {L"Block Length", blockLengthOf},
    {L"ECCCurveName", curveNameOf},
    {L"SmartCardKeyCertificate", certificateOf},
    {L"Key Type", numberOf<0>},
};

constexpr const wchar_t* moreNames[] = {
    L"Length",       L"PublicKeyLength", L"Lengths",
    L"Block Length", L"SignatureLength", L"SmartCardKeyCertificate",
    L"ECCCurveName", L"Key Type",        L"UI Policy",
    L"Use Context",  L"HWND Handle",     L"length"};

constexpr const wchar_t* unsettable[] = {
    L"Length",          L"PublicKeyLength", L"Lengths",
    L"SignatureLength", L"Block Length",    L"ECCCurveName",
    L"Key Type",        L"SmartCardPin",    L"SmartCardKeyCertificate"};

constexpr const wchar_t* replaceable[] = {L"HWND Handle"};

constexpr const wchar_t* optional[] = {L"UI Policy", L"Use Context", L"HWND Handle"};

constexpr BlobRow blobs[] = {
    {L"PUBLICBLOB", rsaBlob, eccBlob},
    {L"CAPIPUBLICBLOB", legacyBlob, nullptr},
    {L"RSAPUBLICBLOB", rsaBlob, nullptr},
    {L"ECCPUBLICBLOB", nullptr, eccBlob},
};

constexpr AlgorithmRow algorithm(std::wstring_view name, DWORD interfaceNumber, DWORD operations)
{
    return {name, operations, interfaceNumber, operations, true};
}

constexpr AlgorithmRow algorithms[] = {
    algorithm(L"RSA", 3, NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION),
    algorithm(L"ECDH_P256", 4, NCRYPT_SECRET_AGREEMENT_OPERATION),
    algorithm(L"ECDH_P384", 4, NCRYPT_SECRET_AGREEMENT_OPERATION),
    algorithm(L"ECDH_P521", 4, NCRYPT_SECRET_AGREEMENT_OPERATION),
    algorithm(L"ECDSA_P256", 5, NCRYPT_SIGNATURE_OPERATION),
    algorithm(L"ECDSA_P384", 5, NCRYPT_SIGNATURE_OPERATION),
    algorithm(L"ECDSA_P521", 5, NCRYPT_SIGNATURE_OPERATION),
};

}  // namespace

constinit const Rules rules{
    .behaviour = Behaviour::modern,
    .judge = judge,
    .statusOfFault = statusOfFault,
    .moreCodes = moreCodes,
    .claimsMakeOutputs = true,

    .keepsLibrary = true,
    .splitsLibraryPath = true,
    .filtersCertificates = true,
    .dialogAsksToken = true,
    .sharesLogin = true,
    .pins = pins,
    .wrongPin = wrongPin,
    .noToken = removedCard,
    .obeysSilentFlag = true,

    .keepsUnknownProviders = false,
    .unknownKeyName = NTE_BAD_KEYSET,
    .keepsUnknownNames = false,
    .looksUpHandles = true,

    .keyProperties = keyProperties,
    .moreNames = moreNames,
    .unsettable = unsettable,
    .replaceable = replaceable,
    .optional = optional,
    .sharesValues = false,

    .tellsLengths = true,
    .exportTooShort = NTE_BUFFER_TOO_SMALL,
    .blobs = blobs,
    .algorithms = algorithms,
    .tellsEmptyLists = true,
    .namesApart = false,
    .listedAlgorithm = algorithmOf,
    .checksBlobs = true,

    .checksHashNames = true,
    .verifiesAsItSigns = true,
    .badSignature = NTE_BAD_SIGNATURE,
    .badPeer = NTE_NOT_SUPPORTED,
    .noPrivateKey = NTE_NO_KEY,
    .defaultHash = L"SHA1",
    .shortensKeys = true,
};

}  // namespace NV::fuzz
