#include "latency_stats.h"

#include <algorithm>
#include <cmath>

namespace kest::bench {

std::chrono::nanoseconds LatencyStats::percentile(double percent) const
{
    if (m_samples.empty())
        return {};
    std::vector<std::chrono::nanoseconds> sorted = m_samples;
    const auto rank = static_cast<std::size_t>(std::ceil(percent / 100.0 * sorted.size()));
    const std::size_t index = std::clamp<std::size_t>(rank, 1, sorted.size()) - 1;
    std::nth_element(sorted.begin(), sorted.begin() + index, sorted.end());
    return sorted[index];
}

}  // namespace kest::bench
