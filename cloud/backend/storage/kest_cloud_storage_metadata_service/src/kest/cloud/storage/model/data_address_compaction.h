#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

#include <kest/vms_common/zu_time_period.h>

namespace kest::cloud::storage::metadatadb {

/**
 * Decides how an instance shrinks its own spans of one device in the shared database: spans that
 * end before the oldest data it still holds go, and old spans merge into one per hour, day or 30
 * days of their start, the older the coarser. A merged span covers every span that it replaces,
 * so a search that found data before the merge finds it after.
 */
class DataAddressCompaction
{
public:
    struct Tier
    {
        /** Spans that ended at least this long ago belong to the tier... */
        std::chrono::milliseconds age;
        /** ...and merge into one span per block of this length that their starts fall in. */
        std::chrono::milliseconds block;
    };

    /** Youngest first. Each block length divides the next, so that merged spans nest. */
    static constexpr std::array<Tier, 3> kTiers = {{
        {std::chrono::hours(1), std::chrono::hours(1)},
        {std::chrono::hours(24), std::chrono::hours(24)},
        {std::chrono::hours(24 * 30), std::chrono::hours(24 * 30)},
    }};

    struct Plan
    {
        /** The merged spans, appended first. */
        std::vector<ZuTimePeriod> add;
        /** Then every stored copy of these goes; no two are equal. */
        std::vector<ZuTimePeriod> remove;

        bool empty() const { return add.empty() && remove.empty(); }
    };

    /**
     * `spans`: this instance's spans of the device as stored, copies included. Spans that end
     * at or before `oldestKeptMs` are removed. A group that is one span already is left alone,
     * so that applying a plan and planning again gives an empty plan.
     */
    static Plan plan(const std::vector<ZuTimePeriod>& spans, std::int64_t nowMs,
                     std::int64_t oldestKeptMs);
};

}  // namespace kest::cloud::storage::metadatadb
