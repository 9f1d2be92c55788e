// Comparing what the user typed with what names a key.

#include "system/key_choice.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

#include "failure.h"
#include "formats/certificate.h"
#include "formats/hashing.h"
#include "system/key_storage.h"
#include "system/token_contents.h"
#include "text.h"

namespace NV::tool {

namespace {

bool sameText(const std::wstring& a, const std::wstring& b)
{
    return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(),
                                static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

// Programs show thumbprints with spaces or colons.
std::wstring withoutSeparators(std::wstring text)
{
    std::erase_if(text, [](wchar_t c) { return c == L' ' || c == L':'; });
    return text;
}

// The texts that stand for the key of a certificate.
std::vector<std::wstring> textsOf(const TokenCertificate& certificate)
{
    std::vector<std::wstring> texts;
    for (const std::string& label : certificate.labels)
        texts.push_back(fromUtf8(label));
    const Certificate context = certificateFrom(certificate.der);
    if (context == nullptr)
        return texts;
    texts.push_back(fromUtf8(subjectOf(*context)));
    for (const char* hash : {"sha1", "sha256"})
        texts.push_back(fromUtf8(hexEncode(hashBytes(certificate.der, hashNamed(hash)))));
    return texts;
}

bool standsFor(const std::wstring& wanted, const TokenCertificate& certificate)
{
    return std::ranges::any_of(textsOf(certificate), [&](const std::wstring& text) {
        return !text.empty() &&
               (sameText(wanted, text) || sameText(withoutSeparators(wanted), text));
    });
}

// The keys that the text stands for, each with a word on it for people.
std::map<std::wstring, std::string> candidates(const std::vector<std::wstring>& names,
                                               const std::wstring& wanted)
{
    std::map<std::wstring, std::string> found;
    const TokenContents token = readToken();
    for (const TokenCertificate& certificate : token.certificates) {
        const bool isKey = std::ranges::find(names, certificate.keyName) != names.end();
        if (!isKey || !standsFor(wanted, certificate))
            continue;
        std::string& about = found[certificate.keyName];
        const Certificate context = certificateFrom(certificate.der);
        if (context != nullptr && about.empty())
            about = subjectOf(*context) + ", to " + expiryOf(*context);
    }
    return found;
}

std::string listOf(const std::vector<std::wstring>& names)
{
    std::vector<std::string> texts;
    std::ranges::transform(names, std::back_inserter(texts),
                           [](const std::wstring& name) { return toUtf8(name); });
    return texts.empty() ? "none" : joined(texts);
}

}  // namespace

std::wstring chooseKey(const KeyStorage& storage, const std::string& wanted)
{
    const std::vector<std::wstring> names = storage.keyNames();
    const std::wstring text = fromUtf8(wanted);
    const auto name =
        std::ranges::find_if(names, [&](const std::wstring& one) { return sameText(one, text); });
    if (name != names.end())
        return *name;
    const auto found =
        text.empty() ? std::map<std::wstring, std::string>() : candidates(names, text);
    if (found.empty())
        throw Failure("there is no key \"" + wanted + "\"", "The provider's keys: " + listOf(names),
                      ExitCode::noTokenOrKey);
    if (found.size() == 1)
        return found.begin()->first;
    std::vector<std::string> all;
    all.reserve(found.size());
    for (const auto& [key, about] : found)
        all.push_back(toUtf8(key) + (about.empty() ? "" : " (" + about + ")"));
    throw Failure("\"" + wanted + "\" stands for " + std::to_string(found.size()) + " keys",
                  "Use the name of one of them: " + joined(all));
}

}  // namespace NV::tool
