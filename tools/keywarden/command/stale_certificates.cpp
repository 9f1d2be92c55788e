// Describing entries of "My".

#include "command/stale_certificates.h"

#include <nlohmann/json.hpp>

#include "text.h"

namespace NV::tool {

std::string lineOf(const StoredCertificate& entry)
{
    const CERT_CONTEXT& certificate = *entry.certificate;
    return toUtf8(entry.container) + "  " + subjectOf(certificate) + ", expires " +
           expiryOf(certificate) + ", thumbprint " + thumbprintOf(certificate);
}

Json toJson(const std::vector<const StoredCertificate*>& entries)
{
    Json array = Json::array();
    for (const StoredCertificate* entry : entries)
        array.push_back({{"name", toUtf8(entry->container)},
                         {"subject", subjectOf(*entry->certificate)},
                         {"expires", expiryOf(*entry->certificate)},
                         {"thumbprint", thumbprintOf(*entry->certificate)}});
    return array;
}

}  // namespace NV::tool
