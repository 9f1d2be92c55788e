// Agreed secrets: what an NCRYPT_SECRET_HANDLE points at, and the list of all of them.

#pragma once

#include "base/cng.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/mutex.h"
#include "base/secret.h"

namespace NV {

#pragma pack(push, 1)

// The record behind a secret handle, on the C heap, with the secret in a block of its own there.
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

// A record with room for `length` bytes, zero-filled. Throws std::bad_alloc.
OwnedSecret makeSecret(uint32_t length);

// The secrets of the whole process. A secret outlives the provider that made it. The list has a
// lock of its own, because providers on different threads reach it; nothing else is done under it.
class SecretList {
public:
    static SecretList& instance();

    void add(OwnedSecret secret);
    // A copy of the secret's bytes; nothing when the handle is not in the list.
    std::optional<SecretBytes> copy(NCRYPT_SECRET_HANDLE handle);
    // Takes a secret out of the list; null when it is not there. `size` receives the number of
    // secrets that the list held before.
    OwnedSecret remove(NCRYPT_SECRET_HANDLE handle, size_t& size);

private:
    std::vector<OwnedSecret>::iterator find(NCRYPT_SECRET_HANDLE handle) NV_REQUIRES(lock_);

    Mutex lock_{LockRank::leaf};
    std::vector<OwnedSecret> secrets_ NV_GUARDED_BY(lock_);
};

}  // namespace NV
