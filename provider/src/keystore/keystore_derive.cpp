// Key derivation from an agreed secret, with a digest or an HMAC that the token computes.

#include "keystore/keystore.h"

#include <algorithm>
#include <array>
#include <mutex>

#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_secret.h"
#include "keystore/keystore_token.h"

namespace NV {

namespace {

constexpr auto openHeading = "1) Try to open a new session";

int asInt(size_t size)
{
    return static_cast<int>(size);
}

void logArguments(Trace& trace, const KeyStore::Derivation& d)
{
    trace.arguments(pointer("p11", d.p11), pointer("phAgreedSecret", d.phAgreedSecret));
    trace.skipArgument();  // Compat: there is no ARG[2].
    trace.arguments(
        pointer("pbDerivedKey", d.pbDerivedKey), number("cbDerivedKey", d.cbDerivedKey),
        pointer("pcbResult", d.pcbResult), text("hashAlgo", d.hashAlgo.name.data()),
        number("useHmacKdf", d.useHmacKdf ? 1 : 0), pointer("pbHmacKey", d.hmacKey.data()),
        number("cbHmacKey", d.hmacKey.size()), pointer("pbKdfPrepend", d.kdfPrepend.data()),
        number("cbKdfPrepend", d.kdfPrepend.size()), pointer("pbKdfAppend", d.kdfAppend.data()),
        number("cbKdfAppend", d.kdfAppend.size()));
}

// Creates the HMAC key as a session object, which C_CloseSession deletes.
bool createHmacKey(TokenSequence& token, const KeyStore::Derivation& d, CK_OBJECT_HANDLE& key)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    constexpr CK_BBOOL yes = CK_TRUE;
    constexpr CK_BBOOL no = CK_FALSE;
    const CK_KEY_TYPE keyType = d.hashAlgo.hmacKey;
    std::array object = {attribute(CKA_TOKEN, &no, sizeof no),
                         attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_KEY_TYPE, &keyType, sizeof keyType),
                         attribute(CKA_SENSITIVE, &no, sizeof no),
                         attribute(CKA_PRIVATE, &no, sizeof no),
                         attribute(CKA_SIGN, &yes, sizeof yes),
                         attribute(CKA_VERIFY, &yes, sizeof yes),
                         attribute(CKA_VALUE, d.hmacKey.data(), d.hmacKey.size())};
    return token.check(
        token.p11().C_CreateObject(token.session(), object.data(), object.size(), &key),
        "C_CreateObject() failed while creating Hmac secret key object, error-code=");
}

SecretBytes inputData(const Site& site, const KeyStore::Derivation& d)
{
    NV_UNDER(TRC, site,
             "3) Trying to compute KDF input data: [KDF_SECRET_PREPEND || SHARED_SECRET || "
             "KDF_SECRET_APPEND]");
    SecretBytes input;
    input.reserve(d.kdfPrepend.size() + d.secret.size() + d.kdfAppend.size());
    for (const SecretBytes* piece : {&d.kdfPrepend, &d.secret, &d.kdfAppend})
        input.insert(input.end(), piece->begin(), piece->end());
    NV_UNDER(DBG, site, "Retrieved SharedSecret(%d bytes)=[%s]", asInt(d.secret.size()),
             secretText(d.secret.data(), d.secret.size()).data());
    NV_UNDER(DBG, site, "KDFInputData(%d bytes)=[%s]", asInt(input.size()),
             secretText(input.data(), input.size()).data());
    if (d.useHmacKdf)
        NV_UNDER(DBG, site, "HMAC_KEY(%d bytes)=[%s]", asInt(d.hmacKey.size()),
                 secretText(d.hmacKey.data(), d.hmacKey.size()).data());
    return input;
}

// How a digest and an HMAC differ.
struct Computation {
    CK_MECHANISM_TYPE HashAlgorithm::*mechanism;
    CK_RV (*init)(TokenSequence& token, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
    const char* initFailure;
    const char* initSuccess;
    CK_RV (Pkcs11::*run)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR);
    const char* runFailure;
    const char* runSuccess;
};

constexpr Computation hmacComputation = {
    &HashAlgorithm::hmac,
    [](TokenSequence& token, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
        return token.p11().C_SignInit(token.session(), mechanism, key);
    },
    "Failed to initialize HMAC Process ",
    "Success to initialize HMAC process",
    &Pkcs11::C_Sign,
    "Failed to HMAC data, error-code:",
    "Success to HMAC data "};

