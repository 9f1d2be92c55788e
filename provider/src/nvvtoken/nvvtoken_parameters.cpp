// Reading the buffers of a derivation's parameter list.

#include "nvvtoken/nvvtoken_parameters.h"

#include <cstring>

namespace NV {

namespace {

void addTo(SecretBytes& bytes, const ParameterBuffer& buffer)
{
    const auto* data = static_cast<const unsigned char*>(buffer.bytes);
    bytes.insert(bytes.end(), data, data + buffer.size);
}

std::wstring textOf(const ParameterBuffer& buffer)
{
    std::wstring text(buffer.size / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), buffer.bytes, text.size() * sizeof(wchar_t));
    return text.substr(0, text.find(L'\0'));
}

}  // namespace

ParameterKind parameterKind(const ParameterBuffer& buffer, bool useHmacKdf)
{
    if (buffer.bytes == nullptr && buffer.size != 0)
        return ParameterKind::unreadable;
    switch (buffer.type) {
    case bufferTypeHashAlgorithm:
        return ParameterKind::hashName;
    case bufferTypePrepend:
        return ParameterKind::prepend;
    case bufferTypeAppend:
        return ParameterKind::append;
    case bufferTypeHmacKey:
        return useHmacKdf ? ParameterKind::hmacKey : ParameterKind::misplacedHmacKey;
    default:
        return ParameterKind::unknown;
    }
}

void takeParameter(ParameterKind kind, const ParameterBuffer& buffer,
                   DerivationParameters& parameters)
{
    if (buffer.size == 0)
        return;
    switch (kind) {
    case ParameterKind::hashName:
        parameters.hashName = textOf(buffer);
        break;
    case ParameterKind::prepend:
        addTo(parameters.prepend, buffer);
        break;
    case ParameterKind::append:
        addTo(parameters.append, buffer);
        break;
    case ParameterKind::hmacKey:
        parameters.hmacKey.clear();
        addTo(parameters.hmacKey, buffer);
        break;
    case ParameterKind::misplacedHmacKey:
    case ParameterKind::unknown:
    case ParameterKind::unreadable:
        break;
    }
}

}  // namespace NV
