// A cluster as operators run it: three service processes that record their data addresses and
// loads in the shared MongoDB, searched and asked through the client library.

#include <gtest/gtest.h>

#include <signal.h>

#include <future>
#include <set>
#include <thread>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>

#include "../mongo_test_fixture.h"
#include "../running_service.h"
#include "../service_process.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::ObjectTrackEx;
using kest::network::http::StatusCode;

constexpr auto kPeerTimeout = 1000ms;

/** One service process with its own data directory and log file. */
struct Instance
{
    Instance(const std::string& mongoUri)
    {
        const std::uint16_t port = freeLoopbackPort();
        url = "http://127.0.0.1:" + std::to_string(port);
        process = std::make_unique<ServiceProcess>(
            KEST_METADATA_STORAGE_PATH,
            std::vector<std::string>{
                "--http/listenOn=127.0.0.1:" + std::to_string(port), "--dataDir=" + dir.path(),
                "--log/file=" + dir.path() + "/log", "--MongoDb/uri=" + mongoUri,
                "--cluster/advertisedUrl=" + url, "--cluster/dataAddressFlushIntervalMs=200",
                "--cluster/loadPublishIntervalMs=200",
                "--cluster/peerTimeoutMs=" + std::to_string(kPeerTimeout.count()),
                "--analyticsDb/maxCommitDelayMs=50"});
        for (int i = 0; i < 200 && !answersPing(port); ++i)
            std::this_thread::sleep_for(50ms);
        started = answersPing(port);
        client = api::ClientFactory::instance().create(kest::utils::Url(url));
    }

    static bool answersPing(std::uint16_t port)
    {
        const auto response = exchange(port, "POST", "/metadataDb/ping");
        return response && response->status == 200;
    }

    TemporaryDirectory dir;
    std::string url;
    std::unique_ptr<ServiceProcess> process;
    std::unique_ptr<api::AbstractClient> client;
    bool started = false;
};

std::set<ZuUuid> idsOf(const std::vector<ObjectTrackEx>& tracks)
{
    std::set<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.insert(track.id);
    return ids;
}

class ClusterProcessesTest : public MongoTest
{
protected:
    void SetUp() override
    {
        MongoTest::SetUp();
        if (IsSkipped())
            return;
        // Loads left by other runs would take part in the choice.
        clearLoads();
        for (int i = 0; i < 3; ++i) {
            m_instances.push_back(std::make_unique<Instance>(m_uri));
            ASSERT_TRUE(m_instances.back()->started) << m_instances.back()->process->output();
        }
    }

    void TearDown() override
    {
        for (auto& instance : m_instances)
            instance->process->signal(SIGKILL);
        m_instances.clear();
        if (!IsSkipped())
            clearLoads();
    }

    void clearLoads()
    {
        MongoDataDistributionStorage storage(m_uri);
        storage.getClient()
            .collection("metadataStorage", MongoDataDistributionStorage::kHostsLoadCollection)
            .deleteMany(mongo::Document());
    }

    /** Saves one packet of its own track per device into the instance; the tracks. */
    std::set<ZuUuid> save(Instance& instance, const std::vector<ZuUuid>& devices)
    {
        std::vector<kest::common::metadata::ObjectMetadataPacket> packets;
        std::set<ZuUuid> tracks;
        for (const ZuUuid& device : devices) {
            const ZuUuid track = ZuUuid::createUuid();
            packets.push_back(packet(device, m_t0 + 1'000 * packets.size(), track, "person"));
            tracks.insert(track);
        }
        EXPECT_EQ(instance.client->saveDataSync(packets), std::make_tuple(StatusCode::ok));
        return tracks;
    }

    std::vector<std::unique_ptr<Instance>> m_instances;
    const std::int64_t m_t0 = 1'767'225'600'000;
};

TEST_F(ClusterProcessesTest, EveryInstanceFindsEveryInstancesDataAndLosingOneLosesOnlyItsOwn)
{
    const ZuUuid a = ZuUuid::createUuid(), b = ZuUuid::createUuid(), c = ZuUuid::createUuid(),
                 shared = ZuUuid::createUuid();
    std::set<ZuUuid> first = save(*m_instances[0], {a, shared});
    std::set<ZuUuid> second = save(*m_instances[1], {b, shared});
    std::set<ZuUuid> third = save(*m_instances[2], {c});
    std::set<ZuUuid> all = first;
    all.insert(second.begin(), second.end());
    all.insert(third.begin(), third.end());

    DataRequestData search;
    search.filter.deviceIds = {a, b, c, shared};
    search.filter.timePeriod = ZuTimePeriod(m_t0, 3'600'000);
    // Found once each instance has committed its packets and recorded where they are.
    for (const auto& instance : m_instances) {
        std::tuple<StatusCode::Value, std::vector<ObjectTrackEx>> result;
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        do {
            result = instance->client->getDataSync(search);
        } while (idsOf(std::get<1>(result)) != all && std::chrono::steady_clock::now() < deadline &&
                 (std::this_thread::sleep_for(50ms), true));
        EXPECT_EQ(std::get<0>(result), StatusCode::ok) << instance->url;
        EXPECT_EQ(idsOf(std::get<1>(result)), all) << instance->url;
    }

    std::tuple<StatusCode::Value, std::string> choice;
    for (int i = 0; i < 200 && std::get<0>(choice) != StatusCode::ok; ++i) {
        choice = m_instances[1]->client->getOptimalInstanceSync({{}, ZuUuid::createUuid()});
        std::this_thread::sleep_for(50ms);
    }
    ASSERT_EQ(std::get<0>(choice), StatusCode::ok);
    EXPECT_TRUE(std::get<1>(choice) == m_instances[0]->url ||
                std::get<1>(choice) == m_instances[1]->url ||
                std::get<1>(choice) == m_instances[2]->url)
        << std::get<1>(choice);

    // A frozen instance still takes connections but never answers: the peer timeout cuts it off.
    std::set<ZuUuid> others = first;
    others.insert(second.begin(), second.end());
    m_instances[2]->process->signal(SIGSTOP);
    auto started = std::chrono::steady_clock::now();
    auto [status, tracks] = m_instances[0]->client->getDataSync(search);
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), others);
    EXPECT_LT(std::chrono::steady_clock::now() - started, kPeerTimeout + 2s);

    // Killed while the search to it is in flight: its connection is reset, and the search ends
    // then, not at the peer timeout.
    started = std::chrono::steady_clock::now();
    auto inFlight = std::async(std::launch::async,
                               [&]() { return m_instances[1]->client->getDataSync(search); });
    std::this_thread::sleep_for(kPeerTimeout / 4);
    m_instances[2]->process->signal(SIGKILL);
    std::tie(status, tracks) = inFlight.get();
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), others);
    EXPECT_LT(std::chrono::steady_clock::now() - started, kPeerTimeout);

    // A dead one refuses connections: no wait at all.
    started = std::chrono::steady_clock::now();
    std::tie(status, tracks) = m_instances[1]->client->getDataSync(search);
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), others);
    EXPECT_LT(std::chrono::steady_clock::now() - started, kPeerTimeout);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
