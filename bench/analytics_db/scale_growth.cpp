#include "scale_growth.h"

#include <algorithm>
#include <cstdio>

namespace kest::bench {

std::optional<std::vector<std::int64_t>> parseTrackCounts(const std::string& text)
{
    std::vector<std::int64_t> counts;
    std::size_t at = 0;
    while (at <= text.size()) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        const std::string item = text.substr(at, comma - at);
        if (item.empty() || item.front() < '0' || item.front() > '9')
            return std::nullopt;
        std::size_t used = 0;
        long long value = 0;
        try {
            value = std::stoll(item, &used);
        } catch (const std::exception&) {
            return std::nullopt;
        }
        if (used != item.size() || value <= 0 || (!counts.empty() && value <= counts.back()))
            return std::nullopt;
        counts.push_back(value);
        at = comma + 1;
    }
    if (counts.size() < 2)
        return std::nullopt;
    return counts;
}

std::vector<Figure> growthFigures(const std::string& section,
                                  const std::map<std::string, double>& smallerP99,
                                  const std::map<std::string, double>& largerP99)
{
    std::vector<Figure> figures;
    for (const auto& [name, before] : smallerP99) {
        const auto after = largerP99.find(name);
        if (after == largerP99.end() || !(before > 0))
            continue;
        char note[64];
        std::snprintf(note, sizeof(note), "p99 %.2f -> %.2f ms", before, after->second);
        figures.push_back(
            Figure::measured(section, name + ", p99 growth", after->second / before, "x")
                .atMost(kScaleGrowthGoal)
                .withNote(note));
    }
    return figures;
}

}  // namespace kest::bench
