// The rules of classic.

#include "../target.h"
#include "keystore/keystore_blob.h"
#include "rules.h"

namespace NV::fuzz {

namespace {

void judge(const Answer& answer, const Expected& expected, Reach reach)
{
    const Disturbance& by = answer.by;
    const bool asExpected = expected.unknownHandle
                                ? answer.left == Left::unknownHandle
                                : answer.left == Left::normally && answer.status == expected.status;
    const bool failed = answer.left == Left::normally && answer.status == NTE_INTERNAL_ERROR;
    if (by.log || by.memory) {
        const bool thrown = (by.log && answer.left == Left::logError) ||
                            (by.memory && answer.left == Left::noMemory);
        const bool noMemory =
            by.memory && answer.left == Left::normally && answer.status == NTE_NO_MEMORY;
        HOLDS(asExpected || thrown || noMemory || (failed && reach != Reach::module));
    } else if (by.token && reach == Reach::sequence) {
        // Each step of the sequence that fails makes it fail.
        HOLDS(failed);
    } else if (by.claim || (by.token && reach == Reach::library)) {
        HOLDS(asExpected || failed);
    } else {
        HOLDS(asExpected);
    }
}

SECURITY_STATUS statusOfFault(const test::StruckFault&)
{
    return NTE_INTERNAL_ERROR;
}

Bytes algorithmOid(const KeyFacts& key)
{
    return bytesOf(key.rsa ? L"1.2.840.113549.1.1.1" : L"1.2.840.10045.2.1");
}

// Compat: an empty PIN is a success without a result.
constexpr PinRow pins[] = {
    {Pin::right, {}},
    {Pin::wrong, {std::nullopt, true}},
    {Pin::empty, {ERROR_SUCCESS}},
    {Pin::tooLong, {std::nullopt, true}},
    {Pin::cancelled, {NTE_USER_CANCELLED}},
    {Pin::broken, {NTE_INTERNAL_ERROR}},
};

constexpr PropertyRow keyProperties[] = {
    {L"Name", nameOf},
    {L"Unique Name", nameOf},
    {L"Key Usage", numberOf<3>},  // decryption, signing
    {L"Impl Type", numberOf<1>},  // hardware
    {L"Algorithm Name", algorithmOf},
    {L"Algorithm Group", algorithmGroupOf},
    {L"Export Policy", numberOf<0>},
};

// Compat: the type does not matter.
constexpr BlobRow blobs[] = {
    {L"PUBLICBLOB", rsaBlobWithUsualExponent, eccBlob},
    {L"CAPIPUBLICBLOB", rsaBlobWithUsualExponent, eccBlob},
    {L"RSAPUBLICBLOB", rsaBlobWithUsualExponent, eccBlob},
    {L"ECCPUBLICBLOB", rsaBlobWithUsualExponent, eccBlob},
};

// Compat: class and operations of a record are in each other's place.
constexpr AlgorithmRow algorithm(std::wstring_view name, DWORD operation, DWORD interfaceNumber,
                                 bool supported = true)
{
    return {name, operation, operation, interfaceNumber, supported};
}

constexpr AlgorithmRow algorithms[] = {
    algorithm(L"SHA1", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"SHA256", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"SHA384", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"SHA512", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"MD2", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"MD4", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"MD5", NCRYPT_HASH_OPERATION, 0),
    algorithm(L"RSA", NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, 3),
    algorithm(L"ECDSA", NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, 3),
    algorithm(L"ECDH_P256", NCRYPT_SECRET_AGREEMENT_OPERATION, 4),
    algorithm(L"ECDH_P384", NCRYPT_SECRET_AGREEMENT_OPERATION, 4),
    algorithm(L"ECDH_P521", NCRYPT_SECRET_AGREEMENT_OPERATION, 4),
    algorithm(L"RSA_SIGN", NCRYPT_SIGNATURE_OPERATION, 5, false),
    algorithm(L"ECDSA_P256", NCRYPT_SIGNATURE_OPERATION, 5, false),
    algorithm(L"ECDSA_P384", NCRYPT_SIGNATURE_OPERATION, 5, false),
    algorithm(L"ECDSA_P521", NCRYPT_SIGNATURE_OPERATION, 5, false),
    algorithm(L"RNG", NCRYPT_RNG_OPERATION, 0),
};

}  // namespace

constinit const Rules rules{
    .behaviour = Behaviour::classic,
    .judge = judge,
    .statusOfFault = statusOfFault,
    .moreCodes = {},
    .claimsMakeOutputs = false,

    .keepsLibrary = false,
    .splitsLibraryPath = false,
    .filtersCertificates = false,
    .dialogAsksToken = false,
    .sharesLogin = false,
    .pins = pins,
    .wrongPin = NTE_INTERNAL_ERROR,
    .noToken = NTE_INTERNAL_ERROR,
    .obeysSilentFlag = false,

    .keepsUnknownProviders = true,
    .unknownKeyName = NTE_INVALID_HANDLE,
    .keepsUnknownNames = true,
    .looksUpHandles = false,

    .keyProperties = keyProperties,
    .moreNames = {},
    .unsettable = {},
    .replaceable = {},
    .optional = {},
    .sharesValues = true,

    .tellsLengths = false,
    .exportTooShort = NTE_INVALID_PARAMETER,
    .blobs = blobs,
    .algorithms = algorithms,
    .tellsEmptyLists = false,
    .namesApart = true,
    .listedAlgorithm = algorithmOid,
    .checksBlobs = false,

    .checksHashNames = false,
    .verifiesAsItSigns = false,
    .badSignature = NTE_INTERNAL_ERROR,
    .badPeer = NTE_INTERNAL_ERROR,
    .noPrivateKey = NTE_INTERNAL_ERROR,
    .defaultHash = L"",
    .shortensKeys = false,
};

}  // namespace NV::fuzz
