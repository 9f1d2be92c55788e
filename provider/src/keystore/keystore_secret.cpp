// Making, listing and wiping agreed secrets.

#include "keystore/keystore_secret.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string_view>
#include <utility>

#include "base/never_destroyed.h"
#include "config/mode.h"

namespace NV {

void AgreedSecretFreer::operator()(AgreedSecret* secret) const
{
    if (secret->bytes != nullptr)
        wipe(secret->bytes, secret->length);
    std::free(secret->bytes);
    std::free(secret);
}

SecretText secretText(const unsigned char* bytes, size_t length)
{
    constexpr std::string_view hidden("hidden\0", 7);
    return mode().hidesSecrets() ? SecretText(hidden.begin(), hidden.end())
                                 : secretHex(bytes, length);
}

OwnedSecret makeSecret(uint32_t length)
{
    OwnedSecret secret(static_cast<AgreedSecret*>(std::calloc(1, sizeof(AgreedSecret))));
    if (secret == nullptr)
        throw std::bad_alloc();
    secret->bytes = static_cast<unsigned char*>(std::calloc(std::max(length, 1U), 1));
    if (secret->bytes == nullptr)
        throw std::bad_alloc();
    secret->length = length;
    return secret;
}

SecretList& SecretList::instance()
{
    static NeverDestroyed<SecretList> list;
    return *list;
}

std::vector<OwnedSecret>::iterator SecretList::find(NCRYPT_SECRET_HANDLE handle)
{
    return std::ranges::find_if(secrets_, [handle](const OwnedSecret& secret) {
        return reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get()) == handle;
    });
}

void SecretList::add(OwnedSecret secret)
{
    const std::lock_guard guard(lock_);
    secrets_.push_back(std::move(secret));
}

std::optional<SecretBytes> SecretList::copy(NCRYPT_SECRET_HANDLE handle)
{
    const std::lock_guard guard(lock_);
    const auto entry = find(handle);
    if (entry == secrets_.end())
        return std::nullopt;
    const AgreedSecret& secret = **entry;
    return SecretBytes(secret.bytes, secret.bytes + secret.length);
}

OwnedSecret SecretList::remove(NCRYPT_SECRET_HANDLE handle, size_t& size)
{
    const std::lock_guard guard(lock_);
    size = secrets_.size();
    const auto entry = find(handle);
    if (entry == secrets_.end())
        return nullptr;
    OwnedSecret secret = std::move(*entry);
    secrets_.erase(entry);
    return secret;
}

}  // namespace NV
