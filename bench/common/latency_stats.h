#pragma once

#include <chrono>
#include <vector>

namespace kest::bench {

/** Collects the durations of repeated operations and reports their percentiles. */
class LatencyStats
{
public:
    void add(std::chrono::nanoseconds duration) { m_samples.push_back(duration); }
    void add(const LatencyStats& other)
    {
        m_samples.insert(m_samples.end(), other.m_samples.begin(), other.m_samples.end());
    }
    std::size_t count() const { return m_samples.size(); }

    /** Nearest-rank percentile, `percent` in (0, 100]; zero when nothing was added. */
    std::chrono::nanoseconds percentile(double percent) const;

private:
    std::vector<std::chrono::nanoseconds> m_samples;
};

}  // namespace kest::bench
