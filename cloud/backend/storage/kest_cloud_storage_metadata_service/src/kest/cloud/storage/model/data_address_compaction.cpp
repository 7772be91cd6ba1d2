#include "data_address_compaction.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace kest::cloud::storage::metadatadb {

namespace {

std::int64_t floorDiv(std::int64_t value, std::int64_t divisor)
{
    const std::int64_t quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

using Key = std::pair<std::int64_t, std::int64_t>;  //< Start and end: the span as a value.

Key keyOf(const ZuTimePeriod& span)
{
    return {span.startTimeMs, span.endTimeMs()};
}

}  // namespace

DataAddressCompaction::Plan DataAddressCompaction::plan(const std::vector<ZuTimePeriod>& spans,
                                                        std::int64_t nowMs,
                                                        std::int64_t oldestKeptMs)
{
    std::set<Key> removed;
    // By tier and block, in time order, so that plans come out in a stable order.
    std::map<std::pair<std::size_t, std::int64_t>, std::vector<ZuTimePeriod>> groups;
    for (const ZuTimePeriod& span : spans) {
        const std::int64_t endMs = span.endTimeMs();
        if (endMs <= oldestKeptMs) {
            removed.insert(keyOf(span));
            continue;
        }
        const std::int64_t ageMs = nowMs - endMs;
        for (std::size_t tier = kTiers.size(); tier-- > 0;) {
            if (ageMs >= kTiers[tier].age.count()) {
                groups[{tier, floorDiv(span.startTimeMs, kTiers[tier].block.count())}].push_back(
                    span);
                break;
            }
        }
    }

    Plan plan;
    for (const auto& [key, group] : groups) {
        if (group.size() < 2)
            continue;
        std::int64_t fromMs = group.front().startTimeMs;
        std::int64_t tillMs = group.front().endTimeMs();
        for (const ZuTimePeriod& span : group) {
            fromMs = std::min(fromMs, span.startTimeMs);
            tillMs = std::max(tillMs, span.endTimeMs());
        }
        ZuTimePeriod merged = ZuTimePeriod::fromInterval(fromMs, tillMs);
        const auto copies = std::ranges::count(group, merged);
        // Removal is by value and takes every copy: one copy of the merged span already stored
        // stays as the merged span; several go, replaced by a span that differs from them.
        if (copies > 1)
            merged = ZuTimePeriod::fromInterval(fromMs, tillMs + 1);
        if (copies != 1)
            plan.add.push_back(merged);
        for (const ZuTimePeriod& span : group) {
            if (copies != 1 || span != merged)
                removed.insert(keyOf(span));
        }
    }
    // A span equal to a merged one would take it away too; kept, it is that merged span.
    for (const ZuTimePeriod& merged : plan.add)
        removed.erase(keyOf(merged));
    for (const auto& [fromMs, tillMs] : removed)
        plan.remove.push_back(ZuTimePeriod::fromInterval(fromMs, tillMs));
    return plan;
}

}  // namespace kest::cloud::storage::metadatadb
