// A profile whose token has one certificate that is in no store, with the key name 7391.

#pragma once

#include <string>

#include "module_fixture.h"
#include "tool_program.h"

namespace NV::test {

class CertifiedProfile {
public:
    explicit CertifiedProfile(const std::string& certificate = "rsa2048")
    {
        setCertificate(certificateWithSerial(certificate, 815));
        profile.writeConfig(goodConfig(oddLibrary(L"certified_token.dll")));
    }

    void setCertificate(const Bytes& der)
    {
        const auto file = folder_.path() / "certificate.der";
        writeFile(file, std::string(der.begin(), der.end()));
        options.environment[L"ODD_CERTIFICATE"] = file.wstring();
        onToken = der;
    }
    // "C_Initialize hang": see certified_token.cpp.
    void setFault(const std::wstring& fault) { options.environment[L"ODD_FAULT"] = fault; }
    void setModern() const
    {
        profile.writeConfig("mode=modern\n" + goodConfig(oddLibrary(L"certified_token.dll")));
    }

    ToolProfile profile;
    ChildOptions options;
    Bytes onToken;

private:
    TemporaryFolder folder_;
};

}  // namespace NV::test
