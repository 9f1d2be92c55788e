// Secret agreement, derivation, and the release of secrets.

#include <algorithm>

#include "keystore/keystore_secret.h"
#include "operations.h"

namespace NV::fuzz {

namespace {

// The buffers of a derivation, as the module gets them, with what they mean.
class ParameterList {
public:
    ParameterList(uint8_t hash, uint8_t shape, uint8_t content, bool hmac)
    {
        constexpr const wchar_t* hashNames[] = {L"SHA256", L"SHA1",   L"SHA384", L"SHA512",
                                                L"SHA256", L"SHA256", L"sha1",   L""};
        if (hash % 16 != 15)
            addHash(hashNames[hash % std::size(hashNames)], hash / 16 % 4);
        if ((shape & 1) != 0)
            add(KDF_SECRET_PREPEND, someBytes(content % 32, content), prepend_);
        if ((shape & 2) != 0)
            add(KDF_SECRET_APPEND, someBytes(content / 8, content), append_);
        if ((shape & 4) != 0)
            add(KDF_SECRET_PREPEND, someBytes(3, content), prepend_);
        if ((shape & 8) != 0)
            addHmacKey(someBytes(content % 65, content), hmac);
        if (shape >= 0xF0)
            addOdd(shape % 16);
    }

    // Null: no list.
    NCryptBufferDesc* list(uint8_t form)
    {
        if (form % 16 == 1) {
            valid_ = true;
            known_ = false;
            return nullptr;
        }
        list_ = {0, static_cast<ULONG>(buffers_.size()), buffers_.data()};
        if (form % 16 == 2) {
            valid_ = buffers_.empty();
            list_.pBuffers = nullptr;
        }
        return &list_;
    }

    bool valid() const { return valid_; }
    // The name of a hash; empty without one.
    std::wstring hashName() const
    {
        return known_ && hashGiven_ ? hashName_ : std::wstring(rules.defaultHash);
    }
    // What is not given means nothing.
    Bytes hmacKey() const { return known_ ? hmacKey_ : Bytes{}; }
    Bytes around(const Bytes& secret) const
    {
        if (!known_)
            return secret;
        Bytes all(prepend_);
        all.insert(all.end(), secret.begin(), secret.end());
        all.insert(all.end(), append_.begin(), append_.end());
        return all;
    }

private:
    void addBuffer(ULONG type, Bytes bytes)
    {
        const auto size = sizeOf(bytes);
        // Moving the bytes into the list keeps their place.
        PBYTE place = bytes.data();
        contents_.push_back(std::move(bytes));
        buffers_.push_back({size, type, place});
    }

    void add(ULONG type, const Bytes& bytes, Bytes& meaning)
    {
        if (valid_)
            meaning.insert(meaning.end(), bytes.begin(), bytes.end());
        addBuffer(type, bytes);
    }

    // With its terminating zero, without it, or with a rest behind it.
    void addHash(const std::wstring& name, unsigned ending)
    {
        std::wstring text(name);
        if (ending != 1)
            text.push_back(L'\0');
        if (ending == 2)
            text += L"rest";
        const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
        addBuffer(KDF_HASH_ALGORITHM, {begin, begin + text.size() * sizeof(wchar_t)});
        hashName_ = name;
        hashGiven_ = true;
    }

    void addHmacKey(const Bytes& key, bool hmac)
    {
        addBuffer(KDF_HMAC_KEY, key);
        // An empty buffer changes nothing.
        if (hmac && !key.empty())
            hmacKey_ = key;
        valid_ = valid_ && hmac;
    }

    void addOdd(unsigned which)
    {
        if (which < 4)
            buffers_.push_back({5, which, nullptr});  // bytes that are not there
        else
            addBuffer(which, someBytes(4, 1));  // an unknown kind
        valid_ = false;
    }

