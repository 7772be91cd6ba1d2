#pragma once

#include <cstdint>
#include <limits>

namespace kest::analytics::db {

/**
 * Time arithmetic on microseconds that saturates instead of overflowing: filters may name any
 * 64-bit period, and a bound past the ends of time means "no bound".
 */
inline constexpr std::int64_t kMaxTimeUs = std::numeric_limits<std::int64_t>::max();
inline constexpr std::int64_t kMinTimeUs = std::numeric_limits<std::int64_t>::min();

inline std::int64_t msToUs(std::int64_t ms)
{
    if (ms > kMaxTimeUs / 1000)
        return kMaxTimeUs;
    if (ms < kMinTimeUs / 1000)
        return kMinTimeUs;
    return ms * 1000;
}

/** For b >= 0. */
inline std::int64_t saturatingSub(std::int64_t a, std::int64_t b)
{
    std::int64_t out = 0;
    return __builtin_sub_overflow(a, b, &out) ? kMinTimeUs : out;
}

/** For b >= 0. */
inline std::int64_t saturatingAdd(std::int64_t a, std::int64_t b)
{
    std::int64_t out = 0;
    return __builtin_add_overflow(a, b, &out) ? kMaxTimeUs : out;
}

}  // namespace kest::analytics::db
