#include <gtest/gtest.h>

#include <kest/cloud/storage/model/data_address_recorder.h>

#include "cluster_fakes.h"

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
using kest::utils::log::Level;

const ZuUuid kDeviceA("{0a000000-0000-0000-0000-000000000001}");
const ZuUuid kDeviceB("{0b000000-0000-0000-0000-000000000002}");
const std::string kHost = "http://10.1.1.1:8080";

/** A committed batch of one device: `count` packets of 1 ms, `stepMs` apart, from `startMs`. */
std::unordered_map<ZuUuid, ZuTimePeriodList> stream(const ZuUuid& device, std::int64_t startMs,
                                                    int count, std::int64_t stepMs = 40)
{
    ZuTimePeriodList list;
    for (int i = 0; i < count; ++i)
        list.push_back({startMs + i * stepMs, 1});
    return {{device, list}};
}

class DataAddressRecorderTest : public ::testing::Test
{
protected:
    RecordingDataDistributionStorage m_storage;
};

// A steady stream becomes one span per device and flush, whatever the number of batches; a
// silence longer than the flush interval starts another span; the next flush starts afresh.
TEST_F(DataAddressRecorderTest, CoalescesPerDeviceAndFlush)
{
    DataAddressRecorder recorder(&m_storage, kHost, 1000ms);
    recorder.flush();
    EXPECT_EQ(m_storage.saveCount(), 0u) << "an empty flush saves nothing";

    for (int batch = 0; batch < 10; ++batch)
        recorder.recordCommitted(stream(kDeviceA, 100'000 + batch * 400, 10));
    recorder.recordCommitted(stream(kDeviceB, 50'000, 3));
    recorder.recordCommitted(stream(kDeviceA, 99'500, 2));   //< Late, within the interval.
    recorder.recordCommitted(stream(kDeviceA, 200'000, 1));  //< After a long silence.
    EXPECT_EQ(recorder.pendingSpans(), 3u);
    recorder.flush();

    ASSERT_EQ(m_storage.saveCount(), 1u);
    auto items = m_storage.items(0);
    std::ranges::sort(items, {}, [](const DataInfo& i) { return i.timePeriod.startTimeMs; });
    const std::string a = kDeviceA.toStdString();
    ASSERT_EQ(a.front(), '{');  //< Device ids are stored braced, as lookups query them.
    EXPECT_EQ(items, (std::vector<DataInfo>{{kDeviceB.toStdString(), ZuTimePeriod(50'000, 81)},
                                            {a, ZuTimePeriod(99'500, 4461)},
                                            {a, ZuTimePeriod(200'000, 1)}}));
    EXPECT_EQ(recorder.pendingSpans(), 0u);

    // Data right after what was saved is a new span of the next flush.
    recorder.recordCommitted(stream(kDeviceA, 200'040, 5));
    recorder.flush();
    ASSERT_EQ(m_storage.saveCount(), 2u);
    EXPECT_EQ(m_storage.items(1), (std::vector<DataInfo>{{a, ZuTimePeriod(200'040, 161)}}));
}

// The first failure is retried with the next flush, next to new spans; a failed retry is logged
// as an error with its spans, and retried again; a success ends it.
TEST_F(DataAddressRecorderTest, RetriesFailedSavesAndLogsFailedRetries)
{
    LogLines log;
    DataAddressRecorder recorder(&m_storage, kHost, 1000ms);
    recorder.recordCommitted(stream(kDeviceA, 1000, 1));
    recorder.flush();
    m_storage.fail(0);
    EXPECT_EQ(recorder.pendingSpans(), 1u);
    EXPECT_EQ(log.find(Level::warning, "Saving 1 data addresses failed").size(), 1u);
    EXPECT_TRUE(log.find(Level::error, "").empty());

    recorder.recordCommitted(stream(kDeviceB, 5000, 1));
    recorder.flush();
    const std::string a = kDeviceA.toStdString();
    const std::string b = kDeviceB.toStdString();
    EXPECT_EQ(m_storage.items(1),
              (std::vector<DataInfo>{{a, ZuTimePeriod(1000, 1)}, {b, ZuTimePeriod(5000, 1)}}));
    m_storage.fail(1);
    const auto errors = log.find(Level::error, "Saving data addresses failed again");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(a), std::string::npos);
    EXPECT_EQ(errors[0].find(b), std::string::npos) << "the new span failed for the first time";
    EXPECT_EQ(log.find(Level::warning, "Saving 1 data addresses failed").size(), 2u);

    // A third failure is counted, not listed again.
    recorder.flush();
    m_storage.fail(2);
    EXPECT_EQ(log.find(Level::error, "Saving data addresses failed again").size(), 2u);
    EXPECT_EQ(log.find(Level::error, "Saving 1 data addresses is still failing").size(), 1u);

    recorder.flush();
    EXPECT_EQ(m_storage.items(3).size(), 2u);
    EXPECT_EQ(recorder.pendingSpans(), 0u);  //< Handed over; the storage did not complain.
    recorder.flush();
    EXPECT_EQ(m_storage.saveCount(), 4u);
}

TEST_F(DataAddressRecorderTest, PendingRetriesAreBoundedDroppingTheOldest)
{
    LogLines log;
    DataAddressRecorder recorder(&m_storage, kHost, 1000ms, /*maxPendingSpans*/ 3);
    for (int i = 0; i < 5; ++i)
        recorder.recordCommitted(stream(kDeviceA, i * 10'000, 1));
    recorder.flush();
    m_storage.fail(0);
    EXPECT_EQ(recorder.pendingSpans(), 3u);
    const auto dropped = log.find(Level::error, "Dropping 2 data addresses");
    ASSERT_EQ(dropped.size(), 1u);
    EXPECT_NE(dropped[0].find("startTimeMs: 0,"), std::string::npos) << dropped[0];
    EXPECT_NE(dropped[0].find("startTimeMs: 10000,"), std::string::npos) << dropped[0];

    recorder.flush();
    std::vector<std::int64_t> kept;
    for (const auto& item : m_storage.items(1))
        kept.push_back(item.timePeriod.startTimeMs);
    EXPECT_EQ(kept, (std::vector<std::int64_t>{20'000, 30'000, 40'000}));
}

// Stop hands over what is recorded; a save that fails after the recorder is gone is logged as
// lost and touches nothing of it.
TEST_F(DataAddressRecorderTest, StopFlushesAndLaterFailuresAreLogged)
{
    LogLines log;
    {
        DataAddressRecorder recorder(&m_storage, kHost, 1h);
        recorder.start();
        recorder.recordCommitted(stream(kDeviceA, 7000, 1));
        recorder.stop();
        ASSERT_EQ(m_storage.saveCount(), 1u);
        EXPECT_EQ(m_storage.items(0).size(), 1u);
    }
    m_storage.fail(0);
    EXPECT_EQ(log.find(Level::error, "Saving data addresses failed while stopping, lost: ").size(),
              1u);
}

TEST_F(DataAddressRecorderTest, FlushesOnItsInterval)
{
    DataAddressRecorder recorder(&m_storage, kHost, 50ms);
    recorder.start();
    recorder.recordCommitted(stream(kDeviceA, 1000, 1));
    ASSERT_TRUE(waitFor([&] { return m_storage.saveCount() == 1; }));
    recorder.recordCommitted(stream(kDeviceA, 2000, 1));
    ASSERT_TRUE(waitFor([&] { return m_storage.saveCount() == 2; }));
    recorder.stop();
    EXPECT_EQ(m_storage.saveCount(), 2u);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
