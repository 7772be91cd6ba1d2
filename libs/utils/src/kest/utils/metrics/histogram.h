#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace kest::utils::metrics {

/**
 * Observations counted into fixed buckets, with their sum, from any thread without a lock. The
 * bounds are fixed at construction; an observation goes to the first bucket whose upper bound
 * is not below it, or to the implicit +Inf bucket.
 */
class Histogram
{
public:
    struct Snapshot
    {
        std::vector<double> upperBounds;
        /** Per bound, the observations at or below it; one more entry for +Inf (= count). */
        std::vector<std::uint64_t> cumulativeCounts;
        double sum = 0;

        std::uint64_t count() const
        {
            return cumulativeCounts.empty() ? 0 : cumulativeCounts.back();
        }
    };

    /** `upperBounds` ascending and finite; asserted. */
    explicit Histogram(std::vector<double> upperBounds);

    void observe(double value) noexcept;
    /** Observes the duration in seconds. */
    void observe(std::chrono::steady_clock::duration duration) noexcept
    {
        observe(std::chrono::duration<double>(duration).count());
    }

    /**
     * The counts as they are now. Observations that land meanwhile may be in some buckets and not
     * yet in the sum; each bucket is exact.
     */
    Snapshot snapshot() const;
    const std::vector<double>& upperBounds() const { return m_upperBounds; }

    /** Seconds from 1 ms to 10 s, for request and lookup latencies. */
    static std::vector<double> latencyBounds();

private:
    std::vector<double> m_upperBounds;
    /** Not cumulative; the last one is +Inf. */
    std::unique_ptr<std::atomic<std::uint64_t>[]> m_buckets;
    std::atomic<double> m_sum{0};
};

}  // namespace kest::utils::metrics
