// What "keywarden prove" says of its steps: lines, a JSON document, and a page.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "output.h"
#include "prove/prove.h"

namespace NV::tool {

// Where and when a proof was made.
struct ProofPlace {
    std::string version;  // of the program
    std::string system;   // "Windows 10.0.19045"
    std::string time;     // UTC: "2026-03-01 12:00:00Z"
};
ProofPlace thisPlace(const std::string& version);

// The lines of a step: its outcome and its text, and its advice if it has one.
std::vector<std::string> linesOf(const Output& out, const Proof& proof);

// "12 steps done, 0 failed, 3 not possible here, 4 not tried."
std::string summaryOf(const std::vector<Proof>& proofs);

size_t countOf(const std::vector<Proof>& proofs, ProofOutcome outcome);

Json reportOf(const ProofPlace& place, const std::vector<Proof>& proofs);

// An HTML page without a script and without external resources.
std::string pageOf(const ProofPlace& place, const std::vector<Proof>& proofs);

}  // namespace NV::tool
