// Runs OpenSSL's command line, with files in its own folder as input and output.

#include "openssl.h"

#include <filesystem>
#include <stdexcept>

#include "host.h"

namespace NV::test {

namespace {

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

}  // namespace

std::string OpenSsl::keyFile(const TokenKey& key, const char* ending) const
{
    return host::quoted(made_ + "/keys/" + key.file + ending);
}

std::string OpenSsl::withPrivateKey(const TokenKey& key) const
{
    return " -inkey " + keyFile(key, ".key.pem") + " ";
}

std::string OpenSsl::withCertificate(const TokenKey& key) const
{
    return " -certin -inkey " + keyFile(key, ".crt.pem") + " ";
}

int OpenSsl::start(const std::string& arguments) const
{
    const int exitCode = host::run("cd " + host::quoted(host::unixPath(folder_.path())) +
                                   " && exec openssl " + arguments + " > log 2>&1");
    if (exitCode != 0 && exitCode != 1)
        throw std::runtime_error("openssl " + arguments + " ended with " +
                                 std::to_string(exitCode) + ": " + log());
    return exitCode;
}

void OpenSsl::run(const std::string& arguments) const
{
    if (start(arguments) != 0)
        throw std::runtime_error("openssl " + arguments + ": " + log());
}

Bytes OpenSsl::output(const std::string& arguments) const
{
    std::filesystem::remove(folder_.path() / "output");
    run(arguments);
    return bytesOf(readFile(folder_.path() / "output"));
}

void OpenSsl::give(const char* file, const Bytes& content) const
{
    writeFile(folder_.path() / file, std::string(content.begin(), content.end()));
}

std::string OpenSsl::log() const
{
    return readFile(folder_.path() / "log");
}

bool OpenSsl::verifies(const TokenKey& key, const Bytes& data, const Bytes& signature,
                       const std::string& options) const
{
    give("data", data);
    give("signature", signature);
    const std::string arguments =
        "pkeyutl -verify -in data -sigfile signature" + withCertificate(key) + options;
    const int exitCode = start(arguments);
    // The exit code alone would not distinguish a wrong option from a wrong signature.
    if (exitCode == 0 && log().find("Signature Verified Successfully") != std::string::npos)
        return true;
    if (exitCode == 1 && log().find("Signature Verification Failure") != std::string::npos)
        return false;
    throw std::runtime_error("openssl " + arguments + ": " + log());
}

std::optional<Bytes> OpenSsl::recovered(const TokenKey& key, const Bytes& signature) const
{
    give("signature", signature);
    const int exitCode = start("pkeyutl -verifyrecover -in signature -out output" +
                               withCertificate(key) + "-pkeyopt rsa_padding_mode:pkcs1");
    if (exitCode != 0)
        return std::nullopt;
    return bytesOf(readFile(folder_.path() / "output"));
}

Bytes OpenSsl::sign(const TokenKey& key, const Bytes& data, const std::string& options) const
{
    give("data", data);
    return output("pkeyutl -sign -in data -out output" + withPrivateKey(key) + options);
}

Bytes OpenSsl::encrypt(const TokenKey& key, const Bytes& plain, const std::string& options) const
{
    give("data", plain);
    return output("pkeyutl -encrypt -in data -out output" + withCertificate(key) + options);
}

Bytes OpenSsl::decrypt(const TokenKey& key, const Bytes& cipher, const std::string& options) const
{
    give("data", cipher);
    return output("pkeyutl -decrypt -in data -out output" + withPrivateKey(key) + options);
}

Bytes OpenSsl::digest(const HashName& hash, const Bytes& data) const
{
    give("data", data);
    return output(std::string("dgst -binary -out output -") + hash.openSsl + " data");
}

Bytes OpenSsl::hmac(const HashName& hash, const Bytes& key, const Bytes& data) const
{
    give("data", data);
    return output(std::string("mac -binary -in data -out output -digest ") + hash.openSsl +
                  " -macopt hexkey:" + hexEncode(key) + " HMAC");
}

Bytes OpenSsl::publicKeyInfo(const TokenKey& key) const
{
    run("x509 -noout -pubkey -out public.pem -in " + keyFile(key, ".crt.pem"));
    return output("pkey -pubin -in public.pem -outform DER -out output");
}

Bytes OpenSsl::modulus(const TokenKey& key) const
{
    run("x509 -noout -modulus -in " + keyFile(key, ".crt.pem"));
    const std::string text = log();
    return hexDecode(text.substr(text.find('=') + 1));
}

Bytes OpenSsl::makePeer(const std::string& curve) const
{
    run("genpkey -algorithm EC -pkeyopt ec_paramgen_curve:" + curve + " -out peer.pem");
    run("pkey -in peer.pem -pubout -out peer.public.pem");
    return output("pkey -in peer.pem -pubout -outform DER -out output");
}

Bytes OpenSsl::agreedByPeer(const TokenKey& key) const
{
    run("x509 -noout -pubkey -out public.pem -in " + keyFile(key, ".crt.pem"));
    return output("pkeyutl -derive -inkey peer.pem -peerkey public.pem -out output");
}

Bytes OpenSsl::agreedWithPeer(const TokenKey& key) const
{
    return output("pkeyutl -derive -peerkey peer.public.pem -out output" + withPrivateKey(key));
}

}  // namespace NV::test
