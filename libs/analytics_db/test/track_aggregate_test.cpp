#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <limits>
#include <numeric>
#include <random>

#include <kest/analytics_db/attribute_coder.h>
#include <kest/analytics_db/bounding_box_grid.h>
#include <kest/analytics_db/fixed_point.h>
#include <kest/analytics_db/object_run.h>
#include <kest/analytics_db/track_aggregate.h>
#include <kest/analytics_db/track_row.h>

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

    // The stored form: the rectangle of set cells, a bit each.
    EXPECT_TRUE(BoundingBoxGrid().toCompact().empty());
    EXPECT_EQ(grid.toCompact().size(), 2u + 1u);
    std::mt19937 random(3);
    for (int i = 0; i < 200; ++i) {
        BoundingBoxGrid g;
        for (int boxes = i % 4; boxes > 0; --boxes) {
            g.add({std::uniform_real_distribution<>(0, 1)(random),
                   std::uniform_real_distribution<>(0, 1)(random),
                   std::uniform_real_distribution<>(0, 0.3)(random),
                   std::uniform_real_distribution<>(0, 0.3)(random)});
        }
        ASSERT_EQ(BoundingBoxGrid::fromCompact(g.toCompact()), g) << g.toHex();
    }
    EXPECT_TRUE(BoundingBoxGrid::fromCompact("\x11\x22").isEmpty());  //< Bits missing.
}

// Searches test a stored grid against the searched region without building it: whatever the
// rectangle's width and where its rows start within a byte, the answer is the whole grid's.
TEST(BoundingBoxGrid, StoredFormTestedInPlace)
{
    std::mt19937 random(5);
    const auto real = [&](double low, double high) {
        return std::uniform_real_distribution<>(low, high)(random);
    };
    const auto someGrid = [&](int i) {
        BoundingBoxGrid g;
        if (i % 5 == 0) {
            // Scattered cells: rows of 16 columns whose bits straddle bytes.
            for (int cells = 1 + i % 7; cells > 0; --cells)
                g.add({real(0, 1), real(0, 1), 0, 0});
            return g;
        }
        for (int boxes = 1 + i % 3; boxes > 0; --boxes)
            g.add({real(0, 1), real(0, 1), real(0, i % 2 ? 1.0 : 0.3), real(0, 0.4)});
        return g;
    };
    int hits = 0;
    for (int i = 0; i < 2000; ++i) {
        const BoundingBoxGrid stored = someGrid(i);
        const BoundingBoxGrid region = BoundingBoxGrid::ofRect({real(0, 1), real(0, 1), 0.2, 0.2});
        const std::string compact = stored.toCompact();
        ASSERT_EQ(BoundingBoxGrid::fromCompact(compact), stored) << stored.toHex();
        ASSERT_EQ(region.intersectsCompact(compact), region.intersects(stored))
            << stored.toHex() << " " << region.toHex();
        hits += region.intersects(stored);
    }
    EXPECT_GT(hits, 200);
    EXPECT_LT(hits, 1800);

    // Malformed or empty stored grids share no cell with anything.
    const auto all = BoundingBoxGrid::ofRect({0, 0, 1, 1});
    for (const std::string& bad : {std::string(), std::string("\x11"), std::string("\x11\x22"),
                                   std::string("\x21\x00\xff"), std::string(40, '\xff')}) {
        EXPECT_FALSE(all.intersectsCompact(bad)) << bad.size();
        EXPECT_TRUE(BoundingBoxGrid::fromCompact(bad).isEmpty()) << bad.size();
    }
    EXPECT_TRUE(all.intersectsCompact(all.toCompact()));
    EXPECT_FALSE(BoundingBoxGrid().intersectsCompact(all.toCompact()));
}

