// What the threads do.

#include "thread_scenarios.h"

#include <array>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "base/scope_exit.h"
#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"
#include "together.h"

namespace NV::test {

namespace {

using namespace std::chrono_literals;

constexpr SECURITY_STATUS success = ERROR_SUCCESS;

// So many operations, one kind after the other, beginning with another one on each thread.
template <typename Work>
void run(Work& work, int thread, size_t operations, const KnownResults& known,
         Complaints& complaints)
{
    const auto kinds = Work::kinds();
    for (size_t i = 0; i < operations; ++i) {
        const auto& kind = kinds[(i + static_cast<size_t>(thread)) % kinds.size()];
        complaints.addUnless((work.*kind.run)(known),
                             "thread " + std::to_string(thread) + " could not " + kind.name);
    }
}

// All kinds so many times.
template <typename Work>
void runAll(Work& work, int thread, int rounds, const KnownResults& known, Complaints& complaints)
{
    run(work, thread, Work::kinds().size() * static_cast<size_t>(rounds), known, complaints);
}

const KnownResults& ofThread(const std::vector<KnownResults>& known, int thread)
{
    return known.at(static_cast<size_t>(thread));
}

// Two providers with an agreed secret.
struct TwoProviders {
    explicit TwoProviders(const ThreadedToken& token)
        : first(token.module), second(token.module),
          secret(token.module, first.handle(), token.facts),
          works{PublicWork(token.module, first.handle(), token.facts, secret.handle()),
                PublicWork(token.module, second.handle(), token.facts, secret.handle())}
    {
    }

    OpenedProvider first;
    OpenedProvider second;
    AgreedByDialog secret;
    std::array<PublicWork, 2> works;
};

// A provider that only one thread uses at a time.
void openUseAndFree(const ThreadedToken& token, NCRYPT_SECRET_HANDLE secret, int thread,
                    const KnownResults& known, Complaints& complaints)
{
    const std::string who = "thread " + std::to_string(thread);
    NCRYPT_PROV_HANDLE provider = 0;
    if (token.module->OpenProvider(&provider, providerName, 0) != success) {
        complaints.add(who + " could not open a provider");
        return;
    }
    {
        PublicWork work(token.module, provider, token.facts, secret);
        runAll(work, thread, 1, known, complaints);
    }
    complaints.addUnless(token.module->FreeProvider(provider) == success,
                         who + " could not free its provider");
}

// A provider with one opened key, for work that ends with the provider.
struct BareProvider {
    explicit BareProvider(const ThreadedToken& served) : token(served), module(served.module)
    {
        if (module->OpenProvider(&provider, providerName, 0) != success ||
            module->OpenKey(provider, &key, served.facts.rsaKey.c_str(), 0, 0) != success)
            throw std::runtime_error("no provider with a key");
    }

    SECURITY_STATUS verify(KnownResults known) const
    {
        return module->VerifySignature(
            provider, key, nullptr, known.hash.data(), static_cast<DWORD>(known.hash.size()),
            known.rsaSignature.data(), static_cast<DWORD>(known.rsaSignature.size()), 0);
    }

    // Whether the handle is no provider's any more.
    bool gone() const
    {
        return token.unknownTo([&] {
            DWORD length = 0;
            return module->GetProviderProperty(provider, NCRYPT_NAME_PROPERTY, nullptr, 0, &length,
                                               0);
        });
    }

