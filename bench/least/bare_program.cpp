// The least that a program can do with the token, to compare keywarden with: "bare_program LIBRARY open"
// finds the certificates and reads each with its CKA_ID, "bare_program LIBRARY sign PIN" signs once with
// the RSA key 01AB.

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "bare_token.h"

namespace {

using NV::Bytes;
using NV::bench::BareToken;

void expectOk(CK_RV rv)
{
    if (rv != CKR_OK)
        throw std::runtime_error("a bare call fails");
}

void read(const CK_FUNCTION_LIST& list, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    std::array wanted = {CK_ATTRIBUTE{CKA_ID, nullptr, 0}, CK_ATTRIBUTE{CKA_VALUE, nullptr, 0}};
    expectOk(list.C_GetAttributeValue(session, object, wanted.data(), wanted.size()));
    std::vector<Bytes> values;
    for (CK_ATTRIBUTE& one : wanted) {
        values.emplace_back(one.ulValueLen);
        one.pValue = values.back().data();
    }
    expectOk(list.C_GetAttributeValue(session, object, wanted.data(), wanted.size()));
}

void open(BareToken& token)
{
    const CK_FUNCTION_LIST& list = token.list();
    token.initialize();
    CK_SESSION_HANDLE session = 0;
    expectOk(list.C_OpenSession(token.slot(), CKF_SERIAL_SESSION, nullptr, nullptr, &session));
    CK_OBJECT_CLASS certificate = CKO_CERTIFICATE;
    CK_ATTRIBUTE search{CKA_CLASS, &certificate, sizeof certificate};
    expectOk(list.C_FindObjectsInit(session, &search, 1));
    std::array<CK_OBJECT_HANDLE, 64> found{};
    CK_ULONG count = 0;
    expectOk(list.C_FindObjects(session, found.data(), found.size(), &count));
    expectOk(list.C_FindObjectsFinal(session));
    if (count == 0)
        throw std::runtime_error("there is no certificate");
    for (CK_ULONG i = 0; i < count; ++i)
        read(list, session, found.at(i));
    expectOk(list.C_CloseSession(session));
    token.finalize();
}

void sign(BareToken& token)
{
    constexpr size_t longestSignature = 512;
    constexpr size_t digestInfoSize = 51;  // of SHA-256
    Bytes signature(longestSignature);
    token.sign(CKK_RSA, {0x01, 0xAB}, Bytes(digestInfoSize, 0x5A), signature);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    try {
        BareToken token(argv[1], argc > 3 ? argv[3] : "");
        if (std::strcmp(argv[2], "sign") == 0)
            sign(token);
        else
            open(token);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
