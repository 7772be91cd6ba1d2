#include <gtest/gtest.h>
#include <kest/analytics_db/stored_id_filter.h>
#include <random>

namespace kest::analytics::db {
namespace {

TEST(StoredIdFilter, HoldsEveryKeyAddedAndFewOthersAsItGrows)
{
    StoredIdFilter filter;
    filter.reset(1000);
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> added;
    // Random keys, and keys one apart (ids of another store's making need not be spread), past
    // the first layer's room, so that later ones land in larger layers.
    for (int i = 0; i < 200'000; ++i)
        added.push_back(i % 2 ? random() : static_cast<std::uint64_t>(i));
    for (const std::uint64_t key : added)
        filter.add(key);
    for (const std::uint64_t key : added)
        ASSERT_TRUE(filter.mayHold(key)) << key;
    int falsePositives = 0;
    constexpr int kOthers = 100'000;
    for (int i = 0; i < kOthers; ++i)
        falsePositives += filter.mayHold(random());
    EXPECT_LT(falsePositives, kOthers / 50);
    EXPECT_LT(filter.bytes(), std::size_t{1} << 20);

    filter.reset(10);
    EXPECT_FALSE(filter.mayHold(added[1]));
}

TEST(StoredIdFilter, BeforeItIsFilledOrPastItsMemoryBoundEveryKeyMayBeThere)
{
    StoredIdFilter filter;
    EXPECT_TRUE(filter.mayHold(12345));
    filter.reset(StoredIdFilter::kMaxBytes * 8);
    EXPECT_EQ(filter.bytes(), 0u);
    EXPECT_TRUE(filter.mayHold(12345));
    filter.add(1);
    EXPECT_TRUE(filter.mayHold(2));
}

}  // namespace
}  // namespace kest::analytics::db
