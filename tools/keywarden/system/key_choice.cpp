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
#include "system/token_objects.h"
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

// The texts that stand for the key of an object.
std::vector<std::wstring> textsOf(const TokenObject& object)
{
    std::vector<std::wstring> texts = {fromUtf8(object.label)};
    const Certificate certificate = certificateOf(object.certificate);
    if (object.certificate.empty() || certificate == nullptr)
        return texts;
    texts.push_back(fromUtf8(subjectOf(*certificate)));
    for (const char* hash : {"sha1", "sha256"})
        texts.push_back(fromUtf8(hexEncode(hashBytes(object.certificate, hashNamed(hash)))));
    return texts;
}

bool standsFor(const std::wstring& wanted, const TokenObject& object)
{
    return std::ranges::any_of(textsOf(object), [&](const std::wstring& text) {
        return !text.empty() &&
               (sameText(wanted, text) || sameText(withoutSeparators(wanted), text));
    });
}

// The keys that the text stands for, each with a word on it for people.
std::map<std::wstring, std::string> candidates(const std::vector<std::wstring>& names,
                                               const std::wstring& wanted)
{
    std::map<std::wstring, std::string> found;
    for (const TokenObject& object : tokenObjects()) {
        const bool isKey = std::ranges::find(names, object.keyName) != names.end();
        if (!isKey || !standsFor(wanted, object))
            continue;
        std::string& about = found[object.keyName];
        const Certificate certificate = certificateOf(object.certificate);
        if (certificate != nullptr && about.empty())
            about = subjectOf(*certificate) + ", to " + expiryOf(*certificate);
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
    for (const auto& [key, about] : found)
        all.push_back(toUtf8(key) + (about.empty() ? "" : " (" + about + ")"));
    throw Failure("\"" + wanted + "\" stands for " + std::to_string(found.size()) + " keys",
                  "Use the name of one of them: " + joined(all));
}

}  // namespace NV::tool
