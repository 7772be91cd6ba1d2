#pragma once

// How search latencies grow with the store: the track counts of the scale stores, and the growth
// of each shape's p99 from the smallest to the largest, as figures against a goal.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "figure.h"

namespace kest::bench {

/** The track counts searched for scale unless told otherwise: 1M and 5M short tracks. */
inline const std::vector<std::int64_t> kScaleTracks = {1'000'000, 5'000'000};

/** No shape's p99 grows by more than this from the smallest scale store to the largest. */
constexpr double kScaleGrowthGoal = 1.5;

/** "1000000,5000000": two or more positive track counts, growing; empty when not that. */
std::optional<std::vector<std::int64_t>> parseTrackCounts(const std::string& text);

/**
 * For each shape measured at both sizes (p99 in ms by shape name), its p99 at the larger over
 * that at the smaller, held against kScaleGrowthGoal; shapes missing on either side or without
 * a p99 at the smaller are left out.
 */
std::vector<Figure> growthFigures(const std::string& section,
                                  const std::map<std::string, double>& smallerP99,
                                  const std::map<std::string, double>& largerP99);

}  // namespace kest::bench
