#include <gtest/gtest.h>

#include <QUrlQuery>
#include <stdexcept>

#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/controller/errors_request_data.h>
#include <kest/cloud/storage/controller/optimal_instance_request.h>
#include <kest/reflect/json.h>

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace std::chrono_literals;

const ZuUuid kDeviceA("{11111111-1111-1111-1111-111111111111}");
const ZuUuid kDeviceB("{22222222-2222-2222-2222-222222222222}");
const ZuUuid kVms("{33333333-3333-3333-3333-333333333333}");

QUrlQuery query(const char* text)
{
    return QUrlQuery(QString(text));
}

template <typename T>
T load(const QUrlQuery& q, bool expectedResult = true)
{
    T record;
    EXPECT_EQ(expectedResult, loadFromUrlQuery(q, &record)) << q.toString().toStdString();
    return record;
}

TEST(DataRequestDataTest, QueryFormRoundTripsAndTheFlagIsANumber)
{
    DataRequestData request;
    request.filter.deviceIds = {kDeviceA, kDeviceB};
    request.filter.freeText = "red car";
    request.filter.maxObjectTracksToSelect = 10;
    request.filter.sortOrder = kest::analytics::db::SortOrder::asc;
    request.internal_lookup = true;
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    EXPECT_EQ("1", written.queryItemValue("internal_lookup").toStdString());
    EXPECT_EQ(request, load<DataRequestData>(written));

    request.internal_lookup = false;
    written.clear();
    serializeToUrlQuery(request, &written);
    EXPECT_EQ("0", written.queryItemValue("internal_lookup").toStdString());
    EXPECT_EQ(request, load<DataRequestData>(written));

    // Peers send numbers; words read as 0.
    EXPECT_FALSE(load<DataRequestData>(query("internal_lookup=true")).internal_lookup);
    EXPECT_TRUE(load<DataRequestData>(query("internal_lookup=2")).internal_lookup);
    EXPECT_TRUE(load<DataRequestData>(query("internal_lookup=-1")).internal_lookup);
    EXPECT_FALSE(load<DataRequestData>(query("internal_lookup=")).internal_lookup);
    EXPECT_FALSE(load<DataRequestData>(query("freeText=x")).internal_lookup);
}

TEST(DataRequestDataTest, OnlyFilterItemsCanFailTheQuery)
{
    // The flag's items are taken out before the filter reader, which refuses nothing it ignores
    // but would refuse a malformed value of one of its own items.
    const auto request =
        load<DataRequestData>(query("internal_lookup=junk&internal_lookup=1&deviceIds="
                                    "11111111-1111-1111-1111-111111111111"));
    EXPECT_TRUE(request.internal_lookup);
    EXPECT_EQ(std::set<ZuUuid>{kDeviceA}, request.filter.deviceIds);

    load<DataRequestData>(query("internal_lookup=1&deviceIds=not-a-uuid"), false);
    load<DataRequestData>(query("maxObjectTracksToSelect=ten"), false);
}

TEST(OptimalInstanceRequestTest, QueryKeysAndLenientIds)
{
    OptimalInstanceRequest request{{kDeviceA, kDeviceB}, kVms};
    QUrlQuery written;
    serializeToUrlQuery(request, &written);
    EXPECT_EQ(toString(kVms), written.queryItemValue("VmsId").toStdString());
    EXPECT_FALSE(written.hasQueryItem("vmsId"));
    // The multi-map gives a key's values newest first: the devices come back reversed.
    const auto read = load<OptimalInstanceRequest>(written);
    EXPECT_EQ(kVms, read.vmsId);
    EXPECT_EQ((std::vector<ZuUuid>{kDeviceB, kDeviceA}), read.deviceIds);

    load<OptimalInstanceRequest>(query("vmsId=33333333-3333-3333-3333-333333333333"), false);
    const auto lenient = load<OptimalInstanceRequest>(query("VmsId=bogus&deviceIds=nope"));
    EXPECT_TRUE(lenient.vmsId.isNull());
    EXPECT_EQ(std::vector<ZuUuid>{ZuUuid()}, lenient.deviceIds);
    EXPECT_TRUE(load<OptimalInstanceRequest>(query("VmsId=")).deviceIds.empty());

    // JSON spells the VMS key in lower case.
    EXPECT_EQ(R"({"deviceIds":["{11111111-1111-1111-1111-111111111111}"],)"
              R"("vmsId":"{33333333-3333-3333-3333-333333333333}"})",
              kest::reflect::json::serialize(OptimalInstanceRequest{{kDeviceA}, kVms}));
}

TEST(ErrorsRequestDataTest, TimestampIsReadOnlyWhenLongerThanTwoCharactersLikeStoul)
{
    EXPECT_FALSE(load<ErrorsRequestData>(query("timestamp=12")).timestamp);
    EXPECT_EQ(123ms, load<ErrorsRequestData>(query("timestamp=123")).timestamp);
    EXPECT_EQ(500ms, load<ErrorsRequestData>(query("timestamp=500ms")).timestamp);
    EXPECT_EQ(42ms, load<ErrorsRequestData>(query("timestamp=%20%2042")).timestamp);
    // Of repeated items the first counts.
    EXPECT_EQ(111ms, load<ErrorsRequestData>(query("timestamp=111&timestamp=222")).timestamp);

    ErrorsRequestData data;
    EXPECT_THROW(loadFromUrlQuery(query("timestamp=abc"), &data), std::invalid_argument);
    EXPECT_THROW(loadFromUrlQuery(query("timestamp=99999999999999999999999"), &data),
                 std::out_of_range);
}

TEST(ErrorsRequestDataTest, ClearDataIsExactlyTrueAndCountMayBeEmpty)
{
    for (const char* text : {"clearData=TRUE", "clearData=1", "clearData=", "count=3"})
        EXPECT_EQ(false, load<ErrorsRequestData>(query(text)).clearData) << text;
    EXPECT_EQ(true, load<ErrorsRequestData>(query("clearData=true")).clearData);

    EXPECT_FALSE(load<ErrorsRequestData>(query("count=")).count);
    EXPECT_EQ(7u, load<ErrorsRequestData>(query("count=7")).count);
    EXPECT_EQ(0u, load<ErrorsRequestData>(query("count=many")).count);
}

TEST(ErrorsRequestDataTest, WrittenQueryReadsBackEvenForSmallTimestamps)
{
    for (const auto timestamp : {0ms, 5ms, 1'700'000'000'000ms}) {
        const ErrorsRequestData data{timestamp, 4u, true};
        QUrlQuery written;
        serializeToUrlQuery(data, &written);
        // As the service sees it: the whole query decoded once, then split.
        EXPECT_EQ(data, load<ErrorsRequestData>(QUrlQuery(written.toString(QUrl::FullyDecoded))))
            << timestamp.count();
    }
    QUrlQuery written;
    serializeToUrlQuery(ErrorsRequestData{}, &written);
    EXPECT_TRUE(written.isEmpty());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
