// The object of an opened provider, and the registry of all open providers. The entry points of the
// operation table forward to them.

#pragma once

#include "base/cng.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "base/secret.h"
#include "certstore/certstore.h"
#include "keystore/keystore.h"
#include "keystore/keystore_call.h"
#include "keystore/property.h"
#include "nvvtoken/nvvtoken_name.h"
#include "p11/p11.h"

namespace NV {

struct PINSubject;

// One opened provider: its library, its chosen slot, its keys and its properties.
//
// The public operations have the names, arguments, and results of CNG's callbacks, without the
// provider handle. All lengths are in bytes.
//
// In the classic behaviour, each one holds the provider's lock until it returns, also while the PIN
// dialog is open, so that calls on one provider are serialized. In the modern behaviour, it releases
// the lock when it has found its key: token operations of a provider run side by side.
class Provider {
public:
    // Touches neither the configuration nor the token.
    Provider();
    virtual ~Provider();
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    // Loads the configured library, chooses the first slot with an initialized token, publishes its
    // certificates, and adds their keys to the key store. Also true if there is no such slot: the
    // provider then has no keys and no algorithms. Throws std::filesystem::filesystem_error as
    // P11Module::load does.
    bool init();

    // Properties. A null pbOutput asks for the length.
    SECURITY_STATUS GetProviderProperty(LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                        DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS GetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbOutput,
                                   DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS SetProviderProperty(LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                        DWORD dwFlags);
    SECURITY_STATUS SetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbInput,
                                   DWORD cbInput, DWORD dwFlags);

    // Algorithms. *ppAlgList is one block for FreeBuffer, which does not release the names in it unless
    // they are in the same block, as in modern.
    SECURITY_STATUS IsAlgSupported(LPCWSTR pszAlgId, DWORD dwFlags);
    SECURITY_STATUS EnumAlgorithms(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                   NCryptAlgorithmName** ppAlgList, DWORD dwFlags);

    // Operations that this provider does not support.
    SECURITY_STATUS CreatePersistedKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                       LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);
    SECURITY_STATUS FinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS DeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS PromptUser(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation, DWORD dwFlags);
    SECURITY_STATUS NotifyChangeKey(HANDLE* phEvent, DWORD dwFlags);

    // Keys. The record and the state of EnumKeys are blocks for FreeBuffer, which does not release
    // the names in the record unless they are in the same block, as in modern.
    SECURITY_STATUS OpenKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                            DWORD dwFlags);
    SECURITY_STATUS FreeKey(NCRYPT_KEY_HANDLE hKey);
    SECURITY_STATUS EnumKeys(LPCWSTR pszScope, NCryptKeyName** ppKeyName, PVOID* ppEnumState,
                             DWORD dwFlags);
    SECURITY_STATUS ImportKey(NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                              NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey,
                              PBYTE pbData, DWORD cbData, DWORD dwFlags);
    SECURITY_STATUS ExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                              LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList, PBYTE pbOutput,
                              DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags);

    // Token operations. SignHash with a signature buffer, Decrypt, and SecretAgreement ask the user
    // for the PIN on each call. Compat: NCRYPT_SILENT_FLAG does not suppress the dialog.
    SECURITY_STATUS SignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                             DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                             DWORD* pcbResult, DWORD dwFlags);
    SECURITY_STATUS VerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                    DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                    DWORD dwFlags);
    SECURITY_STATUS Encrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                            VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                            DWORD dwFlags);
    SECURITY_STATUS Decrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                            VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                            DWORD dwFlags);

    // Secrets. A secret is in a list of the process and outlives the provider that made it.
    SECURITY_STATUS SecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                    NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags);
    SECURITY_STATUS DeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                              NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                              DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags);
    SECURITY_STATUS FreeSecret(NCRYPT_SECRET_HANDLE hSharedSecret);

