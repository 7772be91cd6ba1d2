#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

#include <kest/cloud/storage/model/data_address_compaction.h>
#include <kest/vms_common/zu_time_period_list.h>

namespace kest::cloud::storage::metadatadb::test {
namespace {

constexpr std::int64_t kHour = 3'600'000;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kT0 = 1'767'225'600'000;  //< Midnight.
constexpr std::int64_t kNoneKept = std::numeric_limits<std::int64_t>::min();

using Plan = DataAddressCompaction::Plan;

ZuTimePeriod span(std::int64_t fromMs, std::int64_t tillMs)
{
    return ZuTimePeriod::fromInterval(fromMs, tillMs);
}

/** The stored spans after the plan: the additions appended, then every copy of a removal gone. */
std::vector<ZuTimePeriod> applied(std::vector<ZuTimePeriod> spans, const Plan& plan)
{
    spans.insert(spans.end(), plan.add.begin(), plan.add.end());
    std::erase_if(spans, [&](const ZuTimePeriod& s) {
        return std::ranges::find(plan.remove, s) != plan.remove.end();
    });
    return spans;
}

/** Five-minute spans, back to back, over [fromMs, tillMs). */
std::vector<ZuTimePeriod> leases(std::int64_t fromMs, std::int64_t tillMs)
{
    std::vector<ZuTimePeriod> spans;
    for (std::int64_t t = fromMs; t < tillMs; t += 300'000)
        spans.push_back(span(t, t + 300'000));
    return spans;
}

TEST(DataAddressCompactionTest, OldSpansMergePerHourDayAndThirtyDaysAndRecentOnesStay)
{
    const std::int64_t now = kT0 + 40 * kDay;
    std::vector<ZuTimePeriod> spans = leases(kT0, now);
    const Plan plan = DataAddressCompaction::plan(spans, now, kNoneKept);
    const auto after = applied(spans, plan);

    ZuTimePeriodList covered;
    std::size_t recent = 0, hourly = 0, daily = 0, monthly = 0;
    for (const ZuTimePeriod& s : after) {
        covered.add(s);
        const std::int64_t length = s.durationMs;
        if (length == 300'000)
            ++recent;
        else if (length <= kHour)
            ++hourly;
        else if (length <= kDay)
            ++daily;
        else
            ++monthly;
    }
    EXPECT_EQ(recent, 12u) << "the last hour stays as it is";
    EXPECT_EQ(hourly, 23u);
    EXPECT_EQ(daily, 29u);
    // Blocks of 30 days count from 1970: one of them ends 6 days after the first span.
    EXPECT_EQ(monthly, 2u);
    EXPECT_EQ(covered, ZuTimePeriodList{span(kT0, now)}) << "nothing is lost, nothing added";

    EXPECT_TRUE(DataAddressCompaction::plan(after, now, kNoneKept).empty())
        << "a compacted document stays as it is";
}

TEST(DataAddressCompactionTest, SpansOfDeletedDataGoEveryCopy)
{
    const std::int64_t now = kT0 + 10 * kHour;
    const std::vector<ZuTimePeriod> spans = {span(kT0, kT0 + 10), span(kT0, kT0 + 10),
                                             span(kT0 + 20, kT0 + 30), span(kT0 + 9 * kHour, now)};
    Plan plan = DataAddressCompaction::plan(spans, now, kT0 + 29);
    EXPECT_TRUE(plan.add.empty());
    EXPECT_EQ(plan.remove, std::vector<ZuTimePeriod>{span(kT0, kT0 + 10)})
        << "a span ending after the oldest kept data stays";
    plan = DataAddressCompaction::plan(spans, now, kT0 + 30);
    EXPECT_EQ(applied(spans, plan), std::vector<ZuTimePeriod>{span(kT0 + 9 * kHour, now)});
}

// Removal takes every copy of a value: a merged span already stored once stays as it is; stored
// twice, it is replaced by one a millisecond longer.
TEST(DataAddressCompactionTest, CopiesOfTheMergedSpanLeaveExactlyOne)
{
    const std::int64_t now = kT0 + 3 * kHour;
    const ZuTimePeriod whole = span(kT0, kT0 + 50 * 60'000);
    const ZuTimePeriod part = span(kT0 + 60'000, kT0 + 120'000);

    Plan plan = DataAddressCompaction::plan({whole, part, part}, now, kNoneKept);
    EXPECT_TRUE(plan.add.empty());
    EXPECT_EQ(plan.remove, std::vector<ZuTimePeriod>{part});

    plan = DataAddressCompaction::plan({whole, part, whole}, now, kNoneKept);
    const auto after = applied({whole, part, whole}, plan);
    EXPECT_EQ(after, std::vector<ZuTimePeriod>{span(kT0, whole.endTimeMs() + 1)});
    EXPECT_TRUE(DataAddressCompaction::plan(after, now, kNoneKept).empty());
}

// Whatever the spans, a stored span leaves only for one that covers it, or because its data is
// gone; a second plan has nothing left to do.
TEST(DataAddressCompactionTest, RandomSpansStayCoveredAndSettle)
{
    std::mt19937_64 random(7);
    const std::int64_t now = kT0 + 90 * kDay;
    for (int round = 0; round < 200; ++round) {
        std::uniform_int_distribution<std::int64_t> start(kT0, now);
        std::uniform_int_distribution<std::int64_t> length(0, 3 * kHour);
        std::vector<ZuTimePeriod> spans;
        for (int i = 0; i < 60; ++i) {
            spans.push_back(ZuTimePeriod(start(random), length(random)));
            if (i % 7 == 0)
                spans.push_back(spans.back());
        }
        const std::int64_t oldestKept = round % 2 ? kNoneKept : start(random);
        const Plan plan = DataAddressCompaction::plan(spans, now, oldestKept);
        const auto after = applied(spans, plan);
        for (const ZuTimePeriod& before : spans) {
            if (before.endTimeMs() <= oldestKept)
                continue;
            EXPECT_TRUE(std::ranges::any_of(after,
                                            [&](const ZuTimePeriod& s) {
                                                return s.startTimeMs <= before.startTimeMs &&
                                                       s.endTimeMs() >= before.endTimeMs();
                                            }))
                << round << ": " << toString(before);
        }
        for (const ZuTimePeriod& s : after)
            EXPECT_GT(s.endTimeMs(), oldestKept);
        EXPECT_TRUE(DataAddressCompaction::plan(after, now, oldestKept).empty()) << round;
    }
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
