// Hashes of files, computed by the system.

#pragma once

#include <filesystem>
#include <string>

#include "base/encoding.h"
#include "keystore/keystore_hash.h"

namespace NV::tool {

class Output;

// The row of a hash as it is named on the command line: "sha1", "sha256", "sha384", "sha512" in any
// case. Throws CLI::ValidationError for any other.
const HashAlgorithm& hashNamed(const std::string& name);

// Of its value, in bytes.
size_t hashSize(const HashAlgorithm& hash);

// For CLI11: what is wrong with the name, or nothing.
std::string checkHashName(const std::string& name);

// The file is read piece by piece; on a terminal a large one gets a progress bar on standard error.
// Throws Failure.
Bytes hashFile(const Output& out, const std::filesystem::path& file, const HashAlgorithm& hash);

// The DER DigestInfo (RFC 8017, 9.2) of a hash: what PKCS #1 v1.5 pads, SHA-1 included.
Bytes digestInfo(const HashAlgorithm& hash, const Bytes& digest);

}  // namespace NV::tool
