#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <thread>

#include <kest/cloud/storage/model/device_id_2_instance_mapping.h>
#include <kest/cloud/storage/model/model.h>
#include <kest/cloud/storage/settings.h>
#include <kest/utils/assert.h>

#include "log_capture.h"
#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using Cache = DeviceId2InstanceMapping;
using Ids = std::vector<std::string>;

constexpr const char* kOwnHost = "http://me:1";

/** Mapping requests wait until the test answers them, on a thread of its own like the real one. */
class ScriptedStorage : public FakeDataDistributionStorage
{
public:
    using FakeDataDistributionStorage::FakeDataDistributionStorage;

    void getDeviceInstancesMapping(Clock::time_point since,
                                   MoveOnlyFunc<void(bool, DeviceMapping)> handler) override
    {
        std::function<void()> onRequest;
        {
            std::lock_guard lock(m_mutex);
            m_requests.push_back({since, std::move(handler)});
            ++m_requestCount;
            m_changed.notify_all();
            onRequest = m_onRequest;
        }
        if (onRequest)
            onRequest();
    }

    /** Called on the requesting thread after each request is queued. */
    void onRequest(std::function<void()> hook)
    {
        std::lock_guard lock(m_mutex);
        m_onRequest = std::move(hook);
    }

    /** Waits for the next request and answers it; the `since` it asked with. */
    Clock::time_point answer(bool ok, DeviceMapping update = {})
    {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_changed.wait_for(lock, 30s, [this]() { return !m_requests.empty(); }));
        if (m_requests.empty())
            return {};
        auto request = std::move(m_requests.front());
        m_requests.pop_front();
        lock.unlock();
        std::thread([handler = std::move(request.handler), ok,
                     update = std::move(update)]() mutable {
            handler(ok, std::move(update));
        }).join();
        return request.since;
    }

    std::size_t pending() const
    {
        std::lock_guard lock(m_mutex);
        return m_requests.size();
    }
    int requests() const
    {
        std::lock_guard lock(m_mutex);
        return m_requestCount;
    }

private:
    struct Request
    {
        Clock::time_point since;
        MoveOnlyFunc<void(bool, DeviceMapping)> handler;
    };

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Request> m_requests;
    int m_requestCount = 0;
    std::function<void()> m_onRequest;
};

Cache::DeviceInfo servedBy(std::vector<std::string> hosts)
{
    Cache::DeviceInfo info;
    info.vmsId = "vms";
    for (auto& host : hosts)
        info.curHosts.push_back({std::move(host), true, Clock::now()});
    return info;
}

std::set<std::string> sorted(const Ids& ids)
{
    return {ids.begin(), ids.end()};
}

class DeviceId2InstanceMappingTest : public ::testing::Test
{
protected:
    DeviceId2InstanceMappingTest()
    {
        m_previous = DataDistribStorageFactory::instance().setCreateFunction(
            [this](const conf::MongoConnectionSettings&)
                -> std::unique_ptr<AbstractDataDistributionStorage> {
                auto storage = std::make_unique<ScriptedStorage>(&m_log);
                m_storage = storage.get();
                return storage;
            });
        m_model.emplace(m_settings);
    }
    ~DeviceId2InstanceMappingTest() override
    {
        m_model.reset();
        DataDistribStorageFactory::instance().setCreateFunction(std::move(m_previous));
    }

    /** Runs initializeCacheSync() on a thread of its own, answering its request with `update`. */
    bool initialize(Cache& cache, bool ok, AbstractDataDistributionStorage::DeviceMapping update)
    {
        auto initialized =
            std::async(std::launch::async, [&]() { return cache.initializeCacheSync(); });
        m_storage->answer(ok, std::move(update));
        return initialized.get();
    }

    EventLog m_log;
    FakeStoragesGuard m_fakes;  // The analytics storage; the distribution storage is replaced.
    DataDistribStorageFactory::CreateFunction m_previous;
    conf::Settings m_settings;
    ScriptedStorage* m_storage = nullptr;
    std::optional<Model> m_model;
};

TEST_F(DeviceId2InstanceMappingTest, DevicesAreSplitByWhetherThisInstanceServesThem)
{
    Cache cache(*m_model, kOwnHost);
    ASSERT_TRUE(initialize(cache, true,
                           {{"shared", servedBy({"http://other:2", kOwnHost})},
                            {"mine", servedBy({kOwnHost})},
                            {"theirs", servedBy({"http://other:2"})},
                            {"nobody", servedBy({})},
                            {"prefix", servedBy({"http://me:10"})}}));
    EXPECT_EQ(sorted(cache.curInstanceDeviceIds()), (std::set<std::string>{"shared", "mine"}));
    EXPECT_EQ(sorted(cache.otherInstancesDeviceIds()),
              (std::set<std::string>{"theirs", "nobody", "prefix"}));
    EXPECT_EQ(cache.getMissingDeviceIds({"z", "mine", "a", "theirs", "z"}), (Ids{"z", "a", "z"}));
    EXPECT_TRUE(cache.getMissingDeviceIds({}).empty());

    // Updates are incremental: only the devices they name move, and nothing is ever dropped.
    std::thread update([&]() { cache.updateCacheSync(); });
    m_storage->answer(true, {{"theirs", servedBy({kOwnHost})}, {"mine", servedBy({"http://x:3"})}});
    update.join();
    EXPECT_EQ(sorted(cache.curInstanceDeviceIds()), (std::set<std::string>{"shared", "theirs"}));
    EXPECT_EQ(sorted(cache.otherInstancesDeviceIds()),
              (std::set<std::string>{"mine", "nobody", "prefix"}));
}

