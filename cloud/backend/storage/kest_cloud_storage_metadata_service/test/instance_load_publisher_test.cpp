#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <kest/cloud/storage/model/instance_load_publisher.h>
#include <kest/cloud/storage/testing/recording_data_distribution_storage.h>
#include <kest/cloud/storage/testing/wait_for.h>

#include "storage_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::analytics::db::StorageStatistics;

const std::string kHost = "http://10.1.1.2:8080";

/** An events storage whose figures the test sets, and which counts how often they are read. */
class StatisticsStorage : public FakeEventsStorage
{
public:
    explicit StatisticsStorage(EventLog* log) : FakeEventsStorage(log, true) {}

    StorageStatistics statistics() const override
    {
        std::lock_guard lock(m_mutex);
        ++m_reads;
        return m_statistics;
    }
    void set(const StorageStatistics& statistics)
    {
        std::lock_guard lock(m_mutex);
        m_statistics = statistics;
    }
    int reads() const
    {
        std::lock_guard lock(m_mutex);
        return m_reads;
    }

private:
    mutable std::mutex m_mutex;
    StorageStatistics m_statistics;
    mutable int m_reads = 0;
};

StorageStatistics figures(std::uint64_t accepted, std::uint64_t queued, std::uint64_t storeBytes,
                          std::uint64_t availableBytes)
{
    StorageStatistics s;
    s.packetsAccepted = accepted;
    s.queuedPackets = queued;
    s.maxQueuedPackets = 1000;
    s.storeBytes = storeBytes;
    s.diskAvailableBytes = availableBytes;
    return s;
}

TEST(InstanceLoadPublisherTest, FiguresFollowTheDocumentedFormula)
{
    RecordingDataDistributionStorage storage;
    InstanceLoadPublisher publisher(&storage, nullptr, kHost, 10s, /*nominal*/ 50'000);
    const auto t0 = std::chrono::steady_clock::time_point(1h);

    // No rate yet: only the queue and the store count.
    auto load = publisher.update(figures(1000, 500, 1, 3), t0);
    EXPECT_EQ(load.host, kHost);
    EXPECT_DOUBLE_EQ(load.shortLoadMetric, 0.5);
    EXPECT_DOUBLE_EQ(load.longLoadMetric, 0.5 + 0.25);

    // 250,000 packets in 10 s: half the nominal rate; the average starts here.
    load = publisher.update(figures(251'000, 100, 1, 3), t0 + 10s);
    EXPECT_DOUBLE_EQ(load.shortLoadMetric, 0.5 + 0.1);
    EXPECT_DOUBLE_EQ(load.longLoadMetric, 0.6 + 0.25);

    // Idle for one averaging time: the average keeps 1/e of its value.
    load = publisher.update(figures(251'000, 0, 0, 0), t0 + 10s + 15min);
    EXPECT_DOUBLE_EQ(load.shortLoadMetric, 0);
    EXPECT_NEAR(load.longLoadMetric, 0.6 / std::exp(1.0), 1e-12);

    // Two minutes of the nominal rate move it a little towards 1.
    const double before = load.longLoadMetric;
    load = publisher.update(figures(251'000 + 6'000'000, 0, 0, 0), t0 + 10s + 17min);
    EXPECT_DOUBLE_EQ(load.shortLoadMetric, 1.0);
    EXPECT_NEAR(load.longLoadMetric, before + (1 - before) * (1 - std::exp(-2.0 / 15)), 1e-12);

    // A counter that went back gives no rate; no limit known gives no queue term.
    auto noLimit = figures(10, 70, 0, 0);
    noLimit.maxQueuedPackets = 0;
    load = publisher.update(noLimit, t0 + 13s + 17min);
    EXPECT_DOUBLE_EQ(load.shortLoadMetric, 0);
}

// The first figures go out at start, then on the interval, unchanged figures not again, and the
// stopped figures last.
TEST(InstanceLoadPublisherTest, PublishesOnItsIntervalAndMarksTheStop)
{
    EventLog log;
    StatisticsStorage events(&log);
    RecordingDataDistributionStorage storage;
    InstanceLoadPublisher publisher(&storage, &events, kHost, 20ms, 50'000);
    events.set(figures(0, 0, 0, 0));
    publisher.start();
    ASSERT_EQ(storage.loads().size(), 1u);
    EXPECT_EQ(storage.loads()[0], (InstanseLoad{kHost, 0, 0}));

    // Sampled on the interval; an idle instance repeats no figures.
    ASSERT_TRUE(waitFor([&] { return events.reads() >= 4; }));
    EXPECT_EQ(storage.loads().size(), 1u);

    events.set(figures(0, 250, 0, 0));
    ASSERT_TRUE(waitFor([&] { return storage.loads().size() >= 2; }));
    EXPECT_DOUBLE_EQ(storage.loads()[1].shortLoadMetric, 0.25);

    publisher.stop();
    const auto loads = storage.loads();
    constexpr double kStopped = std::numeric_limits<double>::max();
    EXPECT_EQ(loads.back(), (InstanseLoad{kHost, kStopped, kStopped}));
    // Changed figures after the stop are not published: the stopped ones stay the last.
    events.set(figures(0, 500, 0, 0));
    publisher.publish();
    publisher.stop();
    EXPECT_EQ(storage.loads(), loads);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