// A track row's attribute set: common pairs as dictionary keys, other values written out; read
// back as written, and refused (never read past) when cut short or naming unknown keys.
TEST(TrackRow, AttributeSetsRoundTripAndMalformedOnesAreRefused)
{
    StoreDictionary dictionary;
    AttributeCoder coder(dictionary);
    const std::vector<Attribute> common = {{"color", "red"}, {"make", "Škoda"}};
    for (int track = 0; track < 2; ++track) {
        for (const auto& a : common)
            coder.noteStored(a);
    }
    const std::vector<Attribute> attributes = {{"color", "red"},
                                               {"make", "Škoda"},
                                               {"plate", "KX 4821"},
                                               {"note", std::string(100, 'x')},
                                               {"empty", ""}};
    const std::string bytes = TrackRow::encodeAttributes(attributes, coder);
    // Two pairs by key, the rest written out.
    EXPECT_LT(bytes.size(), 130u);
    std::vector<Attribute> decoded = {{"stale", "entry"}};
    ASSERT_TRUE(TrackRow::decodeAttributes(bytes, dictionary, &decoded));
    EXPECT_EQ(decoded, attributes);
    ASSERT_TRUE(
        TrackRow::decodeAttributes(TrackRow::encodeAttributes({}, coder), dictionary, &decoded));
    EXPECT_TRUE(decoded.empty());

    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(TrackRow::decodeAttributes(bytes.substr(0, size), dictionary, &decoded))
            << size;
    EXPECT_FALSE(TrackRow::decodeAttributes("\xff\xff\xff\x7f", dictionary, &decoded));
    // A reader whose dictionary lacks the keys (it reloads and reads again).
    EXPECT_FALSE(TrackRow::decodeAttributes(bytes, StoreDictionary(), &decoded));
}

// Coordinates are kept in millionths, except where that would change what was written.
TEST(ObjectRun, CoordinatesComeBackWithinAMillionthAndShortDecimalsExactly)
{
    for (const double v : {0.1, 0.25, 0.333333, 1.0, 0.0, -0.5, 5.0, 0.123456, 123456.0}) {
        const auto units = FixedPoint::units(v);
        ASSERT_TRUE(units) << v;
        EXPECT_EQ(FixedPoint::value(*units), v);
    }
    // Six significant digits below 0.1 may need more places than millionths: kept as they are.
    for (const double v : {0.0123456, 1.5e-7, -0.0000999999, 1e-30}) {
        EXPECT_TRUE(FixedPoint::isShortDecimal(v)) << v;
        EXPECT_FALSE(FixedPoint::units(v)) << v;
    }
    EXPECT_EQ(FixedPoint::value(FixedPoint::units(0.00001).value()), 0.00001);
    for (const double v : {1e300, std::numeric_limits<double>::infinity(), double{NAN}})
        EXPECT_FALSE(FixedPoint::units(v)) << v;
    std::mt19937_64 random(5);
    for (int i = 0; i < 10000; ++i) {
        const double v = std::uniform_real_distribution<>(-2, 2)(random);
        const auto units = FixedPoint::units(v);
        ASSERT_TRUE(units) << v;  //< A random double is no short decimal.
        ASSERT_LE(std::fabs(FixedPoint::value(*units) - v), 1e-6) << v;
    }
}

// The decade of a value decides which digits count: the values next to each power of ten, and
// short decimals at every scale, are judged as their shortest text would judge them.
TEST(ObjectRun, ShortDecimalsAreTheValuesThatSixDigitsOfTextGiveBack)
{
    const auto byText = [](double v) {
        char text[32];
        std::snprintf(text, sizeof(text), "%.6g", v);
        return std::strtod(text, nullptr) == v;
    };
    std::vector<double> values;
    for (int exponent = -20; exponent <= 8; ++exponent) {
        const double power = std::pow(10.0, exponent);
        for (const double v : {power, std::nextafter(power, 0.0), std::nextafter(power, 1e300),
                               power * 9.99999, power * 1.00001, power * 1.234567}) {
            values.push_back(v);
            values.push_back(-v);
        }
    }
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        const int exponent = std::uniform_int_distribution<>(-18, 7)(random);
        const int digits = std::uniform_int_distribution<>(1, 999999)(random);
        values.push_back(digits * std::pow(10.0, exponent - 5));
        values.push_back(std::uniform_real_distribution<>(0, 2)(random) * std::pow(10.0, exponent));
    }
    for (const double v : values) {
        ASSERT_EQ(FixedPoint::isShortDecimal(v), byText(v)) << std::setprecision(17) << v;
        // Millionths hold every value but the short decimals that they would change.
        const bool changed = FixedPoint::value(FixedPoint::nearestUnits(v)) != v;
        if (std::fabs(v) < 1e9) {
            ASSERT_EQ(FixedPoint::units(v).has_value(), !(byText(v) && changed))
                << std::setprecision(17) << v;
        }
    }
}

