// The three parts of a JWS and their base64url.

#include "formats/jws.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace NV::tool {

namespace {

// RFC 4648, 5, without padding.
std::string base64Url(const Bytes& data)
{
    std::string text = base64Encode(data);
    text.erase(text.find_last_not_of('=') + 1);
    std::ranges::replace(text, '+', '-');
    std::ranges::replace(text, '/', '_');
    return text;
}

}  // namespace

std::string jwsAlgorithm(bool isRsa, bool isPss, size_t hashSize)
{
    const char* family = isPss ? "PS" : "RS";
    return (isRsa ? family : "ES") + std::to_string(hashSize * 8);
}

size_t jwsHashSize(size_t bits)
{
    return bits > 512 ? 64 : bits / 8;
}

std::string jwsSigningInput(const std::string& algorithm, const std::string& keyName,
                            const Bytes& payload)
{
    const std::string header = nlohmann::ordered_json{{"alg", algorithm}, {"kid", keyName}}.dump();
    return base64Url({header.begin(), header.end()}) + "." + base64Url(payload);
}

std::string jwsCompact(const std::string& signingInput, const Bytes& signature, bool detached)
{
    const size_t payload = signingInput.find('.') + 1;
    return (detached ? signingInput.substr(0, payload) : signingInput) + "." + base64Url(signature);
}

}  // namespace NV::tool
