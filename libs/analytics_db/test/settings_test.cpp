#include <gtest/gtest.h>

#include <kest/analytics_db/settings.h>
#include <kest/utils/zu_settings.h>

namespace kest::analytics::db::test {

using namespace std::chrono_literals;

TEST(Settings, LoadsItsGroupAndKeepsDefaultsForMissingOrBadKeys)
{
    ZuSettings store;
    store.setValue("analyticsDb/path", "/var/x");
    store.setValue("analyticsDb/maxAgeDays", "30");
    store.setValue("analyticsDb/maxCommitDelayMs", "50");
    store.setValue("analyticsDb/maxQueuedPackets", "many");
    store.setValue("analyticsDb/maxQueuedMb", "16");
    store.setValue("analyticsDb/maxOpenTracksMb", "8");
    store.setValue("analyticsDb/writerCacheSizeKb", "2048");
    store.setValue("analyticsDb/cacheSizeKb", "4096");
    store.setValue("analyticsDb/mmapSizeMb", "0");
    store.setValue("other/maxOpenTracksMb", "-1");
    store.setValue("analyticsDb/synchronous", "FULL");
    store.setValue("other/maxAgeDays", "150000000");
    store.setValue("other/maxCommitDelayMs", "9300000000000");
    Settings settings;
    settings.load(store);
    EXPECT_EQ(settings.path, "/var/x");
    EXPECT_EQ(settings.maxAgeDays, 30);
    EXPECT_EQ(settings.maxCommitDelay, 50ms);
    EXPECT_EQ(settings.maxQueuedPackets, Settings().maxQueuedPackets);
    EXPECT_EQ(settings.maxQueuedBytes, 16u << 20);
    EXPECT_EQ(settings.maxOpenTrackBytes, 8u << 20);
    // The writer's cache and the searches' are set apart.
    EXPECT_EQ(settings.writerCacheSizeKb, 2048);
    EXPECT_EQ(settings.connection.cacheSizeKb, 4096);
    EXPECT_EQ(settings.connection.mmapSizeMb, 0);
    EXPECT_EQ(settings.connection.synchronous, "FULL");
    EXPECT_EQ(settings.connection.journalMode, "WAL");

    Settings other;
    other.load(store, "other");
    // Ages and delays so large that time arithmetic would overflow are capped.
    EXPECT_EQ(other.maxAgeDays, Settings::kMaxAgeDaysLimit);
    EXPECT_EQ(other.maxCommitDelay, Settings::kMaxCommitDelayLimit);
    EXPECT_TRUE(other.path.isEmpty());
    EXPECT_EQ(other.maxOpenTrackBytes, Settings().maxOpenTrackBytes);
    EXPECT_EQ(other.writerCacheSizeKb, Settings().writerCacheSizeKb);
}

}  // namespace kest::analytics::db::test
