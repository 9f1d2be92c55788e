// An opened provider with everything that an operation needs, and the questions that are asked after
// an operation in which something went wrong. Used by the tests of events (event.h).

#pragma once

#include "base/cng.h"

#include <memory>
#include <string>

#include "behaviours.h"
#include "guarded_output.h"
#include "nvvtoken/nvvtoken.h"
#include "other_thread.h"
#include "scripted_token.h"

namespace NV::test {

// What the pointers of an operation show before it.
inline constexpr DWORD unwrittenNumber = 0x7391;
inline constexpr ULONG_PTR unwrittenHandle = 0x7391;

// Where an operation writes.
struct Outputs {
    explicit Outputs(size_t room) : buffer(room) {}

    GuardedOutput buffer;
    DWORD length = unwrittenNumber;
    NCRYPT_HANDLE handle = unwrittenHandle;  // of a provider, a key or a secret
    NCryptAlgorithmName* algorithms = nullptr;
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
};

// Ends a provider: one of the registry by freeing it.
struct ProviderEnd {
    ProviderEnd() = default;
    ProviderEnd(bool isRegistered) : registered(isRegistered) {}
    ProviderEnd(std::default_delete<Provider>) {}
    void operator()(Provider* provider) const;

    bool registered = false;
};

// An operation of a provider, and the entry point of the table that calls it.
template <typename... Parameters>
struct Call {
    Provider& provider;
    SECURITY_STATUS (Provider::*operation)(Parameters...);
    SECURITY_STATUS(WINAPI* entry)(NCRYPT_PROV_HANDLE, Parameters...);

    SECURITY_STATUS operator()(Parameters... parameters) const
    {
        return entry == nullptr
                   ? (provider.*operation)(parameters...)
                   : entry(reinterpret_cast<NCRYPT_PROV_HANDLE>(&provider), parameters...);
    }
};

class ProviderWorld {
public:
    static constexpr size_t room = 300;
    using Table = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;

    // The token in slot 52 with the RSA key 01AB and the P-256 key 0256, and a certificate of each. The
    // configuration names its library. No provider is open. With a table, the registry opens the
    // provider, and the operations are called by the table.
    explicit ProviderWorld(Behaviour behaviour = Behaviour::classic, const Table* table = nullptr);
    ~ProviderWorld();
    ProviderWorld(const ProviderWorld&) = delete;
    ProviderWorld& operator=(const ProviderWorld&) = delete;

    // The provider, both keys, an imported peer key and a secret in the list.
    void open();
    // All of them released, and every provider of the registry.
    void close();

    // Begins a run: fresh outputs, no recorded calls.
    void prepare();

    // Each is empty if all is well. Otherwise each thing that is wrong ends in "; ". In modern, the
    // library is initialized while a provider is open.
    std::string leftOnToken(bool providerOpen = false) const;
    // An operation of each kind on another thread, with its output.
    std::string nextOperations();

    // Removes from the token what a run has left there.
    void recover();

    // Whether the token has been called since prepare.
    bool tokenWasCalled() const { return !token.callNames().empty(); }

    // Puts a secret of three bytes into the list of the process.
    static NCRYPT_SECRET_HANDLE listSecret();
    // How many secrets the list has more than when the run began.
    ptrdiff_t secretsAdded() const;

    // The operation of this name of the provider.
    template <typename... Parameters>
    Call<Parameters...> call(SECURITY_STATUS (Provider::*operation)(Parameters...),
                             SECURITY_STATUS (WINAPI* Table::*entry)(NCRYPT_PROV_HANDLE,
                                                                     Parameters...))
    {
        return {*provider, operation, table_ != nullptr ? table_->*entry : nullptr};
    }
    // Opens and frees a provider of the registry.
    SECURITY_STATUS openRegistered(NCRYPT_PROV_HANDLE* handle);
    SECURITY_STATUS freeRegistered(NCRYPT_PROV_HANDLE handle);

private:
    // Before everything that opens a provider.
    ModeOf mode_;
    const Table* table_;

public:
    ScriptedToken token;
    std::unique_ptr<Provider, ProviderEnd> provider;
    NCRYPT_PROV_HANDLE registered[2] = {};  // by the cases of the registry
    NCRYPT_KEY_HANDLE rsa = 0;
    NCRYPT_KEY_HANDLE ec = 0;
    NCRYPT_KEY_HANDLE peer = 0;
    NCRYPT_SECRET_HANDLE secret = 0;
    // Compat: freeing a handle of a key empties its values.
    bool rsaKeyFreed = false;

    Outputs out{room};
    Bytes hash;
    Bytes rsaSignature;  // of the hash, PKCS #1 with SHA-256
    Bytes pssSignature;
    Bytes ecSignature;
    Bytes cipherText;  // of the hash, OAEP with SHA-1
    Bytes blob;        // of the peer's key

    // Padding of each kind.
    BCRYPT_PKCS1_PADDING_INFO pkcs1{L"SHA256"};
    BCRYPT_PSS_PADDING_INFO pss{L"SHA256", 32};
    BCRYPT_OAEP_PADDING_INFO oaep{L"SHA1", nullptr, 0};

    // The buffer lists of a derivation.
    NCryptBufferDesc* hashParameters() { return &hashList_; }
    NCryptBufferDesc* hmacParameters() { return &hmacList_; }

private:
    std::string workedWrong();
    void openProvider();

    OtherThread other_;
    TokenState before_{};
    size_t secretsBefore_ = 0;
    wchar_t hashName_[7] = L"SHA256";
    BYTE prepended_[2] = {0xA1, 0xA2};
    BYTE hmacKey_[3] = {0xB1, 0xB2, 0xB3};
    BCryptBuffer buffers_[3];
    NCryptBufferDesc hashList_;
    NCryptBufferDesc hmacList_;
};

}  // namespace NV::test
