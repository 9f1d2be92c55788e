// Opening a provider as a list of steps, and the rules that say what a fault makes of it.

#pragma once

#include <string>
#include <vector>

#include "config/mode.h"
#include "fault_table.h"

namespace NV::test {

// The two slots of the token, each with two certificates and their keys.
inline constexpr const char* firstSlotKeys[] = {"01AB", "0256"};
inline constexpr const char* otherSlotKeys[] = {"0384", "0521"};

enum class Stage {
    functionList,
    clearing,  // of what an earlier user of the library has left
    start,
    libraryInfo,
    slotCount,
    slotList,
    slotInfo,  // these five of each slot
    tokenInfo,
    mechanismCount,
    mechanismList,
    mechanismInfo,
    discoveryEnd,
    restart,
    session,
    search,
    searchResult,
    certificateLength,  // these four of each certificate
    certificate,
    nameLength,
    name,
    searchEnd,
    keySearch,  // these three of each certificate, in modern: is there a public key of it?
    keySearchResult,
    keySearchEnd,
    sessionEnd,
    end,
};

struct Step {
    const char* function;
    Stage stage;
    size_t item;  // of the slot or the certificate, from 0
};

// The calls of a good opening, in order.
std::vector<Step> openingSteps(Behaviour behaviour);

struct ExpectedOpening {
    bool result;
    std::string calls;  // until init returns
    // The names that EnumKeys returns, each with a blank behind it.
    std::string keys;
    bool algorithms;     // are returned
    uint32_t published;  // attempts to publish a certificate
    CK_SLOT_ID slot;     // of the session, if one is opened
    bool initialised;    // how init leaves the library
    uint32_t sessionsFinalized;
    uint32_t sessionsLeft;  // until the library is finalised
    // Destroying the provider finalises the library: in classic again, in modern if the opening has
    // initialised it.
    bool finalizedAtTheEnd;
    bool initialisedAtTheEnd;  // somebody else is said to use it
};

ExpectedOpening expectedOpening(Behaviour behaviour, const std::vector<Step>& steps,
                                const FaultCase& fault);

}  // namespace NV::test
