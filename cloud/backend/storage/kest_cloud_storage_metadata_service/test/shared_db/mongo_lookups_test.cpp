// The data-distribution storage's reads against the MongoDB stand-in: where device data lives,
// and which hosts serve which devices.

#include <gtest/gtest.h>

#include <future>
#include <random>

#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>

#include "../log_capture.h"
#include "../mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;

constexpr std::int64_t kHour = 3'600'000;
constexpr std::int64_t kTen = 10 * kHour;

template <typename Result>
Result waitFor(std::future<Result> future)
{
    if (future.wait_for(20s) != std::future_status::ready) {
        ADD_FAILURE() << "no answer from the storage";
        return {};
    }
    return future.get();
}

class MongoLookupsTest : public MongoTest
{
protected:
    using Nodes = std::pair<bool, std::vector<std::string>>;
    using Mapping = std::pair<bool, AbstractDataDistributionStorage::DeviceMapping>;

    void SetUp() override
    {
        MongoTest::SetUp();
        if (IsSkipped())
            return;
        m_storage.emplace(m_uri);
        m_client.emplace(m_storage->getClient());
    }

    Nodes storageInfo(const std::vector<std::string>& devices, const ZuTimePeriod& period)
    {
        std::promise<Nodes> promise;
        m_storage->getStorageInfo(devices, period, [&](bool ok, std::vector<std::string> nodes) {
            promise.set_value({ok, std::move(nodes)});
        });
        return waitFor(promise.get_future());
    }

    Mapping mapping(std::chrono::system_clock::time_point since)
    {
        std::promise<Mapping> promise;
        m_storage->getDeviceInstancesMapping(
            since, [&](bool ok, AbstractDataDistributionStorage::DeviceMapping result) {
                promise.set_value({ok, std::move(result)});
            });
        return waitFor(promise.get_future());
    }

    void save(const std::string& device, const ZuTimePeriod& period, const std::string& node)
    {
        m_storage->saveDataAddressSync({{device, period}}, node, [&](std::vector<DataInfo>) {
            ADD_FAILURE() << "saving a span failed";
        });
    }

    /** Sets fields of the collection's document whose `key` is `value`, creating it if needed. */
    void upsert(const std::string& collectionName, const std::string& key, const std::string& value,
                const mongo::Document& fields)
    {
        mongo::Document filter;
        filter.appendString(key, value);
        mongo::Document update;
        update.appendDocument("$set", fields);
        m_client->collection("metadataStorage", collectionName).updateOne(filter, update, true);
    }

    std::optional<MongoDataDistributionStorage> m_storage;
    std::optional<mongo::PooledClient> m_client;
};

