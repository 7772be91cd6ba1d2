// Activity counts: the bucket arithmetic on its own, then counts from a real store checked
// against the tracks that the same filter finds, counted by brute force.

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <atomic>
#include <future>
#include <random>
#include <thread>

#include <kest/analytics_db/activity_counter.h>
#include <kest/analytics_db/activity_histogram.h>
#include <kest/analytics_db/activity_index.h>
#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/track_reader.h>
#include "wait_until.h"

namespace kest::analytics::db::test {
namespace {

using common::metadata::Attribute;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using common::metadata::Rect;

constexpr std::int64_t kMinute = 60'000;

ActivityQuery queryOf(std::int64_t startMs, std::int64_t durationMs, std::int64_t bucketMs,
                      bool heatmap = false)
{
    ActivityQuery query;
    query.filter.timePeriod = ZuTimePeriod(startMs, durationMs);
    query.bucketMs = bucketMs;
    query.heatmap = heatmap;
    return query;
}

std::vector<std::int64_t> totals(const Activity& activity)
{
    std::vector<std::int64_t> result;
    for (const auto& bucket : activity.buckets)
        result.push_back(bucket.tracks);
    return result;
}

BoundingBoxGrid gridOfHex(const std::string& hex)
{
    BoundingBoxGrid grid;
    for (int row = 0; row < BoundingBoxGrid::kSize && hex.size() == 64; ++row) {
        const auto bits = std::stoul(hex.substr(row * 4, 4), nullptr, 16);
        for (int column = 0; column < BoundingBoxGrid::kSize; ++column) {
            if (bits >> (BoundingBoxGrid::kSize - 1 - column) & 1)
                grid.add(Rect{column / 16.0 + 0.01, row / 16.0 + 0.01, 0, 0});
        }
    }
    return grid;
}

/** What the activity of `tracks` is, bucket by bucket and cell by cell, the slow way. */
Activity bruteForce(const ActivityQuery& query, const std::vector<ObjectTrackEx>& tracks)
{
    Activity activity;
    activity.bucketMs = query.bucketMs;
    const std::int64_t start = query.filter.timePeriod.startTimeMs;
    for (std::int64_t i = 0; i < query.bucketCount(); ++i) {
        ActivityBucket bucket;
        bucket.startTimeMs = start + i * query.bucketMs;
        const std::int64_t fromUs = bucket.startTimeMs * 1000;
        const std::int64_t toUs = (bucket.startTimeMs + query.bucketMs) * 1000;
        for (const auto& track : tracks) {
            if (track.firstAppearanceTimeUs < toUs && track.lastAppearanceTimeUs >= fromUs) {
                ++bucket.tracks;
                ++bucket.byType[track.objectTypeId];
            }
        }
        activity.buckets.push_back(std::move(bucket));
    }
    if (query.heatmap) {
        ActivityHeatmap heatmap;
        heatmap.cells.assign(256, 0);
        for (const auto& track : tracks) {
            const BoundingBoxGrid grid = gridOfHex(track.objectPosition.boundingBoxGrid);
            for (int cell = 0; cell < 256; ++cell)
                heatmap.cells[cell] += grid.cell(cell % 16, cell / 16);
        }
        activity.heatmap = heatmap;
    }
    return activity;
}

TEST(ActivityQueryTest, BucketsCoverThePeriodAndStayWithinTheLimit)
{
    EXPECT_EQ(queryOf(0, 10 * kMinute, kMinute).bucketCount(), 10);
    // The last bucket is cut at the period's end.
    EXPECT_EQ(queryOf(0, 10 * kMinute + 1, kMinute).bucketCount(), 11);
    EXPECT_TRUE(queryOf(0, ActivityQuery::kMaxBuckets, 1).isValid());
    EXPECT_FALSE(queryOf(0, ActivityQuery::kMaxBuckets + 1, 1).isValid());
    EXPECT_FALSE(queryOf(0, ZuTimePeriod::kInfiniteDuration, kMinute).isValid());
    EXPECT_FALSE(queryOf(0, 0, kMinute).isValid());
    EXPECT_FALSE(queryOf(0, kMinute, 0).isValid());
    EXPECT_FALSE(queryOf(0, kMinute, -5).isValid());
    // The last bucket's end must be a time too.
    const std::int64_t latest = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE(queryOf(latest - 100, 100, 100).isValid());
    EXPECT_FALSE(queryOf(latest - 100, 100, 101).isValid());
    EXPECT_TRUE(queryOf(std::numeric_limits<std::int64_t>::min(), 10, 1).isValid());
}

TEST(ActivityHistogramTest, BucketEdgesAndLongTracks)
{
    // Ten one-minute buckets from minute 100.
    const std::int64_t startMs = 100 * kMinute;
    ActivityHistogram histogram(queryOf(startMs, 10 * kMinute, kMinute));
    const auto us = [&](std::int64_t minute, std::int64_t extraUs = 0) {
        return (startMs + minute * kMinute) * 1000 + extraUs;
    };
    const std::size_t car = histogram.typeIndex("car");
    const std::size_t person = histogram.typeIndex("person");
    EXPECT_EQ(histogram.typeIndex("car"), car);

    histogram.add(car, us(1, 10), us(2));         // ends exactly at bucket 2's start: 1 and 2
    histogram.add(car, us(4), us(5, -1));         // the whole of bucket 4 and no more
    histogram.add(person, us(-50), us(200));      // spans everything, clipped to the buckets
    histogram.add(person, us(-3), us(0, -1));     // ends a microsecond before the first bucket
    histogram.add(person, us(10), us(11));        // starts at the end of the last one
    histogram.add(car, us(9, 999), us(9, 1000));  // the last microseconds of bucket 9

    const Activity activity = histogram.result();
    EXPECT_EQ(activity.bucketMs, kMinute);
    ASSERT_EQ(activity.buckets.size(), 10u);
    EXPECT_EQ(activity.buckets[3].startTimeMs, startMs + 3 * kMinute);
    EXPECT_EQ(totals(activity), (std::vector<std::int64_t>{1, 2, 2, 1, 2, 1, 1, 1, 1, 2}));
    EXPECT_EQ(activity.buckets[0].byType, (std::map<std::string, std::int64_t>{{"person", 1}}));
    EXPECT_EQ(activity.buckets[2].byType,
              (std::map<std::string, std::int64_t>{{"car", 1}, {"person", 1}}));
    EXPECT_EQ(activity.buckets[9].byType,
              (std::map<std::string, std::int64_t>{{"car", 1}, {"person", 1}}));
    EXPECT_FALSE(activity.heatmap);

    // Far from 1970 the offsets pass what a double holds exactly: the buckets are still exact.
    const std::int64_t farMs = -(std::int64_t{1} << 53);
    ActivityHistogram far(queryOf(farMs, 10 * 100'000, 100'000));
    const std::size_t bus = far.typeIndex("bus");
    far.addMs(bus, farMs + 100'000, farMs + 199'999);        // exactly bucket 1
    far.addMs(bus, farMs + 999'999, std::int64_t{1} << 62);  // the last, and far past it
    far.addMs(bus, std::numeric_limits<std::int64_t>::min(), farMs - 1);   // before the first
    far.add(bus, (farMs + 300'000) * 1000 - 1, (farMs + 300'000) * 1000);  // 2 and 3, to the µs
    EXPECT_EQ(totals(far.result()), (std::vector<std::int64_t>{0, 1, 1, 1, 0, 0, 0, 0, 0, 1}));
}

// Types beyond those with a row of their own are summed from their tracks' ranges; both ways
// must agree with each other and with counting every bucket by hand.
TEST(ActivityHistogramTest, AnyNumberOfTypesCountsAlikeAndAsTheSlowWay)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round) {
        const std::int64_t bucketMs = 1 + random() % 5000;
        const std::int64_t durationMs = 1 + random() % (bucketMs * 40);
        const ActivityQuery query =
            queryOf(1'700'000'000'000 + random() % 10'000, durationMs, bucketMs, /*heatmap*/ true);
        std::vector<ObjectTrackEx> tracks(random() % 60);
        for (auto& track : tracks) {
            const std::int64_t startUs = query.filter.timePeriod.startTimeMs * 1000;
            track.firstAppearanceTimeUs =
                startUs - 3'000'000 +
                static_cast<std::int64_t>(random() % (durationMs * 1000 + 6'000'000));
            track.lastAppearanceTimeUs =
                track.firstAppearanceTimeUs +
                (random() % 4 ? random() % 3'000'000 : random() % (durationMs * 1000));
            track.objectTypeId = "type" + std::to_string(random() % 9);
            BoundingBoxGrid grid;
            grid.add(Rect{(random() % 100) / 100.0, (random() % 100) / 100.0, 0.2, 0.1});
            track.objectPosition.boundingBoxGrid = grid.toHex();
        }
        // Only tracks that meet the period, as a search would give them.
        const std::int64_t periodEndUs = query.filter.timePeriod.endTimeMs() * 1000;
        std::erase_if(tracks, [&](const ObjectTrackEx& t) {
            return t.firstAppearanceTimeUs >= periodEndUs ||
                   t.lastAppearanceTimeUs < query.filter.timePeriod.startTimeMs * 1000;
        });

        std::vector<Activity> answers;
        for (const std::size_t denseTypes : {std::size_t{0}, std::size_t{3}, std::size_t{64}}) {
            ActivityHistogram histogram(query, denseTypes);
            for (const auto& track : tracks) {
                histogram.add(histogram.typeIndex(track.objectTypeId), track.firstAppearanceTimeUs,
                              track.lastAppearanceTimeUs);
                histogram.addCells(gridOfHex(track.objectPosition.boundingBoxGrid));
            }
            answers.push_back(histogram.result());
        }
        const Activity expected = bruteForce(query, tracks);
        for (const auto& answer : answers)
            ASSERT_EQ(answer, expected) << "round " << round;
    }
}

std::vector<std::pair<std::int64_t, std::int64_t>> rowsAndFirsts(const ActivityIndex& index)
{
    std::vector<std::pair<std::int64_t, std::int64_t>> rows;
    ActivityIndex::Reader(index).forEach(
        [&](std::int64_t rowId, const ActivityIndex::Entry& entry) {
            rows.emplace_back(rowId, entry.firstMs);
        });
    return rows;
}

TEST(ActivityIndexTest, RowsCountOnceTheirCommitIsPublished)
{
    ActivityIndex index;
    EXPECT_FALSE(ActivityIndex::Reader(index).usable()) << "not before it was loaded";
    const auto entry = [](std::int64_t firstMs) {
        ActivityIndex::Entry e;
        e.firstMs = firstMs;
        e.lastMs = firstMs + 10;
        return e;
    };
    for (std::int64_t row = 10; row < 15; ++row)
        index.stage(row, entry(row * 100));
    index.publish(1);
    {
        ActivityIndex::Reader reader(index);
        EXPECT_TRUE(reader.usable());
        EXPECT_EQ(reader.seq(), 1);
        EXPECT_EQ(reader.size(), 5u);
        ASSERT_TRUE(reader.find(12));
        EXPECT_EQ(reader.find(12)->firstMs, 1200);
        EXPECT_FALSE(reader.find(9));
        EXPECT_FALSE(reader.find(15));
    }

    // A failed transaction changes nothing; a committed one replaces, adds and removes.
    index.stage(20, entry(1));
    index.stageRemoval(11);
    index.discardStaged();
    EXPECT_EQ(rowsAndFirsts(index).size(), 5u);
    index.stage(12, entry(7));   // rewritten
    index.stage(20, entry(20));  // beyond a gap of rows still open
    index.stageRemoval(10);      // the oldest, as retention removes them
    index.stageRemoval(11);
    index.stageRemoval(99);  // never there
    index.publish(2);
    EXPECT_EQ(rowsAndFirsts(index), (std::vector<std::pair<std::int64_t, std::int64_t>>{
                                        {12, 7}, {13, 1300}, {14, 1400}, {20, 20}}));
    EXPECT_EQ(ActivityIndex::Reader(index).size(), 4u);

    // A row older than any held (a late packet of a deleted track) and emptying it all.
    index.stage(3, entry(3));
    index.publish(3);
    EXPECT_EQ(rowsAndFirsts(index).front(), (std::pair<std::int64_t, std::int64_t>{3, 3}));
    for (const std::int64_t row : {3, 12, 13, 14, 20})
        index.stageRemoval(row);
    index.publish(4);
    EXPECT_TRUE(rowsAndFirsts(index).empty());
    EXPECT_EQ(ActivityIndex::Reader(index).size(), 0u);

    index.disable();
    index.publish(5);
    EXPECT_FALSE(ActivityIndex::Reader(index).usable()) << "disabled until cleared";
    index.clear();
    index.publish(6);
    EXPECT_TRUE(ActivityIndex::Reader(index).usable());
}

// The writer publishes while counts read: a reader sees one commit whole, never part of one.
TEST(ActivityIndexTest, ReadersSeeWholeCommits)
{
    ActivityIndex index;
    index.publish(0);
    std::atomic<bool> stop{false};
    std::thread writer([&]() {
        for (std::int64_t seq = 1; !stop; ++seq) {
            // Each commit moves the one row forward; a reader must never see two or none.
            index.stageRemoval(seq - 1);
            ActivityIndex::Entry entry;
            entry.firstMs = seq;
            index.stage(seq, entry);
            index.publish(seq);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    int reads = 0;
    std::int64_t lastSeq = 0;
    while (std::chrono::steady_clock::now() < deadline || reads < 100) {
        ActivityIndex::Reader reader(index);
        std::vector<std::int64_t> rows;
        reader.forEach(
            [&](std::int64_t rowId, const ActivityIndex::Entry&) { rows.push_back(rowId); });
        if (reader.seq() > 0) {
            ASSERT_EQ(rows, std::vector<std::int64_t>{reader.seq()});
            ASSERT_GE(reader.seq(), lastSeq);
            lastSeq = reader.seq();
        }
        ++reads;
    }
    stop = true;
    writer.join();
}

ZuUuid numbered(const char* prefix, int n)
{
    return ZuUuid(QString("{%1-0000-0000-0000-%2}").arg(prefix).arg(n, 12, 10, QChar('0')));
}

/** One object of a track, as a packet of its device carries it. */
struct Sighting
{
    int device = 0;
    int track = 0;
    std::int64_t timestampUs = 0;
    std::string type;
    Rect box;
    std::vector<Attribute> attributes;
    ObjectMetadataType kind = ObjectMetadataType::regular;
    int engine = 0;
};

class ActivityStoreTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        open();
    }

    void open(EventsStorage::Clock clock = nullptr, int maxAgeDays = -1)
    {
        m_storage.reset();
        m_storage = std::make_unique<EventsStorage>(std::move(clock));
        Settings settings;
        settings.path = m_dir.path();
        if (maxAgeDays >= 0)
            settings.maxAgeDays = maxAgeDays;
        ASSERT_TRUE(m_storage->initialize(settings));
    }

    void save(const Sighting& s)
    {
        auto packet = std::make_shared<ObjectMetadataPacket>();
        packet->deviceId = numbered("dddddddd", s.device);
        packet->timestampUs = s.timestampUs;
        packet->durationUs = 1000;
        packet->streamIndex = common::metadata::StreamIndex::primary;
        packet->objectMetadataList.push_back({numbered("aaaaaaaa", s.track), s.type, s.kind, s.box,
                                              s.attributes, numbered("eeeeeeee", s.engine)});
        m_storage->save(std::move(packet));
    }

    std::pair<ResultCode, Activity> count(const ActivityQuery& query)
    {
        std::promise<std::pair<ResultCode, Activity>> done;
        m_storage->countActivity(query, [&](ResultCode code, Activity activity) {
            done.set_value({code, std::move(activity)});
        });
        return done.get_future().get();
    }

    std::vector<ObjectTrackEx> find(Filter filter)
    {
        std::promise<std::vector<ObjectTrackEx>> done;
        filter.maxObjectTracksToSelect = 0;
        m_storage->lookup(filter, [&](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            EXPECT_EQ(code, ResultCode::ok);
            done.set_value(std::move(tracks));
        });
        return done.get_future().get();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<EventsStorage> m_storage;
};

TEST_F(ActivityStoreTest, EachFilterFieldNarrowsTheCount)
{
    const std::int64_t t0 = 1'700'000'000'000;  // ms, a bucket edge
    const auto at = [&](std::int64_t minute, std::int64_t extraMs = 0) {
        return (t0 + minute * kMinute + extraMs) * 1000;
    };
    // Track 1: a red car on device 1, minutes 0 to 2, at the top left, of engine 1.
    save({1, 1, at(0), "car", {0.0, 0.0, 0.1, 0.1}, {{"color", "red"}}});
    save({1, 1, at(2), "car", {0.0, 0.0, 0.1, 0.1}, {}});
    // Track 2: a person on device 2, minute 1 only, at the bottom right, with a best shot.
    save({2, 2, at(1, 30'000), "person", {0.9, 0.9, 0.05, 0.05}, {{"clothes", "blue coat"}}});
    save({2, 2, at(1, 31'000), "person", {0.9, 0.9, 0.05, 0.05}, {}, ObjectMetadataType::bestShot});
    // Track 3: a blue car on device 2 of engine 2, ending exactly where minute 4 starts.
    save({2, 3, at(3, 10'000), "car", {0.5, 0.5, 0.1, 0.1}, {{"color", "blue"}}, {}, 2});
    save({2, 3, at(4) - 1000, "car", {0.5, 0.5, 0.1, 0.1}, {}, {}, 2});
    m_storage->flush();

    ActivityQuery query = queryOf(t0, 5 * kMinute, kMinute, /*heatmap*/ true);
    const auto expect = [&](const char* what, std::vector<std::int64_t> buckets) {
        const auto [code, activity] = count(query);
        ASSERT_EQ(code, ResultCode::ok) << what;
        EXPECT_EQ(totals(activity), buckets) << what;
        EXPECT_EQ(activity, bruteForce(query, find(query.filter))) << what;
    };
    expect("everything", {1, 2, 1, 1, 1});

    query.filter.deviceIds = {numbered("dddddddd", 2)};
    expect("a device", {0, 1, 0, 1, 1});
    query.filter.deviceIds.insert(numbered("dddddddd", 9));
    expect("a device and one never seen", {0, 1, 0, 1, 1});
    query.filter.deviceIds = {numbered("dddddddd", 9)};
    expect("only a device never seen", {0, 0, 0, 0, 0});
    query.filter.deviceIds.clear();

    query.filter.objectTypeId = {"car"};
    expect("a type", {1, 1, 1, 1, 1});
    query.filter.objectTypeId = {"car", "person"};
    expect("two types", {1, 2, 1, 1, 1});
    query.filter.objectTypeId = {"bicycle"};
    expect("a type never seen", {0, 0, 0, 0, 0});
    query.filter.objectTypeId.clear();

    query.filter.objectTrackId = numbered("aaaaaaaa", 3);
    expect("a track", {0, 0, 0, 1, 1});
    query.filter.objectTrackId = ZuUuid();

    query.filter.boundingBox = Rect{0.8, 0.8, 0.2, 0.2};
    expect("a box", {0, 1, 0, 0, 0});
    query.filter.boundingBox.reset();

    query.filter.freeText = "blu";
    expect("a word's start", {0, 1, 0, 1, 1});
    query.filter.freeText = "blue coat";
    expect("two words", {0, 1, 0, 0, 0});
    query.filter.freeText = "green";
    expect("a word never seen", {0, 0, 0, 0, 0});
    query.filter.freeText = " ,.";
    expect("text without words", {1, 2, 1, 1, 1});
    query.filter.freeText.clear();

    query.filter.analyticsEngineId = numbered("eeeeeeee", 2);
    expect("an engine", {0, 0, 0, 1, 1});
    query.filter.analyticsEngineId = ZuUuid();

    query.filter.withBestShotOnly = true;
    expect("best shot only", {0, 1, 0, 0, 0});
    query.filter.withBestShotOnly = false;

    // Limit, order and positions do not change what is counted.
    query.filter.maxObjectTracksToSelect = 1;
    query.filter.sortOrder = SortOrder::asc;
    query.filter.needFullTrack = true;
    expect("a limit", {1, 2, 1, 1, 1});
    query.filter = {};

    query = queryOf(t0 + 2 * kMinute, 90'000, 30'000);
    expect("a period of half-minute buckets", {1, 0, 1});
    query = queryOf(t0 + 4 * kMinute, kMinute, kMinute);
    expect("a period starting where a track ends", {1});

    const auto [code, byType] = count(queryOf(t0, 5 * kMinute, 5 * kMinute));
    ASSERT_EQ(code, ResultCode::ok);
    ASSERT_EQ(byType.buckets.size(), 1u);
    EXPECT_EQ(byType.buckets[0].byType,
              (std::map<std::string, std::int64_t>{{"car", 2}, {"person", 1}}));
}

/**
 * Random filters over `devices` devices, with the words and types the stores below use; a box and
 * the heatmap with `grids`, an engine and a track id with `keys`.
 */
ActivityQuery randomQuery(std::mt19937& random, std::int64_t t0Us, int devices, int tracks,
                          bool grids, bool keys)
{
    static const std::vector<std::string> types{"car", "person", "truck", "bicycle"};
    static const std::vector<std::string> words{"red", "blue", "green", "tall", "toyota"};
    const std::int64_t bucketMs = std::int64_t{1000} << (random() % 18);
    ActivityQuery query =
        queryOf(t0Us / 1000 - 600'000 + random() % 1'800'000, 60'000 + random() % 4'000'000,
                std::max<std::int64_t>(bucketMs, 400), grids && random() % 2);
    if (query.bucketCount() > ActivityQuery::kMaxBuckets)
        query.bucketMs = query.filter.timePeriod.durationMs / 1000 + 1;
    Filter& filter = query.filter;
    if (random() % 3 == 0)
        filter.deviceIds = {numbered("dddddddd", 1 + random() % devices),
                            numbered("dddddddd", 1 + random() % devices)};
    if (random() % 3 == 0)
        filter.objectTypeId = {types[random() % types.size()]};
    if (random() % 4 == 0)
        filter.freeText = words[random() % words.size()].substr(0, 2 + random() % 3);
    if (random() % 5 == 0)
        filter.withBestShotOnly = true;
    if (grids && random() % 4 == 0)
        filter.boundingBox = Rect{(random() % 50) / 100.0, (random() % 50) / 100.0, 0.5, 0.5};
    if (!keys)
        return query;
    if (random() % 5 == 0)
        filter.analyticsEngineId = numbered("eeeeeeee", 1 + random() % 2);
    if (random() % 10 == 0)
        filter.objectTrackId = numbered("aaaaaaaa", 1 + random() % tracks);
    return query;
}

/** Sightings of `tracks` random tracks from `t0Us` on, a track's in the order of their times. */
std::vector<std::vector<Sighting>> randomTracks(std::mt19937& random, std::int64_t t0Us,
                                                int devices, int tracks)
{
    const std::vector<std::string> types{"car", "person", "truck", "bicycle"};
    const std::vector<std::string> words{"red", "blue", "green", "tall", "toyota"};
    std::vector<std::vector<Sighting>> result;
    for (int track = 1; track <= tracks; ++track) {
        const int device = 1 + random() % devices;
        const std::string type = types[random() % types.size()];
        const int engine = 1 + random() % 2;
        std::int64_t timeUs = t0Us + static_cast<std::int64_t>(random() % 3'600'000) * 1000;
        const int sightings = 1 + random() % 6;
        result.emplace_back();
        for (int i = 0; i < sightings; ++i) {
            const Rect box{(random() % 90) / 100.0, (random() % 90) / 100.0, 0.1, 0.1};
            std::vector<Attribute> attributes;
            if (random() % 2)
                attributes.push_back({"color", words[random() % words.size()]});
            const auto kind =
                random() % 8 == 0 ? ObjectMetadataType::bestShot : ObjectMetadataType::regular;
            result.back().push_back({device, track, timeUs, type, box, attributes, kind, engine});
            timeUs += static_cast<std::int64_t>(random() % 400'000) * 1000;
        }
    }
    return result;
}

// Random tracks and random filters: every count must be what the tracks that the search finds
// give, counted bucket by bucket. The store holds written tracks, open ones, and open ones that
// were written before (objects came after they had ended), whose rows the count must skip.
TEST_F(ActivityStoreTest, CountsAgreeWithABruteForceCountOfTheSearchedTracks)
{
    std::mt19937 random(11);
    const std::int64_t t0Us = 1'700'000'000'000'000;
    const auto tracks = randomTracks(random, t0Us, 4, 150);
    for (std::size_t track = 0; track < 100; ++track) {
        for (const Sighting& sighting : tracks[track])
            save(sighting);
    }
    m_storage->closeOpenTracks();
    for (std::size_t track = 0; track < tracks.size(); ++track) {
        Sighting late = tracks[track].back();
        if (track >= 100) {
            for (const Sighting& sighting : tracks[track])
                save(sighting);
        } else if (track % 4 == 0) {
            late.timestampUs += 30'000'000;
            save(late);
        }
    }
    m_storage->flush();

    int nonEmpty = 0;
    for (int round = 0; round < 60; ++round) {
        const ActivityQuery query =
            randomQuery(random, t0Us, 4, 150, /*grids*/ true, /*keys*/ true);
        const auto [code, activity] = count(query);
        ASSERT_EQ(code, ResultCode::ok);
        const std::vector<ObjectTrackEx> found = find(query.filter);
        nonEmpty += !found.empty();
        ASSERT_EQ(activity, bruteForce(query, found))
            << "round " << round << ": " << found.size() << " tracks";
    }
    EXPECT_GT(nonEmpty, 30);
}

// Counts of written tracks from the index and from the track table agree, with each other and
// with the search; the filters are those that the index selects by, with grids read from the
// rows (a few of them one by one, many in one pass).
TEST_F(ActivityStoreTest, TheIndexCountsAsTheTrackTable)
{
    std::mt19937 random(5);
    const std::int64_t t0Us = 1'700'000'000'000'000;
    for (const auto& track : randomTracks(random, t0Us, 6, 300)) {
        for (const Sighting& sighting : track)
            save(sighting);
    }
    m_storage->closeOpenTracks();
    m_storage.reset();

    TrackReader reader;
    ASSERT_EQ(reader.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}),
              sql::DBResult::ok);
    auto index = std::make_shared<ActivityIndex>();
    ASSERT_EQ(index->load(reader.database()), sql::DBResult::ok);
    EXPECT_EQ(ActivityIndex::Reader(*index).size(), 300u);
    ActivityCounter indexed(reader.database(), nullptr, index);
    ActivityCounter fromTable(reader.database(), nullptr, nullptr);
    for (int round = 0; round < 60; ++round) {
        const ActivityQuery query =
            randomQuery(random, t0Us, 6, 300, /*grids*/ true, /*keys*/ false);
        Activity a, b;
        ASSERT_EQ(indexed.count(query, &a), ResultCode::ok);
        EXPECT_EQ(indexed.lastSource(), ActivityCounter::Source::index);
        ASSERT_EQ(fromTable.count(query, &b), ResultCode::ok);
        EXPECT_EQ(fromTable.lastSource(), ActivityCounter::Source::table);
        ASSERT_EQ(a, b) << "round " << round;
        Filter filter = query.filter;
        filter.maxObjectTracksToSelect = 0;
        std::vector<ObjectTrackEx> found;
        ASSERT_EQ(reader.lookup(filter, &found), ResultCode::ok);
        ASSERT_EQ(a, bruteForce(query, found)) << "round " << round;
    }

    // An index of another state of the store is not used: here nothing feeds it any more.
    open();
    save({1, 1000, t0Us + 1'000'000, "car", {}, {}});
    m_storage->closeOpenTracks();
    const ActivityQuery query = queryOf(t0Us / 1000, 3'600'000, 60'000);
    Activity activity;
    ASSERT_EQ(indexed.count(query, &activity), ResultCode::ok);
    EXPECT_EQ(indexed.lastSource(), ActivityCounter::Source::table);
    std::vector<ObjectTrackEx> found;
    ASSERT_EQ(reader.lookup(query.filter, &found), ResultCode::ok);
    EXPECT_EQ(found.size(), 301u);
    EXPECT_EQ(activity, bruteForce(query, found));
}

// What is accepted is counted as soon as a search finds it, whether its track is open or
// written; while tracks go from open to written, no count sees one twice or not at all.
TEST_F(ActivityStoreTest, CountsFollowTheCommitsWholly)
{
    const std::int64_t t0 = 1'700'000'000'000;
    const ActivityQuery query = queryOf(t0, 60 * kMinute, 60 * kMinute);
    const auto total = [&] {
        const auto [code, activity] = count(query);
        EXPECT_EQ(code, ResultCode::ok);
        return activity.buckets.empty() ? -1 : activity.buckets[0].tracks;
    };

    save({1, 1, t0 * 1000, "car", {0.1, 0.1, 0.1, 0.1}, {{"color", "red"}}});
    ASSERT_TRUE(waitUntil([&] { return !find(query.filter).empty(); }));
    EXPECT_EQ(total(), 1) << "an open track";

    // Tracks of one sighting a second on one device: each ends as the device's time moves on,
    // and ended tracks are written in groups while counts run.
    constexpr int kTracks = 600;
    std::atomic<bool> saved{false};
    std::thread saver([&] {
        for (int track = 2; track <= kTracks; ++track) {
            save({2, track, (t0 + track * 1000) * 1000, track % 2 ? "car" : "person", {}, {}});
            if (track % 50 == 0)
                m_storage->flush();
        }
        saved = true;
    });
    std::int64_t previous = 1;
    int counts = 0;
    while (!saved || counts < 20) {
        const std::int64_t now = total();
        ASSERT_GE(now, previous) << "count " << counts;
        ASSERT_LE(now, kTracks);
        previous = now;
        ++counts;
    }
    saver.join();
    m_storage->flush();
    EXPECT_EQ(total(), kTracks);
    m_storage->closeOpenTracks();
    EXPECT_EQ(total(), kTracks);
}

// Retention deletes rows without a commit of tracks: counts follow it all the same.
TEST_F(ActivityStoreTest, CountsLeaveOutWhatRetentionDeleted)
{
    const auto now = std::chrono::system_clock::time_point(std::chrono::hours(24 * 365 * 54));
    const auto clock = [&] { return now; };
    const std::int64_t nowMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::int64_t dayMs = 24 * 60 * kMinute;
    open(clock, 0);
    for (int day = 0; day < 4; ++day) {
        for (int track = 0; track < 5; ++track)
            save({1, day * 10 + track, (nowMs - day * dayMs - dayMs / 2) * 1000, "car", {}, {}});
    }
    m_storage->closeOpenTracks();
    const ActivityQuery query = queryOf(nowMs - 4 * dayMs, 4 * dayMs, dayMs);
    EXPECT_EQ(totals(count(query).second), (std::vector<std::int64_t>{5, 5, 5, 5}));

    open(clock, 2);
    ASSERT_TRUE(waitUntil([&] { return find(query.filter).size() == 10; }));
    EXPECT_EQ(totals(count(query).second), (std::vector<std::int64_t>{0, 0, 5, 5}));
}

TEST_F(ActivityStoreTest, AStorageThatCannotCountSaysSo)
{
    struct PlainStorage : AbstractEventsStorage
    {
        bool initialize(const Settings&) override { return true; }
        void setOnSaveErrorHandler(SaveErrorHandler) override {}
        bool isReady() const override { return true; }
        void save(std::shared_ptr<const ObjectMetadataPacket>) override {}
        void lookup(Filter, LookupHandler handler) override { handler(ResultCode::ok, {}); }
    } plain;
    int calls = 0;
    plain.countActivity(queryOf(0, kMinute, kMinute), [&](ResultCode code, Activity activity) {
        ++calls;
        EXPECT_EQ(code, ResultCode::notSupported);
        EXPECT_TRUE(activity.buckets.empty());
    });
    EXPECT_EQ(calls, 1);

    // Before it is open, a real storage answers at once, with an error.
    EventsStorage closed;
    plain.countActivity(queryOf(0, kMinute, kMinute), [&](ResultCode, Activity) { ++calls; });
    closed.countActivity(queryOf(0, kMinute, kMinute), [&](ResultCode code, Activity) {
        ++calls;
        EXPECT_EQ(code, ResultCode::error);
    });
    EXPECT_EQ(calls, 3);
}

}  // namespace
}  // namespace kest::analytics::db::test
