// A cluster as operators run it: three service processes that record their data addresses and
// loads in the shared MongoDB, searched and asked through the client library.

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <sstream>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/cloud/storage/testing/wait_for.h>

#include "../mongo_test_fixture.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::ObjectTrackEx;
using kest::network::http::StatusCode;

constexpr auto kPeerTimeout = 3000ms;

const std::vector<std::string> kQuickSettings{
    "--cluster/dataAddressFlushIntervalMs=200", "--cluster/loadPublishIntervalMs=200",
    "--cluster/peerTimeoutMs=" + std::to_string(kPeerTimeout.count()),
    "--analyticsDb/maxCommitDelayMs=50"};

/** One service process with its own data directory and log file. */
struct Instance
{
    Instance(const std::string& mongoUri, const std::vector<std::string>& settings)
    {
        const std::uint16_t port = freeLoopbackPort();
        url = "http://127.0.0.1:" + std::to_string(port);
        std::vector<std::string> args{
            "--http/listenOn=127.0.0.1:" + std::to_string(port), "--dataDir=" + dir.path(),
            "--log/file=" + dir.path() + "/log", "--MongoDb/uri=" + mongoUri,
            "--cluster/advertisedUrl=" + url};
        args.insert(args.end(), settings.begin(), settings.end());
        process = std::make_unique<ServiceProcess>(KEST_METADATA_STORAGE_PATH, std::move(args));
        this->port = port;
        started = waitFor([&] { return answersPing(port); });
        client = api::ClientFactory::instance().create(kest::utils::Url(url));
    }

    static bool answersPing(std::uint16_t port)
    {
        const auto response = exchange(port, "POST", "/metadataDb/ping");
        return response && response->status == 200;
    }

    TemporaryDirectory dir;
    std::uint16_t port = 0;
    std::string url;
    std::unique_ptr<ServiceProcess> process;
    std::unique_ptr<api::AbstractClient> client;
    bool started = false;
};

/**
 * What waits unread at a loopback port, as the kernel counts it: connections not yet accepted,
 * and connections with bytes not yet read. It grows when a request reaches a stopped process.
 */
std::size_t waitingAt(std::uint16_t port)
{
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);  // The heading.
    std::size_t waiting = 0;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues;
        fields >> slot >> local >> remote >> state >> queues;
        if (std::stoul(local.substr(local.find(':') + 1), nullptr, 16) != port)
            continue;
        const auto received = std::stoul(queues.substr(queues.find(':') + 1), nullptr, 16);
        constexpr const char* kListening = "0A";  //< Its queue is the connections not accepted.
        waiting += state == kListening ? received : (received > 0 ? 1 : 0);
    }
    return waiting;
}

/**
 * Whether every thread of `pid` has stopped. SIGSTOP stops a process one thread after another,
 * each as it is next scheduled: on a loaded machine one may still answer a request meanwhile.
 */
bool allThreadsStopped(pid_t pid)
{
    std::error_code error;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        // The state follows the command name, which is in parentheses.
        const auto name = line.rfind(')');
        if (name == std::string::npos || name + 2 >= line.size() || line[name + 2] != 'T')
            return false;
    }
    return !error;
}

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
            m_instances.push_back(std::make_unique<Instance>(m_uri, kQuickSettings));
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
        waitFor([&] {
            result = instance->client->getDataSync(search);
            return idsOf(std::get<1>(result)) == all;
        });
        EXPECT_EQ(std::get<0>(result), StatusCode::ok) << instance->url;
        EXPECT_EQ(idsOf(std::get<1>(result)), all) << instance->url;
    }

    std::tuple<StatusCode::Value, std::string> choice;
    waitFor([&] {
        choice = m_instances[1]->client->getOptimalInstanceSync({{}, ZuUuid::createUuid()});
        return std::get<0>(choice) == StatusCode::ok;
    });
    ASSERT_EQ(std::get<0>(choice), StatusCode::ok);
    EXPECT_TRUE(std::get<1>(choice) == m_instances[0]->url ||
                std::get<1>(choice) == m_instances[1]->url ||
                std::get<1>(choice) == m_instances[2]->url)
        << std::get<1>(choice);

    // A frozen instance still takes connections but never answers: the peer timeout cuts it off.
    std::set<ZuUuid> others = first;
    others.insert(second.begin(), second.end());
    m_instances[2]->process->signal(SIGSTOP);
    ASSERT_TRUE(waitFor([&] { return allThreadsStopped(m_instances[2]->process->pid()); }));
    auto started = std::chrono::steady_clock::now();
    auto [status, tracks] = m_instances[0]->client->getDataSync(search);
    EXPECT_EQ(status, StatusCode::ok);
    EXPECT_EQ(idsOf(tracks), others);
    EXPECT_LT(std::chrono::steady_clock::now() - started, kPeerTimeout + 2s);

    // Killed while the search to it is in flight: its connection is reset, and the search ends
    // then, not at the peer timeout.
    const std::size_t waitingBefore = waitingAt(m_instances[2]->port);
    started = std::chrono::steady_clock::now();
    auto inFlight = std::async(std::launch::async,
                               [&]() { return m_instances[1]->client->getDataSync(search); });
    ASSERT_TRUE(waitFor([&] { return waitingAt(m_instances[2]->port) > waitingBefore; }));
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

