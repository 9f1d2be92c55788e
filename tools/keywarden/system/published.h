// The certificates in "My" against those on the token.

#pragma once

#include <string>
#include <vector>

#include "formats/certificate.h"
#include "system/token_contents.h"

namespace NV::tool {

// The entries that name this provider, but whose certificate is not on the token. They point into
// `stored`.
std::vector<const StoredCertificate*> staleEntries(
    const std::vector<StoredCertificate>& stored,
    const std::vector<TokenCertificate>& certificates);

// Whether an entry of this provider and of that key has the certificate.
bool isPublished(const std::vector<StoredCertificate>& stored, const TokenCertificate& certificate);

}  // namespace NV::tool
