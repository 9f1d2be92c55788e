// Certificates in "My" that do not fit the token, as commands show them.

#pragma once

#include <string>
#include <vector>

#include "formats/certificate.h"
#include "output.h"

namespace NV::tool {

// "01AB  Erika Mustermann, expires 2027-03-01, thumbprint 6C..."
std::string lineOf(const StoredCertificate& entry);

// The same as an array of objects with name, subject, expires and thumbprint.
Json toJson(const std::vector<const StoredCertificate*>& entries);

}  // namespace NV::tool
