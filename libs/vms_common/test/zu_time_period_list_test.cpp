#include <gtest/gtest.h>

#include <kest/vms_common/zu_time_period_list.h>

TEST(ZuTimePeriod, EndTimesSaturateAndInfiniteHasNoEnd)
{
    EXPECT_EQ(ZuTimePeriod(1000, 500).endTimeMs(), 1500);
    EXPECT_EQ(ZuTimePeriod(1000, ZuTimePeriod::kInfiniteDuration).endTimeMs(),
              ZuTimePeriod::kMaxTimeMs);
    EXPECT_EQ(ZuTimePeriod(ZuTimePeriod::kMaxTimeMs - 1, 10).endTimeMs(), ZuTimePeriod::kMaxTimeMs);
    EXPECT_TRUE(ZuTimePeriod(0, 10).intersects(ZuTimePeriod(9, 5)));
    EXPECT_FALSE(ZuTimePeriod(0, 10).intersects(ZuTimePeriod(10, 5)));
}

TEST(ZuTimePeriodList, UnionSortsAndMergesOverlappingAndTouching)
{
    ZuTimePeriodList base{{5000, 1000}, {1000, 1000}};
    ZuTimePeriodList::unionTimePeriods(base, {{1500, 1000}, {2500, 500}, {8000, 0}});
    EXPECT_EQ(base, (ZuTimePeriodList{{1000, 2000}, {5000, 1000}, {8000, 0}}));

    ZuTimePeriodList open{{100, 10}};
    ZuTimePeriodList::unionTimePeriods(open, {{105, ZuTimePeriod::kInfiniteDuration}});
    EXPECT_EQ(open, (ZuTimePeriodList{{100, ZuTimePeriod::kInfiniteDuration}}));
}

TEST(ZuTimePeriodList, ExclusionCutsSplitsAndDrops)
{
    ZuTimePeriodList list{{1000, 2000}, {5000, 1000}};
    list.excludeTimePeriod({0, 2000});
    EXPECT_EQ(list, (ZuTimePeriodList{{2000, 1000}, {5000, 1000}}));

    list.excludeTimePeriod({5200, 100});
    EXPECT_EQ(list, (ZuTimePeriodList{{2000, 1000}, {5000, 200}, {5300, 700}}));

    ZuTimePeriodList endsAtCut{{1000, 1000}};
    endsAtCut.excludeTimePeriod({0, 2000});
    EXPECT_TRUE(endsAtCut.empty());

    ZuTimePeriodList infinite{{0, ZuTimePeriod::kInfiniteDuration}};
    infinite.excludeTimePeriod({0, 50});
    EXPECT_EQ(infinite, (ZuTimePeriodList{{50, ZuTimePeriod::kInfiniteDuration}}));
}

TEST(ZuTimePeriodList, EmptyCutChangesNothing)
{
    // Errors read with timestamp 0 cut at [0, 0): periods around 0 must come back whole.
    const ZuTimePeriodList original{
        {-1000, 3000}, {5000, 0}, {7000, ZuTimePeriod::kInfiniteDuration}};
    for (const ZuTimePeriod cut :
         {ZuTimePeriod(0, 0), ZuTimePeriod(5000, 0), ZuTimePeriod(9000, 0)}) {
        ZuTimePeriodList list = original;
        list.excludeTimePeriod(cut);
        EXPECT_EQ(list, original) << toString(cut);
    }
}