    const ThreadedToken& token;
    const ProviderModule& module;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
};

// Verifies until the provider is gone.
void verifyToTheEnd(const BareProvider& provider, const KnownResults& known,
                    std::atomic<int>& verified, Complaints& complaints)
{
    SECURITY_STATUS status = success;
    while (!provider.token.unknownTo([&] { return status = provider.verify(known); })) {
        complaints.addUnless(status == success, "a verification failed");
        ++verified;
        if (status != success)
            return;
    }
}

}  // namespace

std::string workOnTwoProviders(const ThreadedToken& token, int operations)
{
    TwoProviders providers(token);
    return runTogether(threadCount, [&](int thread, Complaints& complaints) {
        run(providers.works[static_cast<size_t>(thread) % 2], thread,
            static_cast<size_t>(operations), ofThread(token.known, thread), complaints);
    });
}

std::string workWithDialogs(const ThreadedToken& token, int rounds)
{
    constexpr int dialogThreads = threadCount / 2;
    TwoProviders providers(token);
    std::array<DialogWork, 2> works{
        DialogWork(token.module, providers.first.handle(), token.facts),
        DialogWork(token.module, providers.second.handle(), token.facts)};
    // Calls on the two would wait for their dialogs.
    const OpenedProvider third(token.module);
    PublicWork others(token.module, third.handle(), token.facts, providers.secret.handle());
    const int dialogs = dialogThreads * rounds * static_cast<int>(DialogWork::kinds().size());
    const DialogDriver user(DialogDriver::entering(token.facts.pin), dialogs);
    std::atomic<int> busy = dialogThreads;
    return runTogether(threadCount, [&](int thread, Complaints& found) {
        const KnownResults& known = ofThread(token.known, thread);
        if (thread < dialogThreads) {
            const ScopeExit done([&] { --busy; });
            runAll(works[static_cast<size_t>(thread) % 2], thread, rounds, known, found);
            return;
        }
        for (int i = thread; busy > 0; ++i) {
            run(others, i, 1, known, found);
            std::this_thread::sleep_for(1ms);
        }
    });
}

std::string openAndFreeProviders(const ThreadedToken& token, int rounds)
{
    TwoProviders providers(token);
    return runTogether(threadCount, [&](int thread, Complaints& complaints) {
        const KnownResults& known = ofThread(token.known, thread);
        if (thread % 2 == 0) {
            runAll(providers.works[0], thread, 2 * rounds, known, complaints);
            return;
        }
        for (int i = 0; i < rounds; ++i)
            openUseAndFree(token, providers.secret.handle(), thread, known, complaints);
    });
}

std::string freeAProviderInUse(const ThreadedToken& token, int rounds)
{
    std::string all;
    for (int round = 0; round < rounds; ++round) {
        const BareProvider provider(token);
        std::atomic<int> verified = 0;
        all += runTogether(threadCount, [&](int thread, Complaints& complaints) {
            if (thread != 0) {
                verifyToTheEnd(provider, ofThread(token.known, thread), verified, complaints);
                return;
            }
            // So that the others are well under way, at another point each time.
            while (verified <= round % 10)
                std::this_thread::yield();
            complaints.addUnless(token.module->FreeProvider(provider.provider) == success,
                                 "the provider could not be freed");
        });
    }
    return all;
}

std::string freeUnderAnOpenDialog(const ThreadedToken& token)
{
    const KnownResults& known = token.known.front();
    const BareProvider provider(token);
    Complaints complaints;
    bool freed = false;
    Bytes hash = known.hash;
    Bytes signature(known.rsaSignature.size());
    DWORD length = 0;
    {
        const DialogDriver user([&](const PinDialogWindow& dialog) {
            std::thread([&] {
                freed = token.module->FreeProvider(provider.provider) == success;
            }).join();
            complaints.addUnless(freed, "the provider could not be freed");
            complaints.addUnless(dialog.isOpen(), "the dialog was closed");
            complaints.addUnless(provider.gone(), "the handle was still known");
            dialog.type(token.facts.pin);
            dialog.pressOk();
        });
        const SECURITY_STATUS status = token.module->SignHash(
            provider.provider, provider.key, nullptr, hash.data(), static_cast<DWORD>(hash.size()),
            signature.data(), static_cast<DWORD>(signature.size()), &length, 0);
        complaints.addUnless(status == success && signature == known.rsaSignature,
                             "the signature is not the known one");
    }
    complaints.addUnless(freed, "the dialog did not come");
    return complaints.text();
}

std::string workWithPins(const std::string& library, const TokenFacts& facts,
                         const std::vector<KnownResults>& known, int rounds)
{
    loggerSettings().types = 0;
    std::array<PinWork, 2> works{PinWork(library, facts), PinWork(library, facts)};
    return runTogether(threadCount, [&](int thread, Complaints& complaints) {
        runAll(works[static_cast<size_t>(thread) % 2], thread, rounds, ofThread(known, thread),
               complaints);
    });
}

}  // namespace NV::test