constexpr Computation digestComputation = {
    &HashAlgorithm::digest,
    [](TokenSequence& token, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE) {
        return token.p11().C_DigestInit(token.session(), mechanism);
    },
    "Failed to initialize Digest Process ",
    "Success to initialize Digest process",
    &Pkcs11::C_Digest,
    "Failed to Digest data, error-code:",
    "Success to Digest data "};

// Computes into a buffer of `length` bytes; null asks for the length. Sets `length` to the length that
// the token reported, limited to the buffer. False after a failure, which is logged.
bool compute(TokenSequence& token, const Site& site, const KeyStore::Derivation& d,
             CK_OBJECT_HANDLE key, SecretBytes& input, PBYTE output, CK_ULONG& length)
{
    const Computation& how = d.useHmacKdf ? hmacComputation : digestComputation;
    CK_MECHANISM mechanism{d.hashAlgo.*how.mechanism, nullptr, 0};
    if (!token.check(how.init(token, &mechanism, key), how.initFailure))
        return false;
    NV_UNDER(TRC, site, "%s", how.initSuccess);
    const CK_ULONG size = length;
    const CK_RV rv = (token.p11().*how.run)(token.session(), input.data(),
                                            static_cast<CK_ULONG>(input.size()), output, &length);
    if (!token.check(rv, how.runFailure))
        return false;
    length = lengthWithin(output, size, length);
    NV_UNDER(TRC, site, "%s%d(bytes)", how.runSuccess, asInt(length));
    return true;
}

// The derived key is as many of the first bytes as the caller has room for.
bool computeShortened(TokenSequence& token, const Site& site, const KeyStore::Derivation& d,
                      CK_OBJECT_HANDLE key, SecretBytes& input, CK_ULONG& length)
{
    SecretBytes whole(d.hashAlgo.size);
    length = d.hashAlgo.size;
    if (!compute(token, site, d, key, input, whole.data(), length))
        return false;
    length = std::min(length, CK_ULONG{d.cbDerivedKey});
    std::copy_n(whole.begin(), length, d.pbDerivedKey);
    return true;
}

bool prepareKey(TokenSequence& token, const Site& site, const KeyStore::Derivation& d,
                CK_OBJECT_HANDLE& key)
{
    if (!d.useHmacKdf) {
        NV_UNDER(TRC, site,
                 "2) Skip creating HMAC secret key session object, since using Hash based KDF");
        return true;
    }
    NV_UNDER(TRC, site, "2) Try to create HMAC secret key session object");
    return createHmacKey(token, d, key);
}

void run(TokenSequence& token, const Site& site, const KeyStore::Derivation& d)
{
    CK_OBJECT_HANDLE key = 0;
    if (!prepareKey(token, site, d, key))
        return;
    SecretBytes input = inputData(site, d);
    NV_UNDER(TRC, site, "4) Trying to derive the key using [%s] based KDF..",
             printable(d.useHmacKdf ? BCRYPT_KDF_HMAC : BCRYPT_KDF_HASH).c_str());
    CK_ULONG length = d.cbDerivedKey;
    const bool derived = d.pbDerivedKey != nullptr && mode().shortensDerivedKeys()
                             ? computeShortened(token, site, d, key, input, length)
                             : compute(token, site, d, key, input, d.pbDerivedKey, length);
    if (!derived)
        return;
    *d.pcbResult = length;
    if (d.pbDerivedKey != nullptr)
        NV_UNDER(DBG, site, "Derived Key(%d bytes): [%s]", asInt(length),
                 secretText(d.pbDerivedKey, length).data());
}

}  // namespace

SECURITY_STATUS KeyStore::derive(const Derivation& derivation)
{
    // Derivations run side by side, like all operations of the modern behaviour; they use nothing of the
    // store.
    std::unique_lock guard(lock_, std::defer_lock);
    if (!derivation.p11->joined())
        guard.lock();
    constexpr Site here = NV_HERE;
    Trace trace(here);
    logArguments(trace, derivation);
    TokenSequence token(*derivation.p11, derivation.slotId, here);
    if (token.initialize() && token.openSession(openHeading))
        run(token, here, derivation);
    return trace.leaving(token.finish({.logout = 0, .close = 5, .finalize = 6}));
}

}  // namespace NV
