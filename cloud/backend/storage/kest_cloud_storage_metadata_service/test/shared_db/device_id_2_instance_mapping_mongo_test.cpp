// The device-to-instance cache on real mapping documents. The cache reads every mapping, so it
// runs with the other tests of the shared collections, one at a time.

#include <gtest/gtest.h>

#include <kest/cloud/storage/model/device_id_2_instance_mapping.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/model/mongo/document.h>
#include <kest/cloud/storage/model/mongo/pooled_client.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/settings.h>

#include "../mongo_test_fixture.h"
#include "../storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using Clock = std::chrono::system_clock;
using Cache = DeviceId2InstanceMapping;
using Ids = std::vector<std::string>;

class DeviceId2InstanceMappingMongoTest : public MongoTest
{};

TEST_F(DeviceId2InstanceMappingMongoTest, ReadsTheMappingDocuments)
{
    FakeStoragesGuard fakes;  // For the analytics storage only.
    DataDistribStorageFactory::CreateFunction previous =
        DataDistribStorageFactory::instance().setCreateFunction(
            [this](const conf::MongoConnectionSettings&)
                -> std::unique_ptr<AbstractDataDistributionStorage> {
                return std::make_unique<MongoDataDistributionStorage>(m_uri);
            });
    struct Restore
    {
        DataDistribStorageFactory::CreateFunction& previous;
        ~Restore() { DataDistribStorageFactory::instance().setCreateFunction(std::move(previous)); }
    } restore{previous};

    conf::Settings settings;
    Model model(settings);
    auto* storage = static_cast<MongoDataDistributionStorage*>(model.getDDSModel());
    const std::string ownHost = uniqueName("http://own");
    const std::string mine = uniqueName("dev");
    const std::string theirs = uniqueName("dev");
    const auto write = [&](const std::string& device, const std::string& host) {
        mongo::Document hostDocument;
        hostDocument.appendString("Host", host).appendBool("HealthStatus", true);
        hostDocument.appendDateTime("LastUpdateTime", Clock::now());
        mongo::Document fields;
        fields.appendString("VmsId", "vms").appendDateTime("HostsInfoUpdateTime", Clock::now());
        fields.appendDocumentArray("CurHosts", {hostDocument});
        mongo::Document filter;
        filter.appendString("DeviceId", device);
        mongo::Document update;
        update.appendDocument("$set", fields);
        storage->getClient()
            .collection("metadataStorage", MongoDataDistributionStorage::kMappingCollection)
            .updateOne(filter, update, true);
    };
    write(mine, ownHost);
    write(theirs, uniqueName("http://other"));

    Cache cache(model, ownHost);
    ASSERT_TRUE(cache.initializeCacheSync());
    EXPECT_EQ(cache.getMissingDeviceIds({mine, theirs, "unknown"}), Ids{"unknown"});
    const auto current = cache.curInstanceDeviceIds();
    EXPECT_NE(std::ranges::find(current, mine), current.end());
    const auto others = cache.otherInstancesDeviceIds();
    EXPECT_NE(std::ranges::find(others, theirs), others.end());

    // The device moves here; the next update sees only what changed since the first.
    write(theirs, ownHost);
    cache.updateCacheSync();
    const auto moved = cache.curInstanceDeviceIds();
    EXPECT_NE(std::ranges::find(moved, theirs), moved.end());

    mongo::Document filter;
    mongo::Document in;
    in.appendStringArray("$in", {mine, theirs});
    filter.appendDocument("DeviceId", in);
    storage->getClient()
        .collection("metadataStorage", MongoDataDistributionStorage::kMappingCollection)
        .deleteMany(filter);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
