// The algorithms that a provider names. The lists of Provider are those of classic; modern names what
// the keys can do.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <span>
#include <string_view>
#include <vector>

#include "base/scope_exit.h"
#include "config/mode.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_memory.h"

namespace NV {

namespace {

struct KeyAlgorithm {
    const wchar_t* name;
    DWORD interfaceNumber;
    DWORD operations;
};

constexpr KeyAlgorithm keyAlgorithms[] = {
    {L"RSA", 3, NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION},
    {L"ECDH_P256", 4, NCRYPT_SECRET_AGREEMENT_OPERATION},
    {L"ECDH_P384", 4, NCRYPT_SECRET_AGREEMENT_OPERATION},
    {L"ECDH_P521", 4, NCRYPT_SECRET_AGREEMENT_OPERATION},
    {L"ECDSA_P256", 5, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P384", 5, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P521", 5, NCRYPT_SIGNATURE_OPERATION},
};

// The records of the algorithms with one of the operations, for EnumAlgorithms.
SECURITY_STATUS listKeyAlgorithms(std::span<const KeyAlgorithm> algorithms, DWORD dwAlgOperations,
                                  DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList)
{
    std::vector<KeyAlgorithm> wanted;
    size_t characters = 0;
    for (const KeyAlgorithm& algorithm : algorithms) {
        if ((algorithm.operations & dwAlgOperations) == 0)
            continue;
        wanted.push_back(algorithm);
        characters += std::wcslen(algorithm.name) + 1;
    }
    if (wanted.empty()) {
        *pdwAlgCount = 0;
        *ppAlgList = nullptr;
        return ERROR_SUCCESS;
    }
    auto records = allocateWithTexts<NCryptAlgorithmName>(wanted.size(), characters);
    if (records == nullptr)
        return NTE_NO_MEMORY;
    TextsBehind names(records.get() + wanted.size());
    NCryptAlgorithmName* record = records.get();
    for (const KeyAlgorithm& algorithm : wanted)
        *record++ = {names.add(algorithm.name), algorithm.interfaceNumber, algorithm.operations, 0};
    *pdwAlgCount = static_cast<DWORD>(wanted.size());
    *ppAlgList = records.release();
    return ERROR_SUCCESS;
}

// The algorithms of one kind of operation, in classic.
struct AlgorithmGroup {
    DWORD operation;
    const std::vector<const wchar_t*>& names;
    DWORD interfaceNumber;
};

size_t algorithmCount(std::span<const AlgorithmGroup> groups, DWORD dwAlgOperations)
{
    size_t count = 0;
    for (const AlgorithmGroup& group : groups)
        count += (dwAlgOperations & group.operation) != 0 ? group.names.size() : 0;
    return count;
}

// One block with `count` records, and a block for each name. Null if there is no memory.
HeapBlock<NCryptAlgorithmName> algorithmRecords(std::span<const AlgorithmGroup> groups,
                                                DWORD dwAlgOperations, size_t count)
{
    auto records = allocateOnHeap<NCryptAlgorithmName>(count * sizeof(NCryptAlgorithmName));
    NCryptAlgorithmName* end = records.get();
    Undo freeNames([&] {
        for (const NCryptAlgorithmName& record : std::span(records.get(), end))
            std::free(record.pszName);
    });
    for (const AlgorithmGroup& group : groups) {
        if ((dwAlgOperations & group.operation) == 0 || records == nullptr)
            continue;
        for (const wchar_t* name : group.names) {
            auto copy = copyToHeap(name);
            if (copy == nullptr)
                return nullptr;
            // Compat: dwClass is the operation's bit and dwAlgOperations the interface number.
            // FreeBuffer releases the array, but not the names.
            *end++ = {copy.release(), group.operation, group.interfaceNumber, 0};
        }
    }
    freeNames.commit();
    return records;
}

bool contains(const std::vector<const wchar_t*>& names, std::wstring_view name)
{
    return std::ranges::find(names, name, [](const wchar_t* entry) {
               return std::wstring_view(entry);
           }) != names.end();
}

}  // namespace

// Compat: the lists do not depend on the token's mechanisms, and the log shows the name of this
// function.
void Provider::setAlgorisms(const P11Slot&)
{
    const Trace trace(NV_HERE);
    hashAlgorithms_ = {L"SHA1", L"SHA256", L"SHA384", L"SHA512", L"MD2", L"MD4", L"MD5"};
    asymmetricEncryptionAlgorithms_ = {L"RSA", L"ECDSA"};
    secretAgreementAlgorithms_ = {L"ECDH_P256", L"ECDH_P384", L"ECDH_P521"};
    signatureAlgorithms_ = {L"RSA_SIGN", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521"};
    rngAlgorithms_ = {L"RNG"};
    trace.leave();
}

SECURITY_STATUS Provider::IsAlgSupported(LPCWSTR pszAlgId, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(text("pszAlgId", pszAlgId), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszAlgId == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    const bool supported =
        mode().listsKeyAlgorithms() ? isKeyAlgorithm(pszAlgId) : isListed(pszAlgId);
    return trace.end(supported ? ERROR_SUCCESS : NTE_NOT_SUPPORTED);
}

bool Provider::isKeyAlgorithm(std::wstring_view name) const
{
    return slot_ != nullptr && std::ranges::find(keyAlgorithms, name, [](const auto& algorithm) {
                                   return std::wstring_view(algorithm.name);
                               }) != std::end(keyAlgorithms);
}

// Compat: the names of signature algorithms count as not supported.
bool Provider::isListed(std::wstring_view name) const
{
    const AlgorithmNames* const lists[] = {&hashAlgorithms_, &asymmetricEncryptionAlgorithms_,
                                           &cipherAlgorithms_, &rngAlgorithms_,
                                           &secretAgreementAlgorithms_};
    return std::ranges::any_of(lists, [name](const auto* names) { return contains(*names, name); });
}

SECURITY_STATUS Provider::EnumAlgorithms(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(flagBits("dwAlgOperations", dwAlgOperations),
                    pointer("pdwAlgCount", pdwAlgCount), pointer("ppAlgList", ppAlgList),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pdwAlgCount == nullptr || ppAlgList == nullptr || dwAlgOperations == 0)
        return trace.end(NTE_INVALID_PARAMETER);
    if (!mode().listsKeyAlgorithms())
        return trace.end(listByOperation(dwAlgOperations, pdwAlgCount, ppAlgList));
    // Without a token there are no keys.
    const auto algorithms =
        std::span(keyAlgorithms).first(slot_ != nullptr ? std::size(keyAlgorithms) : 0);
    return trace.end(listKeyAlgorithms(algorithms, dwAlgOperations, pdwAlgCount, ppAlgList));
}

// The lists of classic.
SECURITY_STATUS Provider::listByOperation(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                          NCryptAlgorithmName** ppAlgList) const
{
    const AlgorithmGroup groups[] = {
        {NCRYPT_CIPHER_OPERATION, cipherAlgorithms_, 0},
        {NCRYPT_HASH_OPERATION, hashAlgorithms_, 0},
        {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, asymmetricEncryptionAlgorithms_, 3},
        {NCRYPT_SECRET_AGREEMENT_OPERATION, secretAgreementAlgorithms_, 4},
        {NCRYPT_SIGNATURE_OPERATION, signatureAlgorithms_, 5},
        {NCRYPT_RNG_OPERATION, rngAlgorithms_, 0},
    };
    const size_t count = algorithmCount(groups, dwAlgOperations);
    if (count != 0) {
        auto records = algorithmRecords(groups, dwAlgOperations, count);
        if (records == nullptr)
            return NTE_NO_MEMORY;
        *pdwAlgCount = static_cast<DWORD>(count);
        *ppAlgList = records.release();
    }
    return ERROR_SUCCESS;
}

}  // namespace NV
