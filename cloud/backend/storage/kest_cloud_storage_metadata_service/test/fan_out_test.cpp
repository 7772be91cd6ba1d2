// Distributed searches whose instances are played by fake clients from the client factory:
// what each is asked, how their replies are put together, and how failures and silence count.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include <kest/cloud/storage/api/client.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/testing/keep_alive_connection.h>
#include <kest/cloud/storage/testing/null_data_distribution_storage.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/utils/assert.h>

#include "fake_peers.h"
#include "log_capture.h"
#include "scripted_peers.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::ObjectTrackEx;
using kest::network::http::StatusCode;

const std::string kFailedReply = "errors occured during fetching data from other nodes";

ObjectTrackEx track(const std::string& type)
{
    ObjectTrackEx result;
    result.id = ZuUuid::createUuid();
    result.objectTypeId = type;
    return result;
}

std::vector<std::string> typesOf(const std::vector<ObjectTrackEx>& tracks)
{
    std::vector<std::string> types;
    for (const auto& track : tracks)
        types.push_back(track.objectTypeId);
    return types;
}

class FanOutTest : public ScriptedPeersTest
{
protected:
    /** A distributed search of the addresses, as the shared database would name them. */
    std::optional<HttpResponse> search(std::vector<std::string> addresses, bool lookupOk = true)
    {
        m_distribution.setAddresses(std::move(addresses), lookupOk);
        return m_service->get(dataTarget(m_request));
    }

    std::vector<ObjectTrackEx> tracksOf(const std::optional<HttpResponse>& response)
    {
        std::vector<ObjectTrackEx> tracks;
        EXPECT_TRUE(response && response->status == 200)
            << (response ? response->head + response->body : "no response");
        if (response) {
            EXPECT_TRUE(kest::reflect::json::deserialize(response->body, &tracks).success);
        }
        return tracks;
    }

    DataRequestData m_request;
};

TEST_F(FanOutTest, RepliesAreConcatenatedInArrivalOrderAndAnInstanceListedTwiceIsAskedTwice)
{
    const std::string a = "http://a.test:8080", b = "http://b.test:8080";
    m_peers.set(a, {StatusCode::ok, {track("a1"), track("a2")}, 200ms});
    m_peers.set(b, {StatusCode::ok, {track("b1")}, 0ms});
    m_request.filter.deviceIds = {ZuUuid::createUuid()};
    m_request.filter.maxObjectTracksToSelect = 2;
    m_request.filter.sortOrder = kest::analytics::db::SortOrder::asc;

    // No de-duplication, no re-sorting, no cut at the limit: each instance applied the filter.
    EXPECT_EQ(typesOf(tracksOf(search({a, b, a}))),
              (std::vector<std::string>{"b1", "a1", "a2", "a1", "a2"}));
    const auto asked = m_peers.asked();
    ASSERT_EQ(asked.size(), 3u);
    EXPECT_EQ(asked[0].first, kest::utils::Url(a).toString());
    EXPECT_EQ(asked[1].first, kest::utils::Url(b).toString());
    EXPECT_EQ(asked[2].first, kest::utils::Url(a).toString());
    for (const auto& [url, request] : asked) {
        EXPECT_TRUE(request.internal_lookup) << url;
        EXPECT_EQ(request.filter, m_request.filter) << url;
    }

    // Nobody named: nobody asked.
    const auto empty = search({});
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->status, 200);
    EXPECT_EQ(empty->body, "[]");
    EXPECT_EQ(m_peers.created(), 3);
}

TEST_F(FanOutTest, FailedInstancesCountAsRepliesWithALineEach)
{
    const std::string good = "http://good.test:1", bad = "http://bad.test:1",
                      busy = "http://busy.test:1";
    m_peers.set(good, {StatusCode::ok, {track("g")}, 50ms});
    m_peers.set(bad, {StatusCode::internalServerError, {}, 0ms});
    m_peers.set(busy, {StatusCode::serviceUnavailable, {track("late")}, 0ms});
    LogCapture log;

    EXPECT_EQ(typesOf(tracksOf(search({bad, good}))), std::vector<std::string>{"g"});
    EXPECT_EQ(log.count(kFailedReply), 1);
    // Whatever a failed reply brings is still taken in.
    EXPECT_EQ(typesOf(tracksOf(search({bad, busy}))), std::vector<std::string>{"late"});
    EXPECT_EQ(log.count(kFailedReply), 3);
    // An address that is no URL fails like an instance that cannot be reached.
    EXPECT_EQ(typesOf(tracksOf(search({"no url at all", good}))), std::vector<std::string>{"g"});
    EXPECT_EQ(log.count(kFailedReply), 4);

    const int created = m_peers.created();
    const auto failed = search({good}, /*lookupOk*/ false);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->status, 500);
    EXPECT_EQ(m_peers.created(), created);
    EXPECT_TRUE(log.contains("can't get remote instances addresses for requst with filter {"));
}

