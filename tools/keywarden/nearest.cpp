// Distances between words: optimal string alignment.

#include "nearest.h"

#include <algorithm>
#include <cstddef>
#include <tuple>
#include <utility>

namespace NV::tool {

size_t editDistance(std::string_view a, std::string_view b)
{
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        cost[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j)
        cost[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            cost[i][j] =
                std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

std::string nearest(std::string_view word, const std::vector<std::string>& candidates)
{
    std::string best;
    size_t least = std::max<size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : candidates) {
        const size_t found = editDistance(word, candidate);
        if (found < least)
            std::tie(best, least) = std::pair(candidate, found);
    }
    return best;
}

}  // namespace NV::tool