TEST_F(DeviceId2InstanceMappingTest, UpdatesAskForChangesSinceTheLastSuccessfulStart)
{
    Cache cache(*m_model, kOwnHost);
    const auto beforeFirst = Clock::now();
    auto initialized =
        std::async(std::launch::async, [&]() { return cache.initializeCacheSync(); });
    EXPECT_EQ(m_storage->answer(true), Clock::time_point{});  // The first one asks for all.
    ASSERT_TRUE(initialized.get());

    std::thread failing([&]() { cache.updateCacheSync(); });
    const auto secondSince = m_storage->answer(false);
    failing.join();
    EXPECT_GE(secondSince, beforeFirst);
    // A failure keeps the sets, turns the cache uninitialised and keeps the time to ask from.
    EXPECT_FALSE(cache.isCacheInitialized());
    const int failures = kest::utils::assertionFailureCount();
    EXPECT_TRUE(cache.curInstanceDeviceIds().empty());
    EXPECT_EQ(kest::utils::assertionFailureCount(), failures + 1);

    std::thread retry([&]() { cache.updateCacheSync(); });
    EXPECT_EQ(m_storage->answer(true), secondSince);
    retry.join();
    EXPECT_TRUE(cache.isCacheInitialized());
}

TEST_F(DeviceId2InstanceMappingTest, FailedFirstUpdateLeavesTheCacheUninitialised)
{
    Cache cache(*m_model, kOwnHost);
    EXPECT_FALSE(cache.isCacheInitialized());
    EXPECT_FALSE(initialize(cache, false, {}));
    EXPECT_FALSE(cache.isCacheInitialized());
}

TEST_F(DeviceId2InstanceMappingTest, AForcedUpdateWhileOneRunsJoinsIt)
{
    Cache cache(*m_model, kOwnHost);
    ASSERT_TRUE(initialize(cache, true, {}));

    // The second update is forced from within the storage call of the first, so that the first
    // surely runs then; it must wait for that one rather than ask again.
    bool nested = false;
    m_storage->onRequest([&] {
        if (std::exchange(nested, true))
            return;
        cache.updateCacheSync();
        EXPECT_EQ(cache.curInstanceDeviceIds(), Ids{"d"}) << "returned before the update ended";
    });
    std::thread first([&]() { cache.updateCacheSync(); });
    m_storage->answer(true, {{"d", servedBy({kOwnHost})}});
    first.join();
    EXPECT_EQ(m_storage->pending(), 0u);
    EXPECT_EQ(m_storage->requests(), 2) << "the initialisation and the first update only";
}

// Each period is short enough to come by itself while the other is too long to come during the
// test: the one that comes is the one the outcome chose.
TEST_F(DeviceId2InstanceMappingTest, AFailedUpdateIsRetriedOnTheRetryPeriod)
{
    Cache cache(*m_model, kOwnHost);
    cache.setRefreshPeriods(/*update*/ 1h, /*retry*/ 20ms);
    EXPECT_FALSE(initialize(cache, false, {}));
    m_storage->answer(true, {{"late", servedBy({"http://other:2"})}});  // The retry.
    EXPECT_EQ(cache.otherInstancesDeviceIds(), Ids{"late"});
}

TEST_F(DeviceId2InstanceMappingTest, ASuccessfulUpdateIsRefreshedOnTheUpdatePeriod)
{
    Cache cache(*m_model, kOwnHost);
    cache.setRefreshPeriods(/*update*/ 20ms, /*retry*/ 1h);
    ASSERT_TRUE(initialize(cache, true, {}));
    m_storage->answer(true, {{"next", servedBy({kOwnHost})}});  // The refresh.
    EXPECT_EQ(cache.curInstanceDeviceIds(), Ids{"next"});
}

TEST_F(DeviceId2InstanceMappingTest, AnAnswerArrivingAfterTheCacheIsGoneIsDropped)
{
    LogCapture log;
    {
        Cache cache(*m_model, kOwnHost);
        cache.updateCache();
    }
    // The answer runs its handler to the end before answer() returns: a failure that reached the
    // cache would be logged by then (and touch freed memory).
    m_storage->answer(false);
    EXPECT_FALSE(log.contains("cache update failed"));
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
