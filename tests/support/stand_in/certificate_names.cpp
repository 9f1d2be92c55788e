// Names in certificates, by OpenSSL.

#include <openssl/x509.h>
#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>

#include "certificates.h"
#include "freer.h"

using namespace NV::stand_in;  // the definitions below are functions of Windows

namespace {

void freeText(unsigned char* text)
{
    OPENSSL_free(text);
}

std::string commonName(const std::vector<BYTE>& der)
{
    const BYTE* end = der.data();
    const std::unique_ptr<X509, Freer<&X509_free>> certificate(
        d2i_X509(nullptr, &end, static_cast<long>(der.size())));
    if (certificate == nullptr)
        return {};
    const X509_NAME* subject = X509_get_subject_name(certificate.get());
    const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0)
        return {};
    unsigned char* utf8 = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
    // The copy can fail where a test lets memory end.
    const std::unique_ptr<unsigned char, Freer<&freeText>> text(utf8);
    if (length <= 0)
        return {};
    return {reinterpret_cast<const char*>(utf8), static_cast<size_t>(length)};
}

}  // namespace

DWORD CertGetNameStringW(PCCERT_CONTEXT context, DWORD, DWORD, void*, LPWSTR name, DWORD size)
{
    const std::string utf8 = commonName(certificateOf(context)->der());
    const int bytes = static_cast<int>(utf8.size());
    std::wstring wide(
        static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, nullptr, 0)), 0);
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, wide.data(), static_cast<int>(wide.size()));
    if (name == nullptr)
        return static_cast<DWORD>(wide.size() + 1);
    if (size == 0)
        return 0;
    const size_t length = std::min<size_t>(wide.size(), size - 1);
    std::copy_n(wide.begin(), length, name);
    name[length] = L'\0';
    return static_cast<DWORD>(length + 1);
}
