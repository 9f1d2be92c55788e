#include "call_list.h"

#include <wincrypt.h>

#include <cstring>
#include <fstream>
#include <iomanip>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "base/text.h"
#include "nvvtoken/nvvtoken_name.h"

namespace NV::test {

namespace {

std::string hexadecimal(unsigned value)
{
    std::ostringstream text;
    text << "0x" << std::uppercase << std::hex << std::setw(8) << std::setfill('0') << value;
    return text.str();
}

std::string answerOf(SECURITY_STATUS status)
{
    return status == ERROR_SUCCESS ? "ok" : hexadecimal(static_cast<unsigned>(status));
}

// A length is told with success, and where it is what was missing.
std::string answerOf(SECURITY_STATUS status, DWORD length)
{
    if (status != ERROR_SUCCESS && status != NTE_BUFFER_TOO_SMALL)
        return answerOf(status);
    return answerOf(status) + " " + std::to_string(length);
}

std::string valueOf(std::string_view name, const Bytes& bytes)
{
    if (name == "Provider Handle") {
        NCRYPT_PROV_HANDLE handle = 0;
        std::memcpy(&handle, bytes.data(), sizeof handle);
        return NCryptFreeObject(handle) == ERROR_SUCCESS ? "handle" : "no handle";
    }
    if (name == "PublicKeyLength" || name == "Length") {
        DWORD number = 0;
        std::memcpy(&number, bytes.data(), sizeof number);
        return std::to_string(number);
    }
    return "\"" + toUtf8(Answer{.bytes = bytes}.text()) + "\"";
}

struct ContextFreer {
    void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
};
using Context = std::unique_ptr<const CERT_CONTEXT, ContextFreer>;

// The certificate as "My" has it, with its provider information.
Context storedCertificate(const Bytes& der)
{
    const Context wanted(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(),
                                                      static_cast<DWORD>(der.size())));
    HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
    Context found(CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING,
                                             wanted.get(), nullptr));
    CertCloseStore(store, 0);
    return found;
}

Bytes hashOf(const std::wstring& name)
{
    constexpr std::pair<std::wstring_view, size_t> sizes[] = {
        {L"SHA1", 20}, {L"SHA256", 32}, {L"SHA384", 48}, {L"SHA512", 64}};
    for (const auto& [known, size] : sizes) {
        if (known == name)
            return someBytes(size);
    }
    throw std::runtime_error("unknown hash " + toUtf8(name));
}

// The information of a padding, and the hash in it.
struct PaddingOf {
    PaddingOf(const std::string& padding, std::wstring hashName, ULONG saltSize)
        : name(std::move(hashName))
    {
        pkcs1.pszAlgId = name.c_str();
        pss = {name.c_str(), saltSize};
        oaep.pszAlgId = BCRYPT_SHA1_ALGORITHM;
        if (padding == "PKCS1" && !name.empty())
            information = &pkcs1;
        else if (padding == "PSS")
            information = &pss;
        else if (padding == "OAEP")
            information = &oaep;
    }
    ~PaddingOf() = default;
    PaddingOf(const PaddingOf&) = delete;
    PaddingOf& operator=(const PaddingOf&) = delete;

    std::wstring name;
    BCRYPT_PKCS1_PADDING_INFO pkcs1{};
    BCRYPT_PSS_PADDING_INFO pss{};
    BCRYPT_OAEP_PADDING_INFO oaep{};
    void* information = nullptr;
};

}  // namespace

// The words of a call, taken one by one; a text in quotes is one.
class CallPlayer::Words {
public:
    explicit Words(const std::string& call) : stream_(call) {}

    std::string next()
    {
        std::string word;
        if (!(stream_ >> std::quoted(word)))
            throw std::runtime_error("the call is too short");
        return word;
    }
    std::wstring nextName() { return fromUtf8(next()); }
    // Empty for "null".
    std::optional<DWORD> nextRoom()
    {
        const std::string word = next();
        return word == "null" ? std::nullopt : std::optional<DWORD>(number(word));
    }
    DWORD nextFlags()
    {
        const std::string word = next();
        if (!word.starts_with("flags="))
            throw std::runtime_error("flags are missing before " + word);
        return number(word.substr(6));
    }
    // The driver of the dialog, which comes if the call says so and must not come otherwise.
    DialogDriver nextDialog()
    {
        std::string word;
        stream_ >> word;
        if (word.empty())
            return DialogDriver(DialogDriver::cancelling(), 0);
        if (word != "dialog")
            throw std::runtime_error("unexpected: " + word);
        return DialogDriver(DialogDriver::entering(std::wstring(kPin.begin(), kPin.end())));
    }

private:
    static DWORD number(const std::string& word)
    {
        return static_cast<DWORD>(std::stoul(word, nullptr, 0));
    }

    std::istringstream stream_;
};

std::vector<RecordedCall> readCalls(const std::string& file)
{
    std::vector<RecordedCall> calls;
    std::istringstream lines(readFile(fromUtf8(file)));
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (line.empty() || line.starts_with('#'))
            continue;
        const size_t middle = line.find(" : ");
        if (middle == std::string::npos)
            throw std::runtime_error(file + ":" + std::to_string(number) + ": no answer");
        calls.push_back({line.substr(0, middle), line.substr(middle + 3), number});
    }
    return calls;
}

