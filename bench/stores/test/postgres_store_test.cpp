#include <gtest/gtest.h>

#include <limits>

#include "../postgres_store.h"

namespace kest::bench {
namespace {

using analytics::db::Filter;
using analytics::db::SortOrder;

/** The text of parameter `$n` of the query. */
std::string parameter(const PostgresStore::Query& q, const std::string& sqlBefore)
{
    const auto at = q.sql.find(sqlBefore);
    EXPECT_NE(at, std::string::npos) << sqlBefore << " not in " << q.sql;
    if (at == std::string::npos)
        return {};
    const std::size_t dollar = q.sql.find('$', at + sqlBefore.size());
    const std::size_t index = std::stoul(q.sql.substr(dollar + 1)) - 1;
    return index < q.parameters.size() ? q.parameters[index] : std::string();
}

TEST(PostgresQuery, TextSearchesTestTheExpressionAsItIsAndTheStoredWordsOnceTuned)
{
    Filter filter;
    filter.freeText = "red KX";
    filter.maxObjectTracksToSelect = 100;
    const auto plain = PostgresStore::queryOf(filter, 1000);
    const auto tuned = PostgresStore::queryOf(filter, 1000, true);
    EXPECT_NE(plain.sql.find("jsonb_to_tsvector('simple', attributes, '[\"string\"]') @@"),
              std::string::npos)
        << plain.sql << ": the expression of the index as it is";
    EXPECT_NE(tuned.sql.find(" words @@ to_tsquery"), std::string::npos) << tuned.sql;
    EXPECT_EQ(tuned.sql.find("jsonb_to_tsvector"), std::string::npos) << tuned.sql;
    // Every word must match, each as a prefix, as ours matches them.
    EXPECT_EQ(parameter(tuned, "to_tsquery('simple', "), "red:* & KX:*");
    EXPECT_EQ(plain.parameters, tuned.parameters);
    EXPECT_NE(plain.sql.find("ORDER BY first_us DESC LIMIT $"), std::string::npos);
    EXPECT_EQ(parameter(plain, "LIMIT "), "100");
}

TEST(PostgresQuery, TimeBoundsFollowOursAndSaturateAtTheEnds)
{
    Filter filter;
    filter.timePeriod = ZuTimePeriod(1'000, 500);
    filter.sortOrder = SortOrder::asc;
    const auto q = PostgresStore::queryOf(filter, 2'000'000);
    // The track's [first, last] meets [start, end); no track is longer than the longest stored.
    EXPECT_EQ(parameter(q, "first_us < "), "1500000");
    EXPECT_EQ(parameter(q, "first_us >= "), "-1000000");
    EXPECT_EQ(parameter(q, "last_us >= "), "1000000");
    EXPECT_NE(q.sql.find("ORDER BY first_us ASC"), std::string::npos);
    EXPECT_EQ(q.sql.find("LIMIT"), std::string::npos) << "no limit asked for";

    filter = Filter();  // all time: an infinite period starting at the earliest
    filter.timePeriod.startTimeMs = std::numeric_limits<std::int64_t>::min() / 1000;
    const auto all = PostgresStore::queryOf(filter, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(parameter(all, "first_us < "),
              std::to_string(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(parameter(all, "first_us >= "),
              std::to_string(std::numeric_limits<std::int64_t>::min()));
}

TEST(PostgresQuery, DevicesTypesBoxAndTrackNarrowTheSearch)
{
    Filter filter;
    const auto a = ZuUuid::createUuid(), b = ZuUuid::createUuid();
    filter.deviceIds = {a};
    filter.boundingBox = common::metadata::Rect{0.1, 0.2, 0.3, 0.4};
    filter.objectTypeId = {"car"};
    auto q = PostgresStore::queryOf(filter, 0, true);
    EXPECT_EQ(parameter(q, "device_id = "), a.toSimpleStdString());
    EXPECT_EQ(
        parameter(q, "area && "),
        "(0.40000000000000002,0.60000000000000009),(0.10000000000000001,0.20000000000000001)");
    EXPECT_EQ(parameter(q, "type_id = ANY("), "{\"car\"}");

    filter.deviceIds = {a, b};
    q = PostgresStore::queryOf(filter, 0);
    const std::string list = parameter(q, "device_id = ANY(");
    EXPECT_NE(list.find(a.toSimpleStdString()), std::string::npos) << list;
    EXPECT_NE(list.find(b.toSimpleStdString()), std::string::npos) << list;

    filter = Filter();
    filter.objectTrackId = a;
    q = PostgresStore::queryOf(filter, 0);
    EXPECT_EQ(parameter(q, "track_id = "), a.toSimpleStdString());
}

}  // namespace
}  // namespace kest::bench
