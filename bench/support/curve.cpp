// Computes the figures of a curve.

#include "curve.h"

#include <algorithm>
#include <stdexcept>

namespace NV::bench {

namespace {

constexpr double nanosecondsInMicrosecond = 1000;

const Rounds& at(const Curve& curve, size_t size)
{
    const auto place = std::ranges::find(curve.sizes, size);
    if (place == curve.sizes.end())
        throw std::invalid_argument("the curve has no size " + std::to_string(size));
    return curve.nanoseconds[static_cast<size_t>(place - curve.sizes.begin())];
}

}  // namespace

Plan longBatches(const Plan& plan)
{
    return {std::max<size_t>(plan.pairs / 2, 3), 8 * plan.batch};
}

Curve perOne(const Curve& curve)
{
    Curve each = curve;
    for (size_t i = 0; i < each.sizes.size(); ++i) {
        for (double& time : each.nanoseconds[i])
            time /= static_cast<double>(each.sizes[i]);
    }
    return each;
}

void addCurve(Results& results, const Measure& measure, const Curve& curve)
{
    for (size_t i = 0; i < curve.sizes.size(); ++i) {
        Measure here = measure;
        here.size = static_cast<double>(curve.sizes[i]);
        Rounds microseconds = curve.nanoseconds[i];
        for (double& time : microseconds)
            time /= nanosecondsInMicrosecond;
        results.value(here, figureOf(microseconds), "us", report);
    }
}

void addGrowth(Results& results, const Measure& measure, const Curve& curve, size_t size,
               size_t otherSize, Reach reach)
{
    const Rounds& times = at(curve, size);
    const Rounds& others = at(curve, otherSize);
    Rounds ratios;
    for (size_t round = 0; round < times.size(); ++round)
        ratios.push_back(times[round] / others[round]);
    results.value(measure, figureOf(ratios), "ratio", reach);
}

}  // namespace NV::bench
