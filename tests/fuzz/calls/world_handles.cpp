// The handles of a program: choosing one, and keeping the model's own.

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

#include "world.h"

namespace NV::fuzz {

namespace {

// The lower half of an operand says what kind of handle to take, the upper half which one.
enum class Choice { live, freed, unknown, null, other };

Choice choiceOf(uint8_t operand)
{
    constexpr Choice last[] = {Choice::freed, Choice::unknown, Choice::null, Choice::other};
    const unsigned kind = operand % 16;
    return kind < 12 ? Choice::live : last[kind - 12];
}

size_t which(uint8_t operand)
{
    return operand / 16;
}

uintptr_t unknownHandle(uint8_t operand)
{
    return 0x5000 + 16 * (which(operand) % 4);
}

template <typename Handles>
uintptr_t oneOf(const Handles& handles, uint8_t operand)
{
    return handles.empty() ? 0 : handles[which(operand) % handles.size()];
}

// Of keys or secrets, the oldest first.
template <typename Map>
void appendHandles(std::vector<uintptr_t>& handles, const Map& map)
{
    std::vector<std::pair<uint64_t, uintptr_t>> ordered;
    for (const auto& [handle, object] : map)
        ordered.emplace_back(object.serial, handle);
    std::ranges::sort(ordered);
    for (const auto& [serial, handle] : ordered)
        handles.push_back(handle);
}

std::vector<uintptr_t> keyHandles(const ProviderModel& provider)
{
    std::vector<uintptr_t> handles;
    appendHandles(handles, provider.opened);
    appendHandles(handles, provider.imported);
    return handles;
}

}  // namespace

void addKeyProperties(Key& key)
{
    for (const PropertyRow& row : rules.keyProperties) {
        if (Bytes value = row.value(key.facts); !value.empty())
            key.properties[row.name] = std::make_shared<Bytes>(std::move(value));
    }
}

void releaseRecord(const NCryptKeyName& record)
{
    if (!rules.namesApart)
        return;
    std::free(record.pszName);
    std::free(record.pszAlgid);
}

NCRYPT_PROV_HANDLE World::pickProvider(uint8_t operand) const
{
    std::vector<uintptr_t> live;
    for (const ProviderModel& provider : providers)
        live.push_back(provider.handle);
    switch (choiceOf(operand)) {
    case Choice::live:
        return oneOf(live, operand);
    case Choice::freed:
        return oneOf(freedProviders, operand);
    case Choice::unknown:
        return unknownHandle(operand);
    case Choice::other:
        return oneOf(freedKeys, operand);
    default:
        return 0;
    }
}

NCRYPT_KEY_HANDLE World::pickKey(const ProviderModel* provider, uint8_t operand) const
{
    switch (choiceOf(operand)) {
    case Choice::live:
        return provider != nullptr ? oneOf(keyHandles(*provider), operand) : 0;
    case Choice::freed:
        return oneOf(freedKeys, operand);
    case Choice::unknown:
        return unknownHandle(operand);
    case Choice::other:
        return pickPeer(operand);
    default:
        return 0;
    }
}

NCRYPT_KEY_HANDLE World::pickPeer(uint8_t operand) const
{
    std::vector<uintptr_t> handles;
    for (const ProviderModel& provider : providers) {
        appendHandles(handles, provider.imported);
        appendHandles(handles, provider.opened);
    }
    return oneOf(handles, operand);
}

NCRYPT_SECRET_HANDLE World::pickSecret(uint8_t operand) const
{
    std::vector<uintptr_t> handles;
    appendHandles(handles, secrets);
    switch (choiceOf(operand)) {
    case Choice::live:
        return oneOf(handles, operand);
    case Choice::unknown:
        return unknownHandle(operand);
    case Choice::freed:
    case Choice::other:
        return pickPeer(operand);
    default:
        return 0;
    }
}

ProviderModel* World::find(NCRYPT_PROV_HANDLE handle)
{
    const auto found = std::ranges::find(providers, handle, &ProviderModel::handle);
    return found != providers.end() ? &*found : nullptr;
}

const Key* World::findKey(NCRYPT_KEY_HANDLE handle)
{
    for (ProviderModel& provider : providers) {
        if (const Key* const key = provider.openedOrImported(handle))
            return key;
    }
    return nullptr;
}

Expected World::withoutProvider(NCRYPT_PROV_HANDLE handle) const
{
    return {NTE_INVALID_HANDLE, rules.keepsUnknownProviders && !emptyEntries.contains(handle)};
}

namespace {

void addFiled(std::map<std::wstring, std::optional<Key>>& filed, const KeyFacts& facts)
{
    Key key{facts, 0, {}};
    addKeyProperties(key);
    filed[facts.name] = std::move(key);
}

}  // namespace

ProviderModel& World::addProvider(NCRYPT_PROV_HANDLE handle)
{
    HOLDS(find(handle) == nullptr);
    emptyEntries.erase(handle);
    ProviderModel& provider = providers.emplace_back();
    provider.handle = handle;
    provider.properties = {{NCRYPT_NAME_PROPERTY, bytesOf(L"Norvanta Software KeyStore Provider")},
                           {NCRYPT_VERSION_PROPERTY, bytesOf(L"1.0")},
                           {NCRYPT_IMPL_TYPE_PROPERTY, bytesOf(NCRYPT_IMPL_HARDWARE_FLAG)}};
    // Holds the first bytes of the provider, which only the module knows.
    Bytes self(sizeof handle);
    std::memcpy(self.data(), std::bit_cast<const void*>(handle), self.size());
    provider.properties[NCRYPT_PROVIDER_HANDLE_PROPERTY] = self;
    provider.served = tokenPresent_;
    for (const KeyFacts& facts : tokenKeys_)
        addFiled(provider.filed, facts);
    return provider;
}

void World::removeProvider(NCRYPT_PROV_HANDLE handle)
{
    ProviderModel& provider = *find(handle);
    appendHandles(freedKeys, provider.opened);
    appendHandles(freedKeys, provider.imported);
    freedProviders.push_back(handle);
    providers.erase(providers.begin() + (&provider - providers.data()));
}

std::vector<std::optional<std::wstring>> World::keyNames(NCRYPT_PROV_HANDLE provider)
{
    std::vector<std::optional<std::wstring>> names;
    for (;;) {
        // The state is one index.
        auto index = static_cast<uint32_t>(names.size());
        void* state = &index;
        NCryptKeyName* record = nullptr;
        const SECURITY_STATUS status =
            ask([&] { return table_->EnumKeys(provider, nullptr, &record, &state, 0); });
        if (status == NTE_NO_MORE_ITEMS)
            return names;
        HOLDS(status == (record != nullptr ? ERROR_SUCCESS : NTE_NOT_FOUND));
        names.emplace_back();
        if (record == nullptr)
            continue;
        names.back() = record->pszName;
        releaseRecord(*record);
        std::free(record);
    }
}

bool World::learnProvider(ProviderModel& provider, const Disturbance& by)
{
    std::map<std::wstring, std::optional<Key>> possible = provider.filed;
    // A token that lies about what it has found tells of public keys that are not there.
    if (by.lie) {
        for (const KeyFacts& facts : authorities_)
            addFiled(possible, facts);
    }
    std::map<std::wstring, std::optional<Key>> filed;
    for (const auto& name : keyNames(provider.handle)) {
        HOLDS(name.has_value());
        const auto known = possible.find(*name);
        // A key that has lost its name, or got another one from the token, may be any.
        if (name->empty() || (known == possible.end() && by.claim))
            return false;
        HOLDS(known != possible.end());
        HOLDS(filed.insert(*known).second);
    }
    provider.filed = std::move(filed);
    provider.served =
        ask([&] { return table_->IsAlgSupported(provider.handle, L"RSA", 0); }) == ERROR_SUCCESS;
    return true;
}

bool World::isOpenInModule(NCRYPT_PROV_HANDLE handle)
{
    const Answer answer = guarded([&] { return table_->IsAlgSupported(handle, nullptr, 0); });
    return answer.left == Left::normally && answer.status == NTE_INVALID_PARAMETER;
}

void World::learnRegistry(NCRYPT_PROV_HANDLE handle)
{
    if (!rules.keepsUnknownProviders)
        return;
    const Answer answer = guarded([&] { return table_->IsAlgSupported(handle, nullptr, 0); });
    if (answer.left == Left::normally && answer.status == NTE_INVALID_HANDLE)
        emptyEntries.insert(handle);
    else
        emptyEntries.erase(handle);
}

}  // namespace NV::fuzz
