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

// Fewer and longer batches: works of very different lengths then get like shares of what else the
// machine does.
Plan longBatches(const Plan& plan);

// Each round's time divided by the size: the time of one of so many.
Curve perOne(const Curve& curve);

// A row a size, in microseconds.
void addCurve(Results& results, const Measure& measure, const Curve& curve);

// One row: how many times what it is at the other size, round by round.
void addGrowth(Results& results, const Measure& measure, const Curve& curve, size_t size,
               size_t otherSize, Reach reach);

}  // namespace NV::bench
