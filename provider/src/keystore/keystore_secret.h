// Agreed secrets: the record behind an NCRYPT_SECRET_HANDLE, and the list of all records.

#pragma once

#include "base/cng.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/mutex.h"
#include "base/secret.h"

namespace NV {

#pragma pack(push, 1)

// The record behind a secret handle. The record and the secret are two blocks on the C heap.
struct AgreedSecret {
    uint32_t length;  // bytes
    unsigned char* bytes;
};

#pragma pack(pop)

static_assert(sizeof(AgreedSecret) == 12);

// Wipes the secret and frees both blocks.
struct AgreedSecretFreer {
    void operator()(AgreedSecret* secret) const;
};
using OwnedSecret = std::unique_ptr<AgreedSecret, AgreedSecretFreer>;

// What the log shows of a secret between brackets: in classic its bytes in hexadecimal, in modern
// "hidden". Ends with a zero.
SecretText secretText(const unsigned char* bytes, size_t length);

// A record for `length` bytes, filled with zeros. Throws std::bad_alloc.
OwnedSecret makeSecret(uint32_t length);

// The secrets of the whole process. A secret outlives the provider that made it. The list has its
// own lock, because providers use it from different threads. No other lock is taken under it.
class SecretList {
public:
    static SecretList& instance();

    void add(OwnedSecret secret);
    // A copy of the secret's bytes; nothing when the handle is not in the list.
    std::optional<SecretBytes> copy(NCRYPT_SECRET_HANDLE handle);
    // Removes a secret from the list and returns it; null when the handle is not in the list.
    // `size` receives the number of secrets before the removal.
    OwnedSecret remove(NCRYPT_SECRET_HANDLE handle, size_t& size);

private:
    std::vector<OwnedSecret>::iterator find(NCRYPT_SECRET_HANDLE handle) NV_REQUIRES(lock_);

    Mutex lock_{LockRank::leaf};
    std::vector<OwnedSecret> secrets_ NV_GUARDED_BY(lock_);
};

}  // namespace NV
