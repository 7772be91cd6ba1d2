#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <atomic>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/model/data_distrib_storage_factory.h>
#include <kest/cloud/storage/model/dd_provider_factory.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/test_launcher.h>
#include <kest/cloud/storage/testing/recording_data_distribution_storage.h>
#include <kest/cloud/storage/testing/wait_for.h>

#include "../mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;

struct StoredSpan
{
    std::int64_t fromMs = 0;
    std::int64_t tillMs = 0;
    std::string node;
};

// The service with the real events storage and the real shared database, run in-process; the
// test saves into the storage as the data saver would.
class ClusterTest : public MongoTest
{
protected:
    void SetUp() override
    {
        MongoTest::SetUp();
        if (IsSkipped())
            return;
        ASSERT_TRUE(m_dataDir.isValid());
        m_previousFactory = DdProviderFactory::instance().setCreateFunction(
            [this]() -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
                auto storage = std::make_unique<kest::analytics::db::EventsStorage>();
                m_storage = storage.get();
                return storage;
            });
    }

    void TearDown() override
    {
        if (m_previousFactory)
            DdProviderFactory::instance().setCreateFunction(std::move(m_previousFactory));
    }

    bool start(Launcher* launcher, std::vector<std::string> extraArgs)
    {
        m_args = {"--http/listenOn=127.0.0.1:0", "--dataDir=" + m_dataDir.path().toStdString(),
                  "--MongoDb/uri=" + m_uri};
        m_args.insert(m_args.end(), extraArgs.begin(), extraArgs.end());
        std::vector<const char*> argv;
        for (const auto& arg : m_args)
            argv.push_back(arg.c_str());
        return launcher->startService(argv, /*waitUntilStarted*/ true);
    }

    /** `count` packets of 1 ms, 40 ms apart, from `startMs`. */
    void savePackets(const ZuUuid& device, std::int64_t startMs, int count)
    {
        for (int i = 0; i < count; ++i) {
            auto packet = std::make_shared<kest::common::metadata::ObjectMetadataPacket>();
            packet->deviceId = device;
            packet->timestampUs = (startMs + i * 40) * 1000;
            packet->durationUs = 1000;
            packet->streamIndex = kest::common::metadata::StreamIndex::primary;
            kest::common::metadata::ObjectMetadata object;
            object.trackId = ZuUuid::createUuid();
            object.typeId = "person";
            object.boundingBox = {0.1, 0.1, 0.2, 0.2};
            packet->objectMetadataList.push_back(object);
            m_storage.load()->save(std::move(packet));
        }
    }

    std::vector<StoredSpan> storedSpans(const ZuUuid& device) const
    {
        MongoDataDistributionStorage reader(m_uri);
        const auto client = reader.getClient();
        const auto collection = client.collection("metadataStorage", "dataDistribution");
        mongo::Document filter;
        filter.appendString("DeviceId", device.toStdString());
        auto cursor = collection.find(filter);
        std::vector<StoredSpan> spans;
        while (const auto document = cursor.next()) {
            for (const auto& span : document->getDocumentArray("StorageInfo")) {
                spans.push_back({span.getDateTimeMs("TimeFrom"), span.getDateTimeMs("TimesTill"),
                                 span.getString("Node")});
            }
        }
        return spans;
    }

    QTemporaryDir m_dataDir;
    std::vector<std::string> m_args;
    std::atomic<kest::analytics::db::AbstractEventsStorage*> m_storage{nullptr};
    DdProviderFactory::CreateFunction m_previousFactory;
};

constexpr std::int64_t kStartMs = 1'700'000'000'000;

TEST_F(ClusterTest, CommittedDataIsRecordedWithThisInstanceAsItsNode)
{
    const std::string node = "http://" + uniqueName("node") + ".test:8080";
    const ZuUuid device = ZuUuid::createUuid();
    Launcher launcher;
    ASSERT_TRUE(
        start(&launcher, {"--cluster/advertisedUrl=" + node, "--analyticsDb/maxCommitDelayMs=50"}));
    savePackets(device, kStartMs, 100);
    const std::int64_t endMs = kStartMs + 99 * 40 + 1;

    // Whichever batches the commits fell into, one span covers the data and reaches at most the
    // lease length (5 minutes) past it.
    std::vector<StoredSpan> spans;
    ASSERT_TRUE(waitFor([&] {
        spans = storedSpans(device);
        return !spans.empty() && spans.back().tillMs >= endMs;
    })) << spans.size();
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans[0].fromMs, kStartMs);
    EXPECT_LE(spans[0].tillMs, endMs + 300'000);
    EXPECT_EQ(spans[0].node, node);
    launcher.stop();
    EXPECT_EQ(launcher.exitCode(), 0);
    EXPECT_EQ(storedSpans(device).size(), 1u) << "nothing more to record on the way out";
}

// Packets still queued when the service stops are committed and recorded on the way out; without
// an advertised URL nothing is recorded.
TEST_F(ClusterTest, StopRecordsWhatItCommitsOnTheWayOut)
{
    const std::string node = "http://" + uniqueName("node") + ".test:8080";
    const ZuUuid device = ZuUuid::createUuid();
    {
        Launcher launcher;
        ASSERT_TRUE(start(&launcher, {"--cluster/advertisedUrl=" + node,
                                      "--cluster/dataAddressFlushIntervalMs=3600000",
                                      "--analyticsDb/maxCommitDelayMs=60000"}));
        savePackets(device, kStartMs, 50);
        launcher.stop();
    }
    const auto spans = storedSpans(device);
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans[0].fromMs, kStartMs);
    // A lease of an hour past the first committed batch.
    EXPECT_GE(spans[0].tillMs, kStartMs + 49 * 40 + 1);
    EXPECT_LE(spans[0].tillMs, kStartMs + 49 * 40 + 1 + 3'600'000);
    EXPECT_EQ(spans[0].node, node);

    const ZuUuid unrecorded = ZuUuid::createUuid();
    {
        Launcher launcher;
        ASSERT_TRUE(start(&launcher, {}));
        savePackets(unrecorded, kStartMs, 5);
        launcher.stop();
    }
    EXPECT_TRUE(storedSpans(unrecorded).empty());
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
