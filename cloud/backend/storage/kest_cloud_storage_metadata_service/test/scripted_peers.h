#pragma once

// Instances of a distributed search played by fake clients from the client factory: each URL
// answers as the test scripted it, on the client's I/O thread and after a delay, and every
// request it was sent is kept.

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <kest/cloud/storage/api/abstract_client.h>
#include <kest/cloud/storage/api/client.h>
#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/network/aio/timer.h>
#include <kest/utils/assert.h>

namespace kest::cloud::storage::metadatadb::test {

/** How a fake instance answers: to a search with `tracks`, to an activity count with `activity`. */
struct Reply
{
    Reply(kest::network::http::StatusCode::Value status = kest::network::http::StatusCode::ok,
          std::vector<kest::analytics::db::ObjectTrackEx> tracks = {},
          std::chrono::milliseconds delay = {}, ActivityAnswer activity = {})
        : status(status), tracks(std::move(tracks)), delay(delay), activity(std::move(activity))
    {}

    kest::network::http::StatusCode::Value status = kest::network::http::StatusCode::ok;
    std::vector<kest::analytics::db::ObjectTrackEx> tracks;
    std::chrono::milliseconds delay{0};
    ActivityAnswer activity;
};

/** The fake instances by URL, and the requests they were sent. */
class Peers
{
public:
    void set(const std::string& url, Reply reply)
    {
        std::lock_guard lock(m_mutex);
        m_replies[kest::utils::Url(url).toString()] = std::move(reply);
    }
    bool has(const kest::utils::Url& url) const
    {
        std::lock_guard lock(m_mutex);
        return m_replies.contains(url.toString());
    }
    Reply ask(const kest::utils::Url& url, const DataRequestData& request)
    {
        std::lock_guard lock(m_mutex);
        m_asked.emplace_back(url.toString(), request);
        return m_replies.at(url.toString());
    }
    Reply ask(const kest::utils::Url& url, const ActivityRequestData& request)
    {
        std::lock_guard lock(m_mutex);
        m_activityAsked.emplace_back(url.toString(), request);
        return m_replies.at(url.toString());
    }
    void noteCreated()
    {
        std::lock_guard lock(m_mutex);
        ++m_created;
    }
    std::vector<std::pair<std::string, DataRequestData>> asked() const
    {
        std::lock_guard lock(m_mutex);
        return m_asked;
    }
    std::vector<std::pair<std::string, ActivityRequestData>> activityAsked() const
    {
        std::lock_guard lock(m_mutex);
        return m_activityAsked;
    }
    int created() const
    {
        std::lock_guard lock(m_mutex);
        return m_created;
    }

private:
    mutable std::mutex m_mutex;
    std::map<std::string, Reply> m_replies;
    std::vector<std::pair<std::string, DataRequestData>> m_asked;
    std::vector<std::pair<std::string, ActivityRequestData>> m_activityAsked;
    int m_created = 0;
};

/** Answers searches and activity counts as scripted, on its I/O thread after the delay. */
class FakeClient : public api::AbstractClient
{
public:
    FakeClient(const kest::utils::Url& url, Peers* peers) : AbstractClient(url), m_peers(peers) {}
    ~FakeClient() override { pleaseStopSync(); }

    void getData(const DataRequestData& request,
                 MoveOnlyFunc<void(StatusCode::Value, std::vector<ObjectTrackEx>)> handler) override
    {
        Reply reply = m_peers->ask(baseApiUrl(), request);
        later(reply.delay, [reply, handler = std::move(handler)]() mutable {
            handler(reply.status, std::move(reply.tracks));
        });
    }

    void getActivity(const ActivityRequestData& request,
                     MoveOnlyFunc<void(StatusCode::Value, ActivityAnswer)> handler) override
    {
        Reply reply = m_peers->ask(baseApiUrl(), request);
        later(reply.delay, [reply, handler = std::move(handler)]() mutable {
            handler(reply.status, std::move(reply.activity));
        });
    }

    // Not used by searches.
    void saveData(const std::vector<ObjectMetadataPacket>&,
                  MoveOnlyFunc<void(StatusCode::Value)>) override
    {}
    std::tuple<StatusCode::Value> saveDataSync(const std::vector<ObjectMetadataPacket>&) override
    {
        return {StatusCode::notImplemented};
    }
    std::tuple<StatusCode::Value, std::vector<ObjectTrackEx>> getDataSync(
        const DataRequestData&) override
    {
        return {StatusCode::notImplemented, {}};
    }
    void getOptimalInstance(const OptimalInstanceRequest&,
                            MoveOnlyFunc<void(StatusCode::Value, std::string)>) override
    {}
    std::tuple<StatusCode::Value, std::string> getOptimalInstanceSync(
        const OptimalInstanceRequest&) override
    {
        return {StatusCode::notImplemented, {}};
    }
    void getErrors(const ErrorsRequestData&, const std::vector<ZuUuid>&,
                   MoveOnlyFunc<void(StatusCode::Value, std::vector<DbErrorData>)>) override
    {}
    std::tuple<StatusCode::Value, std::vector<DbErrorData>> getErrorsSync(
        const ErrorsRequestData&, const std::vector<ZuUuid>&) override
    {
        return {StatusCode::notImplemented, {}};
    }

protected:
    void stopWhileInAioThread() override
    {
        m_timers.clear();  //< Cancels on this thread: no reply after a stop.
        AbstractClient::stopWhileInAioThread();
    }

private:
    void later(std::chrono::milliseconds delay, MoveOnlyFunc<void()> answer)
    {
        auto timer = std::make_unique<kest::network::aio::Timer>(getAioThread());
        timer->start(delay, std::move(answer));
        m_timers.push_back(std::move(timer));
    }

    Peers* m_peers;
    std::vector<std::unique_ptr<kest::network::aio::Timer>> m_timers;
};

/**
 * A running instance whose distributed requests go to the scripted fakes of `m_peers` (any other
 * URL gets a real client), at the addresses that `m_distribution` names.
 */
class ScriptedPeersTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_previousFactory = api::ClientFactory::instance().setCreateFunction(
            [this](const kest::utils::Url& url) -> std::unique_ptr<api::AbstractClient> {
                m_peers.noteCreated();
                if (m_peers.has(url))
                    return std::make_unique<FakeClient>(url, &m_peers);
                return std::make_unique<api::Client>(url);
            });
        m_service.emplace(kUnreachableMongo,
                          std::vector<std::string>{"--cluster/peerTimeoutMs=300"});
        ASSERT_TRUE(m_service->started());
        m_assertionFailures = kest::utils::assertionFailureCount();
    }

    void TearDown() override
    {
        m_service.reset();
        api::ClientFactory::instance().setCreateFunction(std::move(m_previousFactory));
        // A second completion of a request would have failed an assertion.
        EXPECT_EQ(kest::utils::assertionFailureCount(), m_assertionFailures);
    }

    ScriptedDistribution m_distribution;
    Peers m_peers;
    api::ClientFactory::CreateFunction m_previousFactory;
    std::optional<RunningService> m_service;
    int m_assertionFailures = 0;
};

}  // namespace kest::cloud::storage::metadatadb::test