TEST_F(FanOutTest, AnInstanceThatNeverAnswersIsCutOffByThePeerTimeout)
{
    SilentPeer silent;
    const std::string good = "http://good.test:1";
    m_peers.set(good, {StatusCode::ok, {track("g")}, 0ms});
    LogCapture log;

    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(typesOf(tracksOf(search({silent.url(), good}))), std::vector<std::string>{"g"});
    const auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_GE(elapsed, 300ms);
    EXPECT_LT(elapsed, 3s);
    EXPECT_EQ(log.count(kFailedReply), 1);

    // A requester that leaves mid-search: the replies that come later find the request gone.
    m_peers.set(good, {StatusCode::ok, {track("g")}, 100ms});
    m_distribution.setAddresses({good, silent.url()});
    {
        KeepAliveConnection leaving(m_service->port());
        ASSERT_TRUE(leaving.send("GET", dataTarget(m_request)));
        ASSERT_TRUE(waitFor([&] { return m_peers.asked().size() == 2; }));
    }
    // The silent instance is cut off then, and the search ends with nobody to answer.
    ASSERT_TRUE(waitFor([&] { return log.count(kFailedReply) == 2; }));
    EXPECT_EQ(typesOf(tracksOf(search({good}))), std::vector<std::string>{"g"});
}

/** Answers its one address lookup only when destroyed, as a storage that finishes its queue. */
class HeldLookupStorage : public NullDataDistributionStorage
{
public:
    explicit HeldLookupStorage(std::promise<void>* asked) : m_asked(asked) {}
    ~HeldLookupStorage() override
    {
        if (m_handler)
            m_handler(true, {"http://late.test:1"});
    }

    void getStorageInfo(const std::vector<std::string>&, const ZuTimePeriod&,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override
    {
        m_handler = std::move(handler);
        m_asked->set_value();
    }

private:
    std::promise<void>* m_asked;
    MoveOnlyFunc<void(bool, std::vector<std::string>)> m_handler;
};

// A stop gives up on requests still pending after its timeout and destroys the server's threads;
// a lookup that ends later must find no thread to go on with, and still end the request.
TEST(FanOutStopTest, ALookupThatEndsAfterTheServerIsGoneEndsTheRequest)
{
    std::promise<void> asked;
    auto previous = DataDistribStorageFactory::instance().setCreateFunction(
        [&asked](const conf::MongoConnectionSettings&)
            -> std::unique_ptr<AbstractDataDistributionStorage> {
            return std::make_unique<HeldLookupStorage>(&asked);
        });
    {
        RunningService service(kUnreachableMongo, {"--http/stopTimeoutMs=100"});
        ASSERT_TRUE(service.started());
        KeepAliveConnection connection(service.port());
        ASSERT_TRUE(connection.send("GET", dataTarget(DataRequestData())));
        EXPECT_EQ(asked.get_future().wait_for(10s), std::future_status::ready);
    }
    DataDistribStorageFactory::instance().setCreateFunction(std::move(previous));
}

// The instance dies while its answer is on the way: the connection is reset after the head and
// part of the body. The search does not wait for the peer timeout, and keeps the others' tracks.
TEST(FanOutPeerDeathTest, APeerKilledMidAnswerCostsOnlyItsOwnTracksAndNoTimeout)
{
    constexpr auto kPeerTimeout = 10s;
    ScriptedDistribution distribution;
    RunningService service(kUnreachableMongo,
                           {"--cluster/peerTimeoutMs=" + std::to_string(kPeerTimeout / 1ms)});
    ASSERT_TRUE(service.started());
    const ZuUuid device = ZuUuid::createUuid(), kept = ZuUuid::createUuid();
    ASSERT_EQ(service.post({packet(device, 1'767'225'600'000, kept, "person")}), 200);

    DyingPeer dying(300ms);
    distribution.setAddresses({dying.url(), service.url()});
    DataRequestData request;
    request.filter.deviceIds = {device};
    LogCapture log;

    const auto started = std::chrono::steady_clock::now();
    const auto response = service.get(dataTarget(request));
    const auto elapsed = std::chrono::steady_clock::now() - started;

    ASSERT_TRUE(response);
    ASSERT_EQ(response->status, 200) << response->body;
    std::vector<ObjectTrackEx> tracks;
    ASSERT_TRUE(kest::reflect::json::deserialize(response->body, &tracks).success);
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(tracks[0].id, kept);
    EXPECT_EQ(dying.answered(), 1);
    EXPECT_EQ(log.count(kFailedReply), 1);
    EXPECT_GE(elapsed, 300ms);
    EXPECT_LT(elapsed, kPeerTimeout / 2);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
