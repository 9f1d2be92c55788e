// Runs batches in turn and computes their medians and quartiles.

#include "measure.h"

#include <algorithm>

namespace NV::bench {

namespace {

using Clock = std::chrono::steady_clock;

double nanosecondsARun(const Batch& batch, size_t runs)
{
    const Clock::time_point start = Clock::now();
    batch(runs);
    const std::chrono::duration<double, std::nano> elapsed = Clock::now() - start;
    return elapsed.count() / static_cast<double>(runs);
}

// The number of runs that fill the time. The runs that determine it are the warm-up.
size_t runsFor(const Batch& batch, std::chrono::nanoseconds time)
{
    const auto wanted = static_cast<double>(time.count());
    for (size_t runs = 1;; runs *= 4) {
        const double each = nanosecondsARun(batch, runs);
        if (each * static_cast<double>(runs) >= wanted / 4)
            return std::max<size_t>(1, static_cast<size_t>(wanted / std::max(each, 0.1)));
    }
}

double quantile(const std::vector<double>& sorted, double part)
{
    const double place = part * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<size_t>(place);
    const size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (place - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

}  // namespace

Figure figureOf(std::vector<double> values)
{
    std::ranges::sort(values);
    return {quantile(values, 0.5), quantile(values, 0.25), quantile(values, 0.75)};
}

Comparison compareTimed(const TimedRun& subject, const TimedRun& reference, size_t pairs)
{
    subject();
    reference();
    std::vector<double> subjects;
    std::vector<double> references;
    std::vector<double> ratios;
    std::vector<double> differences;
    for (size_t pair = 0; pair < pairs; ++pair) {
        double a = 0;
        double b = 0;
        if (pair % 2 == 0) {
            a = subject();
            b = reference();
        } else {
            b = reference();
            a = subject();
        }
        subjects.push_back(a);
        references.push_back(b);
        ratios.push_back(a / b);
        differences.push_back(a - b);
    }
    return {figureOf(std::move(subjects)),
            figureOf(std::move(references)),
            figureOf(std::move(ratios)),
            figureOf(std::move(differences)),
            pairs,
            1};
}

Comparison compare(const Batch& subject, const Batch& reference, const Plan& plan)
{
    const size_t runs = std::min(runsFor(subject, plan.batch), runsFor(reference, plan.batch));
    Comparison comparison =
        compareTimed([&] { return nanosecondsARun(subject, runs); },
                     [&] { return nanosecondsARun(reference, runs); }, plan.pairs);
    comparison.runsInBatch = runs;
    return comparison;
}

std::vector<Rounds> inTurn(const std::vector<Work>& works, const Plan& plan)
{
    std::vector<size_t> runs;
    for (const Work& work : works) {
        work.prepare();
        runs.push_back(runsFor(work.batch, plan.batch));
    }
    std::vector<Rounds> rounds(works.size());
    for (size_t round = 0; round < plan.pairs; ++round) {
        for (size_t i = 0; i < works.size(); ++i) {
            const size_t turn = round % 2 == 0 ? i : works.size() - 1 - i;
            works[turn].prepare();
            rounds[turn].push_back(nanosecondsARun(works[turn].batch, runs[turn]));
        }
    }
    return rounds;
}

Figure measure(const Batch& work, const Plan& plan)
{
    const size_t runs = runsFor(work, plan.batch);
    std::vector<double> values;
    for (size_t i = 0; i < plan.pairs; ++i)
        values.push_back(nanosecondsARun(work, runs));
    return figureOf(std::move(values));
}

}  // namespace NV::bench
