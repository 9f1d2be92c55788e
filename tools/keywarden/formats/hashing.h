// Hashes of files, computed by the system, and the hash algorithms of the command line.

#pragma once

#include <string>

#include "base/encoding.h"
#include "keystore/keystore_hash.h"

namespace NV::tool {

class Output;

// The row of a hash algorithm by its name on the command line: "sha1", "sha256", "sha384" or "sha512",
// in upper or lower case. Throws CLI::ValidationError for any other name.
const HashAlgorithm& hashNamed(const std::string& name);

// Length of a hash value, in bytes.
size_t hashSize(const HashAlgorithm& hash);

// For CLI11: the error message for an invalid name; empty for a valid one.
std::string checkHashName(const std::string& name);

// Reads the file, or standard input for "-", in pieces. Shows a progress bar on standard error for a
// large file, if that is a terminal. Throws Failure.
Bytes hashInput(const Output& out, const std::string& name, const HashAlgorithm& hash);

Bytes hashBytes(Bytes data, const HashAlgorithm& hash);

// The DER DigestInfo (RFC 8017, 9.2) of a hash, which PKCS #1 v1.5 pads; also for SHA-1.
Bytes digestInfo(const HashAlgorithm& hash, const Bytes& digest);

}  // namespace NV::tool
