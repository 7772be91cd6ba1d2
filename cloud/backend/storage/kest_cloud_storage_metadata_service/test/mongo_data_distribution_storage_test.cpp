#include <gtest/gtest.h>

#include <future>

#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>

#include "log_capture.h"
#include "mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb {
namespace {

using Storage = MongoDataDistributionStorage;

using test::LogCapture;

TEST(MongoSaveDataAddressTest, RequestPushesOneSpanPerItemWithUpsert)
{
    Storage storage("mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100");
    const auto requests = storage.buildSaveRequest(
        {{"dev1", ZuTimePeriod(1000, 500)}, {"dev1", ZuTimePeriod(3000, 10)}}, "node-a");
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_TRUE(requests[1].upsert);
    EXPECT_EQ(requests[1].filter.view().getString("DeviceId"), "dev1");
    const auto span = requests[1].update.view().getDocument("$push").getDocument("StorageInfo");
    EXPECT_EQ(span.getDateTimeMs("TimeFrom"), 3000);
    EXPECT_EQ(span.getDateTimeMs("TimesTill"), 3010);
    EXPECT_EQ(span.getString("Node"), "node-a");
}

TEST(MongoSaveDataAddressTest, FailureHandsBackTheWholeBatch)
{
    LogCapture log;
    const std::vector<DataInfo> data{{"dev-x", ZuTimePeriod(1, 2)}, {"dev-y", ZuTimePeriod(3, 4)}};
    {
        Storage storage("mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=200&connectTimeoutMS=200");
        std::promise<std::vector<DataInfo>> failed;
        storage.saveDataAddress(data, "node",
                                [&](std::vector<DataInfo> items) { failed.set_value(items); });
        auto future = failed.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), data);

        // An empty batch is refused by the driver and lands in the same path.
        std::vector<DataInfo> empty{{"marker", {}}};
        storage.saveDataAddressSync({}, "node",
                                    [&](std::vector<DataInfo> items) { empty = items; });
        EXPECT_TRUE(empty.empty());
    }
    EXPECT_TRUE(log.contains("exception while saving data( { deviceId: dev-x, time period: "));
    EXPECT_TRUE(log.contains(") to MongoDb, "));
}

class MongoSaveDataAddressLiveTest : public MongoTest
{};

TEST_F(MongoSaveDataAddressLiveTest, DevicesAreFoundThroughAnIndex)
{
    LogCapture log;
    // The second instance finds the index that the first made.
    for (int i = 0; i < 2; ++i) {
        Storage storage(m_uri);
        bool failed = false;
        storage.saveDataAddressSync({{uniqueName("dev"), ZuTimePeriod(1'000, 10)}},
                                    uniqueName("node"),
                                    [&](std::vector<DataInfo>) { failed = true; });
        EXPECT_FALSE(failed);
    }
    EXPECT_FALSE(log.contains("Cannot index"));

    Storage storage(m_uri);
    const auto client = storage.getClient();
    const auto collection = client.collection("metadataStorage", "dataDistribution");
    mongo::Cursor indexes(mongoc_collection_find_indexes_with_opts(collection.get(), nullptr));
    bool found = false;
    while (const auto index = indexes.next())
        found = found || index->getDocument("key").has("DeviceId");
    EXPECT_TRUE(found);
}

TEST_F(MongoSaveDataAddressLiveTest, SavedSpansReadBack)
{
    Storage storage(m_uri);
    const std::string first = uniqueName("dev");
    const std::string second = uniqueName("dev");
    const std::string node = uniqueName("node");
    bool handlerCalled = false;
    LogCapture log;
    storage.saveDataAddressSync(
        {{first, ZuTimePeriod(10'000, 5'000)}, {second, ZuTimePeriod(20'000, 1)}}, node,
        [&](std::vector<DataInfo>) { handlerCalled = true; });
    EXPECT_FALSE(handlerCalled);
    EXPECT_FALSE(log.contains("saving data"));

    const auto client = storage.getClient();
    const auto collection = client.collection("metadataStorage", "dataDistribution");
    mongo::Document filter;
    filter.appendString("DeviceId", first);
    auto cursor = collection.find(filter);
    const auto doc = cursor.next();
    ASSERT_TRUE(doc);
    const auto spans = doc->getDocumentArray("StorageInfo");
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans[0].getDateTimeMs("TimeFrom"), 10'000);
    EXPECT_EQ(spans[0].getDateTimeMs("TimesTill"), 15'000);
    EXPECT_EQ(spans[0].getString("Node"), node);
    EXPECT_FALSE(cursor.next());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
