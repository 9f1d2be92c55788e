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
    std::wstring text(buffer.size / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), buffer.bytes, text.size() * sizeof(wchar_t));
    parameters.hashName = text.substr(0, text.find(L'\0'));
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
    if (buffer.bytes == nullptr && buffer.size != 0)
        return ParameterKind::unreadable;
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
    if (row != std::end(knownParameters) && buffer.size != 0)
        row->take(buffer, parameters);
}

}  // namespace NV
