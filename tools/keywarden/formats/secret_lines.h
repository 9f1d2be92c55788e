// The lines of the module's log that show more than a stranger may see. "keywarden report" and
// "keywarden log" take it out by this table, and docs/operations.md lists its rows. Portable.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace NV::tool {

enum class Shown : uint8_t {
    secret,         // a PIN, an agreed secret, a derived key, or what makes one
    length,         // of a PIN, or of what can be one
    hash,           // that was signed
    signature,      // over it
    publicKey,      // a public key or a certificate: who the user is
    configuration,  // a line of the configuration file that means nothing to the module
};

struct SecretLine {
    // The functions that write it, with one blank between two names. Empty for operations of any name.
    std::string_view functions;
    // The message in the language of log_pattern.h; %! is what is taken out.
    std::string_view message;
    Shown shown;
    // What %! is, as the page says it.
    std::string_view meaning;
};

std::span<const SecretLine> secretLines();

}  // namespace NV::tool
