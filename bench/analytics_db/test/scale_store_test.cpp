#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include <kest/utils/log/logger.h>

#include "../scale_growth.h"
#include "../searched_store.h"
#include "../store_generator.h"

namespace kest::bench {
namespace {

namespace fs = std::filesystem;

TEST(ShortTracks, lastAboutAMinuteAtMostWithAboutTwentyObjectsAndZipfWords)
{
    StoreGenerator generator(shortTrackOptions(3, 2000));
    std::map<ZuUuid, std::pair<std::int64_t, std::int64_t>> spans;
    std::map<std::string, int> words;
    while (const auto packet = generator.next()) {
        for (const auto& object : packet->objectMetadataList) {
            auto [it, isNew] =
                spans.try_emplace(object.trackId, packet->timestampUs, packet->timestampUs);
            it->second.second = packet->timestampUs + packet->durationUs;
            if (isNew) {
                for (const auto& attribute : object.attributes) {
                    if (attribute.name != "License Plate.Number")
                        ++words[attribute.value];
                }
            }
        }
    }
    ASSERT_EQ(spans.size(), 2000u);
    // 40 packets at most, at a device's pace of 1.2 to 1.8 s: 60 s at the mean pace, 72 s at the
    // slowest.
    for (const auto& [id, span] : spans)
        ASSERT_LE(span.second - span.first, 73'000'000) << "a track of more than 40 packets";
    const double perTrack = static_cast<double>(generator.objectsMade()) / spans.size();
    EXPECT_GT(perTrack, 15);
    EXPECT_LT(perTrack, 26);
    // Zipf: a few words are common, most are rare.
    int most = 0, once = 0;
    for (const auto& [word, count] : words) {
        most = std::max(most, count);
        once += count == 1;
    }
    EXPECT_GT(most, 200);
    EXPECT_GT(once, 200);
}

class ScaleStore : public testing::Test
{
protected:
    void SetUp() override
    {
        utils::log::Logger::instance().setLevel(utils::log::Level::warning);
        m_parent = fs::temp_directory_path() / ("scale_store_test_" + std::to_string(::getpid()));
        fs::remove_all(m_parent);
    }
    void TearDown() override { fs::remove_all(m_parent); }

    fs::path m_parent;
};

TEST_F(ScaleStore, isFilledOnceThenReusedAndFilledAgainForOtherData)
{
    const fs::path dir = shortTrackBenchDir(m_parent, 300, 5);
    EXPECT_NE(dir, benchDir(m_parent, 300, 5)) << "long and short tracks share a directory";
    EXPECT_FALSE(isSearchedStoreReady(dir, shortTrackOptions(5, 300)));

    StoreInfo info;
    bool reused = true;
    ASSERT_TRUE(prepareSearchedStore(dir, shortTrackOptions(5, 300), false, &info, &reused));
    EXPECT_FALSE(reused);
    EXPECT_EQ(info.trackCount, 300);
    EXPECT_FALSE(info.samples.empty());
    EXPECT_TRUE(isSearchedStoreReady(dir, shortTrackOptions(5, 300)));

    StoreInfo again;
    ASSERT_TRUE(prepareSearchedStore(dir, shortTrackOptions(5, 300), false, &again, &reused));
    EXPECT_TRUE(reused);
    EXPECT_EQ(again.objectCount, info.objectCount);
    EXPECT_EQ(again.samples.size(), info.samples.size());

    // Another seed in the same directory is not the store there: it is filled anew.
    EXPECT_FALSE(isSearchedStoreReady(dir, shortTrackOptions(6, 300)));
    ASSERT_TRUE(prepareSearchedStore(dir, shortTrackOptions(6, 300), false, &again, &reused));
    EXPECT_FALSE(reused);
    EXPECT_EQ(again.seed, 6u);

    // A fill that was cut short (no info file) is not reused.
    fs::remove(dir / "bench_store.info");
    EXPECT_FALSE(isSearchedStoreReady(dir, shortTrackOptions(6, 300)));
}

TEST(ScaleGrowth, trackCountsAreTwoOrMoreGrowingPositiveNumbers)
{
    EXPECT_EQ(parseTrackCounts("1000000,5000000"),
              (std::vector<std::int64_t>{1'000'000, 5'000'000}));
    EXPECT_EQ(parseTrackCounts("1,2,3"), (std::vector<std::int64_t>{1, 2, 3}));
    for (const char* bad : {"", "1000000", "5,1", "3,3", "0,5", "-1,5", "1,,5", "1,5,", "1x,5",
                            "1, 5", "a,b", "99999999999999999999,1"}) {
        EXPECT_FALSE(parseTrackCounts(bad)) << bad;
    }
}

TEST(ScaleGrowth, comparesTheSameShapesAndHoldsEachAgainstTheGoal)
{
    const std::map<std::string, double> small = {
        {"track id", 0.10}, {"box", 2.0}, {"only small", 1.0}, {"never ran", 0.0}};
    const std::map<std::string, double> large = {
        {"track id", 0.15}, {"box", 3.1}, {"only large", 1.0}, {"never ran", 1.0}};
    const auto figures = growthFigures("scale", small, large);
    ASSERT_EQ(figures.size(), 2u);
    std::map<std::string, const Figure*> byName;
    for (const auto& figure : figures)
        byName[figure.name] = &figure;
    ASSERT_TRUE(byName.contains("track id, p99 growth"));
    ASSERT_TRUE(byName.contains("box, p99 growth"));
    const Figure& track = *byName["track id, p99 growth"];
    EXPECT_DOUBLE_EQ(*track.value, 1.5);
    EXPECT_EQ(track.met(), true) << "the goal is inclusive";
    EXPECT_EQ(track.section, "scale");
    EXPECT_NE(track.note.find("0.10 -> 0.15 ms"), std::string::npos) << track.note;
    EXPECT_EQ(byName["box, p99 growth"]->met(), false);
}

}  // namespace
}  // namespace kest::bench
