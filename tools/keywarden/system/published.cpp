// Comparing "My" with a token.

#include "system/published.h"

#include <algorithm>

#include "nvvtoken/nvvtoken_name.h"

namespace NV::tool {

namespace {

bool has(const StoredCertificate& entry, const TokenCertificate& certificate)
{
    const CERT_CONTEXT& context = *entry.certificate;
    return std::equal(context.pbCertEncoded, context.pbCertEncoded + context.cbCertEncoded,
                      certificate.der.begin(), certificate.der.end());
}

}  // namespace

std::vector<const StoredCertificate*> staleEntries(
    const std::vector<StoredCertificate>& stored, const std::vector<TokenCertificate>& certificates)
{
    std::vector<const StoredCertificate*> stale;
    for (const StoredCertificate& entry : stored) {
        if (entry.provider == providerName &&
            std::ranges::none_of(certificates, [&](const TokenCertificate& certificate) {
                return has(entry, certificate) && entry.container == certificate.keyName;
            }))
            stale.push_back(&entry);
    }
    return stale;
}

bool isPublished(const std::vector<StoredCertificate>& stored, const TokenCertificate& certificate)
{
    return std::ranges::any_of(stored, [&](const StoredCertificate& entry) {
        return entry.provider == providerName && entry.container == certificate.keyName &&
               has(entry, certificate);
    });
}

}  // namespace NV::tool
