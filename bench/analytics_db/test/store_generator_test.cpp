#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "../store_generator.h"
#include "../store_info.h"
#include "latency_stats.h"

namespace kest::bench {
namespace {

using common::metadata::ObjectMetadataPacket;
using common::metadata::Rect;

struct TrackSeen
{
    ZuUuid deviceId;
    std::string typeId;
    ZuUuid engineId;
    std::vector<common::metadata::Attribute> attributes;
    int packets = 0;
    Rect lastBox;
};

GeneratorOptions smallStore()
{
    GeneratorOptions options;
    options.seed = 7;
    options.deviceCount = 12;
    options.trackCount = 600;
    return options;
}

TEST(StoreGenerator, sameSeedGivesSameStoreAndAnotherSeedDoesNot)
{
    StoreGenerator a(smallStore());
    StoreGenerator b(smallStore());
    auto otherOptions = smallStore();
    otherOptions.seed = 8;
    StoreGenerator other(otherOptions);
    for (int i = 0; i < 500; ++i) {
        const auto packetA = a.next();
        const auto packetB = b.next();
        ASSERT_TRUE(packetA && packetB);
        ASSERT_EQ(*packetA, *packetB) << "packet " << i;
    }
    EXPECT_NE(*a.next(), *other.next());
    EXPECT_EQ(a.deviceIds(), b.deviceIds());
}

TEST(StoreGenerator, makesExactlyTheTracksAskedForWithRealisticShape)
{
    const GeneratorOptions options = smallStore();
    StoreGenerator generator(options);
    std::map<ZuUuid, TrackSeen> tracks;
    std::int64_t lastTimeUs = 0;
    std::int64_t packets = 0, objects = 0, bestShots = 0;
    const std::set<ZuUuid> devices(generator.deviceIds().begin(), generator.deviceIds().end());

    while (const auto packet = generator.next()) {
        ++packets;
        EXPECT_GE(packet->timestampUs, lastTimeUs) << "packets come in time order";
        lastTimeUs = packet->timestampUs;
        EXPECT_TRUE(devices.contains(packet->deviceId));
        ASSERT_GE(packet->objectMetadataList.size(), 1u);
        ASSERT_LE(packet->objectMetadataList.size(), 10u);

        std::set<ZuUuid> inPacket;
        for (const auto& object : packet->objectMetadataList) {
            ++objects;
            EXPECT_TRUE(inPacket.insert(object.trackId).second) << "a track twice in a packet";
            const Rect& box = object.boundingBox;
            EXPECT_FALSE(box.isEmpty());
            EXPECT_GE(box.x, 0);
            EXPECT_GE(box.y, 0);
            EXPECT_LE(box.x + box.width, 1 + 1e-9);
            EXPECT_LE(box.y + box.height, 1 + 1e-9);
            EXPECT_GE(object.attributes.size(), 2u);
            EXPECT_LE(object.attributes.size(), 6u);
            if (object.isBestShot())
                ++bestShots;

            auto [it, isNew] = tracks.try_emplace(object.trackId);
            TrackSeen& seen = it->second;
            if (isNew) {
                seen = {packet->deviceId,
                        object.typeId,
                        object.analyticsEngineId,
                        object.attributes,
                        0,
                        box};
            } else {
                EXPECT_EQ(seen.deviceId, packet->deviceId);
                EXPECT_EQ(seen.typeId, object.typeId);
                EXPECT_EQ(seen.engineId, object.analyticsEngineId);
                EXPECT_EQ(seen.attributes, object.attributes);
                EXPECT_LT(std::abs(box.x - seen.lastBox.x), 0.05) << "boxes move smoothly";
                EXPECT_LT(std::abs(box.y - seen.lastBox.y), 0.05) << "boxes move smoothly";
            }
            seen.lastBox = box;
            ++seen.packets;
        }
    }

    EXPECT_EQ(static_cast<std::int64_t>(tracks.size()), options.trackCount);
    EXPECT_EQ(generator.tracksStarted(), options.trackCount);
    EXPECT_EQ(generator.packetsMade(), packets);
    EXPECT_EQ(generator.objectsMade(), objects);
    EXPECT_GT(bestShots, 0);
    std::set<std::string> types;
    std::set<ZuUuid> engines;
    for (const auto& [id, seen] : tracks) {
        EXPECT_GE(seen.packets, options.minTrackPackets);
        EXPECT_LE(seen.packets, options.maxTrackPackets);
        types.insert(seen.typeId);
        engines.insert(seen.engineId);
    }
    EXPECT_GE(types.size(), 4u);
    EXPECT_EQ(engines.size(), 2u);
    EXPECT_FALSE(generator.next()) << "the store stays finished";
}

TEST(StoreGenerator, fixedObjectCountWithoutQuietPeriodsKeepsEveryPacketFull)
{
    GeneratorOptions options = smallStore();
    options.trackCount = std::numeric_limits<std::int64_t>::max();
    options.minObjectsPerPacket = options.maxObjectsPerPacket = 5;
    options.quietPeriods = false;
    StoreGenerator generator(options, 0);
    for (int i = 0; i < 5000; ++i)
        ASSERT_EQ(generator.next()->objectMetadataList.size(), 5u) << "packet " << i;
    EXPECT_TRUE(generator.samples().empty());
}

TEST(StoreGenerator, samplesAreFinishedTracksAsTheyWereSeen)
{
    StoreGenerator generator(smallStore(), 50);
    std::map<ZuUuid, std::pair<std::int64_t, std::int64_t>> spans;
    while (const auto packet = generator.next()) {
        for (const auto& object : packet->objectMetadataList) {
            auto [it, isNew] =
                spans.try_emplace(object.trackId, packet->timestampUs, packet->timestampUs);
            it->second.second = packet->timestampUs;
        }
    }
    ASSERT_EQ(generator.samples().size(), 50u);
    std::set<ZuUuid> distinct;
    for (const auto& sample : generator.samples()) {
        ASSERT_TRUE(spans.contains(sample.id));
        EXPECT_EQ(sample.firstAppearanceUs, spans[sample.id].first);
        EXPECT_EQ(sample.lastAppearanceUs, spans[sample.id].second);
        distinct.insert(sample.id);
    }
    EXPECT_EQ(distinct.size(), 50u);
}

TEST(StoreInfo, roundTripsAndRejectsIncompleteFiles)
{
    StoreGenerator generator(smallStore(), 20);
    while (generator.next()) {
    }
    StoreInfo info;
    info.trackCount = 600;
    info.seed = 7;
    info.packetCount = generator.packetsMade();
    info.objectCount = generator.objectsMade();
    info.firstTimeUs = generator.firstTimeUs();
    info.lastTimeUs = generator.lastTimeUs();
    info.fillSeconds = 1.25;
    info.deviceIds = generator.deviceIds();
    info.samples = generator.samples();

    const auto file = std::filesystem::temp_directory_path() /
                      ("store_info_test_" + std::to_string(::getpid()) + ".info");
    ASSERT_TRUE(info.save(file));
    StoreInfo loaded;
    ASSERT_TRUE(loaded.load(file));
    EXPECT_EQ(loaded.trackCount, info.trackCount);
    EXPECT_EQ(loaded.packetCount, info.packetCount);
    EXPECT_EQ(loaded.lastTimeUs, info.lastTimeUs);
    EXPECT_DOUBLE_EQ(loaded.fillSeconds, 1.25);
    EXPECT_EQ(loaded.deviceIds, info.deviceIds);
    ASSERT_EQ(loaded.samples.size(), info.samples.size());
    for (std::size_t i = 0; i < info.samples.size(); ++i) {
        EXPECT_EQ(loaded.samples[i].id, info.samples[i].id);
        EXPECT_EQ(loaded.samples[i].attributes, info.samples[i].attributes);
        EXPECT_EQ(loaded.samples[i].firstBox, info.samples[i].firstBox);
    }

    // A fill that died while writing leaves no "end" line: such a store must not be reused.
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 4);
    EXPECT_FALSE(loaded.load(file));
    std::filesystem::remove(file);
    EXPECT_FALSE(loaded.load(file));
}

TEST(LatencyStats, nearestRankPercentiles)
{
    LatencyStats stats;
    EXPECT_EQ(stats.percentile(50).count(), 0);
    for (int i = 100; i >= 1; --i)
        stats.add(std::chrono::milliseconds(i));
    EXPECT_EQ(stats.percentile(50), std::chrono::milliseconds(50));
    EXPECT_EQ(stats.percentile(99), std::chrono::milliseconds(99));
    EXPECT_EQ(stats.percentile(100), std::chrono::milliseconds(100));
    EXPECT_EQ(stats.percentile(0.1), std::chrono::milliseconds(1));
}

}  // namespace
}  // namespace kest::bench
