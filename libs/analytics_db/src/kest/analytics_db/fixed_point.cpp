#include "fixed_point.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace kest::analytics::db {

namespace {

/** Far inside the range where a double holds every millionth exactly enough to round back. */
constexpr double kLimit = 1e9;

constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

/** 10^k for k from kFirstDecade on: the decade of a value by comparison, not by a logarithm. */
constexpr int kFirstDecade = -17;
constexpr double kDecades[] = {1e-17, 1e-16, 1e-15, 1e-14, 1e-13, 1e-12, 1e-11, 1e-10,
                               1e-9,  1e-8,  1e-7,  1e-6,  1e-5,  1e-4,  1e-3,  1e-2,
                               1e-1,  1e0,   1e1,   1e2,   1e3,   1e4,   1e5,   1e6};

/**
 * floor(log10(magnitude)) for a magnitude within the table (exact: no double lies between a
 * power of ten and the double nearest to it); nothing outside it.
 */
std::optional<int> decadeOf(double magnitude)
{
    if (!(magnitude >= kDecades[0]) || magnitude >= kDecades[std::size(kDecades) - 1])
        return std::nullopt;
    const double* above = std::upper_bound(std::begin(kDecades), std::end(kDecades), magnitude);
    return static_cast<int>(above - std::begin(kDecades)) - 1 + kFirstDecade;
}

}  // namespace

std::optional<std::int64_t> FixedPoint::units(double value)
{
    if (!(std::fabs(value) < kLimit))
        return std::nullopt;  //< Also NaN.
    const auto units = static_cast<std::int64_t>(std::llround(value * kScale));
    if (FixedPoint::value(units) == value)
        return units;
    // Within 1e-6 in any case; a short decimal must come back as written, though. From 0.1 up,
    // six significant digits end at millionths or above: such a value came back above already.
    if (std::fabs(value) < 0.1 && isShortDecimal(value))
        return std::nullopt;
    return units;
}

std::int64_t FixedPoint::nearestUnits(double value)
{
    if (!(std::fabs(value) < kLimit))
        return 0;
    return static_cast<std::int64_t>(std::llround(value * kScale));
}

bool FixedPoint::isShortDecimal(double value)
{
    if (value == 0 || !std::isfinite(value))
        return false;
    // The decimal exponent that puts 6 significant digits before the point.
    const double magnitude = std::fabs(value);
    const std::optional<int> decade = decadeOf(magnitude);
    const int exponent =
        5 - (decade ? *decade : static_cast<int>(std::floor(std::log10(magnitude))));
    if (exponent >= 0 && exponent < static_cast<int>(std::size(kPowersOfTen))) {
        const double scaled = std::nearbyint(value * kPowersOfTen[exponent]);
        // Both operands are exact, so the quotient is the double nearest to the decimal.
        return scaled / kPowersOfTen[exponent] == value;
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%.6g", value);
    return std::strtod(text, nullptr) == value;
}

}  // namespace kest::analytics::db
