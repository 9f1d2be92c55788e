// Opening and freeing providers, their properties and algorithms, and what they do not support.

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <mutex>

#include "nvvtoken/nvvtoken.h"
#include "operations.h"
#include "p11/library_life.h"

namespace NV::fuzz {

namespace {

constexpr size_t mostProviders = 3;
constexpr const wchar_t* providerName = L"Norvanta Software KeyStore Provider";

// A provider that could not be opened is nobody's: its destructor unloads a library that has failed.
// This one's may.
void destroyLeftProvider(World& world)
{
    if (auto* const left = static_cast<Provider*>(takeNothrowBlock())) {
        const std::lock_guard guard(sequenceLock());
        const std::unique_ptr<Provider> owned(left);
    }
    world.token().takeStruckFaults();
    world.tokenWasUsed();
}

// What is known of a provider that was opened while something went wrong.
void addUncertainProvider(World& world, NCRYPT_PROV_HANDLE handle, const Disturbance& by)
{
    if (world.learnProvider(world.addProvider(handle), by))
        return;
    HOLDS(world.ask([&] { return world.table().FreeProvider(handle); }) == ERROR_SUCCESS);
    world.removeProvider(handle);
    world.settleToken();
}

// Names that IsAlgSupported is asked for: mostly one of a group.
const std::vector<std::vector<const wchar_t*>>& askedAlgorithms()
{
    static const std::vector<std::vector<const wchar_t*>> groups = {
        {L"SHA1", L"SHA256", L"SHA384", L"SHA512", L"MD2", L"MD4", L"MD5"},
        {L"RSA", L"ECDSA"},
        {L"ECDH_P256", L"ECDH_P384", L"ECDH_P521"},
        {L"RSA_SIGN", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521"},
        {L"RNG"},
    };
    return groups;
}

bool isSupported(std::wstring_view name)
{
    const auto row = std::ranges::find(rules.algorithms, name, &AlgorithmRow::name);
    return row != rules.algorithms.end() && row->supported;
}

std::vector<AlgorithmRow> algorithmsOf(const ProviderModel& provider, DWORD operations)
{
    std::vector<AlgorithmRow> rows;
    std::ranges::copy_if(rules.algorithms, std::back_inserter(rows), [&](const AlgorithmRow& row) {
        return provider.served && (row.operations & operations) != 0;
    });
    return rows;
}

}  // namespace

void openProvider(World& world, Operands& operands)
{
    static const std::wstring longName(70, L'n');
    if (world.providers.size() >= mostProviders)
        return;
    const uint8_t form = operands.byte();
    const bool named = form % 16 != 1;
    const bool tooLong = form % 16 == 2;
    Place<NCRYPT_PROV_HANDLE> place(form % 16 == 3);
    // The old value counts: a provider must not be opened over another one.
    const uint8_t over = operands.byte();
    const NCRYPT_PROV_HANDLE old = rarely(over) ? world.pickProvider(operands.byte()) : 0;
    place.set(old);
    const wchar_t* const name = tooLong ? longName.c_str() : named ? providerName : nullptr;
    const bool valid = named && !place.null();
    const bool taken = valid && world.find(old) != nullptr;

    const Expected expected{!valid || taken || tooLong ? NTE_INVALID_PARAMETER : ERROR_SUCCESS};
    const long blocks = liveBlocks();
    const Answer answer = world.call("OpenProvider", Reach::library, [&] {
        return world.table().OpenProvider(place.pointer(), name, flagsOf(operands.byte()));
    });
    // Compat: a name that is too long is an error, and the provider is opened.
    const bool opened = valid && place.value() != old;
    HOLDS(!opened || answer.left == Left::normally);
    World::judge(answer, expected, Reach::library);
    if (opened) {
        HOLDS(answer.status == expected.status && !taken);
        takeNothrowBlock();
    } else {
        destroyLeftProvider(world);
        // The old value's entry.
        HOLDS(liveBlocks() - blocks <= 1);
        HOLDS(answer.status != ERROR_SUCCESS || answer.left != Left::normally);
    }
    if (valid && !taken)
        world.learnRegistry(old);
    if (opened && answer.by.any())
        addUncertainProvider(world, place.value(), answer.by);
    else if (opened)
        world.addProvider(place.value());
}

void freeProvider(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const bool open = world.find(handle) != nullptr;
    const Answer answer = world.call("FreeProvider", Reach::library,
                                     [&] { return world.table().FreeProvider(handle); });
    World::judge(answer, {open ? ERROR_SUCCESS : NTE_INVALID_HANDLE}, Reach::library);
    HOLDS(open ? answer.blocks <= 0 : answer.blocks <= (rules.keepsUnknownProviders ? 1 : 0));
    if (open && !world.isOpenInModule(handle))
        world.removeProvider(handle);
    else
        HOLDS(!open || answer.by.any());
    if (!world.isOpenInModule(handle))
        world.learnRegistry(handle);
    HOLDS(answer.by.any() || handle == 0 || !rules.keepsUnknownProviders ||
          world.emptyEntries.contains(handle) == !open);
}

void getProviderProperty(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const wchar_t* const name = propertyName(operands.byte());
    const uint8_t form = operands.byte();
    Output output(lengthOf(operands.byte()), form % 4 == 0);
    Place<DWORD> length(rarely(form));
    const DWORD flags = flagsOf(operands.byte());

    ProviderModel* const provider = world.find(handle);
    Expected expected;
    const Bytes* value = nullptr;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if ((flags & ~NCRYPT_SILENT_FLAG) != 0) {
        expected.status = NTE_BAD_FLAGS;
    } else if (name == nullptr || length.null() || std::wcslen(name) > 64) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (const auto found = provider->properties.find(name);
               found == provider->properties.end()) {
        expected.status = statusOfMissing(name);
    } else {
        value = &found->second;
        if (!output.null() && output.size() < value->size())
            expected.status = NTE_BUFFER_TOO_SMALL;
    }
    const Answer answer = world.call("GetProviderProperty", Reach::module, [&] {
        return world.table().GetProviderProperty(handle, name, output.data(), output.size(),
                                                 length.pointer(), flags);
    });
    HOLDS(answer.blocks == 0);
    checkValue(answer, World::judge(answer, expected, Reach::module), value, output, length);
}

void setProviderProperty(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const wchar_t* const name = propertyName(operands.byte());
    const uint8_t form = operands.byte();
    const Bytes value = someBytes(lengthOf(operands.byte()), form);
    const bool null = rarely(form);
    const DWORD size = form == 0x11 ? 0x80000000 : sizeOf(value);

    ProviderModel* const provider = world.find(handle);
    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (name == nullptr || null || size == 0 || size > INT32_MAX)
        expected.status = NTE_INVALID_PARAMETER;
    const Answer answer = world.call("SetProviderProperty", Reach::module, [&] {
        return world.table().SetProviderProperty(handle, name, null ? nullptr : in(value), size,
                                                 flagsOf(operands.byte()));
    });
    if (World::judge(answer, expected, Reach::module)) {
        HOLDS(provider != nullptr);
        provider->properties[name] = value;
        return;
    }
    // The lines about the owner window, which can fail, come after its value was set.
    if (answer.left == Left::normally || provider == nullptr || expected.status != ERROR_SUCCESS ||
        std::wstring_view(name) != NCRYPT_WINDOW_HANDLE_PROPERTY) {
        HOLDS(answer.blocks == 0);
        return;
    }
    DWORD length = 0;
    Bytes now(1000);
    const SECURITY_STATUS status = world.ask([&] {
        return world.table().GetProviderProperty(handle, name, now.data(), sizeOf(now), &length, 0);
    });
    now.resize(length);
    if (status == ERROR_SUCCESS && now == value)
        provider->properties[name] = value;
}

void isAlgSupported(World& world, Operands& operands)
{
    static constexpr const wchar_t* others[] = {nullptr, L"", L"DSA", L"rsa", L"RSA_SIGN"};
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const uint8_t which = operands.byte();
    const auto& group = askedAlgorithms()[which % askedAlgorithms().size()];
    const wchar_t* const name = which % 4 != 3 ? group[(which / 8) % group.size()]
                                               : others[(which / 8) % std::size(others)];

    const ProviderModel* const provider = world.find(handle);
    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (name == nullptr)
        expected.status = NTE_INVALID_PARAMETER;
    else if (!isSupported(name) || !provider->served)
        expected.status = NTE_NOT_SUPPORTED;
    const Answer answer = world.call("IsAlgSupported", Reach::module, [&] {
        return world.table().IsAlgSupported(handle, name, flagsOf(operands.byte()));
    });
    World::judge(answer, expected, Reach::module);
    HOLDS(answer.blocks == 0);
}

void enumAlgorithms(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const DWORD operation = operands.byte();
    const uint8_t form = operands.byte();
    Place<DWORD> count(form % 16 == 1);
    NCryptAlgorithmName* list = nullptr;
    NCryptAlgorithmName** const place = form % 16 == 2 ? nullptr : &list;

    const ProviderModel* const provider = world.find(handle);
    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (count.null() || place == nullptr || operation == 0)
        expected.status = NTE_INVALID_PARAMETER;
    const Answer answer = world.call("EnumAlgorithms", Reach::module, [&] {
        return world.table().EnumAlgorithms(handle, operation, count.pointer(), place,
                                            flagsOf(operands.byte()));
    });
    if (!World::judge(answer, expected, Reach::module)) {
        HOLDS(answer.blocks == 0 && list == nullptr && count.untouched());
        return;
    }
    HOLDS(provider != nullptr);
    const auto records = algorithmsOf(*provider, operation);
    if (records.empty()) {
        HOLDS(answer.blocks == 0 && list == nullptr);
        HOLDS(rules.tellsEmptyLists ? count.value() == 0 : count.untouched());
        return;
    }
    HOLDS(count.value() == records.size());
    HOLDS(answer.blocks == 1 + (rules.namesApart ? static_cast<long>(records.size()) : 0));
    for (size_t i = 0; i < records.size(); ++i) {
        HOLDS(records[i].name == list[i].pszName && list[i].dwClass == records[i].recordClass &&
              list[i].dwAlgOperations == records[i].recordOperations && list[i].dwFlags == 0);
        if (rules.namesApart)
            std::free(list[i].pszName);
    }
    HOLDS(world.ask([&] { return world.table().FreeBuffer(list); }) == ERROR_SUCCESS);
}

void refusedOperation(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const uint8_t which = operands.byte();
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t form = operands.byte();
    const bool given = form % 2 == 0;
    const DWORD flags = flagsOf(operands.byte());
    NCRYPT_KEY_HANDLE created = 0;
    HANDLE event = nullptr;
    const auto& table = world.table();

    Expected expected{given ? NTE_NOT_SUPPORTED : NTE_INVALID_PARAMETER};
    if (which % 5 <= 2)
        expected.status =
            key != 0 && (given || which % 5 != 2) ? NTE_NOT_SUPPORTED : NTE_INVALID_PARAMETER;
    if (which % 5 == 4) {
        constexpr DWORD accepted = NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG;
        expected.status = (flags & ~accepted) != 0 ? NTE_BAD_FLAGS
                          : given                  ? NTE_NOT_SUPPORTED
                                                   : NTE_INVALID_PARAMETER;
    }
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    const Answer answer = world.call("a refused operation", Reach::module, [&] {
        switch (which % 5) {
        case 0:
            return table.FinalizeKey(handle, key, flags);
        case 1:
            return table.DeleteKey(handle, key, flags);
        case 2:
            return table.PromptUser(handle, key, given ? L"sign" : nullptr, flags);
        case 3:
            return table.NotifyChangeKey(handle, given ? &event : nullptr, flags);
        default:
            return table.CreatePersistedKey(handle, given ? &created : nullptr, L"RSA", L"new", 0,
                                            flags);
        }
    });
    HOLDS(!world.judge(answer, expected, Reach::module));
    HOLDS(answer.blocks == 0 && created == 0 && event == nullptr);
}

}  // namespace NV::fuzz
