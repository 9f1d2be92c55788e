// The buffer list that an application passes to a key derivation. The first byte of the input
// selects HMAC or not. Each buffer begins with its type, a byte whose lowest bit makes it a null
// pointer and whose next bit puts it at an odd address, and its size in two bytes.

#include <optional>
#include <vector>

#include "keystore/keystore_hash.h"
#include "nvvtoken/nvvtoken_parameters.h"
#include "target.h"

namespace NV::fuzz {

namespace {

constexpr uint8_t nullFlag = 1;
constexpr uint8_t oddFlag = 2;

// A buffer of the list, in a block that ends where the buffer does.
struct Item {
    uint32_t type = 0;
    bool null = false;
    size_t offset = 0;
    uint32_t size = 0;
    Bytes block;

    ParameterBuffer buffer() const { return {size, type, null ? nullptr : block.data() + offset}; }
    std::span<const unsigned char> bytes() const { return std::span(block).subspan(offset); }
};

Item readItem(Input& input)
{
    Item item;
    item.type = input.byte();
    const uint8_t flags = input.byte();
    item.null = (flags & nullFlag) != 0;
    item.offset = (flags & oddFlag) != 0 ? 1 : 0;
    const uint32_t size = input.number(2);
    const Bytes content = input.bytes(size);
    item.size = item.null ? size : static_cast<uint32_t>(content.size());
    item.block.reserve(item.offset + content.size());
    item.block.assign(item.offset, 0xAA);
    item.block.insert(item.block.end(), content.begin(), content.end());
    return item;
}

ParameterKind expectedKind(const Item& item, bool useHmacKdf)
{
    constexpr ParameterKind kinds[] = {ParameterKind::hashName, ParameterKind::prepend,
                                       ParameterKind::append, ParameterKind::hmacKey};
    if (item.type >= std::size(kinds))
        return ParameterKind::unknown;
    if (item.type == 3 && !useHmacKdf)
        return ParameterKind::misplacedHmacKey;
    return kinds[item.type];
}

// The characters before the first zero. Trailing bytes that are not a whole character are ignored.
std::wstring expectedText(std::span<const unsigned char> bytes)
{
    std::wstring text;
    for (size_t i = 0; i + sizeof(wchar_t) <= bytes.size(); i += sizeof(wchar_t)) {
        const uint32_t c = numberAt(bytes, i);
        if (c == 0 || text.size() == 64)
            break;
        text.push_back(static_cast<wchar_t>(c));
    }
    return text;
}

// Reads the list, item by item.
struct Model {
    std::wstring hashName;
    Bytes hmacKey;
    Bytes prepend;
    Bytes append;

    void take(ParameterKind kind, std::span<const unsigned char> bytes)
    {
        if (bytes.empty())
            return;
        if (kind == ParameterKind::hashName)
            hashName = expectedText(bytes);
        if (kind == ParameterKind::hmacKey)
            hmacKey.assign(bytes.begin(), bytes.end());
        if (kind == ParameterKind::prepend)
            prepend.insert(prepend.end(), bytes.begin(), bytes.end());
        if (kind == ParameterKind::append)
            append.insert(append.end(), bytes.begin(), bytes.end());
    }
};

bool same(const SecretBytes& secret, const Bytes& bytes)
{
    return std::equal(secret.begin(), secret.end(), bytes.begin(), bytes.end());
}

void checkHash(const std::wstring& name)
{
    const bool known =
        name == L"SHA1" || name == L"SHA256" || name == L"SHA384" || name == L"SHA512";
    const HashAlgorithm* row = findHashAlgorithm(name.c_str());
    HOLDS((row != nullptr) == known);
    HOLDS(row == nullptr || row->name == name);
}

}  // namespace

}  // namespace NV::fuzz

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace NV::fuzz;
    Input input(data, size);
    const bool useHmacKdf = (input.byte() & 1) != 0;
    NV::DerivationParameters parameters;
    Model model;
    while (!input.atEnd()) {
        const Item item = readItem(input);
        const NV::ParameterKind kind = NV::parameterKind(item.buffer(), useHmacKdf);
        HOLDS(kind == expectedKind(item, useHmacKdf));
        NV::takeParameter(kind, item.buffer(), parameters);
        if (!item.null)
            model.take(kind, item.bytes());
        HOLDS(parameters.hashName == model.hashName);
        HOLDS(same(parameters.hmacKey, model.hmacKey));
        HOLDS(same(parameters.prepend, model.prepend));
        HOLDS(same(parameters.append, model.append));
    }
    checkHash(parameters.hashName);
    return 0;
}