TEST_F(MongoLookupsTest, SpansMatchOnlyWhenTheyOverlapThePeriod)
{
    const std::string device = uniqueName("dev");
    save(device, ZuTimePeriod(kTen, kHour), "node-a");  //< 10:00 to 11:00.

    EXPECT_EQ(Nodes(true, {}), storageInfo({device}, ZuTimePeriod(kTen + kHour, kHour)));
    EXPECT_EQ(Nodes(true, {}), storageInfo({device}, ZuTimePeriod(kTen - kHour, kHour)));
    EXPECT_EQ(Nodes(true, {"node-a"}),
              storageInfo({device}, ZuTimePeriod::fromInterval(kTen + kHour - 60'000, 12 * kHour)));
    EXPECT_EQ(Nodes(true, {"node-a"}), storageInfo({device}, ZuTimePeriod(kTen + 1, 1)));
    EXPECT_EQ(Nodes(true, {"node-a"}),
              storageInfo({device}, ZuTimePeriod(0, ZuTimePeriod::kInfiniteDuration)));
    EXPECT_EQ(Nodes(true, {}), storageInfo({}, ZuTimePeriod(0, ZuTimePeriod::kInfiniteDuration)));
    EXPECT_EQ(Nodes(true, {}), storageInfo({uniqueName("unknown")}, ZuTimePeriod(kTen, kHour)));
}

TEST_F(MongoLookupsTest, NodesComeOncePerSpanInDocumentThenSaveOrder)
{
    const std::string first = uniqueName("dev");
    const std::string second = uniqueName("dev");
    save(first, ZuTimePeriod(kTen, kHour), "node-a");
    save(second, ZuTimePeriod(kTen, kHour), "node-a");
    save(first, ZuTimePeriod(kTen + kHour, kHour), "node-b");
    save(first, ZuTimePeriod(kTen + 5 * kHour, kHour), "node-c");  //< Outside the period.
    save(first, ZuTimePeriod(kTen, kHour), "node-a");

    EXPECT_EQ(Nodes(true, {"node-a", "node-b", "node-a", "node-a"}),
              storageInfo({second, first}, ZuTimePeriod(kTen, 2 * kHour)));
}

TEST_F(MongoLookupsTest, MistypedDistributionRecordsFailTheWholeLookup)
{
    LogCapture log;
    const std::string good = uniqueName("dev");
    save(good, ZuTimePeriod(kTen, kHour), "node-a");
    const ZuTimePeriod period(kTen, kHour);

    const std::string noSpans = uniqueName("dev");
    upsert("dataDistribution", "DeviceId", noSpans, mongo::Document().appendString("Other", "x"));
    mongo::Document textTime;
    textTime.appendString("TimeFrom", "10:00").appendDateTime("TimesTill", kTen + kHour);
    textTime.appendString("Node", "node-x");
    const std::string badTime = uniqueName("dev");
    upsert("dataDistribution", "DeviceId", badTime,
           mongo::Document().appendDocumentArray("StorageInfo", {textTime}));
    mongo::Document noNode;
    noNode.appendDateTime("TimeFrom", kTen).appendDateTime("TimesTill", kTen + kHour);
    const std::string badNode = uniqueName("dev");
    upsert("dataDistribution", "DeviceId", badNode,
           mongo::Document().appendDocumentArray("StorageInfo", {noNode}));

    for (const auto& bad : {noSpans, badTime, badNode}) {
        // What could be read of the good device is dropped with the rest.
        EXPECT_EQ(Nodes(false, {}), storageInfo({good, bad}, period)) << bad;
        EXPECT_TRUE(log.contains("(devices: { " + good + ", " + bad +
                                 " }, time period: " + toString(period) + ") node lookup failed: "))
            << bad;
    }
    EXPECT_EQ(Nodes(true, {"node-a"}), storageInfo({good}, period));
    // A span outside the period is skipped before its node is read.
    EXPECT_EQ(Nodes(true, {}), storageInfo({badNode}, ZuTimePeriod(kTen + kHour, kHour)));
}

// Every mapping read returns all documents changed since a time: the test works in a time range
// of its own, far in the future, and removes its documents afterwards.
TEST_F(MongoLookupsTest, DeviceMappingsChangedSinceATimeAreReadWholeOrNotAtAll)
{
    using std::chrono::system_clock;
    std::random_device random;
    const system_clock::time_point since(std::chrono::milliseconds(
        7'258'118'400'000 + static_cast<std::int64_t>(random() % 1'000'000) * 1'000'000));
    const std::vector<std::string> devices{uniqueName("dev"), uniqueName("dev"), uniqueName("dev"),
                                           uniqueName("dev")};
    const auto mappingDocument = [](const std::string& vms, system_clock::time_point updated,
                                    std::vector<mongo::Document> hosts) {
        mongo::Document document;
        document.appendString("VmsId", vms).appendDateTime("HostsInfoUpdateTime", updated);
        document.appendDocumentArray("CurHosts", hosts);
        return document;
    };
    const auto hostDocument = [](const std::string& host, bool healthy,
                                 system_clock::time_point updated) {
        mongo::Document document;
        document.appendString("Host", host).appendBool("HealthStatus", healthy);
        document.appendDateTime("LastUpdateTime", updated);
        return document;
    };

    upsert(
        "DeviceIdsToInstancesMapping", "DeviceId", devices[0],
        mappingDocument("vms-1", since + 1s,
                        {hostDocument("h1", true, since), hostDocument("h2", false, since - 1h)}));
    upsert("DeviceIdsToInstancesMapping", "DeviceId", devices[1],
           mappingDocument("vms-2", since, {}));
    upsert("DeviceIdsToInstancesMapping", "DeviceId", devices[2],
           mappingDocument("vms-3", since - 1ms, {hostDocument("h3", true, since)}));

    using Info = DeviceId2InstanceMapping::DeviceInfo;
    using Host = DeviceId2InstanceMapping::HostInfo;
    const Mapping expected{
        true,
        {{devices[0],
          Info{"vms-1", since + 1s, {Host{"h1", true, since}, Host{"h2", false, since - 1h}}}},
         {devices[1], Info{"vms-2", since, {}}}}};
    EXPECT_EQ(expected, mapping(since));
    EXPECT_EQ(Mapping(true, {}), mapping(since + 2s));

    LogCapture log;
    mongo::Document textHealth;
    textHealth.appendString("Host", "h4").appendString("HealthStatus", "yes");
    textHealth.appendDateTime("LastUpdateTime", since);
    upsert("DeviceIdsToInstancesMapping", "DeviceId", devices[3],
           mappingDocument("vms-4", since + 3s, {textHealth}));
    EXPECT_EQ(Mapping(false, {}), mapping(since));
    EXPECT_TRUE(
        log.contains("instances load metrics lookup failed with error :field 'HealthStatus'"));

    mongo::Document in;
    in.appendStringArray("$in", devices);
    mongo::Document filter;
    filter.appendDocument("DeviceId", in);
    EXPECT_EQ(
        4,
        m_client->collection("metadataStorage", "DeviceIdsToInstancesMapping").deleteMany(filter));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