// A value earns a dictionary key once a second stored track carries it; until then, and when it
// is long, it is written out. Either way it decodes to what was given.
TEST(AttributeCoder, ValuesGetAKeyOnTheirSecondStoredTrackAndDecodeAlike)
{
    StoreDictionary dictionary;
    AttributeCoder coder(dictionary);
    const common::metadata::Attribute red{"color", "red"};
    const common::metadata::Attribute plate{"plate", "KX 4821"};
    const common::metadata::Attribute crimson{"colour", "red"};  //< Same value, other name.
    const common::metadata::Attribute longValue{"note", std::string(80, 'x')};
    const auto roundTrip = [&](const common::metadata::Attribute& a) {
        const AttributeCode code = coder.encode(a);
        EXPECT_EQ(AttributeCoder::decode(code, dictionary), a) << a.name;
        return code;
    };
    for (const auto& a : {red, plate, crimson, longValue}) {
        EXPECT_EQ(roundTrip(a).pair, 0u) << a.name;
        coder.noteStored(a);
        EXPECT_EQ(roundTrip(a).pair, 0u) << a.name;
    }
    coder.noteStored(red);
    coder.noteStored(longValue);
    const AttributeCode keyed = roundTrip(red);
    EXPECT_NE(keyed.pair, 0u);
    EXPECT_EQ(roundTrip(crimson).pair, 0u);
    EXPECT_EQ(roundTrip(plate).pair, 0u);
    EXPECT_EQ(roundTrip(longValue).pair, 0u);
    // Once keyed, further tracks change nothing.
    coder.noteStored(red);
    EXPECT_EQ(roundTrip(red).pair, keyed.pair);
    coder.noteStored(crimson);
    EXPECT_NE(roundTrip(crimson).pair, 0u);
    EXPECT_NE(roundTrip(crimson).pair, keyed.pair);
}

