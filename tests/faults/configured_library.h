// The configuration that names the scripted token's library. Used by the tests of this folder that open
// a provider.

#pragma once

#include <filesystem>
#include <string>

#include "config/config.h"
#include "folder.h"
#include "scripted_token.h"

namespace NV::test {

inline void configureScriptedToken()
{
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "provider.conf";
    writeFile(file, "p11File=" + ScriptedToken::path() + "\n");
    Config::instance().load(narrowPath(file));
}

// Of the build.
inline Bytes fixtureCertificate(const std::string& name)
{
    const std::string der = readFile(std::filesystem::path(CERTIFICATES) / (name + ".der"));
    return {der.begin(), der.end()};
}

}  // namespace NV::test