private:
    using AlgorithmNames = std::vector<const wchar_t*>;

    bool openToken(const Site& init);
    // False if somebody else has finalized the library meanwhile, in modern: nothing is served yet.
    bool serveFirstActiveSlot(const Site& init);
    void fileKeys(const P11Slot& slot);
    void setDefaultProperties();
    void setAlgorisms(const P11Slot& slot);

    static SECURITY_STATUS outputProperty(const Site& site, const Property& property,
                                          PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult);
    // The status of an output that does not fit: the one given, or in modern NTE_BUFFER_TOO_SMALL with
    // the size in *pcbResult.
    static SECURITY_STATUS outputTooShort(DWORD size, DWORD* pcbResult, SECURITY_STATUS classic);

    // Whether IsAlgSupported knows an algorithm, in modern and in classic.
    bool isKeyAlgorithm(std::wstring_view name) const;
    bool isListed(std::wstring_view name) const;
    SECURITY_STATUS listByOperation(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                    NCryptAlgorithmName** ppAlgList) const;

    // Logs whether a key was found, and returns it.
    static P11KeyObject* logFound(const Site& site, P11KeyObject* key);

    SECURITY_STATUS exportPublicKey(const Site& site, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszBlobType,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult);

    // Agrees on a secret with the owner of an imported public key, and adds it to the list.
    SECURITY_STATUS agree(const Site& site, Pkcs11& p11, P11KeyObject& key,
                          const P11KeyObject& peer, NCRYPT_SECRET_HANDLE* phAgreedSecret,
                          const SecretBytes& pin);

    // The two ways with what comes from outside: blobs, public key handles, secret handles. A peer is the
    // public key behind the handle, which lives as long as the result. It is null if the store does not
    // know the handle, or knows it as that of an RSA key. Compat: in classic, the store is not asked, and
    // the handle must be one of a key.
    struct ImportWays {
        SECURITY_STATUS(Provider::*import)
        (std::wstring_view blobType, std::span<const BYTE> blob, NCRYPT_KEY_HANDLE& key);
        std::shared_ptr<const P11KeyObject> (Provider::*peer)(const Site& site,
                                                              NCRYPT_KEY_HANDLE hPubKey);
        SECURITY_STATUS unknownSecret;
    };
    static const ImportWays& importWays();
    SECURITY_STATUS importChecked(std::wstring_view blobType, std::span<const BYTE> blob,
                                  NCRYPT_KEY_HANDLE& key);
    SECURITY_STATUS importAsGiven(std::wstring_view blobType, std::span<const BYTE> blob,
                                  NCRYPT_KEY_HANDLE& key);
    std::shared_ptr<const P11KeyObject> foundPeer(const Site& site, NCRYPT_KEY_HANDLE hPubKey);
    std::shared_ptr<const P11KeyObject> givenPeer(const Site& site, NCRYPT_KEY_HANDLE hPubKey);

    // Asks the user for the PIN of the key's token. Sets the status to 0 and returns the PIN, which can
    // be empty; otherwise sets the status that the operation must return.
    SecretBytes enterPIN(const P11KeyObject& key, SECURITY_STATUS& status);
    // What the dialog of modern says, for as long as it opens. Asks the token.
    PINSubject readPINSubject(const Site& site, const P11KeyObject& key);

    // The parts of a token operation; see nvvtoken_work.h. `held` is the provider's lock.
    using Held = std::unique_lock<Mutex>;

    // The operation, the provider's lock, and the key's handle.
    struct KeyUse {
        const Site& site;
        Held& held;
        NCRYPT_KEY_HANDLE hKey;
    };

    // The token operations behind their argument checks. In modern, everything that can be told or
    // refused without the user and the token is. The calls have no call layer yet.
    SECURITY_STATUS sign(const KeyUse& use, const SignatureCall& call, DWORD* pcbResult);
    SECURITY_STATUS signChecked(const KeyUse& use, const SignatureCall& call, DWORD* pcbResult);
    SECURITY_STATUS verify(const KeyUse& use, const SignatureCall& call);
    SECURITY_STATUS verifyChecked(const KeyUse& use, const SignatureCall& call);
    SECURITY_STATUS encrypt(const KeyUse& use, const CipherCall& call);
    SECURITY_STATUS encryptChecked(const KeyUse& use, const CipherCall& call);
    SECURITY_STATUS decrypt(const KeyUse& use, const CipherCall& call);
    SECURITY_STATUS decryptChecked(const KeyUse& use, const CipherCall& call);
    // The token decrypts into as many bytes as the modulus has: some tokens want no fewer.
    SECURITY_STATUS decryptIntoOwnBuffer(const Site& site, P11KeyObject& key,
                                         const CipherCall& call, DWORD modulus);

    // The two ways of what has an output.
    struct TokenWays {
        SECURITY_STATUS (Provider::*sign)(const KeyUse&, const SignatureCall&, DWORD* pcbResult);
        SECURITY_STATUS (Provider::*encrypt)(const KeyUse&, const CipherCall&);
        SECURITY_STATUS (Provider::*decrypt)(const KeyUse&, const CipherCall&);
    };
    static const TokenWays& tokenWays();

    // What both ways do in the end.
    SECURITY_STATUS signWithPIN(const Site& site, P11KeyObject& key, const SignatureCall& call,
                                DWORD* pcbResult);
    SECURITY_STATUS verifyOnToken(const Site& site, P11KeyObject& key, const SignatureCall& call);
    SECURITY_STATUS encryptOnToken(const Site& site, P11KeyObject& key, const CipherCall& call);
    SECURITY_STATUS decryptWithPIN(const Site& site, P11KeyObject& key, const CipherCall& call);
    // NTE_INTERNAL_ERROR for 0, which is logged: the length is not known.
    static SECURITY_STATUS reportSignatureLength(const Site& site, DWORD length, DWORD* pcbResult);

    // Whether the caller's NCRYPT_SILENT_FLAG keeps the dialog from being shown, which is logged.
    static bool mustStaySilent(const Site& site, DWORD dwFlags);

    // Runs the work with the opened key of a handle, which lives until the work is done.
    // NTE_INVALID_HANDLE if there is none.
    template <typename Work>
    SECURITY_STATUS withKey(const Site& site, Held& held, NCRYPT_KEY_HANDLE hKey, const Work& work);

    // Runs the work with a call layer on the library.
    template <typename Work>
    SECURITY_STATUS onToken(const Site& site, const Work& work);
    template <typename Work>
    SECURITY_STATUS inSequence(const Work& work);
    template <typename Work>
    SECURITY_STATUS sideBySide(const Site& site, const Work& work);

    // Asks for the PIN and runs the work with it, as onToken does. Compat: an empty PIN
    // skips the work, and the status is 0.
    template <typename Work>
    SECURITY_STATUS withPIN(const Site& site, const P11KeyObject& key, const Work& work);

    const wchar_t* name_ = providerName;
    Mutex lock_{LockRank::provider};
    std::unique_ptr<Pkcs11> pkcs11_;
    P11Slot* slot_ = nullptr;
    std::atomic<HWND> ownerWindow_ = nullptr;
    KeyStore keyStore_;
    CertStore certStore_;
    std::map<std::wstring, std::shared_ptr<Property>> properties_;
    AlgorithmNames cipherAlgorithms_;
    AlgorithmNames hashAlgorithms_;
    AlgorithmNames asymmetricEncryptionAlgorithms_;
    AlgorithmNames secretAgreementAlgorithms_;
    AlgorithmNames signatureAlgorithms_;
    AlgorithmNames rngAlgorithms_;
};

