// The object behind an opened provider, and the registry of all opened ones. The entry points of
// the operation table forward to them.

#pragma once

#include "base/cng.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/secret.h"
#include "certstore/certstore.h"
#include "keystore/keystore.h"
#include "keystore/property.h"
#include "p11/p11.h"

namespace NV {

// The name under which the provider is registered with CNG.
inline constexpr const wchar_t* providerName = L"Norvanta Software KeyStore Provider";

// Serialises whole token sequences of all providers in the process: they share the one initialised
// state of the PKCS#11 library, and a finalise inside another's sequence would end it. Taken after
// the provider's lock and before the key store's, never while the PIN dialog is open and never at
// process detach.
Mutex& sequenceLock();

// From now on the calling thread finds no provider: it ends the process from inside whatever call it
// was in, and the locks that the call holds are never let go. What the program's exit code still
// asks for is answered at once, and the providers are left to the process detach. Takes no lock and
// no memory; for the signal handler.
void endProvidersOnThisThread();

// One opened provider: its library, its chosen slot, its keys and its properties.
//
// The public operations have the names, arguments and results of CNG's callbacks without the
// provider handle. Each holds the provider's lock for its whole run, the PIN dialog included, so
// that calls on one provider are serialised. All lengths are in bytes.
class Provider {
public:
    // Touches neither the configuration nor the token.
    Provider();
    virtual ~Provider();
    Provider(const Provider&) = delete;
    Provider& operator=(const Provider&) = delete;

    // Loads the configured library, takes the first slot with an initialised token, publishes its
    // certificates and files their keys. True also when no slot qualifies: the provider then has no
    // keys and no algorithms. Throws std::filesystem::filesystem_error as P11Module::load does.
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

    // Algorithms. *ppAlgList is one block for FreeBuffer; the names in it are not released with it.
    SECURITY_STATUS IsAlgSupported(LPCWSTR pszAlgId, DWORD dwFlags);
    SECURITY_STATUS EnumAlgorithms(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                   NCryptAlgorithmName** ppAlgList, DWORD dwFlags);

    // Operations that this provider refuses.
    SECURITY_STATUS CreatePersistedKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                       LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);
    SECURITY_STATUS FinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS DeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
    SECURITY_STATUS PromptUser(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation, DWORD dwFlags);
    SECURITY_STATUS NotifyChangeKey(HANDLE* phEvent, DWORD dwFlags);

    // Keys. Record and state of EnumKeys are for FreeBuffer; the names in the record are not
    // released with it.
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

    // Token operations. SignHash with a signature buffer, Decrypt and SecretAgreement ask the user
    // for the PIN, each time anew; NCRYPT_SILENT_FLAG does not suppress that.
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

    // Secrets. A secret lives in a list of the process and outlives the provider that made it.
    SECURITY_STATUS SecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                    NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags);
    SECURITY_STATUS DeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                              NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                              DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags);
    SECURITY_STATUS FreeSecret(NCRYPT_SECRET_HANDLE hSharedSecret);

private:
    using AlgorithmNames = std::vector<const wchar_t*>;

    bool openToken(const Site& init);
    void serveFirstActiveSlot(const Site& init);
    void serveSlot(P11Slot& slot);
    void setDefaultProperties();
    void setAlgorisms(const P11Slot& slot);

    static SECURITY_STATUS outputProperty(const Site& site, const Property& property,
                                          PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult);
    void setOwnerWindow(const Site& site, const BYTE* pbInput, DWORD cbInput);

    // The opened key behind a handle, with the line that says whether it was found; null when not.
    P11KeyObject* findKey(const Site& site, NCRYPT_KEY_HANDLE hKey);
    static P11KeyObject* logFound(const Site& site, P11KeyObject* key);

    SECURITY_STATUS exportPublicKey(const Site& site, NCRYPT_KEY_HANDLE hKey, PBYTE pbOutput,
                                    DWORD cbOutput, DWORD* pcbResult);

    // Agrees a secret of the key with an imported public key and lists it.
    SECURITY_STATUS agree(const Site& site, P11KeyObject& key, NCRYPT_KEY_HANDLE hPubKey,
                          NCRYPT_SECRET_HANDLE* phAgreedSecret, const SecretBytes& pin);

    // Asks the user for the PIN. Status 0 and the PIN, possibly empty; or the status to return.
    SecretBytes enterPIN(SECURITY_STATUS& status);

    // Asks for the PIN and runs the work with it, under the sequence lock. An empty PIN skips the
    // work; the status is then 0.
    template <typename Work>
    SECURITY_STATUS withPIN(const Site& site, const Work& work);

    const wchar_t* name_ = providerName;
    Mutex lock_{LockRank::provider};
    std::unique_ptr<Pkcs11> pkcs11_;
    P11Slot* slot_ = nullptr;
    HWND ownerWindow_ = nullptr;
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

// The registry of opened providers, one per process, made on first use and never destroyed. It owns
// them; a provider's handle is its address.
class ProviderManager {
public:
    static ProviderManager& instance();

    virtual ~ProviderManager() = default;
    ProviderManager(const ProviderManager&) = delete;
    ProviderManager& operator=(const ProviderManager&) = delete;

    // As CNG's callbacks. Both hold the manager's lock for their whole run. On a thread that ends
    // the process nothing is opened, and freeing succeeds without doing anything.
    SECURITY_STATUS OpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                 DWORD dwFlags);
    SECURITY_STATUS FreeProvider(NCRYPT_PROV_HANDLE hProvider);

    // A call inside a provider. While it lives, FreeProvider waits with the destruction.
    class Visit {
    public:
        Visit(ProviderManager& manager, Provider* provider) : manager_(manager), provider_(provider)
        {
        }
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        // Null when the handle is known but stands for no provider.
        Provider* provider() const { return provider_; }

    private:
        ProviderManager& manager_;
        Provider* provider_;
    };

    // Looks a handle up. Throws std::out_of_range, "invalid map<K, T> key", for a handle that was
    // never seen. No handle stands for a provider on a thread that ends the process.
    Visit visit(NCRYPT_PROV_HANDLE hProvider);

    // Destroys every provider; for process detach. Takes no lock and waits for nobody: the other
    // threads of the process may be gone, with locks in their hands.
    void clear() NV_NO_THREAD_SAFETY_ANALYSIS;

private:
    ProviderManager() = default;

    bool isOpen(NCRYPT_PROV_HANDLE hProvider);
    SECURITY_STATUS open(const Site& site, NCRYPT_PROV_HANDLE* phProvider);
    SECURITY_STATUS free(const Site& site, NCRYPT_PROV_HANDLE hProvider);

    Mutex lock_{LockRank::registry};  // serialises OpenProvider and FreeProvider

    // Guards the map and the visits while they are read or changed, never longer.
    Mutex mapLock_{LockRank::leaf};
    std::map<NCRYPT_PROV_HANDLE, Provider*> providers_ NV_GUARDED_BY(mapLock_);
    std::map<Provider*, unsigned> visits_ NV_GUARDED_BY(mapLock_);
    std::condition_variable visitEnded_;
};

}  // namespace NV
