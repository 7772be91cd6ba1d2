#pragma once

#include <cstdint>
#include <optional>

namespace kest::analytics::db {

/**
 * Box coordinates as the storage keeps them: whole millionths, which delta-code into a byte or
 * two. A value goes in as millionths when that keeps it within 1e-6 and, if it was written with
 * at most 6 significant digits (0.1, 0.0123456), gives back that very number; any other value
 * (a short decimal below 0.1 with more places, a huge or non-finite one) is kept as written.
 */
class FixedPoint
{
public:
    static constexpr double kScale = 1e6;

    /** The millionths that stand for `value`, or nothing when it must be kept exactly. */
    static std::optional<std::int64_t> units(double value);
    /** The millionths nearest to `value` (0 for what has none), for predictions. */
    static std::int64_t nearestUnits(double value);
    static double value(std::int64_t units) { return static_cast<double>(units) / kScale; }

    /** Whether `value` is the double of a decimal with at most 6 significant digits. */
    static bool isShortDecimal(double value);
};

}  // namespace kest::analytics::db
