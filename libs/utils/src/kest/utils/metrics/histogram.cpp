#include "histogram.h"

#include <algorithm>
#include <cmath>

#include <kest/utils/assert.h>

namespace kest::utils::metrics {

Histogram::Histogram(std::vector<double> upperBounds)
    : m_upperBounds(std::move(upperBounds)),
      m_buckets(std::make_unique<std::atomic<std::uint64_t>[]>(m_upperBounds.size() + 1))
{
    KEST_ASSERT(
        std::is_sorted(m_upperBounds.begin(), m_upperBounds.end()) &&
            std::adjacent_find(m_upperBounds.begin(), m_upperBounds.end()) == m_upperBounds.end(),
        "Histogram bounds must ascend strictly");
    KEST_ASSERT(std::all_of(m_upperBounds.begin(), m_upperBounds.end(),
                            [](double bound) { return std::isfinite(bound); }),
                "Histogram bounds must be finite; +Inf is implicit");
}

void Histogram::observe(double value) noexcept
{
    if (std::isnan(value))
        return;  //< It would poison the sum for good.
    // A handful of bounds: a linear scan beats a binary search's branches.
    std::size_t bucket = 0;
    while (bucket < m_upperBounds.size() && value > m_upperBounds[bucket])
        ++bucket;
    m_buckets[bucket].fetch_add(1, std::memory_order_relaxed);
    m_sum.fetch_add(value, std::memory_order_relaxed);
}

Histogram::Snapshot Histogram::snapshot() const
{
    Snapshot result;
    result.upperBounds = m_upperBounds;
    result.cumulativeCounts.reserve(m_upperBounds.size() + 1);
    std::uint64_t total = 0;
    for (std::size_t i = 0; i <= m_upperBounds.size(); ++i) {
        total += m_buckets[i].load(std::memory_order_relaxed);
        result.cumulativeCounts.push_back(total);
    }
    result.sum = m_sum.load(std::memory_order_relaxed);
    return result;
}

std::vector<double> Histogram::latencyBounds()
{
    return {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};
}

}  // namespace kest::utils::metrics
