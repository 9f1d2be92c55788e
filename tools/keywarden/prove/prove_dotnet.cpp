// The step that lets .NET sign, by the PowerShell that comes with Windows.

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>

#include "base/encoding.h"
#include "exit_code.h"
#include "failure.h"
#include "formats/hashing.h"
#include "prove/bcrypt_key.h"
#include "prove/program_output.h"
#include "prove/proving.h"
#include "session.h"
#include "system/explanation.h"
#include "text.h"

namespace NV::tool {

namespace {

constexpr std::string_view signedText = "KeyWarden proves .NET";

// Marks of the lines that the script prints.
constexpr std::string_view versionMark = "powershell ";
constexpr std::string_view signatureMark = "signature ";
constexpr std::string_view errorMark = "error ";

// Without double quotes, so that it is one argument as it stands.
std::wstring scriptFor(const ProvedKey& key)
{
    const std::string crypto = "[Security.Cryptography.";
    const std::string certificates = "[Security.Cryptography.X509Certificates.";
    const std::string sha256 = crypto + "HashAlgorithmName]::SHA256";
    const std::string take =
        key.isRsa ? certificates + "RSACertificateExtensions]::GetRSAPrivateKey($c)"
                  : certificates + "ECDsaCertificateExtensions]::GetECDsaPrivateKey($c)";
    const std::string padding =
        key.isRsa ? ", " + crypto + "RSASignaturePadding]::Pkcs1" : std::string();
    return fromUtf8("$ErrorActionPreference = 'Stop'; '" + std::string(versionMark) +
                    "' + $PSVersionTable.PSVersion; try { $c = Get-Item 'Cert:\\CurrentUser\\My\\" +
                    thumbprintOf(key.published()) + "'; $k = " + take +
                    "; $d = [Text.Encoding]::ASCII.GetBytes('" + std::string(signedText) +
                    "'); $s = $k.SignData($d, " + sha256 + padding + "); '" +
                    std::string(signatureMark) +
                    "' + [BitConverter]::ToString($s).Replace('-', '') } catch { $e = "
                    "$_.Exception.GetBaseException(); '" +
                    std::string(errorMark) + "' + $e.HResult + ' ' + $e.Message }");
}

// The rest of the first line that begins with the mark; empty if none does.
std::string lineBehind(const std::string& text, std::string_view mark)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(mark))
            return line.substr(mark.size());
    }
    return {};
}

std::filesystem::path powershell()
{
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size())));
    std::filesystem::path program =
        std::filesystem::path(folder) / L"WindowsPowerShell" / L"v1.0" / L"powershell.exe";
    std::error_code error;
    if (!std::filesystem::exists(program, error))
        throw NotPossible("there is no " + toUtf8(program));
    return program;
}

[[noreturn]] void failAsDotnet(const std::string& error)
{
    char* end = nullptr;
    const auto status = static_cast<SECURITY_STATUS>(std::strtol(error.c_str(), &end, 10));
    const std::string message = end;
    const Explanation* known = explain(static_cast<uint32_t>(status));
    throw Failure(".NET does not sign: " + statusText(status) + message,
                  known != nullptr ? std::string(known->advice) : std::string(),
                  known != nullptr ? known->exitCode : ExitCode::failed, status);
}

Bytes signatureByDotnet(const Proving& proving, const ProvedKey& key)
{
    const std::filesystem::path program = powershell();
    const ProgramOutput output = outputOfProgram(
        program,
        L"powershell.exe -NoLogo -NoProfile -NonInteractive -Command \"" + scriptFor(key) + L"\"",
        proving.session.limit(std::chrono::seconds(120)));
    if (!output.ended)
        throw Failure("powershell.exe does not end");
    if (lineBehind(output.text, versionMark).empty())
        throw NotPossible("powershell.exe starts, but does not run a command");
    if (const std::string error = lineBehind(output.text, errorMark); !error.empty())
        failAsDotnet(error);
    const Bytes signature = hexDecode(lineBehind(output.text, signatureMark));
    if (signature.empty())
        throw Failure("PowerShell prints no signature: " +
                      output.text.substr(0, output.text.find('\n')));
    return signature;
}

}  // namespace

std::string proveDotnet(Proving& proving, ProvedKey& key)
{
    key.published();
    const VerificationKey publicKey = verificationKey(key);
    const Bytes signature = signatureByDotnet(proving, key);
    requireGoodSignature(
        publicKey.key.get(), key.isRsa,
        hashBytes(Bytes(signedText.begin(), signedText.end()), hashNamed("sha256")), signature);
    return "X509Certificate2 gives .NET the private key, and BCrypt verifies what it signs";
}

}  // namespace NV::tool
