// Times two pieces of work in turn, so that other load affects both, and computes their ratio.
// Portable; used by every benchmark.

#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace NV::bench {

// A median and the quartiles around it.
struct Figure {
    double median = 0;
    double low = 0;
    double high = 0;
};

// Of single measured values; there must be at least one.
Figure figureOf(std::vector<double> values);

// Two works, A and B. Times are nanoseconds a run.
struct Comparison {
    Figure subject;     // A
    Figure reference;   // B
    Figure ratio;       // A / B of each pair of batches
    Figure difference;  // A - B of each pair of batches
    size_t pairs = 0;
    size_t runsInBatch = 0;
};

// The length of a measurement. A batch has as many runs as fill the time, at least one.
struct Plan {
    size_t pairs = 41;
    std::chrono::nanoseconds batch = std::chrono::milliseconds(20);
};

// Does the work that many times in a row.
using Batch = std::function<void(size_t runs)>;

// The loop is inside, so that the cost of calls does not hide a run of a few nanoseconds.
template <typename Work>
Batch repeated(Work work)
{
    return [work = std::move(work)](size_t runs) mutable {
        for (size_t i = 0; i < runs; ++i)
            work();
    };
}

// A run that times itself, in nanoseconds, for work with parts that are not measured.
using TimedRun = std::function<double()>;

// Batches A B, B A, A B, ... after warm-up batches of each that are not counted.
Comparison compare(const Batch& subject, const Batch& reference, const Plan& plan);
// The same with single runs instead of batches.
Comparison compareTimed(const TimedRun& subject, const TimedRun& reference, size_t pairs);

// One piece of work, in nanoseconds per run, for figures without a comparison.
Figure measure(const Batch& work, const Plan& plan);

// One of several pieces of work, and the preparation of its batches, which is not timed.
struct Work {
    Batch batch;
    std::function<void()> prepare = [] {};
};

// One batch of each piece of work in every round, alternately from the first to the last and back.
// Nanoseconds per run, by piece of work, then by round. Each has its own number of runs in a batch.
using Rounds = std::vector<double>;
std::vector<Rounds> inTurn(const std::vector<Work>& works, const Plan& plan);

// Makes the compiler assume that the value is read, so that it does not remove its computation.
template <typename Value>
void keep(const Value& value)
{
    asm volatile("" : : "r"(&value) : "memory");
}

}  // namespace NV::bench
