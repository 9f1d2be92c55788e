// The tests' certificates, for the scripted token's keys.

#pragma once

#include <filesystem>
#include <string>

#include "base/encoding.h"
#include "folder.h"

namespace NV::bench {

// The DER bytes of a fixture, by its name without extension: "rsa2048", "p256".
inline Bytes certificateFixture(const std::string& name)
{
    const std::string der =
        NV::test::readFile(std::filesystem::path(CERTIFICATES) / (name + ".der"));
    return {der.begin(), der.end()};
}

}  // namespace NV::bench
