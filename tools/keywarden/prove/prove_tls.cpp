// The step of a TLS handshake by Schannel. Client and server are in this process and pass their messages in
// memory, so nothing listens on the network.

#define SECURITY_WIN32

#include <windows.h>

#include <sspi.h>

#include <schannel.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "failure.h"
#include "prove/proving.h"
#include "prove/server_certificate.h"
#include "system/library_guard.h"
#include "text.h"

namespace NV::tool {

namespace {

using Schannel = SecurityFunctionTableW;

// Throws NotPossible if the system has no such table.
const Schannel& schannel()
{
    // As long as the program.
    static HMODULE library = nullptr;
    library = LoadLibraryExW(L"secur32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    const auto initialize =
        library == nullptr ? nullptr
                           : reinterpret_cast<INIT_SECURITY_INTERFACE_W>(reinterpret_cast<void*>(
                                 GetProcAddress(library, "InitSecurityInterfaceW")));
    const Schannel* table = initialize == nullptr ? nullptr : initialize();
    if (table == nullptr || table->AcquireCredentialsHandleW == nullptr ||
        table->InitializeSecurityContextW == nullptr || table->AcceptSecurityContext == nullptr ||
        table->QueryContextAttributesW == nullptr || table->DeleteSecurityContext == nullptr ||
        table->FreeCredentialsHandle == nullptr || table->FreeContextBuffer == nullptr)
        throw NotPossible("the system has no Schannel: secur32.dll has no table of its functions");
    return *table;
}

// What differs between client and server.
struct TlsRole {
    const char* name;
    const char* function;
    DWORD protocol;
    ULONG use;
    DWORD flags;
};

constexpr TlsRole tlsClient{"client", "InitializeSecurityContext", SP_PROT_TLS1_2_CLIENT,
                            SECPKG_CRED_OUTBOUND,
                            // The server's certificate is one of this step.
                            SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS};
constexpr TlsRole tlsServer{"server", "AcceptSecurityContext", SP_PROT_TLS1_2_SERVER,
                            SECPKG_CRED_INBOUND,
                            // The client is no user of this computer.
                            SCH_CRED_NO_SYSTEM_MAPPER};

// The server's name. Schannel resumes a session with a server that it knows, also of another process, and
// then the client would not sign.
std::wstring newTarget()
{
    return L"keywarden-" + fromUtf8(hexEncode(randomBytes(8)));
}

// One end of the connection.
class TlsEnd {
public:
    TlsEnd(const Schannel& functions, const TlsRole& role, const CERT_CONTEXT& certificate)
        : functions_(functions), role_(role)
    {
        const CERT_CONTEXT* certificates[] = {&certificate};
        SCHANNEL_CRED wanted{};
        wanted.dwVersion = SCHANNEL_CRED_VERSION;
        wanted.cCreds = 1;
        wanted.paCred = certificates;
        wanted.grbitEnabledProtocols = role.protocol;
        wanted.dwFlags = role.flags;
        std::wstring package = UNISP_NAME_W;
        TimeStamp expiry{};
        requireOfSystem(functions_.AcquireCredentialsHandleW(nullptr, package.data(), role.use,
                                                             nullptr, &wanted, nullptr, nullptr,
                                                             &credentials_, &expiry),
                        std::string("AcquireCredentialsHandle of the ") + role.name);
    }
    ~TlsEnd()
    {
        if (begun_)
            functions_.DeleteSecurityContext(&context_);
        functions_.FreeCredentialsHandle(&credentials_);
    }
    TlsEnd(const TlsEnd&) = delete;
    TlsEnd& operator=(const TlsEnd&) = delete;

    bool done() const { return done_; }

    // Takes what the other end has sent, and returns what to send to it. Throws NotPossible or Failure.
    Bytes next(const Bytes& received)
    {
        pending_.insert(pending_.end(), received.begin(), received.end());
        std::array<SecBuffer, 2> input{
            SecBuffer{static_cast<ULONG>(pending_.size()), SECBUFFER_TOKEN, pending_.data()},
            SecBuffer{0, SECBUFFER_EMPTY, nullptr}};
        SecBuffer output{0, SECBUFFER_TOKEN, nullptr};
        const SECURITY_STATUS status = call(input, output);
        const auto* text = static_cast<const unsigned char*>(output.pvBuffer);
        Bytes answer = text == nullptr ? Bytes() : Bytes(text, text + output.cbBuffer);
        if (output.pvBuffer != nullptr)
            functions_.FreeContextBuffer(output.pvBuffer);
        if (status == SEC_E_INCOMPLETE_MESSAGE)
            return {};
        if (status == SEC_I_INCOMPLETE_CREDENTIALS)
            throw Failure("Schannel does not use the certificate for a client", {},
                          ExitCode::failed, status);
        if (status != SEC_E_OK && status != SEC_I_CONTINUE_NEEDED)
            requireOfSystem(status, role_.function);
        begun_ = true;
        done_ = status == SEC_E_OK;
        keepRest(input[1]);
        return answer;
    }

    // Of the other end. Throws Failure if it has sent none.
    Certificate peerCertificate()
    {
        const CERT_CONTEXT* certificate = nullptr;
        requireOfSystem(functions_.QueryContextAttributesW(
                            &context_, SECPKG_ATTR_REMOTE_CERT_CONTEXT, &certificate),
                        "QueryContextAttributes for the client's certificate");
        return Certificate(certificate);
    }

private:
    SECURITY_STATUS call(std::array<SecBuffer, 2>& input, SecBuffer& output)
    {
        SecBufferDesc received{SECBUFFER_VERSION, static_cast<ULONG>(input.size()), input.data()};
        SecBufferDesc answer{SECBUFFER_VERSION, 1, &output};
        CtxtHandle* before = begun_ ? &context_ : nullptr;
        ULONG attributes = 0;
        TimeStamp expiry{};
        if (&role_ == &tlsServer)
            return functions_.AcceptSecurityContext(&credentials_, before, &received,
                                                    ASC_REQ_MUTUAL_AUTH | ASC_REQ_STREAM |
                                                        ASC_REQ_CONFIDENTIALITY |
                                                        ASC_REQ_ALLOCATE_MEMORY,
                                                    0, &context_, &answer, &attributes, &expiry);
        return functions_.InitializeSecurityContextW(
            &credentials_, before, target_.data(),
            ISC_REQ_STREAM | ISC_REQ_CONFIDENTIALITY | ISC_REQ_ALLOCATE_MEMORY |
                ISC_REQ_USE_SUPPLIED_CREDS | ISC_REQ_MANUAL_CRED_VALIDATION,
            0, 0, pending_.empty() ? nullptr : &received, 0, &context_, &answer, &attributes,
            &expiry);
    }

    // What the call has not read stays for the next one.
    void keepRest(const SecBuffer& second)
    {
        const size_t rest = second.BufferType == SECBUFFER_EXTRA
                                ? std::min<size_t>(second.cbBuffer, pending_.size())
                                : 0;
        pending_.erase(pending_.begin(), pending_.end() - static_cast<ptrdiff_t>(rest));
    }

    const Schannel& functions_;
    const TlsRole& role_;
    CredHandle credentials_{};
    CtxtHandle context_{};
    std::wstring target_ = newTarget();
    bool begun_ = false;
    bool done_ = false;
    Bytes pending_;
};

// A handshake of that client, judged by what the server has seen. Throws NotPossible or Failure.
void shakeHands(const Schannel& functions, const CERT_CONTEXT& serverCertificate,
                const CERT_CONTEXT& clientCertificate)
{
    // A handshake of TLS 1.2 takes two round trips.
    constexpr int mostRounds = 10;
    TlsEnd server(functions, tlsServer, serverCertificate);
    TlsEnd client(functions, tlsClient, clientCertificate);
    Bytes message = client.next({});
    for (int round = 0; round < mostRounds && !(client.done() && server.done()); ++round) {
        message = server.next(message);
        if (!client.done())
            message = client.next(message);
    }
    if (!client.done() || !server.done())
        throw Failure("the TLS handshake does not end");
    const Certificate seen = server.peerCertificate();
    if (seen == nullptr ||
        !std::equal(seen->pbCertEncoded, seen->pbCertEncoded + seen->cbCertEncoded,
                    clientCertificate.pbCertEncoded,
                    clientCertificate.pbCertEncoded + clientCertificate.cbCertEncoded))
        throw Failure("the server has seen another certificate than the client's");
}

// Whether Schannel can do it at all, tried with the server's key for the client, too: what it cannot do
// with a key of the system is no fault of the provider. Throws NotPossible.
void tryWithoutToken(const Schannel& functions, const CERT_CONTEXT& certificate)
{
    constexpr const char* notWithSystemKey = "Schannel does not do it with a key of the system: ";
    try {
        shakeHands(functions, certificate, certificate);
    } catch (const Failure& failure) {
        throw NotPossible(notWithSystemKey + std::string(failure.what()));
    } catch (const NotPossible& reason) {
        throw NotPossible(notWithSystemKey + std::string(reason.what()));
    }
}

}  // namespace

std::string proveTls(Proving&, ProvedKey& key)
{
    const CERT_CONTEXT& own = key.published();
    const Schannel& functions = schannel();
    ServerCertificate certificate;
    tryWithoutToken(functions, certificate.context());
    {
        const GuardedCall call("the TLS handshake");
        shakeHands(functions, certificate.context(), own);
    }
    certificate.remove();
    return "TLS 1.2 by Schannel; the server has the client's certificate and its proof";
}

}  // namespace NV::tool
