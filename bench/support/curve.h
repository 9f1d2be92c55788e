// A measure at several sizes: its rows for plotting, and its growth from one size to another.

#pragma once

#include <string>
#include <vector>

#include "results.h"

namespace NV::bench {

struct Curve {
    std::vector<size_t> sizes;
    std::vector<Rounds> nanoseconds;  // by size; the rounds of all were timed in turn
};

// Fewer and longer batches, so that other load affects pieces of work of very different length
// alike.
Plan longBatches(const Plan& plan);

// The time of each round divided by the size.
Curve perOne(const Curve& curve);

// One row for each size, in microseconds.
void addCurve(Results& results, const Measure& measure, const Curve& curve);

// One row: the ratio to the other size, round by round.
void addGrowth(Results& results, const Measure& measure, const Curve& curve, size_t size,
               size_t otherSize, Reach reach);

}  // namespace NV::bench
