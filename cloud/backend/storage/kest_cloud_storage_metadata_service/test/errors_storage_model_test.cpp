#include <gtest/gtest.h>

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include <kest/cloud/storage/model/errors_storage_model.h>

namespace kest::cloud::storage::metadatadb {
namespace {

using namespace std::chrono_literals;

constexpr unsigned int kNoLimit = 4294967295u;

const ZuUuid kDeviceA("{11111111-1111-1111-1111-111111111111}");
const ZuUuid kDeviceB("{22222222-2222-2222-2222-222222222222}");
const ZuUuid kDeviceC("{33333333-3333-3333-3333-333333333333}");

class ErrorsStorageModelTest : public ::testing::Test
{
protected:
    void save(const ZuUuid& device, ZuTimePeriodList periods,
              kest::sql::DBResult result = kest::sql::DBResult::ioError)
    {
        m_model.saveErrors(result, {{device, std::move(periods)}});
    }

    std::vector<DbErrorData> all(std::chrono::milliseconds timestamp = 0ms)
    {
        return m_model.getErrors({}, timestamp, kNoLimit);
    }

    ErrorsStorageModel m_model;
};

TEST_F(ErrorsStorageModelTest, ReportsAreMergedPerDeviceWhateverTheResultCode)
{
    save(kDeviceA, {{1000, 1000}}, kest::sql::DBResult::ok);
    save(kDeviceA, {{1500, 1000}, {5000, 100}}, kest::sql::DBResult::full);
    save(kDeviceB, {{0, 10}});
    m_model.saveErrors(kest::sql::DBResult::ioError, {});

    const auto errors = m_model.getErrors({kDeviceA}, 0ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(kDeviceA, errors[0].deviceId);
    EXPECT_EQ((ZuTimePeriodList{{1000, 1500}, {5000, 100}}), errors[0].timePeriod);
    EXPECT_EQ(2u, all().size());
}

TEST_F(ErrorsStorageModelTest, TimestampCutsAndSkipsWithoutChangingHistory)
{
    save(kDeviceA, {{1000, 2000}, {5000, 1000}});
    save(kDeviceB, {{100, 900}});  // Ends at exactly 1000.
    save(kDeviceC, {});

    auto errors = m_model.getErrors({kDeviceA}, 2000ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ((ZuTimePeriodList{{2000, 1000}, {5000, 1000}}), errors[0].timePeriod);

    // Ending exactly at the timestamp is not "before" it: kept, but emptied by the cut.
    errors = m_model.getErrors({kDeviceB}, 1000ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_TRUE(errors[0].timePeriod.empty());
    EXPECT_TRUE(m_model.getErrors({kDeviceB}, 1001ms, kNoLimit).empty());

    // A device saved with no periods is reported at any timestamp.
    errors = m_model.getErrors({kDeviceC}, 1'000'000ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_TRUE(errors[0].timePeriod.empty());

    errors = m_model.getErrors({kDeviceA}, 0ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ((ZuTimePeriodList{{1000, 2000}, {5000, 1000}}), errors[0].timePeriod);

    // Timestamp 0 returns whole lists, even a period that contains the instant 0.
    save(kDeviceB, {{-1000, 3000}});
    errors = m_model.getErrors({kDeviceB}, 0ms, kNoLimit);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ((ZuTimePeriodList{{-1000, 3000}}), errors[0].timePeriod);
}

TEST_F(ErrorsStorageModelTest, SortedByLatestErrorEndAndTruncatedToCount)
{
    save(kDeviceA, {{8000, 1000}});  // Ends at 9000.
    save(kDeviceB, {{6000, 1000}});  // Ends at 7000.
    save(kDeviceC, {{500, 500}});    // Emptied by the cut below: sorts first.

    auto errors = m_model.getErrors({}, 1000ms, kNoLimit);
    ASSERT_EQ(3u, errors.size());
    EXPECT_EQ(kDeviceC, errors[0].deviceId);
    EXPECT_EQ(kDeviceB, errors[1].deviceId);
    EXPECT_EQ(kDeviceA, errors[2].deviceId);

    errors = m_model.getErrors({kDeviceA, kDeviceB}, 0ms, 1);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(kDeviceB, errors[0].deviceId);
    EXPECT_TRUE(m_model.getErrors({}, 0ms, 0).empty());
}

TEST_F(ErrorsStorageModelTest, ClearForAllDevicesErasesEndedAndCutsTheRest)
{
    save(kDeviceA, {{1000, 1000}});                // Ends at 2000 < 3000: erased.
    save(kDeviceB, {{1000, 1000}, {2500, 1000}});  // Cut to [3000, 3500).
    save(kDeviceC, {});                            // Empty: erased.
    m_model.clearData({}, 3000ms);

    const auto errors = all();
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(kDeviceB, errors[0].deviceId);
    EXPECT_EQ((ZuTimePeriodList{{3000, 500}}), errors[0].timePeriod);

    // New reports after a clear start from the pruned history.
    save(kDeviceA, {{10, 10}});
    EXPECT_EQ(2u, all().size());
}

TEST_F(ErrorsStorageModelTest, ClearNamingEveryDeviceReturns)
{
    save(kDeviceA, {{1000, 1000}});
    save(kDeviceB, {{5000, 1000}});
    m_model.clearData({kDeviceA, kDeviceB, kDeviceC}, 3000ms);

    const auto errors = all();
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(kDeviceB, errors[0].deviceId);
}

// A clear that names some devices must not return while another device is in the history. It
// spins on that device: once it has run for a fifth of a second of its own CPU time, millions of
// turns, it is past any point where it could have returned, however loaded the machine is. The
// clear never ends, so it runs in a child process.
TEST(ErrorsStorageModelDeathTest, ClearNamingSomeDevicesWaitsForTheOthers)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            auto* model = new ErrorsStorageModel();  // Outlives the stuck worker.
            model->saveErrors(kest::sql::DBResult::ioError, {{kDeviceA, {{0, 10}}}});
            model->saveErrors(kest::sql::DBResult::ioError, {{kDeviceB, {{0, 10}}}});
            std::atomic<bool> returned{false};
            std::thread worker([&] {
                model->clearData({kDeviceA}, 100ms);
                returned = true;
            });
            clockid_t clock;
            pthread_getcpuclockid(worker.native_handle(), &clock);
            worker.detach();
            const auto spun = [&] {
                timespec used{};
                return clock_gettime(clock, &used) == 0 &&
                       std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec) >=
                           200ms;
            };
            const auto deadline = std::chrono::steady_clock::now() + 60s;
            while (!returned && !spun() && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(1ms);
            std::_Exit(returned ? 1 : spun() ? 42 : 2);
        },
        ::testing::ExitedWithCode(42), "");
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb
