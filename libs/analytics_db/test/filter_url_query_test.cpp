#include <gtest/gtest.h>

#include <limits>

#include <kest/analytics_db/filter_url_query.h>
#include <kest/analytics_db/result_code.h>
#include <kest/network/http/request.h>

namespace kest::analytics::db::test {

using network::rest::Params;

Filter everyFieldSet()
{
    Filter f;
    f.deviceIds = {ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}"),
                   ZuUuid("{00000000-0000-0000-0000-000000000001}")};
    f.objectTypeId = {"nx.base.Person", "", "a,b&c=d"};
    f.objectTrackId = ZuUuid("{a0a0a0a0-b1b1-c2c2-d3d3-e4e4e4e4e4e4}");
    f.timePeriod = ZuTimePeriod(std::numeric_limits<std::int64_t>::min(),
                                std::numeric_limits<std::int64_t>::max());
    f.boundingBox = common::metadata::Rect{0.1, 1e-300, -0.0, 1.0 / 3};
    f.freeText = "50%41 a+b&c=d#e=f;g ü \"q\" %%25";
    f.maxObjectTracksToSelect = std::numeric_limits<int>::min();
    f.needFullTrack = true;
    f.sortOrder = SortOrder::asc;
    f.withBestShotOnly = true;
    f.analyticsEngineId = ZuUuid("{ffffffff-ffff-ffff-ffff-ffffffffffff}");
    return f;
}

/** Writes the filter as a client does and reads it back the way the service reads a query. */
Filter readBack(const Filter& filter)
{
    QUrlQuery query;
    serializeToUrlQuery(filter, &query);
    const std::string wire = query.toString(QUrl::FullyEncoded).toStdString();
    const QUrlQuery received(QString::fromStdString(network::http::Request::percentDecode(wire)));
    Filter back;
    back.freeText = "must be replaced";
    EXPECT_TRUE(deserializeFromParams(Params::fromUrlQuery(received), &back)) << wire;
    return back;
}

TEST(FilterUrlQuery, EveryFieldSurvivesARoundTrip)
{
    Filter partial;
    partial.timePeriod = ZuTimePeriod(1000, 0);
    partial.boundingBox = common::metadata::Rect{};
    partial.maxObjectTracksToSelect = std::numeric_limits<int>::max();
    partial.freeText = " ";

    for (const Filter& filter : {Filter(), everyFieldSet(), partial}) {
        const Filter back = readBack(filter);
        EXPECT_EQ(back, filter) << toString(back) << "\n" << toString(filter);
    }
}

TEST(FilterUrlQuery, DefaultsAreNotWritten)
{
    QUrlQuery query;
    serializeToUrlQuery(Filter(), &query);
    EXPECT_TRUE(query.isEmpty()) << query.toString().toStdString();

    Filter f;
    f.deviceIds = {ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}")};
    f.sortOrder = SortOrder::asc;
    f.boundingBox = common::metadata::Rect{0.5, 0, 1, 0.25};
    serializeToUrlQuery(f, &query);
    EXPECT_EQ(
        query.toString(QUrl::FullyEncoded).toStdString(),
        "deviceIds=6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f&boundingBox=0.5,0,1,0.25&sortOrder=asc");
}

TEST(FilterUrlQuery, ReadingIsLenientAboutFormButNotValues)
{
    Params params;
    params.insert("deviceIds", "{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}");
    params.insert("startTimeMs", "5");
    params.insert("maxObjectTracksToSelect", "1");
    params.insert("maxObjectTracksToSelect", "7");
    params.insert("internal_lookup", "true");
    params.insert("format", "json");
    Filter f;
    ASSERT_TRUE(deserializeFromParams(params, &f));
    EXPECT_EQ(f.deviceIds, std::set<ZuUuid>{ZuUuid("6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f")});
    EXPECT_EQ(f.timePeriod, ZuTimePeriod(5, ZuTimePeriod::kInfiniteDuration));
    EXPECT_EQ(f.maxObjectTracksToSelect, 7) << "the last of repeated items counts";
}

TEST(FilterUrlQuery, MalformedValuesAreRefused)
{
    const std::vector<std::pair<QString, QString>> cases = {
        {"deviceIds", "camera-1"},
        {"deviceIds", ""},
        {"objectTrackId", "{6c1b4a1e-3b1f}"},
        {"analyticsEngineId", "x"},
        {"startTimeMs", "12ms"},
        {"durationMs", ""},
        {"startTimeMs", "9223372036854775808"},
        {"maxObjectTracksToSelect", "2147483648"},
        {"maxObjectTracksToSelect", "1.5"},
        {"needFullTrack", "1"},
        {"withBestShotOnly", "TRUE"},
        {"sortOrder", "ascending"},
        {"boundingBox", "1,2,3"},
        {"boundingBox", "1,2,3,4,5"},
        {"boundingBox", "1,2,,4"},
        {"boundingBox", "1,2,3,x"},
        {"boundingBox", "nan,0,1,1"},
        {"boundingBox", "0,0,inf,1"},
        {"boundingBox", "0.5,0,1.5,1"},
        {"boundingBox", "-0.1,0,0.5,0.5"},
        {"durationMs", "-2"},
    };
    for (const auto& [key, value] : cases) {
        Params params;
        params.insert(key, value);
        params.insert("freeText", "fine");
        Filter f = everyFieldSet();
        std::string error;
        EXPECT_FALSE(deserializeFromParams(params, &f, &error))
            << key.toStdString() << "=" << value.toStdString();
        EXPECT_EQ(f, everyFieldSet()) << "left untouched on failure";
        // The message names the item and quotes the value, whose text says what is expected.
        EXPECT_TRUE(error.starts_with(key.toStdString() + ": '" + value.toStdString() + "'"))
            << error;
    }

    // A long value is quoted cut short, so that an answer stays small.
    Params params;
    params.insert("sortOrder", QString(1000, 'x'));
    Filter f;
    std::string error;
    ASSERT_FALSE(deserializeFromParams(params, &f, &error));
    EXPECT_EQ("sortOrder: '" + std::string(64, 'x') + "...' is neither 'asc' nor 'desc'", error);
}

TEST(ResultCodeText, NamesEveryCode)
{
    EXPECT_EQ(toString(ResultCode::ok), "ok");
    EXPECT_EQ(toString(ResultCode::retryLater), "retryLater");
    EXPECT_EQ(toString(ResultCode::error), "error");
    EXPECT_EQ(toString(static_cast<ResultCode>(9)), "unknown (9)");
}

}  // namespace kest::analytics::db::test
