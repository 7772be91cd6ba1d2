#pragma once

#include <QUrlQuery>
#include <boost/describe/class.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include <kest/analytics_db/filter.h>

namespace kest::cloud::storage::metadatadb {

/**
 * An activity count: the search's filter and `internal_lookup` as a track search has them, the
 * width of the buckets of time, and whether the heatmap is wanted.
 */
struct ActivityRequestData
{
    /** Without bucketMs the period is cut into this many buckets. */
    static constexpr std::int64_t kDefaultBuckets = 100;

    kest::analytics::db::Filter filter;
    bool internal_lookup = false;
    /** Milliseconds; unset: the period's length / kDefaultBuckets, rounded up. */
    std::optional<std::int64_t> bucketMs;
    bool heatmap = false;

    /** bucketMs, or its default; 0 for a period without an end or a length. */
    std::int64_t bucketWidthMs() const;

    friend bool operator==(const ActivityRequestData&, const ActivityRequestData&) = default;
};

BOOST_DESCRIBE_STRUCT(ActivityRequestData, (), (filter, internal_lookup, bucketMs, heatmap))

/**
 * Reads the query form: a track search's items (the filter's and "internal_lookup", read as a
 * search reads them), "bucketMs" (a whole number) and "heatmap" ("true" or "false"). False when
 * an item is malformed; `error` then names it.
 */
bool loadFromUrlQuery(const QUrlQuery& query, ActivityRequestData* data);
bool loadFromUrlQuery(const QUrlQuery& query, ActivityRequestData* data, std::string* error);

/** The search's items, then "bucketMs" when set and "heatmap" when true. */
void serializeToUrlQuery(const ActivityRequestData& data, QUrlQuery* query);

}  // namespace kest::cloud::storage::metadatadb
