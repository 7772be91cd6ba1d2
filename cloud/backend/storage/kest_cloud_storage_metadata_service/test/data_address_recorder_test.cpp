#include <gtest/gtest.h>

#include <kest/cloud/storage/model/data_address_recorder.h>
#include <kest/cloud/storage/testing/recording_data_distribution_storage.h>
#include <kest/cloud/storage/testing/wait_for.h>

#include "log_capture.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::utils::log::Level;
using Span = RecordingDataDistributionStorage::Span;

const ZuUuid kDeviceA("{0a000000-0000-0000-0000-000000000001}");
const ZuUuid kDeviceB("{0b000000-0000-0000-0000-000000000002}");
const std::string kHost = "http://10.1.1.1:8080";
constexpr auto kLease = 5min;
constexpr std::int64_t kLeaseMs = 300'000;
constexpr std::int64_t kT0 = 1'767'225'600'000;

std::string idOf(const ZuUuid& device)
{
    return device.toStdString();
}

/** The data of the devices is stamped with the recorder's clock, as a live stream is. */
class DataAddressRecorderTest : public ::testing::Test
{
protected:
    std::unique_ptr<DataAddressRecorder> makeRecorder(std::size_t maxPending = 100'000)
    {
        return std::make_unique<DataAddressRecorder>(
            &m_storage, kHost,
            DataAddressRecorder::Options{.leaseLength = kLease,
                                         .clock = [this] { return now(); },
                                         .timer = false,
                                         .maxPendingSpans = maxPending});
    }

    std::chrono::system_clock::time_point now() const
    {
        return std::chrono::system_clock::time_point(std::chrono::milliseconds(m_nowMs));
    }

    /** Data of the device from the clock's time on, `ms` long; the clock moves to its end. */
    void stream(DataAddressRecorder& recorder, const ZuUuid& device, std::int64_t ms)
    {
        recorder.recordCommitted({{device, ZuTimePeriodList{ZuTimePeriod(m_nowMs, ms)}}});
        m_nowMs += ms;
        recorder.tick();
    }

    /** Whether the spans stored for the device cover all of `period`. */
    bool covered(const ZuUuid& device, const ZuTimePeriod& period) const
    {
        ZuTimePeriodList left{period};
        for (const Span& span : m_storage.document(idOf(device)))
            left.excludeTimePeriod(span.period);
        return left.empty();
    }

    /** Two spans of one device that share time name the instance twice for that time. */
    bool overlapFree(const ZuUuid& device) const
    {
        auto spans = m_storage.document(idOf(device));
        std::ranges::sort(spans, {}, [](const Span& s) { return s.period.startTimeMs; });
        for (std::size_t i = 1; i < spans.size(); ++i) {
            if (spans[i].period.startTimeMs < spans[i - 1].period.endTimeMs())
                return false;
        }
        return true;
    }

    RecordingDataDistributionStorage m_storage;
    std::int64_t m_nowMs = kT0;
};

// An hour of a steady stream, committed every 200 ms: each commit is covered as soon as it is
// reported, a search reaching past the newest data finds it, and the hour costs one span per
// lease plus the first.
TEST_F(DataAddressRecorderTest, SteadyStreamIsCoveredAtOnceWithOneSpanPerLease)
{
    auto recorder = makeRecorder();
    recorder->start();
    while (m_nowMs < kT0 + 3'600'000) {
        const std::int64_t committed = m_nowMs;
        stream(*recorder, kDeviceA, 200);
        ASSERT_TRUE(covered(kDeviceA, ZuTimePeriod(committed, 200))) << committed - kT0;
        ASSERT_TRUE(m_storage.finds(idOf(kDeviceA), ZuTimePeriod(m_nowMs - 1, 60'000), kHost));
    }
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod::fromInterval(kT0, m_nowMs)));
    EXPECT_EQ(m_storage.appendedSpans(), 3'600'000 / kLeaseMs + 1);
    EXPECT_TRUE(overlapFree(kDeviceA));
    EXPECT_EQ(recorder->pendingSpans(), 0u);
}

// A minute of activity every 3 minutes is a steady stream to the leases; silences longer than the
// lease cost one span each and nothing more.
TEST_F(DataAddressRecorderTest, SilencesLongerThanTheLeaseCostOneSpanEach)
{
    auto recorder = makeRecorder();
    recorder->start();
    for (int burst = 0; burst < 20; ++burst) {
        for (int i = 0; i < 60; ++i)
            stream(*recorder, kDeviceA, 1'000);
        m_nowMs += 120'000;
    }
    EXPECT_LE(m_storage.appendedSpans(), 3'600'000 / kLeaseMs + 1);
    EXPECT_TRUE(overlapFree(kDeviceA));

    for (int burst = 0; burst < 4; ++burst) {
        m_nowMs += 14 * 60'000;
        const std::int64_t start = m_nowMs;
        const std::size_t before = m_storage.appendedSpans();
        for (int i = 0; i < 60; ++i)
            stream(*recorder, kDeviceB, 1'000);
        EXPECT_EQ(m_storage.appendedSpans(), before + 1) << burst;
        EXPECT_TRUE(covered(kDeviceB, ZuTimePeriod::fromInterval(start, m_nowMs)));
    }
    EXPECT_TRUE(overlapFree(kDeviceB));
}

// Data older than what is recorded (a late upload) and data in a gap get spans of their own that
// end where the recorded ones begin.
TEST_F(DataAddressRecorderTest, LateDataFillsTheGapsWithoutOverlap)
{
    auto recorder = makeRecorder();
    recorder->start();
    m_nowMs = kT0 + 3'600'000;
    stream(*recorder, kDeviceA, 1'000);
    recorder->recordCommitted(
        {{kDeviceA, ZuTimePeriodList{ZuTimePeriod(kT0, 1'000), ZuTimePeriod(kT0 + 3'500'000, 1)}}});
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod(kT0, 1'000)));
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod(kT0 + 3'500'000, 1)));
    EXPECT_TRUE(overlapFree(kDeviceA));
    const auto before = m_storage.appendedSpans();
    recorder->recordCommitted({{kDeviceA, ZuTimePeriodList{ZuTimePeriod(kT0 + 500, 10)}}});
    EXPECT_EQ(m_storage.appendedSpans(), before) << "recorded already";
}

// A restarted instance reads what it recorded before: data within the old lease gets no new span,
// and data committed before the read completes is recorded after it.
TEST_F(DataAddressRecorderTest, RestartRecordsNeitherAgainNorLess)
{
    {
        auto recorder = makeRecorder();
        recorder->start();
        for (int i = 0; i < 600; ++i)
            stream(*recorder, kDeviceA, 1'000);
        recorder->stop();
    }
    const std::size_t before = m_storage.appendedSpans();

    m_storage.holdReads();
    auto recorder = makeRecorder();
    recorder->start();
    stream(*recorder, kDeviceA, 1'000);
    m_nowMs += 30'000;
    stream(*recorder, kDeviceB, 1'000);
    EXPECT_EQ(m_storage.appendedSpans(), before) << "nothing before the read";
    EXPECT_EQ(recorder->pendingSpans(), 2u);
    m_storage.completeRead();
    EXPECT_EQ(m_storage.appendedSpans(), before + 1) << "only the new device";
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod::fromInterval(kT0, m_nowMs)));
    EXPECT_TRUE(covered(kDeviceB, ZuTimePeriod(m_nowMs - 1'000, 1'000)));
    EXPECT_TRUE(overlapFree(kDeviceA));
}

// A failed save is retried after a second, then two, then four, next to new spans, which go
// first; the first failure is a warning, the second an error with the spans, later ones a count.
TEST_F(DataAddressRecorderTest, FailedSavesAreRetriedAfterNewSpans)
{
    LogCapture log;
    auto recorder = makeRecorder();
    recorder->start();
    m_storage.holdWrites();
    stream(*recorder, kDeviceA, 1'000);
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    m_storage.completeAppend(/*failed*/ 1);
    EXPECT_EQ(recorder->pendingSpans(), 1u);
    EXPECT_EQ(
        log.find(Level::warning, "Saving 1 data addresses failed; retrying in 1000 ms").size(), 1u);
    recorder->tick();
    EXPECT_EQ(m_storage.heldAppends(), 0u) << "not due yet";

    m_nowMs += 1'000;
    stream(*recorder, kDeviceB, 1'000);
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    const auto items = m_storage.heldItems();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].deviceId, idOf(kDeviceB));
    EXPECT_EQ(items[1].deviceId, idOf(kDeviceA));
    m_storage.completeAppend(/*failed*/ 2);
    auto errors = log.find(Level::error, "Saving data addresses failed again");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(idOf(kDeviceA)), std::string::npos);
    EXPECT_EQ(errors[0].find(idOf(kDeviceB)), std::string::npos);

    m_nowMs += 1'000;
    recorder->tick();
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    EXPECT_EQ(m_storage.heldItems().size(), 1u) << "device A waits twice as long";
    m_storage.completeAppend(/*failed*/ 1);
    m_nowMs += 1'000;
    recorder->tick();
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    m_storage.completeAppend(/*failed*/ 1);
    EXPECT_EQ(log.find(Level::error, "Saving data addresses failed again").size(), 2u);
    EXPECT_EQ(log.find(Level::error, "Saving 1 data addresses is still failing").size(), 1u);

    m_nowMs += 4'000;
    recorder->tick();
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    EXPECT_EQ(m_storage.heldItems().size(), 2u);
    m_storage.completeAppend();
    EXPECT_EQ(recorder->pendingSpans(), 0u);
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod(kT0, 1'000)));
    EXPECT_TRUE(covered(kDeviceB, ZuTimePeriod(kT0 + 2'000, 1'000)));
}

// A span whose document the server refuses goes after the others, so that it holds back no other
// device; an ordered write stored what came before it.
TEST_F(DataAddressRecorderTest, RefusedSpansGoLast)
{
    auto recorder = makeRecorder();
    recorder->start();
    m_storage.holdWrites();
    recorder->recordCommitted({{kDeviceA, ZuTimePeriodList{ZuTimePeriod(kT0, 10)}}});
    recorder->recordCommitted({{kDeviceB, ZuTimePeriodList{ZuTimePeriod(kT0, 10)}}});
    m_storage.completeAppend(/*failed*/ 1, /*refused*/ true);
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    m_storage.completeAppend(/*failed*/ 1);  //< Device B, failed on its own.

    m_nowMs += 1'000;
    const ZuUuid deviceC = ZuUuid::createUuid();
    recorder->recordCommitted({{deviceC, ZuTimePeriodList{ZuTimePeriod(kT0, 10)}}});
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    std::vector<std::string> order;
    for (const auto& item : m_storage.heldItems())
        order.push_back(item.deviceId);
    EXPECT_EQ(order, (std::vector<std::string>{idOf(deviceC), idOf(kDeviceB), idOf(kDeviceA)}));
    m_storage.completeAppend(/*failed*/ 1, /*refused*/ true);
    EXPECT_EQ(recorder->pendingSpans(), 1u);
    EXPECT_TRUE(covered(kDeviceB, ZuTimePeriod(kT0, 10)));
    EXPECT_TRUE(covered(deviceC, ZuTimePeriod(kT0, 10)));
}

TEST_F(DataAddressRecorderTest, PendingRetriesAreBoundedDroppingTheOldest)
{
    LogCapture log;
    auto recorder = makeRecorder(/*maxPending*/ 3);
    recorder->start();
    m_storage.holdWrites();
    std::unordered_map<ZuUuid, ZuTimePeriodList> devices;
    for (int i = 0; i < 5; ++i)
        devices[ZuUuid::createUuid()] = ZuTimePeriodList{ZuTimePeriod(kT0, 10)};
    recorder->recordCommitted(devices);
    const auto sent = m_storage.heldItems();
    m_storage.completeAppend(/*failed*/ 5);
    EXPECT_EQ(recorder->pendingSpans(), 3u);
    const auto dropped = log.find(Level::error, "Dropping 2 data addresses");
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_NE(dropped[0].find(sent[0].deviceId), std::string::npos) << dropped[0];
    EXPECT_NE(dropped[0].find(sent[1].deviceId), std::string::npos) << dropped[0];

    m_nowMs += 1'000;
    recorder->tick();
    m_storage.completeAppend();
    EXPECT_EQ(recorder->pendingSpans(), 0u);
    for (std::size_t i = 2; i < sent.size(); ++i)
        EXPECT_EQ(m_storage.document(sent[i].deviceId).size(), 1u);
}

// Two days of a steady stream with the hourly compaction: the document stays small and still
// covers every committed second; once the oldest data is deleted, its spans go too.
TEST_F(DataAddressRecorderTest, CompactionKeepsTheDocumentSmallAndEveryCommitCovered)
{
    auto recorder = makeRecorder();
    recorder->start();
    while (m_nowMs < kT0 + 2 * 86'400'000)
        stream(*recorder, kDeviceA, 1'000);
    EXPECT_GT(m_storage.replaces(), 40);
    EXPECT_GE(m_storage.reads(), 48);
    const auto reads = m_storage.readDevices();
    EXPECT_TRUE(reads.front().empty()) << "at start, every document that names this instance";
    EXPECT_EQ(reads.back(), std::vector<std::string>{idOf(kDeviceA)}) << "then its own devices'";
    const auto spans = m_storage.document(idOf(kDeviceA));
    // Under two hours of leases, hours of the last day, and the first day.
    EXPECT_LE(spans.size(), 2 * 12 + 24 + 1u);
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod::fromInterval(kT0, m_nowMs)));
    EXPECT_TRUE(overlapFree(kDeviceA));

    const std::int64_t oldestKept = kT0 + 36 * 3'600'000;
    recorder->setOldestKept(std::chrono::system_clock::time_point(1ms * oldestKept));
    const int readsBefore = m_storage.reads();
    while (m_storage.reads() == readsBefore)
        stream(*recorder, kDeviceA, 60'000);
    for (const Span& span : m_storage.document(idOf(kDeviceA)))
        EXPECT_GT(span.period.endTimeMs(), oldestKept) << toString(span.period);
    EXPECT_FALSE(m_storage.finds(idOf(kDeviceA), ZuTimePeriod(kT0, 3'600'000), kHost));
    EXPECT_TRUE(covered(kDeviceA, ZuTimePeriod::fromInterval(oldestKept, m_nowMs)));
}

// Stop hands over what waits for a retry at once; a save that fails after the stop is logged as
// lost.
TEST_F(DataAddressRecorderTest, StopHandsOverTheRetriesAndLaterFailuresAreLost)
{
    LogCapture log;
    auto recorder = makeRecorder();
    recorder->start();
    m_storage.holdWrites();
    stream(*recorder, kDeviceA, 1'000);
    m_storage.completeAppend(/*failed*/ 1);
    recorder->stop();
    ASSERT_EQ(m_storage.heldAppends(), 1u);
    EXPECT_EQ(m_storage.heldItems().size(), 1u);
    m_storage.completeAppend(/*failed*/ 1);
    EXPECT_EQ(log.find(Level::error, "Saving data addresses failed while stopping, lost: ").size(),
              1u);
    recorder.reset();
    EXPECT_EQ(m_storage.heldAppends(), 0u);
}

// Retries are due on the recorder's own timer.
TEST_F(DataAddressRecorderTest, RetriesOnItsOwnTimer)
{
    DataAddressRecorder recorder(&m_storage, kHost, DataAddressRecorder::Options{});
    recorder.start();
    m_storage.holdWrites();
    recorder.recordCommitted({{kDeviceA, ZuTimePeriodList{ZuTimePeriod(kT0, 10)}}});
    m_storage.completeAppend(/*failed*/ 1);
    ASSERT_TRUE(waitFor([&] { return m_storage.heldAppends() == 1; }));
    m_storage.completeAppend();
    EXPECT_EQ(recorder.pendingSpans(), 0u);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
