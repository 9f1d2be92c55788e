// Opening, freeing, listing, importing and exporting keys, and their properties.

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "import_blob.h"
#include "operations.h"

namespace NV::fuzz {

namespace {

// Mostly the name of a key that is there.
const wchar_t* keyName(const ProviderModel* provider, uint8_t operand)
{
    constexpr const wchar_t* others[] = {L"01AB", L"0256", L"",     L"01ab",
                                         L"none", L"01A",  L"zzzz", nullptr};
    if (operand < 0xC0 && provider != nullptr && !provider->filed.empty())
        return std::next(provider->filed.begin(),
                         operand % static_cast<long>(provider->filed.size()))
            ->first.c_str();
    return others[operand % std::size(others)];
}

constexpr const wchar_t* blobTypes[] = {BCRYPT_ECCPUBLIC_BLOB,  BCRYPT_RSAPUBLIC_BLOB,
                                        BCRYPT_PUBLIC_KEY_BLOB, LEGACY_RSAPUBLIC_BLOB,
                                        L"ECCPRIVATEBLOB",      nullptr};

// Mostly the one that fits.
const wchar_t* blobType(const ImportBlob& blob, uint8_t operand)
{
    const wchar_t* const own = blob.isRsa() ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB;
    return operand < 0xC0 ? own : blobTypes[operand % std::size(blobTypes)];
}

// Freeing empties the values that all handles of the key share.
void emptyValues(Key& key)
{
    for (const auto& [name, value] : key.properties)
        value->clear();
}

bool isThere(World& world, const ProviderModel& provider, NCRYPT_KEY_HANDLE key)
{
    DWORD length = 0;
    const SECURITY_STATUS status = world.ask([&] {
        return world.table().GetKeyProperty(provider.handle, key, L"Name", nullptr, 0, &length, 0);
    });
    HOLDS(status == ERROR_SUCCESS || status == NTE_INVALID_HANDLE);
    return status == ERROR_SUCCESS;
}

// What an export of the row is for the key, or why there is none.
void expectBlob(const Key* key, const BlobRow& row, Expected& expected, Bytes& blob)
{
    if (key == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
        return;
    }
    const auto make = key->facts.rsa ? row.rsa : row.ec;
    if (make == nullptr)
        expected.status = NTE_NOT_SUPPORTED;
    else
        blob = make(key->facts);
}

}  // namespace

SECURITY_STATUS statusOfMissing(std::wstring_view name)
{
    return contains(rules.optional, name) ? NTE_NOT_FOUND : NTE_NOT_SUPPORTED;
}

void checkValue(const Answer& answer, bool succeeded, const Bytes* value, const Output& output,
                const Place<DWORD>& length)
{
    if (succeeded) {
        HOLDS(length.value() == value->size() && (output.null() || output.holds(*value)));
        return;
    }
    const bool told = rules.tellsLengths && answer.status == NTE_BUFFER_TOO_SMALL;
    HOLDS(output.untouched() && (told ? length.value() == value->size() : length.untouched()));
}

void openKey(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const wchar_t* const name = keyName(provider, operands.byte());
    const uint8_t form = operands.byte();
    Place<NCRYPT_KEY_HANDLE> place(rarely(form));

    Expected expected;
    const std::optional<Key>* source = nullptr;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (place.null() || name == nullptr) {
        expected.status = NTE_INVALID_PARAMETER;
    } else {
        const auto found = provider->filed.find(name);
        if (found != provider->filed.end())
            source = &found->second;
        if (source == nullptr || !*source)
            expected.status = rules.unknownKeyName;
    }
    const Answer answer = world.call("OpenKey", Reach::module, [&] {
        return world.table().OpenKey(handle, place.pointer(), name, form / 16 % 3,
                                     flagsOf(operands.byte()));
    });
    if (World::judge(answer, expected, Reach::module)) {
        HOLDS(place.value() != 0 && provider->openedOrImported(place.value()) == nullptr);
        Key& key = provider->opened[place.value()] = **source;
        key.serial = world.nextSerial();
        return;
    }
    HOLDS(place.untouched());
    const bool mayFile = rules.keepsUnknownNames && provider != nullptr && !place.null() &&
                         name != nullptr && source == nullptr;
    HOLDS(answer.blocks == 0 || (mayFile && answer.blocks <= 2));
    if (mayFile &&
        (!answer.by.any() || world.keyNames(handle).size() == provider->filed.size() + 1))
        provider->filed[name] = std::nullopt;
}

void freeKey(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    Key* const known = provider != nullptr ? provider->openedOrImported(key) : nullptr;

    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (known == nullptr)
        expected.status = NTE_INVALID_HANDLE;
    const Answer answer =
        world.call("FreeKey", Reach::module, [&] { return world.table().FreeKey(handle, key); });
    const bool freed = World::judge(answer, expected, Reach::module);
    if (known == nullptr) {
        // Compat: an unknown handle gets an entry.
        HOLDS(answer.blocks == 0 || (provider != nullptr && answer.blocks == 1));
        return;
    }
    HOLDS(freed ? answer.blocks < 0 : answer.blocks <= 0);
    if (isThere(world, *provider, key)) {
        HOLDS(!freed);
        return;
    }
    if (rules.sharesValues)
        emptyValues(*known);
    world.freedKeys.push_back(key);
    provider->opened.erase(key);
    provider->imported.erase(key);
}

void getKeyProperty(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const wchar_t* const name = propertyName(operands.byte());
    const uint8_t form = operands.byte();
    Output output(lengthOf(operands.byte()), form % 4 == 0);
    Place<DWORD> length(rarely(form));

    Expected expected;
    const Bytes* value = nullptr;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (name == nullptr || length.null()) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (const Key* const known = provider->openedOrImported(key); known == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (const auto found = known->properties.find(name); found == known->properties.end()) {
        expected.status = statusOfMissing(name);
    } else {
        value = found->second.get();
        if (!output.null() && output.size() < value->size())
            expected.status = NTE_BUFFER_TOO_SMALL;
    }
    const Answer answer = world.call("GetKeyProperty", Reach::module, [&] {
        return world.table().GetKeyProperty(handle, key, name, output.data(), output.size(),
                                            length.pointer(), flagsOf(operands.byte()));
    });
    HOLDS(answer.blocks == 0);
    checkValue(answer, World::judge(answer, expected, Reach::module), value, output, length);
}

void setKeyProperty(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const wchar_t* const name = propertyName(operands.byte());
    const uint8_t form = operands.byte();
    const Bytes value = someBytes(lengthOf(operands.byte()), form);
    const bool null = rarely(form);
    const DWORD size = form == 0x11 ? 0x80000000 : sizeOf(value);
    Key* const known = provider != nullptr ? provider->openedOrImported(key) : nullptr;

    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (name == nullptr || null || size == 0 || size > INT32_MAX)
        expected.status = NTE_INVALID_PARAMETER;
    else if (known == nullptr)
        expected.status = NTE_INVALID_HANDLE;
    else if (contains(rules.unsettable, name))
        expected.status = NTE_NOT_SUPPORTED;
    const Answer answer = world.call("SetKeyProperty", Reach::module, [&] {
        return world.table().SetKeyProperty(handle, key, name, null ? nullptr : in(value), size,
                                            flagsOf(operands.byte()));
    });
    const bool stored = World::judge(answer, expected, Reach::module);
    // Compat: mostly, a second value is not taken.
    const bool isNew = known != nullptr && name != nullptr && !known->properties.contains(name);
    HOLDS(answer.blocks == 0 || (isNew && expected.status == ERROR_SUCCESS && answer.blocks > 0));
    const bool replaced = known != nullptr && stored && contains(rules.replaceable, name);
    if (replaced || (isNew && (stored || answer.blocks > 0)))
        known->properties[name] = std::make_shared<Bytes>(value);
}

void enumKeys(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const uint8_t form = operands.byte();
    const bool begin = form % 4 == 0 || world.enumerations.empty();
    uint32_t* const given =
        begin ? nullptr : world.enumerations[form / 4 % world.enumerations.size()];
    const uint8_t nulls = operands.byte();
    PVOID state = given;
    PVOID* const statePlace = nulls % 16 == 1 ? nullptr : &state;
    NCryptKeyName* record = nullptr;
    NCryptKeyName** const place = nulls % 16 == 2 ? nullptr : &record;
    const uint32_t index = given != nullptr ? *given : 0;

    ProviderModel* const provider = world.find(handle);
    Expected expected;
    const Key* key = nullptr;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (statePlace == nullptr || place == nullptr) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (index >= provider->filed.size()) {
        expected.status = NTE_NO_MORE_ITEMS;
    } else {
        const auto& entry = std::next(provider->filed.begin(), index)->second;
        key = entry ? &*entry : nullptr;
        if (key == nullptr)
            expected.status = NTE_NOT_FOUND;
    }
    const Answer answer = world.call("EnumKeys", Reach::module, [&] {
        return world.table().EnumKeys(handle, nulls % 2 == 0 ? nullptr : L"scope", place,
                                      statePlace, flagsOf(operands.byte()));
    });
    if (!World::judge(answer, expected, Reach::module)) {
        HOLDS(answer.blocks == 0 && record == nullptr && state == given);
        HOLDS(given == nullptr || *given == index);
        return;
    }
    HOLDS(answer.blocks == 1 + (given == nullptr ? 1 : 0) + (rules.namesApart ? 2 : 0));
    HOLDS(state != nullptr && (given == nullptr || state == given));
    auto* const next = static_cast<uint32_t*>(state);
    HOLDS(*next == index + 1);
    HOLDS(key->facts.name == record->pszName && record->dwFlags == 0);
    HOLDS(bytesOf(std::wstring(record->pszAlgid)) == rules.listedAlgorithm(key->facts));
    releaseRecord(*record);
    HOLDS(world.ask([&] { return world.table().FreeBuffer(record); }) == ERROR_SUCCESS);
    if (given == nullptr)
        world.enumerations.push_back(next);
}

void freeBuffer(World& world, Operands& operands)
{
    const uint8_t form = operands.byte();
    auto& states = world.enumerations;
    const bool null = form % 8 == 0 || states.empty();
    const size_t place = null ? 0 : form / 8 % states.size();
    uint32_t* const block = null ? nullptr : states[place];
    const Answer answer =
        world.call("FreeBuffer", Reach::module, [&] { return world.table().FreeBuffer(block); });
    const Expected expected{null ? NTE_INVALID_PARAMETER : ERROR_SUCCESS};
    World::judge(answer, expected, Reach::module);
    // A log that fails at the call's first line leaves the block, and so does missing memory.
    HOLDS(answer.blocks == (answer.succeeded() ? -1 : 0));
    if (answer.blocks < 0)
        states.erase(states.begin() + static_cast<std::ptrdiff_t>(place));
}

void importKey(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const uint8_t blobForm = operands.byte();
    const ImportBlob blob(blobForm, operands.byte());
    const wchar_t* const type = blobType(blob, operands.byte());
    const uint8_t form = operands.byte();
    const NCRYPT_KEY_HANDLE importKey = rarely(form) ? world.pickPeer(form) : 0;
    Place<NCRYPT_KEY_HANDLE> place(form % 16 == 1);
    const bool null = form % 16 == 2;

    Expected expected;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else {
        if (importKey != 0)
            expected.status = NTE_NOT_SUPPORTED;
        if (type == nullptr || place.null() || null || blob.bytes().empty())
            expected.status = NTE_INVALID_PARAMETER;
        if (type != nullptr && std::wstring_view(type) != BCRYPT_ECCPUBLIC_BLOB &&
            std::wstring_view(type) != BCRYPT_RSAPUBLIC_BLOB)
            expected.status = NTE_NOT_SUPPORTED;
        if (rules.checksBlobs && expected.status == ERROR_SUCCESS)
            expected.status = blob.statusAs(type);
    }
    NCryptBufferDesc none{};
    const Answer answer = world.call("ImportKey", Reach::module, [&] {
        return world.table().ImportKey(handle, importKey, type, form % 3 == 0 ? &none : nullptr,
                                       place.pointer(), null ? nullptr : in(blob.bytes()),
                                       sizeOf(blob.bytes()), flagsOf(operands.byte()));
    });
    if (!World::judge(answer, expected, Reach::module)) {
        HOLDS(answer.blocks == 0 && place.untouched());
        return;
    }
    // Compat: a blob that cannot be read gives a null handle and success.
    if (!blob.key()) {
        HOLDS(answer.blocks == 0 && place.value() == 0);
        return;
    }
    HOLDS(place.value() != 0 && provider->openedOrImported(place.value()) == nullptr);
    Key& key = provider->imported[place.value()];
    key = {*blob.key(), world.nextSerial(), {}};
    addKeyProperties(key);
}

void exportKey(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t typeForm = operands.byte();
    const wchar_t* const type = blobTypes[typeForm % std::size(blobTypes)];
    const uint8_t form = operands.byte();
    Output output(form % 4 == 1 ? 600 : lengthOf(operands.byte()), form % 4 == 0);
    Place<DWORD> length(rarely(form));
    const NCRYPT_KEY_HANDLE exportKey = rarely(typeForm) ? world.pickPeer(form) : 0;
    const Key* const known = provider != nullptr ? provider->openedOrImported(key) : nullptr;
    const auto row = std::ranges::find(rules.blobs, std::wstring_view(type != nullptr ? type : L""),
                                       &BlobRow::type);
    Bytes blob;

    Expected expected;
    bool lengthTold = false;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else {
        if (exportKey != 0)
            expected.status = NTE_NOT_SUPPORTED;
        else if (key == 0)
            expected.status = NTE_INVALID_PARAMETER;
        if (type == nullptr)
            expected.status = NTE_INVALID_PARAMETER;
        else if (row == rules.blobs.end())
            expected.status = NTE_NOT_SUPPORTED;
        if (length.null())
            expected.status = NTE_INVALID_PARAMETER;
        if (expected.status == ERROR_SUCCESS)
            expectBlob(known, *row, expected, blob);
        // In both behaviours, the length is also told if the buffer is too short.
        lengthTold = expected.status == ERROR_SUCCESS;
        if (lengthTold && !output.null() && output.size() < blob.size())
            expected.status = rules.exportTooShort;
    }
    const Answer answer = world.call("ExportKey", Reach::module, [&] {
        return world.table().ExportKey(handle, key, exportKey, type, nullptr, output.data(),
                                       output.size(), length.pointer(), flagsOf(operands.byte()));
    });
    HOLDS(answer.blocks == 0);
    if (World::judge(answer, expected, Reach::module)) {
        HOLDS(length.value() == blob.size() && (output.null() || output.holds(blob)));
        return;
    }
    HOLDS(output.untouched());
    HOLDS(length.untouched() || (lengthTold && length.value() == blob.size()));
    HOLDS(answer.by.any() || !lengthTold || !length.untouched());
}

}  // namespace NV::fuzz
