// What eight threads do with one token at once. Every function gives what went wrong as a text,
// empty when nothing did; see together.h. A round is one operation of every kind. The same on every
// token.

#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "config/mode.h"
#include "token_work.h"

namespace NV::test {

inline constexpr int threadCount = 8;

struct ThreadedToken {
    const ProviderModule& module;
    const TokenFacts& facts;
    const std::vector<KnownResults>& known;  // each thread has its own
    Behaviour behaviour = Behaviour::classic;

    // Makes a call with a handle of a provider. Whether the handle was unknown: an exception in classic,
    // a status in modern.
    template <typename Call>
    bool unknownTo(const Call& call) const
    {
        try {
            return call() == NTE_INVALID_HANDLE && behaviour == Behaviour::modern;
        } catch (const std::out_of_range&) {
            return behaviour == Behaviour::classic;
        }
    }
};

// Half of the threads on each of two providers, so many operations each, of all kinds without PIN.
std::string workOnTwoProviders(const ThreadedToken& token, int operations);

// Half of the threads open dialogs, for all kinds of work with PIN, on both of two providers; the
// others work without PIN on a third one as long as those do.
std::string workWithDialogs(const ThreadedToken& token, int rounds);

// Half of the threads open providers of their own, use and free them; the others work on one that
// stays.
std::string openAndFreeProviders(const ThreadedToken& token, int rounds);

// A provider is freed in the middle of the other threads' work on it: what they begin before that
// ends well, and then its handle is unknown.
std::string freeAProviderInUse(const ThreadedToken& token, int rounds);

// A provider is freed while its dialog is open on another thread: that does not wait, and both
// succeed.
std::string freeUnderAnOpenDialog(const ThreadedToken& token);

// Two sets of the module's objects on one library, each for half of the threads, with all kinds of
// work with PIN. The library is named by its UTF-8 path.
std::string workWithPins(const std::string& library, const TokenFacts& facts,
                         const std::vector<KnownResults>& known, int rounds);

}  // namespace NV::test