std::string CallPlayer::play(const std::string& call)
{
    constexpr std::pair<std::string_view, std::string (CallPlayer::*)(Words&)> functions[] = {
        {"AcquirePrivateKey", &CallPlayer::acquire},
        {"Decrypt", &CallPlayer::decrypt},
        {"Encrypt", &CallPlayer::encrypt},
        {"ExportKey", &CallPlayer::exportKey},
        {"FreeObject", &CallPlayer::freeObject},
        {"GetProperty", &CallPlayer::getProperty},
        {"OpenKey", &CallPlayer::openKey},
        {"OpenStorageProvider", &CallPlayer::openProvider},
        {"SignHash", &CallPlayer::sign},
        {"VerifySignature", &CallPlayer::verify},
    };
    Words words(call);
    const std::string name = words.next();
    for (const auto& [known, function] : functions) {
        if (known == name)
            return (this->*function)(words);
    }
    throw std::runtime_error("unknown function " + name);
}

std::string CallPlayer::openProvider(Words& words)
{
    return answerOf(NCryptOpenStorageProvider(provider_.out(), providerName, words.nextFlags()));
}

std::string CallPlayer::openKey(Words& words)
{
    const std::wstring name = words.nextName();
    return answerOf(NCryptOpenKey(*provider_, key_.out(), name.c_str(), 0, words.nextFlags()));
}

std::string CallPlayer::acquire(Words& words)
{
    const Context certificate = storedCertificate(certificate_);
    DWORD keySpec = 0;
    WINBOOL callerFrees = FALSE;
    if (!CryptAcquireCertificatePrivateKey(certificate.get(), words.nextFlags(), nullptr,
                                           key_.out(), &keySpec, &callerFrees))
        return hexadecimal(GetLastError());
    return "ok keySpec=" + hexadecimal(keySpec) + (callerFrees ? " callerFrees" : "");
}

std::string CallPlayer::freeObject(Words& words)
{
    Handle& handle = words.next() == "key" ? key_ : provider_;
    return answerOf(NCryptFreeObject(handle.release()));
}

std::string CallPlayer::getProperty(Words& words)
{
    const std::wstring name = words.nextName();
    const std::optional<DWORD> room = words.nextRoom();
    Bytes output(room.value_or(0));
    DWORD length = 0;
    const SECURITY_STATUS status =
        NCryptGetProperty(*key_, name.c_str(), room ? output.data() : nullptr, room.value_or(0),
                          &length, words.nextFlags());
    std::string answer = answerOf(status, length);
    return status == ERROR_SUCCESS && room ? answer + " " + valueOf(toUtf8(name), output) : answer;
}

std::string CallPlayer::exportKey(Words& words)
{
    const std::wstring type = words.nextName();
    const std::optional<DWORD> room = words.nextRoom();
    Bytes output(room.value_or(0));
    DWORD length = 0;
    const SECURITY_STATUS status =
        NCryptExportKey(*key_, 0, type.c_str(), nullptr, room ? output.data() : nullptr,
                        room.value_or(0), &length, words.nextFlags());
    return answerOf(status, length);
}

std::string CallPlayer::sign(Words& words)
{
    const std::string padding = words.next();
    const std::wstring hashName = words.nextName();
    Bytes hash = hashOf(hashName);
    const PaddingOf info(padding, hashName, static_cast<ULONG>(hash.size()));
    Bytes output(words.nextRoom().value_or(0));
    const DWORD flags = words.nextFlags();
    const DialogDriver dialog = words.nextDialog();
    DWORD length = 0;
    const SECURITY_STATUS status =
        NCryptSignHash(*key_, info.information, hash.data(), static_cast<DWORD>(hash.size()),
                       output.data(), static_cast<DWORD>(output.size()), &length, flags);
    if (status == ERROR_SUCCESS)
        signature_.assign(output.begin(), output.begin() + length);
    return answerOf(status, length);
}

std::string CallPlayer::verify(Words& words)
{
    const std::string padding = words.next();
    const std::wstring hashName = words.nextName();
    Bytes hash = hashOf(hashName);
    const PaddingOf info(padding, hashName, static_cast<ULONG>(hash.size()));
    Bytes signature = signature_;
    const std::string kind = words.next();
    if (kind == "altered")
        signature.at(7) ^= 1;
    else if (kind == "short")
        signature.pop_back();
    return answerOf(NCryptVerifySignature(*key_, info.information, hash.data(),
                                          static_cast<DWORD>(hash.size()), signature.data(),
                                          static_cast<DWORD>(signature.size()), words.nextFlags()));
}

std::string CallPlayer::encrypt(Words& words)
{
    const PaddingOf info(words.next(), L"", 0);
    plain_ = someBytes(words.nextRoom().value_or(0));
    Bytes output(words.nextRoom().value_or(0));
    DWORD length = 0;
    const SECURITY_STATUS status =
        NCryptEncrypt(*key_, plain_.data(), static_cast<DWORD>(plain_.size()), info.information,
                      output.data(), static_cast<DWORD>(output.size()), &length, words.nextFlags());
    if (status == ERROR_SUCCESS)
        cipher_.assign(output.begin(), output.begin() + length);
    return answerOf(status, length);
}

std::string CallPlayer::decrypt(Words& words)
{
    const PaddingOf info(words.next(), L"", 0);
    Bytes output(words.nextRoom().value_or(0));
    const DWORD flags = words.nextFlags();
    const DialogDriver dialog = words.nextDialog();
    DWORD length = 0;
    const SECURITY_STATUS status =
        NCryptDecrypt(*key_, cipher_.data(), static_cast<DWORD>(cipher_.size()), info.information,
                      output.data(), static_cast<DWORD>(output.size()), &length, flags);
    std::string answer = answerOf(status, length);
    if (status != ERROR_SUCCESS)
        return answer;
    output.resize(length);
    return answer + (output == plain_ ? " same" : " different");
}

}  // namespace NV::test
