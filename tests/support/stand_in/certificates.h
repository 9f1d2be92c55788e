// A certificate of the stand-in: its context, the decoded public key, its property. For the stand-in's
// own files.

#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace NV::stand_in {

// The copied content of a CRYPT_KEY_PROV_INFO.
struct ProviderInfo {
    std::wstring container;
    std::wstring name;
    DWORD keySpec;
};

struct Extension {
    std::string identifier;
    bool critical;
    std::vector<BYTE> value;
};

// Shared by its references, of which the maker has the first.
class Certificate {
public:
    Certificate(const BYTE* der, DWORD size);
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() = default;

    // Decodes the bytes; false if they are not one certificate.
    bool read();

    PCCERT_CONTEXT context() const { return &context_; }
    const std::vector<BYTE>& der() const { return der_; }

    void acquire() { ++references_; }
    void release();

    void setProviderInfo(const CRYPT_KEY_PROV_INFO& info);
    std::optional<ProviderInfo> providerInfo() const;

private:
    CERT_CONTEXT context_{};  // the first member: its address is that of the certificate
    CERT_INFO info_{};
    std::vector<BYTE> der_;
    std::string algorithm_;
    std::vector<BYTE> parameters_;
    std::vector<BYTE> publicKey_;
    std::vector<Extension> extensions_;
    std::vector<CERT_EXTENSION> extensionRecords_;  // of extensions_
    mutable std::mutex lock_;
    std::optional<ProviderInfo> provider_;
    std::atomic<int> references_ = 1;
};

// From now on, a certificate is decoded once: OpenSSL takes long for it. For programs that read the same
// few certificates again and again, and do not count what is left on the heap.
void keepDecodedKeys();

Certificate* certificateOf(PCCERT_CONTEXT context);

}  // namespace NV::stand_in
