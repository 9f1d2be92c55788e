// Operations of every kind, each with a result that is known beforehand, for tests that run many of
// them: on several threads, and for a long time. The same on every token.

#pragma once

#include "base/cng.h"

#include <span>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "base/mutex.h"
#include "dialog_driver.h"
#include "keystore/keystore.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_rsa.h"
#include "p11/p11.h"
#include "provider_module.h"

namespace NV::test {

// What one caller gives to the token, and what must come of it. Callers have different ones, so
// that a result that went to the wrong one shows.
struct KnownResults {
    Bytes hash;          // 32 bytes
    Bytes rsaSignature;  // PKCS #1 v1.5 over the bare hash
    Bytes ecSignature;   // any that is right
    Bytes plain;
    Bytes cipher;   // of plain, 256 bytes each: without padding, which leaves nothing to chance
    Bytes prepend;  // before the agreed secret
    Bytes digest;   // SHA256(prepend || secret)
    Bytes hmacKey;
    Bytes hmac;  // HMAC-SHA256(hmacKey, prepend || secret)
};

// The token: a 2048-bit RSA key, an EC key on P-256, and a second RSA key of any size.
struct TokenFacts {
    std::wstring rsaKey;
    std::wstring ecKey;
    std::wstring spareKey;            // to be opened and closed, which empties its properties
    std::vector<std::wstring> names;  // of all keys, sorted
    std::wstring pin;
    Bytes peer;    // coordinates of the other party's public key
    Bytes secret;  // agreed with it by the EC key
};

// Through the module's table, on one provider, what asks for no PIN. May be used by several threads
// at once.
// Expects the answers of the behaviour that the test's own objects have.
class PublicWork {
public:
    // `secret`: agreed, as the facts tell it. Opens its keys, and frees them at the end.
    PublicWork(const ProviderModule& module, NCRYPT_PROV_HANDLE provider, const TokenFacts& facts,
               NCRYPT_SECRET_HANDLE secret);
    ~PublicWork();
    PublicWork(const PublicWork&) = delete;
    PublicWork& operator=(const PublicWork&) = delete;

    struct Kind {
        const char* name = nullptr;
        // Whether every result was the known one.
        bool (PublicWork::*run)(const KnownResults&) const = nullptr;
        // How many of the key's or algorithms' names it leaves on the heap for each record that it
        // is given: they are nobody's.
        int namesLeft = 0;
    };
    static std::span<const Kind> kinds();

private:
    bool verify(const KnownResults& known) const;
    bool refuse(const KnownResults& known) const;
    bool encrypt(const KnownResults& known) const;
    bool askForLengths(const KnownResults& known) const;
    bool deriveDigest(const KnownResults& known) const;
    bool deriveHmac(const KnownResults& known) const;
    bool openAndFreeKey(const KnownResults& known) const;
    bool readProviderProperties(const KnownResults& known) const;
    bool readKeyProperties(const KnownResults& known) const;
    bool setProperties(const KnownResults& known) const;
    bool importAndExport(const KnownResults& known) const;
    bool askForAlgorithms(const KnownResults& known) const;
    bool enumerateKeys(const KnownResults& known) const;
    bool enumerateAlgorithms(const KnownResults& known) const;

    SECURITY_STATUS verifyWith(NCRYPT_KEY_HANDLE key, const Bytes& hash,
                               const Bytes& signature) const;
    Bytes exported(NCRYPT_KEY_HANDLE key, const wchar_t* type) const;
    bool derives(const KnownResults& known, const wchar_t* kdf, const Bytes& expected) const;

    const ProviderModule& module_;
    NCRYPT_PROV_HANDLE provider_;
    const TokenFacts& facts_;
    NCRYPT_SECRET_HANDLE secret_;
    NCRYPT_KEY_HANDLE rsa_ = 0;
    NCRYPT_KEY_HANDLE ec_ = 0;
};

// Through the module's table, on one provider, what opens the PIN dialog: somebody else answers it.
// May be used by several threads at once.
class DialogWork {
public:
    DialogWork(const ProviderModule& module, NCRYPT_PROV_HANDLE provider, const TokenFacts& facts);
    ~DialogWork();
    DialogWork(const DialogWork&) = delete;
    DialogWork& operator=(const DialogWork&) = delete;

    struct Kind {
        const char* name;
        bool (DialogWork::*run)(const KnownResults&) const;
    };
    static std::span<const Kind> kinds();

    // The secret's handle, 0 when there was none.
    NCRYPT_SECRET_HANDLE agreed() const;

    bool signRsa(const KnownResults& known) const;
    bool signEc(const KnownResults& known) const;
    bool decrypt(const KnownResults& known) const;
    bool agree(const KnownResults& known) const;

private:
    const ProviderModule& module_;
    NCRYPT_PROV_HANDLE provider_;
    const TokenFacts& facts_;
    NCRYPT_KEY_HANDLE rsa_ = 0;
    NCRYPT_KEY_HANDLE ec_ = 0;
};

// A secret agreed through the module, with the PIN by the dialog. Freed at the end, and its key
// with it: freeing a key empties the properties of all that were opened by its name.
class AgreedByDialog {
public:
    AgreedByDialog(const ProviderModule& module, NCRYPT_PROV_HANDLE provider,
                   const TokenFacts& facts);
    ~AgreedByDialog();
    AgreedByDialog(const AgreedByDialog&) = delete;
    AgreedByDialog& operator=(const AgreedByDialog&) = delete;

    NCRYPT_SECRET_HANDLE handle() const { return handle_; }

private:
    const ProviderModule& module_;
    NCRYPT_PROV_HANDLE provider_;
    DialogWork work_;
    NCRYPT_SECRET_HANDLE handle_ = 0;
};

// With the module's objects instead of its table, what needs the PIN: a call layer, a key store and
// keys of its own, under locks as a provider takes them. May be used by several threads at once.
class PinWork {
public:
    // On the first slot with an initialised token. Throws std::runtime_error when the library at
    // the UTF-8 path cannot be loaded or has none.
    PinWork(const std::string& library, const TokenFacts& facts);

    struct Kind {
        const char* name;
        bool (PinWork::*run)(const KnownResults&);
    };
    static std::span<const Kind> kinds();

    bool signRsa(const KnownResults& known);
    bool signEc(const KnownResults& known);
    bool decrypt(const KnownResults& known);
    bool agree(const KnownResults& known);
    bool derive(const KnownResults& known);

    // A signature of the hash by the EC key, empty when there is none.
    Bytes ecSignature(const KnownResults& known);

private:
    class Turn;

    CK_SLOT_ID firstActiveSlot() const;

    const TokenFacts& facts_;
    CK_SLOT_ID slot_ = 0;
    SecretBytes pin_;
    Mutex lock_{LockRank::provider};
    Pkcs11 p11_;
    KeyStore store_;
    P11RSAKeyObject rsa_;
    P11ECKeyObject ec_;
};

}  // namespace NV::test
