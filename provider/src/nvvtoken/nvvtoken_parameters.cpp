// The table of the buffers that a derivation knows.

#include "nvvtoken/nvvtoken_parameters.h"

#include <algorithm>
#include <cstring>

namespace NV {

namespace {

void addTo(SecretBytes& bytes, const ParameterBuffer& buffer)
{
    const auto* data = static_cast<const unsigned char*>(buffer.bytes);
    bytes.insert(bytes.end(), data, data + buffer.size);
}

void takeHashName(const ParameterBuffer& buffer, DerivationParameters& parameters)
{
    // No hash has a longer name, so the memory that a size claims is not taken.
    constexpr size_t maxLength = 64;
    const size_t length = std::min(buffer.size / sizeof(wchar_t), maxLength);
    const auto* bytes = static_cast<const unsigned char*>(buffer.bytes);
    parameters.hashName.clear();
    for (size_t i = 0; i < length; ++i) {
        wchar_t character = L'\0';
        std::memcpy(&character, bytes + i * sizeof character, sizeof character);
        if (character == L'\0')
            break;
        parameters.hashName.push_back(character);
    }
}

void takePrepend(const ParameterBuffer& buffer, DerivationParameters& parameters)
{
    addTo(parameters.prepend, buffer);
}

void takeAppend(const ParameterBuffer& buffer, DerivationParameters& parameters)
{
    addTo(parameters.append, buffer);
}

void takeHmacKey(const ParameterBuffer& buffer, DerivationParameters& parameters)
{
    parameters.hmacKey.clear();
    addTo(parameters.hmacKey, buffer);
}

struct KnownParameter {
    uint32_t type;
    ParameterKind kind;
    void (*take)(const ParameterBuffer& buffer, DerivationParameters& parameters);
};

constexpr KnownParameter knownParameters[] = {
    {bufferTypeHashAlgorithm, ParameterKind::hashName, takeHashName},
    {bufferTypePrepend, ParameterKind::prepend, takePrepend},
    {bufferTypeAppend, ParameterKind::append, takeAppend},
    {bufferTypeHmacKey, ParameterKind::hmacKey, takeHmacKey},
};

}  // namespace

ParameterKind parameterKind(const ParameterBuffer& buffer, bool useHmacKdf)
{
    const auto* row = std::ranges::find(knownParameters, buffer.type, &KnownParameter::type);
    if (row == std::end(knownParameters))
        return ParameterKind::unknown;
    if (row->kind == ParameterKind::hmacKey && !useHmacKdf)
        return ParameterKind::misplacedHmacKey;
    return row->kind;
}

void takeParameter(ParameterKind kind, const ParameterBuffer& buffer,
                   DerivationParameters& parameters)
{
    const auto* row = std::ranges::find(knownParameters, kind, &KnownParameter::kind);
    if (row != std::end(knownParameters) && buffer.bytes != nullptr && buffer.size != 0)
        row->take(buffer, parameters);
}

}  // namespace NV
