#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include <kest/analytics_db/bounding_box_grid.h>
#include <kest/analytics_db/record_codec.h>
#include <kest/analytics_db/track_aggregate.h>

namespace kest::analytics::db::test {

using common::metadata::Attribute;
using common::metadata::ObjectMetadata;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using common::metadata::Rect;

struct Record
{
    ObjectMetadataPacket packet;
    ObjectMetadata object;
};

Record record(std::int64_t timeUs, std::string type, ObjectMetadataType kind, Rect box,
              std::vector<Attribute> attributes,
              const char* engine = "{e0000000-0000-0000-0000-000000000001}")
{
    Record r;
    r.packet.deviceId = ZuUuid("{d0000000-0000-0000-0000-000000000001}");
    r.packet.timestampUs = timeUs;
    r.packet.durationUs = 500;
    r.packet.streamIndex = common::metadata::StreamIndex::secondary;
    r.object.trackId = ZuUuid("{a0000000-0000-0000-0000-000000000001}");
    r.object.typeId = std::move(type);
    r.object.objectMetadataType = kind;
    r.object.boundingBox = box;
    r.object.attributes = std::move(attributes);
    r.object.analyticsEngineId = ZuUuid(engine);
    return r;
}

TEST(TrackAggregate, EveryOrderAndEverySplitGiveTheSameTrack)
{
    using enum ObjectMetadataType;
    // Ties everywhere a rule needs its tie-break: two records at the earliest time with
    // different types, two best shots of one kind at one time, duplicate attributes.
    std::vector<Record> records = {
        record(1000, "car", regular, {0.1, 0.1, 0.1, 0.1}, {{"color", "red"}}),
        record(1000, "bus", regular, {0.2, 0.2, 0.1, 0.1}, {{"color", "red"}, {"a", "b"}},
               "{e0000000-0000-0000-0000-000000000002}"),
        record(900, "", regular, {0.9, 0.9, 0.1, 0.1}, {}),
        record(3000, "car", bestShot, {0.5, 0.5, 0.2, 0.2}, {{"plate", "X1"}}),
        record(3000, "car", bestShot, {0.4, 0.5, 0.2, 0.2}, {}),
        record(2000, "car", externalBestShot, {0.6, 0.1, 0.1, 0.1}, {{"color", "Red"}}),
    };
    TrackAggregate expected;
    for (const auto& r : records)
        expected.add(r.packet, r.object);
    EXPECT_EQ(expected.typeId, "bus");  //< Earliest non-empty type; "bus" < "car".
    EXPECT_EQ(expected.engineId, ZuUuid("{e0000000-0000-0000-0000-000000000002}"));
    EXPECT_EQ(expected.firstUs, 900);
    EXPECT_EQ(expected.lastUs, 3500);
    EXPECT_EQ(expected.bestShotKind, static_cast<int>(externalBestShot));
    EXPECT_EQ(expected.bestShot.timestampUs, 2000);
    EXPECT_EQ(expected.bestShot.streamIndex, common::metadata::StreamIndex::secondary);
    EXPECT_EQ(
        expected.attributes,
        (std::vector<Attribute>{{"a", "b"}, {"color", "Red"}, {"color", "red"}, {"plate", "X1"}}));

    std::vector<int> order(records.size());
    std::iota(order.begin(), order.end(), 0);
    int permutations = 0;
    do {
        TrackAggregate added;
        for (int i : order)
            added.add(records[i].packet, records[i].object);
        // The same records in two aggregates merged, as a restart with an empty cache does.
        TrackAggregate left, right;
        for (std::size_t k = 0; k < order.size(); ++k) {
            auto& part = k < order.size() / 2 ? left : right;
            part.add(records[order[k]].packet, records[order[k]].object);
        }
        right.merge(left);
        ASSERT_EQ(added.toTrack(), expected.toTrack());
        ASSERT_EQ(right.toTrack(), expected.toTrack());
        ++permutations;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(permutations, 720);

    // Without the external one, the two equal best shots are decided by the rectangle.
    records.pop_back();
    std::reverse(records.begin(), records.end());
    TrackAggregate noExternal;
    for (const auto& r : records)
        noExternal.add(r.packet, r.object);
    EXPECT_EQ(noExternal.bestShot.rect, (Rect{0.4, 0.5, 0.2, 0.2}));
}

TEST(TrackAggregate, AddReportsWhenTheAttributeSetGrows)
{
    TrackAggregate t;
    auto r = record(1, "car", ObjectMetadataType::regular, {}, {{"color", "red"}});
    EXPECT_TRUE(t.add(r.packet, r.object));
    EXPECT_FALSE(t.add(r.packet, r.object));
    r.object.attributes = {{"color", "blue"}};
    EXPECT_TRUE(t.add(r.packet, r.object));
}

TEST(BoundingBoxGrid, CellsOfBoxes)
{
    // Top-left cell only; the row is 16 bits written as 4 hex digits, the leftmost column first.
    EXPECT_EQ(BoundingBoxGrid::ofRect({0, 0, 1.0 / 16, 1.0 / 16}).toHex(),
              "8000" + std::string(60, '0'));
    // A box of no size still marks the cell it lies in.
    const auto point = BoundingBoxGrid::ofRect({0.99, 0.99, 0, 0});
    EXPECT_TRUE(point.cell(15, 15));
    EXPECT_EQ(point.toHex(), std::string(60, '0') + "0001");
    // The whole frame, and boxes reaching outside it, are clamped to the frame.
    EXPECT_EQ(BoundingBoxGrid::ofRect({-1, -1, 3, 3}).toHex(), std::string(64, 'f'));
    EXPECT_TRUE(BoundingBoxGrid::ofRect({NAN, 0, 1, 1}).isEmpty());

    auto grid = BoundingBoxGrid::ofRect({0.5, 0.25, 0.25, 0.125});  //< Columns 8-11, rows 4-5.
    for (int column = 0; column < 16; ++column) {
        for (int row = 0; row < 16; ++row) {
            EXPECT_EQ(grid.cell(column, row), column >= 8 && column <= 11 && row >= 4 && row <= 5)
                << column << "," << row;
        }
    }
    EXPECT_EQ(BoundingBoxGrid::fromBytes(grid.toBytes()), grid);
    EXPECT_TRUE(BoundingBoxGrid::fromBytes("short").isEmpty());

    const auto touching = BoundingBoxGrid::ofRect({0.75, 0.25, 0.1, 0.1});
    const auto overlapping = BoundingBoxGrid::ofRect({0.74, 0.25, 0.1, 0.1});
    EXPECT_FALSE(grid.intersects(touching));
    EXPECT_TRUE(grid.intersects(overlapping));
    EXPECT_FALSE(BoundingBoxGrid::bytesIntersect(grid.toBytes(), touching.toBytes()));
    EXPECT_TRUE(BoundingBoxGrid::bytesIntersect(grid.toBytes(), overlapping.toBytes()));
}

TEST(RecordCodec, PositionsRoundTripAndTruncationKeepsWholeEntries)
{
    const ZuUuid a = ZuUuid::createUuid();
    const ZuUuid b = ZuUuid::createUuid();
    const std::vector<Attribute> red = {{"color", "red"}, {"", ""}};
    const std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    const std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    // Devices and attributes repeat, change and change back; times jump both ways, to extremes.
    std::vector<ObjectPosition> positions = {
        {a, 1'700'000'000'000'000, 500, {0.1, 0.2, 0.3, 0.4}, red},
        {a, 1'700'000'000'100'000, 500, {0.11, 0.2, 0.3, 0.4}, red},
        {b, 1'699'999'999'000'000, 0, {}, red},
        {b, kMax, -1, {1, 1, 0, 0}, {}},
        {a, kMin, kMin, {}, red},
        {a, 0, kMax, {}, red},
    };
    const std::string bytes = encodePositions(positions);
    std::vector<ObjectPosition> decoded;
    decodePositions(bytes, &decoded);
    EXPECT_EQ(decoded, positions);

    decoded.clear();
    decodePositions(std::string_view(bytes).substr(0, bytes.size() - 1), &decoded);
    EXPECT_EQ(decoded, std::vector<ObjectPosition>(positions.begin(), positions.end() - 1));

    // A track's usual chunk: same device and attributes, close times.
    std::vector<ObjectPosition> steady;
    for (int i = 0; i < 100; ++i)
        steady.push_back(
            {a, 1'700'000'000'000'000 + i * 400'000, 400'000, {0.5, 0.5, 0.1, 0.1}, red});
    EXPECT_LT(encodePositions(steady).size(), 100u * 40);

    const ZuUuid id = ZuUuid::createUuid();
    EXPECT_EQ(decodeUuid(encodeUuid(id)), id);
    EXPECT_EQ(encodeUuid(id), id.toQUuid().toRfc4122().toStdString());
}

}  // namespace kest::analytics::db::test
