// The operations with the module's objects.

#include <algorithm>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "keystore/keystore_hash.h"
#include "keystore/keystore_secret.h"
#include "nvvtoken/nvvtoken.h"
#include "p11/library_life.h"
#include "peer_key.h"
#include "token_work.h"

namespace NV::test {

namespace {

constexpr SECURITY_STATUS success = ERROR_SUCCESS;

SecretBytes secretBytes(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

}  // namespace

PinWork::PinWork(const std::string& library, const TokenFacts& facts) : facts_(facts)
{
    for (const wchar_t character : facts.pin)
        pin_.push_back(static_cast<unsigned char>(character));
    const std::lock_guard sequence(sequenceLock());
    if (!p11_.loadModule(library))
        throw std::runtime_error(library + " cannot be loaded");
    slot_ = firstActiveSlot();
    rsa_.setSlotId(slot_);
    rsa_.setKeyId(facts.rsaKey);
    rsa_.setKeyLength(2048);
    ec_.setSlotId(slot_);
    ec_.setKeyId(facts.ecKey);
    ec_.setKeyLength(256);
}

CK_SLOT_ID PinWork::firstActiveSlot() const
{
    for (const auto& slot : p11_.module()->slots()) {
        if ((slot->slotInfo().flags & CKF_TOKEN_PRESENT) != 0 &&
            (slot->tokenInfo().flags & CKF_TOKEN_INITIALIZED) != 0)
            return slot->id();
    }
    throw std::runtime_error("no initialised token");
}

// The locks and the call layer of one operation, as a provider has them: in classic it holds its lock and
// the sequence lock, in modern neither, and each operation has a call layer of its own.
class PinWork::Turn {
public:
    explicit Turn(PinWork& work)
        : p11_(&work.p11_), provider_(work.lock_, std::defer_lock),
          sequence_(sequenceLock(), std::defer_lock)
    {
        if (work.p11_.joined()) {
            p11_ = &own_.emplace(work.p11_.sharedModule());
            return;
        }
        provider_.lock();
        sequence_.lock();
    }

    Pkcs11& p11() { return *p11_; }

private:
    std::optional<Pkcs11> own_;
    Pkcs11* p11_;
    std::unique_lock<Mutex> provider_;
    std::unique_lock<Mutex> sequence_;
};

std::span<const PinWork::Kind> PinWork::kinds()
{
    static constexpr Kind all[] = {{"sign with RSA", &PinWork::signRsa},
                                   {"sign with EC", &PinWork::signEc},
                                   {"decrypt", &PinWork::decrypt},
                                   {"agree", &PinWork::agree},
                                   {"derive", &PinWork::derive}};
    return all;
}

bool PinWork::signRsa(const KnownResults& known)
{
    Bytes hash = known.hash;
    Bytes signature(known.rsaSignature.size());
    DWORD length = 0;
    Turn turn(*this);
    const SECURITY_STATUS status = rsa_.sign(&turn.p11(), nullptr, hash.data(), sizeOf(hash),
                                             signature.data(), sizeOf(signature), &length, 0, pin_);
    return status == success && signature == known.rsaSignature;
}

Bytes PinWork::ecSignature(const KnownResults& known)
{
    Bytes hash = known.hash;
    Bytes signature(known.ecSignature.size());
    DWORD length = 0;
    Turn turn(*this);
    const SECURITY_STATUS status = ec_.sign(&turn.p11(), nullptr, hash.data(), sizeOf(hash),
                                            signature.data(), sizeOf(signature), &length, 0, pin_);
    return status == success ? signature : Bytes{};
}

// By the token's own judgement, as in DialogWork.
bool PinWork::signEc(const KnownResults& known)
{
    Bytes hash = known.hash;
    Bytes signature = ecSignature(known);
    Turn turn(*this);
    return ec_.verify(&turn.p11(), nullptr, hash.data(), sizeOf(hash), signature.data(),
                      sizeOf(signature), 0) == success;
}

bool PinWork::decrypt(const KnownResults& known)
{
    Bytes cipher = known.cipher;
    Bytes plain(cipher.size());
    DWORD length = 0;
    Turn turn(*this);
    const SECURITY_STATUS status =
        rsa_.decrypt(&turn.p11(), nullptr, cipher.data(), sizeOf(cipher), plain.data(),
                     sizeOf(plain), &length, BCRYPT_PAD_NONE, pin_);
    plain.resize(std::min<size_t>(length, plain.size()));
    return status == success && plain == known.plain;
}

bool PinWork::agree(const KnownResults&)
{
    Bytes point = joinedBytes({{0x04}, facts_.peer});
    NCRYPT_SECRET_HANDLE handle = 0;
    Turn turn(*this);
    if (ec_.secretAgreement(&turn.p11(), point.data(), sizeOf(point), &handle, pin_) != success)
        return false;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a secret handle is the record's address.
    const OwnedSecret secret(reinterpret_cast<AgreedSecret*>(handle));
    return std::equal(secret->bytes, secret->bytes + secret->length, facts_.secret.begin(),
                      facts_.secret.end());
}

bool PinWork::derive(const KnownResults& known)
{
    const SecretBytes secret = secretBytes(facts_.secret);
    const SecretBytes prepend = secretBytes(known.prepend);
    const SecretBytes hmacKey = secretBytes(known.hmacKey);
    const HashAlgorithm& sha256 = *findHashAlgorithm(L"SHA256");
    Turn turn(*this);
    const auto derives = [&](bool hmac, const Bytes& expected) {
        Bytes key(32);
        DWORD length = 0;
        const SECURITY_STATUS status = store_.derive({&turn.p11(),
                                                      slot_,
                                                      0,
                                                      secret,
                                                      key.data(),
                                                      sizeOf(key),
                                                      &length,
                                                      sha256,
                                                      hmac,
                                                      hmac ? hmacKey : SecretBytes{},
                                                      prepend,
                                                      {}});
        return status == success && length == key.size() && key == expected;
    };
    return derives(false, known.digest) && derives(true, known.hmac);
}

}  // namespace NV::test
