// What the two behaviours answer differently, as the model knows it: a table for each, in
// rules_classic.cpp and rules_modern.cpp. Each program has one of them.

#pragma once

#include "base/cng.h"

#include <span>
#include <string>
#include <string_view>

#include "answer.h"
#include "config/mode.h"
#include "key_facts.h"
#include "scripted_token.h"

namespace NV::fuzz {

struct PropertyRow {
    const wchar_t* name;
    Bytes (*value)(const KeyFacts& key);  // empty: the key does not have it
};

// A blob type, and what it is for an RSA and for an EC key; null: not for this key.
struct BlobRow {
    std::wstring_view type;
    Bytes (*rsa)(const KeyFacts& key);
    Bytes (*ec)(const KeyFacts& key);
};

// An algorithm. EnumAlgorithms finds it by any of `operations`.
struct AlgorithmRow {
    std::wstring_view name;
    DWORD operations;
    DWORD recordClass;
    DWORD recordOperations;
    bool supported;  // IsAlgSupported knows it
};

struct PinRow {
    Pin pin = Pin::right;
    PinOutcome outcome;
};

struct Rules {
    Behaviour behaviour;

    // Ends the run if the answer is neither the expected one nor one that the disturbance allows.
    void (*judge)(const Answer& answer, const Expected& expected, Reach reach);
    // What a fault makes of the operation whose first failure it is.
    SECURITY_STATUS (*statusOfFault)(const test::StruckFault& struck);
    // What the token's calls may fail with, besides what operations_world.cpp has.
    std::span<const CK_RV> moreCodes;
    // A claim of the token may make any output of it.
    bool claimsMakeOutputs;

    // The library and the token.
    bool keepsLibrary;         // opening begins the library, and an operation begins it again
    bool splitsLibraryPath;    // before loading
    bool filtersCertificates;  // authorities are keys if their public key is found
    bool dialogAsksToken;      // about the PIN, and does without an answer
    bool sharesLogin;          // of another part of the process; otherwise logging in fails
    std::span<const PinRow> pins;
    SECURITY_STATUS wrongPin;
    SECURITY_STATUS noToken;
    bool obeysSilentFlag;

    // Handles and names.
    bool keepsUnknownProviders;  // an unknown provider throws, and its handle gets an entry
    SECURITY_STATUS unknownKeyName;
    bool keepsUnknownNames;  // they get an entry
    bool looksUpHandles;     // of peers, and of secrets that are freed

    // Properties.
    std::span<const PropertyRow> keyProperties;
    std::span<const wchar_t* const> moreNames;    // that programs ask for
    std::span<const wchar_t* const> unsettable;   // of a key
    std::span<const wchar_t* const> replaceable;  // of a key; of others the first value stays
    std::span<const wchar_t* const> optional;     // if missing, they are not found
    bool sharesValues;                            // the handles of a key do

    // Outputs.
    bool tellsLengths;  // of outputs that are too short
    SECURITY_STATUS exportTooShort;
    std::span<const BlobRow> blobs;
    std::span<const AlgorithmRow> algorithms;
    bool tellsEmptyLists;
    bool namesApart;  // from the record of a list, in blocks that FreeBuffer does not release
    Bytes (*listedAlgorithm)(const KeyFacts& key);  // in a record of EnumKeys
    bool checksBlobs;                               // that are imported

    // Signatures and secrets.
    bool checksHashNames;  // all have a DigestInfo, and unknown ones are refused
    bool verifiesAsItSigns;
    SECURITY_STATUS badSignature;
    SECURITY_STATUS badPeer;
    SECURITY_STATUS noPrivateKey;
    std::wstring_view defaultHash;  // of a derivation
    bool shortensKeys;
};

extern const Rules rules;

inline bool contains(std::span<const wchar_t* const> names, std::wstring_view name)
{
    return std::ranges::any_of(names, [name](const wchar_t* entry) { return name == entry; });
}

}  // namespace NV::fuzz