TEST(ObjectRun, RecordsRoundTripAndMalformedBytesAreRefused)
{
    const auto kMax = std::numeric_limits<std::int64_t>::max();
    const auto kMin = std::numeric_limits<std::int64_t>::min();
    const std::vector<AttributeList> lists = {
        {},
        {{7, 0, ""}, {0, 3, "KX 4821"}},
        {{0, 1, std::string(300, 'x')}},
    };
    // Every field changes somewhere; times jump both ways, to the extremes; some boxes must be
    // kept exactly.
    std::vector<ObjectRecord> records = {
        {1'700'000'000'000'000, 40'000, 1, 2, 3, 1, 1, {0.1, 0.2, 0.3, 0.4}, 1},
        {1'700'000'000'040'000, 40'000, 1, 2, 3, 1, 1, {0.11, 0.2, 0.3, 0.4}, 1},
        {1'700'000'000'080'000, 33'333, 1, 2, 3, 2, 2, {0.0123456, 0.2, 0.3, 0.4}, 1},
        {1'699'999'999'000'000, 0, 9, 4, 5, 3, 0, {5, -1, 0, 0}, 0},
        {kMax, -1, 9, 4, 5, 1, 0, {1e300, 0, 0, 0}, 2},
        {kMin, kMin, 1, 2, 3, 1, 1, {}, 1},
        {0, kMax, 1, 2, 3, 1, 1, {0.5, 0.5, 0.5, 0.5}, 1},
    };
    for (const std::int64_t base : {std::int64_t{0}, std::int64_t{1'700'000'000'000'000}, kMin}) {
        const std::string bytes = ObjectRun::encode(records, lists, base);
        std::vector<ObjectRecord> decoded;
        std::vector<AttributeList> decodedLists;
        ASSERT_TRUE(ObjectRun::decode(bytes, base, &decoded, &decodedLists));
        EXPECT_EQ(decodedLists, lists);
        ASSERT_EQ(decoded.size(), records.size());
        for (std::size_t i = 0; i < records.size(); ++i) {
            ObjectRecord expected = records[i];
            // What millionths hold is within one of the value; the rest comes back as it was.
            for (auto* c :
                 {&expected.box.x, &expected.box.y, &expected.box.width, &expected.box.height}) {
                if (const auto units = FixedPoint::units(*c))
                    *c = FixedPoint::value(*units);
            }
            EXPECT_EQ(decoded[i], expected) << i;
        }
        // Every prefix and any damaged byte is refused or read as a run, never past the bytes.
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            std::vector<ObjectRecord> partial;
            EXPECT_FALSE(ObjectRun::decode(bytes.substr(0, size), base, &partial, &decodedLists));
        }
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            std::string damaged = bytes;
            damaged[i] = static_cast<char>(damaged[i] ^ 0x5a);
            std::vector<ObjectRecord> any;
            ObjectRun::decode(damaged, base, &any, &decodedLists);
        }
    }
}

// A moving object's positions take a few bytes each, whichever way it moves.
TEST(ObjectRun, PositionsOfAMovingObjectAreSmall)
{
    std::mt19937_64 random(9);
    const auto uniform = [&](double a, double b) {
        return std::uniform_real_distribution<>(a, b)(random);
    };
    // Smooth drift with a jittered pace, as a tracker reports it; then the same on a frame clock
    // with noisy boxes.
    std::vector<ObjectRecord> smooth, noisy;
    double x = 0.3, y = 0.4, vx = 0.004, vy = -0.002;
    std::int64_t t = 1'700'000'000'000'000;
    for (int i = 0; i < 100; ++i) {
        vx += uniform(-0.001, 0.001);
        vy += uniform(-0.0005, 0.0005);
        x += vx;
        y += vy;
        t += 500'000 + static_cast<std::int64_t>(uniform(-25'000, 25'000));
        smooth.push_back({t, 500'000, 1, 0, 0, 0, 0, {x, y, 0.0712345678, 0.15}, 0});
        noisy.push_back({1'700'000'000'000'000 + i * 40'000,
                         40'000,
                         1,
                         0,
                         0,
                         0,
                         0,
                         {0.5 + uniform(-0.01, 0.01), 0.5 + uniform(-0.01, 0.01),
                          0.1 + uniform(-0.002, 0.002), 0.2 + uniform(-0.002, 0.002)},
                         0});
    }
    EXPECT_LE(ObjectRun::encode(smooth, {{}}, smooth[0].timestampUs).size(), 100u * 8);
    EXPECT_LE(ObjectRun::encode(noisy, {{}}, noisy[0].timestampUs).size(), 100u * 10);
}

// Times are kept in the largest unit that divides every step, which later steps may make smaller.
TEST(ObjectRun, TimesComeBackWhicheverStepsSetTheirUnit)
{
    const std::vector<std::vector<std::int64_t>> stepLists = {
        {40'000, 40'000, 40'000}, {4, 6, 2, 3}, {6, 4, 2, 1}, {1'000'000, 500'000, 3}, {-4, 6, -9}};
    for (const auto& steps : stepLists) {
        std::vector<ObjectRecord> records;
        std::int64_t t = 1'700'000'000'000'000;
        records.push_back({t, 0, 1, 0, 0, 0, 0, {0.1, 0.2, 0.3, 0.4}, 0});
        for (const std::int64_t step : steps) {
            t += step;
            records.push_back({t, 0, 1, 0, 0, 0, 0, {0.1, 0.2, 0.3, 0.4}, 0});
        }
        std::vector<ObjectRecord> decoded;
        std::vector<AttributeList> lists;
        ASSERT_TRUE(ObjectRun::decode(ObjectRun::encode(records, {{}}, 0), 0, &decoded, &lists));
        ASSERT_EQ(decoded.size(), records.size());
        for (std::size_t i = 0; i < records.size(); ++i)
            EXPECT_EQ(decoded[i].timestampUs, records[i].timestampUs) << steps[0] << " " << i;
    }
}

}  // namespace kest::analytics::db::test