    std::vector<Bytes> contents_;
    std::vector<BCryptBuffer> buffers_;
    NCryptBufferDesc list_{};
    std::wstring hashName_;
    Bytes hmacKey_;
    Bytes prepend_;
    Bytes append_;
    bool valid_ = true;
    bool known_ = true;
    bool hashGiven_ = false;
};

// What a failed agreement answers.
SECURITY_STATUS agreementFailure(const KeyFacts& key, const PinOutcome& pin)
{
    if (pin.loginFails)
        return rules.wrongPin;
    return key.onToken ? rules.badPeer : rules.noPrivateKey;
}

// Whether modern agrees with the owner of this key: one on a curve, of the same provider.
bool isPeer(const ProviderModel& provider, NCRYPT_KEY_HANDLE peer)
{
    ProviderModel copy = provider;
    const Key* const key = copy.openedOrImported(peer);
    return key != nullptr && !key->facts.rsa;
}

bool isListed(NCRYPT_SECRET_HANDLE secret)
{
    return SecretList::instance().copy(secret).has_value();
}

}  // namespace

void secretAgreement(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t peerForm = operands.byte();
    const NCRYPT_KEY_HANDLE peer = rarely(peerForm) ? 0 : world.pickPeer(peerForm);
    const uint8_t form = operands.byte();
    Place<NCRYPT_SECRET_HANDLE> place(rarely(form));
    const DWORD flags = flagsOf(operands.byte());

    Expected expected;
    TokenResult secret;
    bool skipped = false;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (key == 0 || peer == 0 || place.null()) {
        expected.status = NTE_INVALID_PARAMETER;
        // NOLINTNEXTLINE(bugprone-branch-clone): the checks come in the module's order
    } else if (const auto found = provider->opened.find(key); found == provider->opened.end()) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (rules.looksUpHandles && !isPeer(*provider, peer)) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (rules.obeysSilentFlag && (flags & NCRYPT_SILENT_FLAG) != 0) {
        expected.status = NTE_SILENT_CONTEXT;
    } else if (const PinOutcome pin = world.pinOutcome(); pin.end) {
        skipped = true;
        expected.status = *pin.end;
    } else if (found->second.facts.rsa) {
        expected.status = NTE_NOT_SUPPORTED;
    } else {
        if (!pin.loginFails)
            secret = agreed(found->second.facts, world.findKey(peer)->facts.publicKey);
        if (!secret)
            expected.status = agreementFailure(found->second.facts, pin);
    }
    const Answer answer = world.call("SecretAgreement", Reach::sequence, [&] {
        return world.table().SecretAgreement(handle, key, peer, place.pointer(), flags);
    });
    if (World::judge(answer, expected, Reach::sequence) && !skipped) {
        // The record and the secret.
        HOLDS(answer.blocks == 2);
        HOLDS(place.value() != 0 && !world.secrets.contains(place.value()));
        const auto listed = SecretList::instance().copy(place.value());
        HOLDS(listed && (answer.by.claim || std::ranges::equal(*listed, *secret)));
        world.secrets[place.value()] = {{listed->begin(), listed->end()}, world.nextSerial()};
    } else {
        HOLDS(answer.blocks == 0 && place.untouched());
    }
    HOLDS(world.secretsInModule() == world.secrets.size());
}

void deriveKey(World& world, Operands& operands)
{
    constexpr const wchar_t* kdfs[] = {BCRYPT_KDF_HASH, BCRYPT_KDF_HMAC, BCRYPT_KDF_HASH,
                                       BCRYPT_KDF_HMAC, BCRYPT_KDF_HASH, BCRYPT_KDF_TLS_PRF,
                                       L"hash",         nullptr};
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const NCRYPT_SECRET_HANDLE secret = world.pickSecret(operands.byte());
    const wchar_t* const kdf = kdfs[operands.byte() % std::size(kdfs)];
    const bool hmac = kdf != nullptr && std::wstring_view(kdf) == BCRYPT_KDF_HMAC;
    const uint8_t hash = operands.byte();
    const uint8_t shape = operands.byte();
    ParameterList parameters(hash, shape, operands.byte(), hmac);
    const uint8_t form = operands.byte();
    NCryptBufferDesc* const list = parameters.list(form);
    Output output(form < 0xC0 ? 64 : lengthOf(form), form % 16 == 3);
    Place<DWORD> length(form % 16 == 4);
    const uint8_t flagForm = operands.byte();
    const ULONG flags = flagForm % 4 == 1 ? KDF_USE_SECRET_AS_HMAC_KEY_FLAG : flagsOf(flagForm);

    Expected expected;
    TokenResult result;
    const auto known = world.secrets.find(secret);
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (secret == 0 || kdf == nullptr || length.null() ||
               (!output.null() && output.size() == 0)) {  // NOLINT(bugprone-branch-clone): in order
        expected.status = NTE_INVALID_PARAMETER;
    } else if (std::wstring_view(kdf) == BCRYPT_KDF_TLS_PRF) {
        expected.status = NTE_NOT_SUPPORTED;
    } else if (std::wstring_view(kdf) == L"hash" || !parameters.valid() ||
               !derived(parameters.hashName(), hmac, {}, {})) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (known == world.secrets.end()) {
        expected.status = NTE_INVALID_HANDLE;
    } else {
        const bool ownKey = (flags & KDF_USE_SECRET_AS_HMAC_KEY_FLAG) != 0;
        if (provider->served)
            result = derived(parameters.hashName(), hmac,
                             ownKey ? known->second.bytes : parameters.hmacKey(),
                             parameters.around(known->second.bytes));
        if (!result)
            expected.status = rules.noToken;
        else if (!output.null() && output.size() < result->size() && !rules.shortensKeys)
            expected.status = NTE_INTERNAL_ERROR;
        else if (!output.null())
            result->resize(std::min<size_t>(result->size(), output.size()));
    }
    const Answer answer = world.call("DeriveKey", Reach::sequence, [&] {
        return world.table().DeriveKey(handle, secret, kdf, list, output.data(), output.size(),
                                       length.pointer(), flags);
    });
    HOLDS(answer.blocks == 0);
    if (claimsSuccess(answer, expected))
        return;
    const bool succeeded = World::judge(answer, expected, Reach::sequence);
    if (World::isUncertain(answer))
        return;
    if (succeeded) {
        HOLDS(lengthHolds(length.value(), result->size(), output, answer.by));
        HOLDS(output.null() || output.holds(*result));
        return;
    }
    // Compat: the length is told as soon as the key is derived.
    HOLDS(untouchedOrHolds(output, result));
    HOLDS(length.untouched() ||
          (result && lengthHolds(length.value(), result->size(), output, answer.by)));
}

void freeSecret(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const NCRYPT_SECRET_HANDLE secret = world.pickSecret(operands.byte());
    const bool known = world.secrets.contains(secret);

    Expected expected;
    if (world.find(handle) == nullptr)
        expected = world.withoutProvider(handle);
    else if (secret == 0)
        expected.status = NTE_INVALID_PARAMETER;
    else if (rules.looksUpHandles && !known)
        expected.status = NTE_INVALID_HANDLE;
    const Answer answer = world.call("FreeSecret", Reach::module,
                                     [&] { return world.table().FreeSecret(handle, secret); });
    const bool freed = World::judge(answer, expected, Reach::module);
    // The record and the secret.
    HOLDS(answer.blocks == 0 || (known && answer.blocks == -2));
    HOLDS(known && !isListed(secret) ? answer.blocks == -2 : answer.blocks == 0);
    HOLDS(!freed || !isListed(secret));
    if (known && !isListed(secret))
        world.secrets.erase(secret);
    HOLDS(world.secretsInModule() == world.secrets.size());
}

}  // namespace NV::fuzz
