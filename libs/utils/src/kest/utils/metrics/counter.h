#pragma once

#include <atomic>
#include <cstdint>

namespace kest::utils::metrics {

/**
 * A count that only goes up, added to from any thread without a lock: one relaxed atomic add,
 * cheap enough for every packet.
 */
class Counter
{
public:
    void add(std::uint64_t amount = 1) noexcept
    {
        m_value.fetch_add(amount, std::memory_order_relaxed);
    }
    std::uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> m_value{0};
};

}  // namespace kest::utils::metrics