// The registry of the open providers. There is one per process, created on first use and never
// destroyed. A provider's handle is its address.
//
// The thread that ends the process (base/process_end.h) may be inside a call that never releases its
// locks, and the program's exit code may still call the module. So on that thread no handle has a
// provider, opening fails, and freeing succeeds without doing anything.
class ProviderManager {
public:
    static ProviderManager& instance();

    virtual ~ProviderManager() = default;
    ProviderManager(const ProviderManager&) = delete;
    ProviderManager& operator=(const ProviderManager&) = delete;

    // As CNG's callbacks. Both hold the manager's lock until they return. FreeProvider does not wait
    // for calls that are inside the provider: the handle is gone at once.
    SECURITY_STATUS OpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                 DWORD dwFlags);
    SECURITY_STATUS FreeProvider(NCRYPT_PROV_HANDLE hProvider);

    // An owner of a registered provider: the map's entry, and each call that is inside. The last one
    // destroys the provider under the sequence lock, because the destructor finalizes the library;
    // it must hold no lock of a higher rank, and not the provider's.
    class Registered {
    public:
        explicit Registered(std::unique_ptr<Provider> provider) : provider_(std::move(provider)) {}
        ~Registered();
        Registered(const Registered&) = delete;
        Registered& operator=(const Registered&) = delete;

        Provider* provider() const { return provider_.get(); }
        // Destroys the provider at once, whoever is inside. For the process detach.
        void destroy() { provider_.reset(); }
        // Never destroys it.
        void abandon() { static_cast<void>(provider_.release()); }

    private:
        std::unique_ptr<Provider> provider_;
    };
    using Owner = std::shared_ptr<Registered>;

    // The provider of a handle, for a call to keep while it is inside. Null if the handle is known but
    // has no provider. For an unknown handle, classic throws std::out_of_range, "invalid map<K, T> key",
    // and modern returns null.
    Owner find(NCRYPT_PROV_HANDLE hProvider);

    // Destroys every provider, at process detach. Takes no lock and does not wait: the system may
    // have ended the other threads while they held locks, or were inside.
    void clear() NV_NO_THREAD_SAFETY_ANALYSIS;

private:
    friend NeverDestroyed<ProviderManager>;
    ProviderManager() = default;

    // What classic does with a handle that the map does not have. Modern does neither.
    enum class Unknown : uint8_t { isAdded, throws };
    Owner lookUp(NCRYPT_PROV_HANDLE hProvider, Unknown unknown) NV_REQUIRES(mapLock_);

    bool isOpen(NCRYPT_PROV_HANDLE hProvider);
    SECURITY_STATUS open(const Site& site, NCRYPT_PROV_HANDLE* phProvider);
    SECURITY_STATUS free(const Site& site, NCRYPT_PROV_HANDLE hProvider);

    Mutex lock_{LockRank::registry};  // serializes OpenProvider and FreeProvider

    // Guards the map, only while it is read or changed.
    Mutex mapLock_{LockRank::leaf};
    std::map<NCRYPT_PROV_HANDLE, Owner> providers_ NV_GUARDED_BY(mapLock_);
};

}  // namespace NV
