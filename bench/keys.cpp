// Lists keys, and opens, looks up and closes a key, with growing numbers of keys, open handles and
// open providers.

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "certified_token.h"
#include "curve.h"
#include "folder.h"
#include "opened_provider.h"

namespace NV::bench {

namespace {

constexpr size_t few = 16;
constexpr size_t some = 128;
constexpr size_t many = 1024;

using Providers = std::vector<std::unique_ptr<OpenedProvider>>;

void expectStatus(SECURITY_STATUS status, SECURITY_STATUS expected)
{
    if (status != expected)
        throw std::runtime_error("an operation of the provider fails");
}

// Finds the provider as an entry point does.
template <typename Operation>
SECURITY_STATUS call(NCRYPT_PROV_HANDLE provider, const Operation& operation)
{
    const ProviderManager::Owner registered = ProviderManager::instance().find(provider);
    return operation(*registered->provider());
}

// Lists from the first key to the end. Also releases the names, which an application cannot do: a
// heap that grows from round to round would affect the times.
void enumerate(NCRYPT_PROV_HANDLE provider, size_t keys)
{
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    const auto next = [&](Provider& open) { return open.EnumKeys(nullptr, &name, &state, 0); };
    for (size_t i = 0; i < keys; ++i) {
        expectStatus(call(provider, next), ERROR_SUCCESS);
        std::free(name->pszName);
        std::free(name->pszAlgid);
        std::free(name);
    }
    expectStatus(call(provider, next), NTE_NO_MORE_ITEMS);
    std::free(state);
}

NCRYPT_KEY_HANDLE openKey(NCRYPT_PROV_HANDLE provider, const std::wstring& name)
{
    NCRYPT_KEY_HANDLE key = 0;
    expectStatus(
        call(provider, [&](Provider& open) { return open.OpenKey(&key, name.c_str(), 0, 0); }),
        ERROR_SUCCESS);
    return key;
}

void freeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key)
{
    expectStatus(call(provider, [&](Provider& open) { return open.FreeKey(key); }), ERROR_SUCCESS);
}

void openLookUpAndFree(NCRYPT_PROV_HANDLE provider, const std::wstring& name)
{
    const NCRYPT_KEY_HANDLE key = openKey(provider, name);
    DWORD usage = 0;
    DWORD size = 0;
    expectStatus(call(provider,
                      [&](Provider& open) {
                          return open.GetKeyProperty(key, NCRYPT_KEY_USAGE_PROPERTY,
                                                     reinterpret_cast<PBYTE>(&usage), sizeof usage,
                                                     &size, 0);
                      }),
                 ERROR_SUCCESS);
    freeKey(provider, key);
}

Work listWork(NCRYPT_PROV_HANDLE provider, size_t keys)
{
    return {repeated([=] { enumerate(provider, keys); })};
}

Work oneKeyWork(NCRYPT_PROV_HANDLE provider, size_t key)
{
    return {repeated(
        [provider, name = CertifiedToken::keyName(key)] { openLookUpAndFree(provider, name); })};
}

// All keys of the token in turn.
Work eachKeyWork(NCRYPT_PROV_HANDLE provider, size_t keys)
{
    std::vector<std::wstring> names;
    for (size_t i = 0; i < keys; ++i)
        names.push_back(CertifiedToken::keyName(i));
    return {repeated([provider, names, next = size_t{0}]() mutable {
        openLookUpAndFree(provider, names[next++ % names.size()]);
    })};
}

// The curve and its growth from the first size to the last.
void addCurveAndGrowth(Results& results, const std::string& group, const std::string& name,
                       const Curve& curve, Reach reach)
{
    const size_t first = curve.sizes.front();
    const size_t last = curve.sizes.back();
    addCurve(results, {group, name, "", {}}, curve);
    addGrowth(results,
              {group,
               name + ": growth at " + std::to_string(last),
               "the same at " + std::to_string(first),
               {}},
              curve, last, first, reach);
}

// A provider for each number of keys, all open at once.
void measureNumbersOfKeys(Results& results, const std::filesystem::path& folder, const Plan& plan)
{
    const std::vector<size_t> sizes{few, some, many};
    std::vector<std::unique_ptr<CertifiedToken>> tokens;
    Providers providers;
    std::vector<Work> list;
    std::vector<Work> one;
    std::vector<Work> each;
    for (const size_t keys : sizes) {
        tokens.push_back(std::make_unique<CertifiedToken>(folder, keys));
        tokens.back()->choose();
        providers.push_back(std::make_unique<OpenedProvider>());
        const NCRYPT_PROV_HANDLE provider = providers.back()->handle();
        list.push_back(listWork(provider, keys));
        one.push_back(oneKeyWork(provider, keys / 2));
        each.push_back(eachKeyWork(provider, keys));
    }
    const char* group = "by number of keys";
    addCurveAndGrowth(results, group, "list, per key", perOne({sizes, inTurn(list, plan)}),
                      atMost(1.2));
    addCurveAndGrowth(results, group, "open, look up and free one key", {sizes, inTurn(one, plan)},
                      atMost(1.2));
    // The memory of each key has left the processor's near caches since its last turn.
    addCurveAndGrowth(results, group, "open, look up and free each key in turn",
                      {sizes, inTurn(each, plan)}, atMost(1.2));
}

// Three providers of one token, each with another number of open handles.
void measureOpenHandles(Results& results, const std::filesystem::path& folder, const Plan& plan)
{
    const std::vector<size_t> sizes{1, 100, 10000};
    const CertifiedToken token(folder, some);
    token.choose();
    Providers providers;
    std::vector<Work> list;
    std::vector<Work> one;
    for (const size_t handles : sizes) {
        providers.push_back(std::make_unique<OpenedProvider>());
        const NCRYPT_PROV_HANDLE provider = providers.back()->handle();
        // They live as long as the provider.
        for (size_t i = 0; i < handles; ++i)
            openKey(provider, CertifiedToken::keyName(i % some));
        list.push_back(listWork(provider, some));
        one.push_back(oneKeyWork(provider, some / 2));
    }
    const char* group = "by number of open handles";
    addCurveAndGrowth(results, group, "list of 128 keys", {sizes, inTurn(list, plan)}, atMost(1.2));
    addCurveAndGrowth(results, group, "open, look up and free one key", {sizes, inTurn(one, plan)},
                      atMost(1.2));
}

// The first of many open providers of one token.
void measureOpenProviders(Results& results, const std::filesystem::path& folder, const Plan& plan)
{
    const std::vector<size_t> sizes{1, 16, 64};
    const CertifiedToken token(folder, few);
    token.choose();
    Providers providers;
    providers.push_back(std::make_unique<OpenedProvider>());
    const NCRYPT_PROV_HANDLE first = providers.front()->handle();
    std::vector<Work> list;
    std::vector<Work> one;
    for (const size_t open : sizes) {
        const auto prepare = [&providers, open] {
            while (providers.size() > open)
                providers.pop_back();
            while (providers.size() < open)
                providers.push_back(std::make_unique<OpenedProvider>());
        };
        list.push_back({listWork(first, few).batch, prepare});
        one.push_back({oneKeyWork(first, few / 2).batch, prepare});
    }
    const char* group = "by number of open providers";
    addCurveAndGrowth(results, group, "list of 16 keys", {sizes, inTurn(list, plan)}, atMost(1.2));
    addCurveAndGrowth(results, group, "open, look up and free one key", {sizes, inTurn(one, plan)},
                      atMost(1.2));
}

void measureKeys(Results& results, const Plan& plan)
{
    const Plan longer = longBatches(plan);
    const test::TemporaryFolder keys;
    measureNumbersOfKeys(results, keys.path(), longer);
    const test::TemporaryFolder handles;
    measureOpenHandles(results, handles.path(), longer);
    const test::TemporaryFolder providers;
    measureOpenProviders(results, providers.path(), longer);
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, &NV::bench::measureKeys);
}