// With every setting at its default, as a new user runs it: what one instance commits is found
// through another within seconds, device by device, the first packet of each included; once the
// first instance is killed, the second still finds what it holds itself.
class ClusterFreshnessTest : public MongoTest
{
protected:
    using Clock = std::chrono::steady_clock;
    static constexpr auto kFoundWithin = 5s;

    /** Saves one packet of its own track per device into the instance, one request each. */
    std::map<ZuUuid, Clock::time_point> save(Instance& instance, const std::vector<ZuUuid>& devices)
    {
        std::map<ZuUuid, Clock::time_point> saved;
        for (const ZuUuid& device : devices) {
            EXPECT_EQ(instance.client->saveDataSync(
                          {packet(device, m_nowMs, ZuUuid::createUuid(), "person")}),
                      std::make_tuple(StatusCode::ok));
            saved[device] = Clock::now();
        }
        return saved;
    }

    /** How long after its save each device's track was found through `entry`, polled in turn. */
    std::map<ZuUuid, Clock::duration> timeToFound(Instance& entry,
                                                  const std::map<ZuUuid, Clock::time_point>& saved)
    {
        std::map<ZuUuid, Clock::duration> found;
        const auto deadline = Clock::now() + 3 * kFoundWithin;
        while (found.size() < saved.size() && Clock::now() < deadline) {
            for (const auto& [device, at] : saved) {
                if (found.contains(device))
                    continue;
                DataRequestData search;
                search.filter.deviceIds = {device};
                search.filter.timePeriod = ZuTimePeriod(m_nowMs - 60'000, 120'000);
                if (!std::get<1>(entry.client->getDataSync(search)).empty())
                    found[device] = Clock::now() - at;
            }
        }
        return found;
    }

    void expectFoundInTime(const std::map<ZuUuid, Clock::duration>& found, std::size_t devices)
    {
        EXPECT_EQ(found.size(), devices);
        for (const auto& [device, after] : found) {
            EXPECT_LE(after, kFoundWithin)
                << device.toStdString() << " found after "
                << std::chrono::duration_cast<std::chrono::milliseconds>(after).count() << " ms";
        }
    }

    const std::int64_t m_nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count();
};

TEST_F(ClusterFreshnessTest, DataIsFoundThroughAnotherInstanceWithinSecondsAtTheDefaults)
{
    Instance a(m_uri, {}), b(m_uri, {});
    ASSERT_TRUE(a.started) << a.process->output();
    ASSERT_TRUE(b.started) << b.process->output();
    std::vector<ZuUuid> devices(20);
    std::ranges::generate(devices, &ZuUuid::createUuid);

    expectFoundInTime(timeToFound(b, save(a, devices)), devices.size());

    a.process->signal(SIGKILL);
    std::vector<ZuUuid> own(20);
    std::ranges::generate(own, &ZuUuid::createUuid);
    expectFoundInTime(timeToFound(b, save(b, own)), own.size());

    // The killed instance refuses connections: the others' tracks come without it at once (each
    // as often as its instance is named, once per device).
    DataRequestData search;
    search.filter.deviceIds.insert(devices.begin(), devices.end());
    search.filter.deviceIds.insert(own.begin(), own.end());
    search.filter.timePeriod = ZuTimePeriod(m_nowMs - 60'000, 120'000);
    const auto [status, tracks] = b.client->getDataSync(search);
    EXPECT_EQ(status, StatusCode::ok);
    std::set<ZuUuid> devicesFound;
    for (const auto& track : tracks)
        devicesFound.insert(track.deviceId);
    EXPECT_EQ(devicesFound, std::set<ZuUuid>(own.begin(), own.end()));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
