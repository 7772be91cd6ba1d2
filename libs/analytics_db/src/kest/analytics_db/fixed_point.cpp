#include "fixed_point.h"

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

}  // namespace

std::optional<std::int64_t> FixedPoint::units(double value)
{
    if (!(std::fabs(value) < kLimit))
        return std::nullopt;  //< Also NaN.
    const auto units = static_cast<std::int64_t>(std::llround(value * kScale));
    if (FixedPoint::value(units) == value)
        return units;
    // Within 1e-6 in any case; a short decimal must come back as written, though.
    if (isShortDecimal(value))
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
    const int exponent = 5 - static_cast<int>(std::floor(std::log10(std::fabs(value))));
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
