#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include <kest/analytics_db/events_storage.h>
#include <kest/utils/log/log.h>
#include "wait_until.h"

namespace kest::analytics::db::test {

using namespace std::chrono_literals;
using common::metadata::Attribute;
using common::metadata::ObjectMetadata;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using common::metadata::Rect;

const ZuUuid kDeviceA("{11111111-0000-0000-0000-000000000001}");
const ZuUuid kDeviceB("{11111111-0000-0000-0000-000000000002}");
const ZuUuid kEngine("{eeeeeeee-0000-0000-0000-000000000001}");
const ZuUuid kOtherEngine("{eeeeeeee-0000-0000-0000-000000000002}");

ZuUuid trackId(int n)
{
    return ZuUuid(QString("{aaaaaaaa-0000-0000-0000-%1}").arg(n, 12, 10, QChar('0')));
}

struct Obj
{
    Obj(int track, std::string type = "car", Rect box = {0.1, 0.1, 0.2, 0.2},
        std::vector<Attribute> attributes = {},
        ObjectMetadataType kind = ObjectMetadataType::regular, ZuUuid engine = kEngine)
        : track(track),
          type(std::move(type)),
          box(box),
          attributes(std::move(attributes)),
          kind(kind),
          engine(engine)
    {}

    int track;
    std::string type;
    Rect box;
    std::vector<Attribute> attributes;
    ObjectMetadataType kind;
    ZuUuid engine;
};

std::shared_ptr<const ObjectMetadataPacket> packet(const ZuUuid& device, std::int64_t timestampUs,
                                                   std::vector<Obj> objects)
{
    auto p = std::make_shared<ObjectMetadataPacket>();
    p->deviceId = device;
    p->timestampUs = timestampUs;
    p->durationUs = 1000;
    p->streamIndex = common::metadata::StreamIndex::primary;
    for (const Obj& o : objects) {
        p->objectMetadataList.push_back(
            {trackId(o.track), o.type, o.kind, o.box, o.attributes, o.engine});
    }
    return p;
}

/** A packet of one object of a track of its own, whose id no test names. */
std::shared_ptr<const ObjectMetadataPacket> loneObject(const ZuUuid& device,
                                                       std::int64_t timestampUs, std::string type,
                                                       Rect box, std::vector<Attribute> attributes)
{
    auto p = std::make_shared<ObjectMetadataPacket>(*packet(device, timestampUs, {}));
    p->objectMetadataList.push_back({ZuUuid::createUuid(), std::move(type),
                                     ObjectMetadataType::regular, box, std::move(attributes),
                                     kEngine});
    return p;
}

class EventsStorageTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    std::unique_ptr<EventsStorage> open(EventsStorage::Clock clock = nullptr)
    {
        auto storage = std::make_unique<EventsStorage>(std::move(clock));
        m_settings.path = m_dir.path();
        EXPECT_TRUE(storage->initialize(m_settings));
        return storage;
    }

    static std::vector<ObjectTrackEx> find(EventsStorage& storage, Filter filter,
                                           ResultCode expected = ResultCode::ok)
    {
        std::promise<std::pair<ResultCode, std::vector<ObjectTrackEx>>> done;
        storage.lookup(std::move(filter), [&](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            done.set_value({code, std::move(tracks)});
        });
        auto [code, tracks] = done.get_future().get();
        EXPECT_EQ(code, expected);
        return tracks;
    }

    static std::vector<int> ids(const std::vector<ObjectTrackEx>& tracks)
    {
        std::vector<int> out;
        for (const auto& t : tracks) {
            for (int n = 0; n < 100; ++n) {
                if (t.id == trackId(n))
                    out.push_back(n);
            }
        }
        return out;
    }

    /**
     * A search by a reader of its own that counts `rareMatches` matches to decide whether words
     * are rare (0: never) and tests `scanBudget` rows one by one at most; the answers' first
     * appearances as milliseconds after the first second. `profile`, if given, counts its work.
     */
    std::vector<std::int64_t> readMs(const Filter& filter, std::int64_t rareMatches,
                                     std::int64_t scanBudget = TrackReader::kTextScanBudget,
                                     TrackReader::Profile* profile = nullptr)
    {
        TrackReader reader;
        EXPECT_EQ(reader.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}),
                  sql::DBResult::ok);
        reader.setRareTextMatches(rareMatches);
        reader.setTextScanBudget(scanBudget);
        reader.setProfile(profile);
        std::vector<ObjectTrackEx> found;
        EXPECT_EQ(reader.lookup(filter, &found), ResultCode::ok);
        std::vector<std::int64_t> out;
        for (const auto& t : found)
            out.push_back((t.firstAppearanceTimeUs - 1'000'000) / 1000);
        return out;
    }

    /** `check` of a filter of each text, in either order, at each limit. */
    template <typename Check>
    static void forEachTextSearch(std::initializer_list<const char*> texts,
                                  std::initializer_list<int> limits, Check check)
    {
        for (const char* text : texts) {
            for (const auto order : {SortOrder::asc, SortOrder::desc}) {
                for (const int limit : limits) {
                    Filter f;
                    f.freeText = text;
                    f.sortOrder = order;
                    f.maxObjectTracksToSelect = limit;
                    check(f, text, limit);
                }
            }
        }
    }

    QTemporaryDir m_dir;
    Settings m_settings;
};

TEST_F(EventsStorageTest, PacketsOfATrackAggregateIntoOneTrack)
{
    auto storage = open();
    storage->save(
        packet(kDeviceA, 2'000'000, {{1, "car", {0.0, 0.0, 0.1, 0.1}, {{"color", "red"}}}}));
    storage->save(
        packet(kDeviceA, 1'000'000,
               {{1, "car", {0.5, 0.5, 0.1, 0.1}, {{"color", "red"}, {"make", "Volvo"}}}}));
    storage->save(packet(kDeviceA, 1'500'000,
                         {{1, "car", {0.3, 0.3, 0.1, 0.1}, {}, ObjectMetadataType::bestShot}}));
    storage->flush();

    Filter filter;
    filter.needFullTrack = true;
    const auto tracks = find(*storage, filter);
    ASSERT_EQ(tracks.size(), 1u);
    const ObjectTrackEx& t = tracks[0];
    EXPECT_EQ(t.id, trackId(1));
    EXPECT_EQ(t.deviceId, kDeviceA);
    EXPECT_EQ(t.objectTypeId, "car");
    EXPECT_EQ(t.analyticsEngineId, kEngine);
    EXPECT_EQ(t.firstAppearanceTimeUs, 1'000'000);
    EXPECT_EQ(t.lastAppearanceTimeUs, 2'001'000);
    EXPECT_EQ(t.attributes, (std::vector<Attribute>{{"color", "red"}, {"make", "Volvo"}}));
    EXPECT_EQ(t.bestShot.timestampUs, 1'500'000);
    EXPECT_EQ(t.bestShot.rect, (Rect{0.3, 0.3, 0.1, 0.1}));
    // Cells 0 (0.0 to 0.1), 4 to 6 (0.3 to 0.4, the best shot) and 8 to 9 (0.5 to 0.6).
    const std::string& grid = t.objectPosition.boundingBoxGrid;
    ASSERT_EQ(grid.size(), 64u);
    EXPECT_EQ(grid.substr(0, 4), "c000");
    EXPECT_EQ(grid.substr(4 * 4, 4), "0e00");
    EXPECT_EQ(grid.substr(7 * 4, 4), "0000");
    EXPECT_EQ(grid.substr(8 * 4, 4), "00c0");
    // Best shots are not sightings; the sequence is in time order.
    ASSERT_EQ(t.objectPositionSequence.size(), 2u);
    EXPECT_EQ(t.objectPositionSequence[0].timestampUs, 1'000'000);
    EXPECT_EQ(t.objectPositionSequence[1].timestampUs, 2'000'000);
    EXPECT_EQ(t.objectPositionSequence[1].deviceId, kDeviceA);

    filter.needFullTrack = false;
    EXPECT_TRUE(find(*storage, filter).at(0).objectPositionSequence.empty());
}

TEST_F(EventsStorageTest, ArrivalOrderAndRestartsDoNotChangeTheTrack)
{
    std::vector<std::shared_ptr<const ObjectMetadataPacket>> packets;
    for (int i = 0; i < 6; ++i) {
        const auto kind =
            i == 2 ? ObjectMetadataType::externalBestShot
                   : (i == 4 ? ObjectMetadataType::bestShot : ObjectMetadataType::regular);
        packets.push_back(packet(
            kDeviceA, 1'000'000 + i * 100'000,
            {{1,
              i == 0 ? "" : (i % 2 ? "person" : "human"),
              {0.1 * i, 0.05, 0.1, 0.3},
              {{"n", std::to_string(i % 3)}},
              kind},
             {2, "car", {0.9 - 0.1 * i, 0.5, 0.05, 0.05}, {{"plate", "AB" + std::to_string(i)}}}}));
    }
    Filter filter;
    filter.needFullTrack = true;
    filter.sortOrder = SortOrder::asc;

    std::vector<ObjectTrackEx> inOrder;
    {
        auto storage = open();
        for (const auto& p : packets)
            storage->save(p);
        storage->flush();
        inOrder = find(*storage, filter);
    }
    const auto byId = [](std::vector<ObjectTrackEx>& tracks) {
        std::sort(tracks.begin(), tracks.end(), [](auto& a, auto& b) { return a.id < b.id; });
    };
    byId(inOrder);
    ASSERT_EQ(inOrder.size(), 2u);
    EXPECT_EQ(inOrder[0].objectTypeId, "person");           //< The earliest non-empty type.
    EXPECT_EQ(inOrder[0].bestShot.timestampUs, 1'200'000);  //< External beats the later one.

    ASSERT_TRUE(m_dir.remove());
    ASSERT_TRUE(QDir().mkpath(m_dir.path()));
    for (int i = 5; i >= 0; --i) {
        // Reopen the same directory between packets: the writer's cache starts empty.
        auto storage = open();
        storage->save(packets[i]);
        if (i == 3)
            storage->save(packets[i]);  //< A duplicate adds a position, nothing else.
    }
    auto storage = open();
    auto reversed = find(*storage, filter);
    byId(reversed);
    ASSERT_EQ(reversed.size(), 2u);
    auto& seq = reversed[0].objectPositionSequence;
    ASSERT_EQ(seq.size(), 5u);
    seq.erase(std::adjacent_find(seq.begin(), seq.end()));
    EXPECT_EQ(reversed[0], inOrder[0]);
    reversed[1].objectPositionSequence.erase(reversed[1].objectPositionSequence.begin() + 3);
    EXPECT_EQ(reversed[1], inOrder[1]);
}

TEST_F(EventsStorageTest, EachFilterFieldSelects)
{
    auto storage = open();
    // Track 1: device A, car, 10 s to 12 s, left top, red, with best shot.
    storage->save(
        packet(kDeviceA, 10'000'000, {{1, "car", {0.0, 0.0, 0.25, 0.25}, {{"color", "red"}}}}));
    storage->save(packet(kDeviceA, 11'999'000,
                         {{1,
                           "car",
                           {0.0, 0.0, 0.25, 0.25},
                           {{"make", "Škoda Octavia"}},
                           ObjectMetadataType::bestShot}}));
    // Track 2: device B, person, 20 s, right bottom, other engine.
    storage->save(packet(kDeviceB, 20'000'000,
                         {{2,
                           "person",
                           {0.8, 0.8, 0.1, 0.1},
                           {{"clothes", "red jacket"}},
                           ObjectMetadataType::regular,
                           kOtherEngine}}));
    // Track 3: device B, car, 30 s, middle.
    storage->save(
        packet(kDeviceB, 30'000'000, {{3, "car", {0.45, 0.45, 0.1, 0.1}, {{"color", "blue"}}}}));
    storage->flush();

    const auto period = [](std::int64_t start, std::int64_t duration) {
        return ZuTimePeriod(start, duration);
    };
    struct Case
    {
        const char* name;
        std::function<void(Filter&)> set;
        std::vector<int> expected;  //< Newest first.
    };
    const std::vector<Case> cases = {
        {"everything", [](Filter&) {}, {3, 2, 1}},
        {"device", [](Filter& f) { f.deviceIds = {kDeviceB}; }, {3, 2}},
        {"two devices",
         [](Filter& f) {
             f.deviceIds = {kDeviceA, kDeviceB};
         },
         {3, 2, 1}},
        {"unknown device", [](Filter& f) { f.deviceIds = {trackId(99)}; }, {}},
        {"type", [](Filter& f) { f.objectTypeId = {"car"}; }, {3, 1}},
        {"types",
         [](Filter& f) {
             f.objectTypeId = {"person", "bike"};
         },
         {2}},
        {"unknown type", [](Filter& f) { f.objectTypeId = {"bike"}; }, {}},
        {"types merged and limited",
         [](Filter& f) {
             f.objectTypeId = {"car", "person"};
             f.maxObjectTracksToSelect = 2;
         },
         {3, 2}},
        {"types merged, oldest first",
         [](Filter& f) {
             f.objectTypeId = {"car", "person"};
             f.sortOrder = SortOrder::asc;
         },
         {1, 2, 3}},
        {"track id", [](Filter& f) { f.objectTrackId = trackId(2); }, {2}},
        {"track id and its type",
         [](Filter& f) {
             f.objectTrackId = trackId(3);
             f.objectTypeId = {"car"};
         },
         {3}},
        {"track id and another type",
         [](Filter& f) {
             f.objectTrackId = trackId(3);
             f.objectTypeId = {"person"};
         },
         {}},
        {"engine", [](Filter& f) { f.analyticsEngineId = kOtherEngine; }, {2}},
        {"best shot only", [](Filter& f) { f.withBestShotOnly = true; }, {1}},
        {"best shot only of types",
         [](Filter& f) {
             f.withBestShotOnly = true;
             f.objectTypeId = {"car", "person"};
         },
         {1}},
        // Track 1 covers [10 000 000, 12 000 000] us; the period excludes its end.
        {"period ending at first", [&](Filter& f) { f.timePeriod = period(9000, 1000); }, {}},
        {"period ending after first", [&](Filter& f) { f.timePeriod = period(9000, 1001); }, {1}},
        {"period starting at last", [&](Filter& f) { f.timePeriod = period(12000, 1); }, {1}},
        {"period starting after last", [&](Filter& f) { f.timePeriod = period(12001, 5000); }, {}},
        {"period inside track", [&](Filter& f) { f.timePeriod = period(10500, 10); }, {1}},
        {"infinite period from 20 s", [&](Filter& f) { f.timePeriod = period(20000, -1); }, {3, 2}},
        {"box over top left",
         [](Filter& f) {
             f.boundingBox = Rect{0.1, 0.1, 0.05, 0.05};
         },
         {1}},
        {"box over bottom right",
         [](Filter& f) {
             f.boundingBox = Rect{0.7, 0.7, 0.3, 0.3};
         },
         {2}},
        // Track 1 ends at x = 0.25, a cell border, so a box from there does not touch it.
        {"box touching border",
         [](Filter& f) {
             f.boundingBox = Rect{0.25, 0.0, 0.1, 0.1};
         },
         {}},
        {"box just over border",
         [](Filter& f) {
             f.boundingBox = Rect{0.24, 0.0, 0.1, 0.1};
         },
         {1}},
        {"text value", [](Filter& f) { f.freeText = "red"; }, {2, 1}},
        {"text name", [](Filter& f) { f.freeText = "clothes"; }, {2}},
        {"text prefix, any case", [](Filter& f) { f.freeText = "BLU"; }, {3}},
        {"text without diacritics", [](Filter& f) { f.freeText = "skoda"; }, {1}},
        {"text words all needed", [](Filter& f) { f.freeText = "red jack"; }, {2}},
        {"text words across attributes", [](Filter& f) { f.freeText = "octavia color:red"; }, {1}},
        {"text not found", [](Filter& f) { f.freeText = "green"; }, {}},
        {"text of punctuation only", [](Filter& f) { f.freeText = "\"*-"; }, {3, 2, 1}},
        {"combined",
         [](Filter& f) {
             f.deviceIds = {kDeviceB};
             f.objectTypeId = {"car", "person"};
             f.freeText = "red";
         },
         {2}},
    };
    // The tracks are still open (their devices have not moved on): searches see them as the
    // writer holds them. Then as stored rows, and after a restart, with track 2 open again.
    for (const char* state : {"open", "stored", "reopened"}) {
        for (const Case& c : cases) {
            Filter filter;
            c.set(filter);
            EXPECT_EQ(ids(find(*storage, filter)), c.expected) << c.name << ", " << state;
        }
        if (std::string(state) == "open") {
            storage->closeOpenTracks();
        } else if (std::string(state) == "stored") {
            storage.reset();
            storage = open();
            storage->save(packet(kDeviceB, 20'000'000,
                                 {{2,
                                   "person",
                                   {0.8, 0.8, 0.1, 0.1},
                                   {{"clothes", "red jacket"}},
                                   ObjectMetadataType::regular,
                                   kOtherEngine}}));
            storage->flush();
        }
    }
}

TEST_F(EventsStorageTest, TrackIdSearchesAnswerInPlaceAsWorkersDo)
{
    auto storage = open();
    storage->save(
        packet(kDeviceA, 1'000'000, {{1, "car", {0.1, 0.1, 0.2, 0.2}, {{"color", "red"}}}}));
    storage->closeOpenTracks();
    // Track 2 stays open, in the writer's memory.
    storage->save(
        packet(kDeviceB, 2'000'000, {{2, "person", {0.5, 0.5, 0.1, 0.1}, {{"hat", "red"}}}}));
    storage->flush();

    struct Answer
    {
        bool beforeReturn = false;
        std::thread::id thread;
        std::vector<ObjectTrackEx> tracks;
    };
    const auto search = [&](const Filter& filter) {
        Answer answer;
        std::promise<void> done;
        std::atomic<bool> returned{false};
        storage->lookup(filter, [&](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            EXPECT_EQ(code, ResultCode::ok);
            answer.beforeReturn = !returned;
            answer.thread = std::this_thread::get_id();
            answer.tracks = std::move(tracks);
            done.set_value();
        });
        returned = true;
        done.get_future().wait();
        return answer;
    };
    for (const int n : {1, 2, 3}) {
        Filter filter;
        filter.objectTrackId = trackId(n);
        const Answer inPlace = search(filter);
        EXPECT_TRUE(inPlace.beforeReturn) << n;
        EXPECT_EQ(inPlace.thread, std::this_thread::get_id()) << n;
        EXPECT_EQ(ids(inPlace.tracks), n == 3 ? std::vector<int>{} : std::vector<int>{n});

        // Words and positions go to a worker; the track is the same, positions aside.
        for (const bool fullTrack : {false, true}) {
            Filter other = filter;
            other.needFullTrack = fullTrack;
            other.freeText = fullTrack ? "" : "red";
            Answer queued = search(other);
            EXPECT_NE(queued.thread, std::this_thread::get_id()) << n;
            for (auto& track : queued.tracks) {
                EXPECT_EQ(track.objectPositionSequence.empty(), !fullTrack) << n;
                track.objectPositionSequence.clear();
            }
            EXPECT_EQ(queued.tracks, inPlace.tracks) << n;
        }
    }

    // From several threads at once, some in place and the others queued, each gets its track.
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                Filter filter;
                filter.objectTrackId = trackId(1 + (t + i) % 2);
                const auto found = find(*storage, filter);
                if (found.size() != 1 || found[0].id != filter.objectTrackId)
                    ++wrong;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(EventsStorageTest, FreeTextAnswersAlikeForCommonAndRareWords)
{
    // More tracks than a search checks one by one before it turns to the full-text index.
    const int kTracks = static_cast<int>(TrackReader::kTextScanBudget) + 1000;
    auto storage = open();
    for (int i = 0; i < kTracks; ++i) {
        std::vector<Attribute> attributes = {{"color", i % 2 ? "grey" : "green"}};
        if (i == 10 || i == 20 || i == 30)
            attributes.push_back({"note", "Rarität"});
        storage->save(
            loneObject(kDeviceA, 1'000'000 + i * 1000, "car", {0.1, 0.1, 0.1, 0.1}, attributes));
    }
    storage->closeOpenTracks();

    const auto times = [&](Filter filter) {
        std::vector<std::int64_t> out;
        for (const auto& t : find(*storage, filter))
            out.push_back((t.firstAppearanceTimeUs - 1'000'000) / 1000);
        return out;
    };
    Filter filter;
    filter.maxObjectTracksToSelect = 3;
    filter.freeText = "gre";  //< Every track, found near the top of the time index.
    EXPECT_EQ(times(filter), (std::vector<std::int64_t>{kTracks - 1, kTracks - 2, kTracks - 3}));
    filter.freeText = "GREEN";
    EXPECT_EQ(times(filter), (std::vector<std::int64_t>{kTracks - 2, kTracks - 4, kTracks - 6}));
    // Rare words are far down the index: the full-text index answers, with the same rules.
    filter.freeText = "raritat green";
    EXPECT_EQ(times(filter), (std::vector<std::int64_t>{30, 20, 10}));
    filter.freeText = "rarit grey";
    EXPECT_EQ(times(filter), std::vector<std::int64_t>{});
    filter.sortOrder = SortOrder::asc;
    filter.maxObjectTracksToSelect = 2;
    filter.freeText = "note";
    EXPECT_EQ(times(filter), (std::vector<std::int64_t>{10, 20}));
    // No limit: every match, whichever way it is found.
    filter.maxObjectTracksToSelect = 0;
    filter.freeText = "grey";
    EXPECT_EQ(times(filter).size(), static_cast<std::size_t>(kTracks / 2));

    // Rare words go to the index at once; testing rows one by one first answers the same.
    // Common words without devices walk the lists of their first letters, with devices they are
    // tested along the device's range: all tracks are on device A, so both answer the same.
    forEachTextSearch(
        {"gre", "green", "grey", "COLOR GREY", "gr", "greenish"}, {1, 7, 300},
        [&](Filter f, const char* text, int limit) {
            for (const auto& period : {Filter().timePeriod, ZuTimePeriod(1'000 + 2'000, 1'500)}) {
                f.timePeriod = period;
                f.deviceIds = {};
                const auto walked = find(*storage, f);
                f.deviceIds = {kDeviceA};
                EXPECT_EQ(walked, find(*storage, f)) << text << " " << limit;
                EXPECT_EQ(walked.size(), std::string(text) == "greenish" ? 0u : limit) << text;
            }
        });

    forEachTextSearch(
        {"raritat", "note green", "rarit grey", "gre"}, {0, 2},
        [&](Filter f, const char* text, int limit) {
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
            f.deviceIds = {kDeviceA};
            f.timePeriod = ZuTimePeriod(1'000 + 15, 2'000);
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
            // Types as index ranges, a box, an engine that no track has.
            f.deviceIds = {};
            f.objectTypeId = {"car", "truck"};
            f.boundingBox = Rect{0.0, 0.0, 0.15, 0.15};
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
            f.analyticsEngineId = kOtherEngine;
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), std::vector<std::int64_t>{});
        });
}

TEST_F(EventsStorageTest, FreeTextTestsTheFewMatchesOfOneWordAgainstTheOthers)
{
    // Plates whose letters begin words of every track ("bl": black, blue), so that FTS5 finds
    // the letters on every track and the digits on a few.
    auto storage = open();
    const auto plateOf = [](int i) -> std::string {
        switch (i) {
            case 3:
            case 7:
                return "BL 4821";
            case 11:
                return "QX 4821";  //< On a grey track: no word of it begins with "bl".
            case 13:
                return "BL 48";
            case 17:
                return "BLX 48210";
            default:
                return i % 5 == 0 ? "MID " + std::to_string(900 + i % 7) : "";
        }
    };
    for (int i = 0; i < 600; ++i) {
        std::vector<Attribute> attributes = {{"color", i == 11 || i % 34 == 1 ? "grey"
                                                       : i % 2                ? "black"
                                                                              : "blue"}};
        if (const std::string plate = plateOf(i); !plate.empty())
            attributes.push_back({"plate", plate});
        // More than a few, yet far sparser than "bl": they give the candidates all the same.
        if (i % 17 == 1)
            attributes.push_back({"zone", "77" + std::to_string(i % 3)});
        storage->save(loneObject(i % 3 ? kDeviceA : kDeviceB, 1'000'000 + i * 1000, "car",
                                 {0.1, 0.1, 0.1, 0.1}, attributes));
    }
    storage->closeOpenTracks();

    // The row by row test, which never counts matches, is the reference.
    Filter filter;
    filter.freeText = "bl 4821";
    EXPECT_EQ(readMs(filter, TrackReader::kRareTextMatches), (std::vector<std::int64_t>{17, 7, 3}));
    filter.freeText = "4821 GREY";
    EXPECT_EQ(readMs(filter, TrackReader::kRareTextMatches), std::vector<std::int64_t>{11});

    // Few matches of one word (4821, blx), of a word of three characters (mid: 120 tracks, more
    // than a few but rare), a word far rarer than the other (77: 35 tracks, every other one
    // grey), words that are only rare together, one-letter words (which the lists leave to the
    // matcher: "q" keeps one of the four 4821s), common words.
    forEachTextSearch(
        {"BL 4821", "4821 bl blue", "blx bl", "4821 qx", "4821 mid", "mid bl", "mid 90", "bl 77",
         "771 bl", "grey 77", "black blue", "4821 b", "4821 q", "g 48", "48 bl", "nothing bl", "bl",
         "blue"},
        {0, 1}, [&](Filter f, const char* text, int limit) {
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
            // One device at any time: common words go to the index without testing rows one by
            // one first when that would take more than its budget.
            f.deviceIds = {kDeviceA};
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches, 10), readMs(f, 0)) << text << limit;
            f.timePeriod = ZuTimePeriod(1'000 + 5, 10'000);
            EXPECT_EQ(readMs(f, TrackReader::kRareTextMatches), readMs(f, 0)) << text << limit;
        });
}

TEST_F(EventsStorageTest, FreeTextOfACameraSeldomSeenAmongTracksOfTheSameWord)
{
    // Three tracks of camera A among those of camera B, all grey: a chunk of A's index spans
    // more of the word's list than it is worth reading, so A's rows are tested one by one.
    constexpr int kTracks = TrackReader::kDeviceChunk * TrackReader::kListedPerRow + 200;
    constexpr int kStep = (kTracks - 1) / 2;
    auto storage = open();
    for (int i = 0; i < kTracks; ++i) {
        storage->save(loneObject(i % kStep == 0 ? kDeviceA : kDeviceB, 1'000'000 + i * 1000, "car",
                                 {0.1, 0.1, 0.1, 0.1}, {{"color", i == kStep ? "green" : "grey"}}));
    }
    storage->closeOpenTracks();
    Filter filter;
    filter.freeText = "gre";
    filter.deviceIds = {kDeviceA};
    // A text scan budget of 10 rows sends the search past it at once.
    EXPECT_EQ(readMs(filter, TrackReader::kRareTextMatches, 10),
              (std::vector<std::int64_t>{2 * kStep, kStep, 0}));
    filter.freeText = "grey";
    filter.sortOrder = SortOrder::asc;
    EXPECT_EQ(readMs(filter, TrackReader::kRareTextMatches, 10),
              (std::vector<std::int64_t>{0, 2 * kStep}));
}

/**
 * 3,000 tracks of camera A, `step` ms apart, that say "salami" but every 40th "salomi", and with
 * `cameraB` one of camera B after each that says "salomi"; the milliseconds of A's salomi.
 */
std::vector<std::int64_t> saveSalamiAndSalomi(EventsStorage& storage, int step, bool cameraB)
{
    std::vector<std::int64_t> salomi;
    for (int i = 0; i < 3000; ++i) {
        const bool hit = i % 40 == 7;
        if (hit)
            salomi.push_back(step * i);
        storage.save(loneObject(kDeviceA, 1'000'000 + step * i * 1000, "car", {0.1, 0.1, 0.1, 0.1},
                                {{"word", hit ? "salomi" : "salami"}}));
        if (cameraB) {
            storage.save(loneObject(kDeviceB, 1'000'000 + (step * i + 1) * 1000, "car",
                                    {0.1, 0.1, 0.1, 0.1}, {{"word", "salomi"}}));
        }
    }
    storage.closeOpenTracks();
    return salomi;
}

TEST_F(EventsStorageTest, FreeTextOfACameraWhosePrefixListHoldsMostlyAnotherWord)
{
    // The list of "sal" gives A's walk mostly salami, so after a chunk it takes salomi's own list.
    auto storage = open();
    const std::vector<std::int64_t> salomi = saveSalamiAndSalomi(*storage, 3, /*cameraB*/ true);
    Filter filter;
    filter.freeText = "salomi";
    filter.deviceIds = {kDeviceA};
    filter.sortOrder = SortOrder::asc;
    // Every match counts as common, and a scan budget of 10 rows sends the search past it.
    EXPECT_EQ(readMs(filter, 1, 10), salomi);
    filter.sortOrder = SortOrder::desc;
    filter.maxObjectTracksToSelect = 5;
    EXPECT_EQ(readMs(filter, 1, 10),
              (std::vector<std::int64_t>(salomi.rbegin(), salomi.rbegin() + 5)));
}

TEST_F(EventsStorageTest, FreeTextWhosePrefixListHoldsMostlyAnotherWordTakesItsOwnList)
{
    // The list of "sal" gives the walk along the row ids mostly salami, so after a few hundred
    // rows tested in vain it takes the list of salomi itself.
    auto storage = open();
    const std::vector<std::int64_t> salomi = saveSalamiAndSalomi(*storage, 1, /*cameraB*/ false);
    for (const auto order : {SortOrder::desc, SortOrder::asc}) {
        Filter filter;
        filter.freeText = "salomi";
        filter.sortOrder = order;
        filter.maxObjectTracksToSelect = 60;
        std::vector<std::int64_t> expected(salomi.begin(), salomi.begin() + 60);
        if (order == SortOrder::desc)
            expected.assign(salomi.rbegin(), salomi.rbegin() + 60);
        TrackReader::Profile profile;
        // Every word counts as common.
        EXPECT_EQ(readMs(filter, 1, TrackReader::kTextScanBudget, &profile), expected);
        // Walking "sal" to the 60th salomi would test 2,400 rows.
        EXPECT_LT(profile.rowsMatched, 1000);
    }
}

/**
 * Stores whose row order strays from first-appearance order, searched by a word that takes the
 * row id walk: the first tracks of the time index carry another word, more of them than the
 * text scan checks.
 */
class RowOrderTextTest : public EventsStorageTest
{
protected:
    static constexpr int kZebras = 300;
    static constexpr std::int64_t kS = 1'000'000;

    void saveZebra(EventsStorage& storage, int n, std::int64_t seconds)
    {
        auto p = packet(kDeviceA, seconds * kS, {});
        auto copy = std::make_shared<ObjectMetadataPacket>(*p);
        copy->objectMetadataList.push_back({trackId(1000 + n),
                                            "animal",
                                            ObjectMetadataType::regular,
                                            {0.1, 0.1, 0.1, 0.1},
                                            {{"kind", "zebra"}},
                                            kEngine});
        storage.save(copy);
        storage.flush();  //< A batch each, so that batches add no disorder of their own.
    }

    /** The fillers share one first appearance, so that their batch adds no disorder either. */
    static void saveFillers(EventsStorage& storage, std::int64_t seconds)
    {
        for (int i = 0; i < TrackReader::kTextScanBudget + 100; ++i) {
            storage.save(loneObject(kDeviceB, seconds * kS, "car", {0.5, 0.5, 0.1, 0.1},
                                    {{"color", "grey"}}));
        }
        // Everything stored, so that searches walk rows.
        storage.closeOpenTracks();
    }

    static std::vector<std::int64_t> seconds(const std::vector<ObjectTrackEx>& tracks)
    {
        std::vector<std::int64_t> out;
        for (const auto& t : tracks)
            out.push_back(t.firstAppearanceTimeUs / kS);
        return out;
    }

    /**
     * What a limited search must give: the head of the same search without a limit, which
     * checks every FTS5 match. A reader that never scans takes the row id walk for any window.
     */
    void expectHeadOfUnlimited(Filter filter)
    {
        TrackReader reader;
        ASSERT_EQ(reader.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}),
                  sql::DBResult::ok);
        reader.setTextScanBudget(0);
        std::vector<ObjectTrackEx> limited;
        std::vector<ObjectTrackEx> all;
        const int limit = filter.maxObjectTracksToSelect;
        ASSERT_EQ(reader.lookup(filter, &limited), ResultCode::ok);
        filter.maxObjectTracksToSelect = 0;
        ASSERT_EQ(reader.lookup(filter, &all), ResultCode::ok);
        if (all.size() > static_cast<std::size_t>(limit))
            all.resize(limit);
        EXPECT_EQ(seconds(limited), seconds(all))
            << filter.timePeriod.startTimeMs << " +" << filter.timePeriod.durationMs << " order "
            << static_cast<int>(filter.sortOrder) << " limit " << limit;
    }

    std::int64_t metaValue(const char* key)
    {
        sql::Database db;
        EXPECT_EQ(db.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}),
                  sql::DBResult::ok);
        auto* s = db.cached("SELECT value FROM meta WHERE key = ?");
        s->bindText(1, key);
        return s->step() ? s->int64(0) : -1;
    }
};

TEST_F(RowOrderTextTest, TrackStoredBeforeEarlierOnesLeadsTheLatestFirst)
{
    auto storage = open();
    saveZebra(*storage, kZebras, 10'400);  //< Stored first, yet the latest.
    for (int i = 0; i < kZebras; ++i)
        saveZebra(*storage, i, 10'000 + i);
    saveFillers(*storage, 20'000);

    Filter filter;
    filter.freeText = "zebra";
    filter.maxObjectTracksToSelect = 3;
    EXPECT_EQ(seconds(find(*storage, filter)), (std::vector<std::int64_t>{10'400, 10'299, 10'298}));
    EXPECT_EQ(metaValue("maxLagUs"), 400 * kS);

    // Windows bound the walk by row id too; each answer is the head of the unlimited one.
    for (const SortOrder order : {SortOrder::desc, SortOrder::asc}) {
        for (const auto& [startS, durationS] : std::vector<std::pair<std::int64_t, std::int64_t>>{
                 {10'050, 100}, {10'250, 200}, {9'000, 1'050}, {10'299, 1}, {10'400, 1}}) {
            for (const int limit : {1, 5, 200}) {
                filter.sortOrder = order;
                filter.maxObjectTracksToSelect = limit;
                filter.timePeriod = ZuTimePeriod(startS * 1000, durationS * 1000);
                expectHeadOfUnlimited(filter);
            }
        }
    }
}

TEST_F(RowOrderTextTest, CandidatesOfARareWordEndTheWalkOnlyPastTheLag)
{
    // Zebras among twenty times as many horses: next to "ki" (of "kind", on every track) "zebra"
    // is rare, so its matches are the candidates, walked in row order. The latest is stored first.
    auto storage = open();
    const auto saveAmongHorses = [&](int n, std::int64_t seconds) {
        for (int i = 0; i < 20; ++i) {
            storage->save(loneObject(kDeviceB, seconds * kS, "animal", {0.5, 0.5, 0.1, 0.1},
                                     {{"kind", "horse"}}));
        }
        saveZebra(*storage, n, seconds);
    };
    saveAmongHorses(kZebras, 10'400);
    for (int i = 0; i < 100; ++i)
        saveAmongHorses(i, 10'000 + i);
    storage->closeOpenTracks();

    Filter filter;
    filter.freeText = "zebra ki";
    filter.maxObjectTracksToSelect = 3;
    EXPECT_EQ(seconds(find(*storage, filter)), (std::vector<std::int64_t>{10'400, 10'099, 10'098}));
    for (const SortOrder order : {SortOrder::desc, SortOrder::asc}) {
        for (const auto& [startS, durationS] : std::vector<std::pair<std::int64_t, std::int64_t>>{
                 {0, 20'000}, {10'050, 30}, {10'090, 400}, {9'000, 1'050}}) {
            for (const int limit : {1, 5, 200}) {
                filter.sortOrder = order;
                filter.maxObjectTracksToSelect = limit;
                filter.timePeriod = ZuTimePeriod(startS * 1000, durationS * 1000);
                expectHeadOfUnlimited(filter);
            }
        }
    }
}

TEST_F(RowOrderTextTest, TrackExtendedBackLeadsTheEarliestFirst)
{
    auto storage = open();
    saveFillers(*storage, 1);
    for (int i = 0; i < kZebras; ++i)
        saveZebra(*storage, i, 10'000 + i);
    EXPECT_EQ(metaValue("maxLagUs"), 0);

    Filter filter;
    filter.freeText = "zebra";
    filter.maxObjectTracksToSelect = 3;
    filter.sortOrder = SortOrder::asc;
    EXPECT_EQ(seconds(find(*storage, filter)), (std::vector<std::int64_t>{10'000, 10'001, 10'002}));

    // The last stored track gets a packet from before every other: its row stays where it was.
    saveZebra(*storage, kZebras - 1, 9'000);
    EXPECT_EQ(seconds(find(*storage, filter)), (std::vector<std::int64_t>{9'000, 10'000, 10'001}));
    // And a late new track, stored last.
    saveZebra(*storage, kZebras, 8'000);
    EXPECT_EQ(seconds(find(*storage, filter)), (std::vector<std::int64_t>{8'000, 9'000, 10'000}));
    storage->closeOpenTracks();
    for (const SortOrder order : {SortOrder::asc, SortOrder::desc}) {
        for (const auto& [startS, durationS] : std::vector<std::pair<std::int64_t, std::int64_t>>{
                 {9'500, 600}, {10'200, 50}, {7'000, 1'000}, {10'290, 1'000}}) {
            filter.sortOrder = order;
            filter.timePeriod = ZuTimePeriod(startS * 1000, durationS * 1000);
            expectHeadOfUnlimited(filter);
        }
    }
}

TEST_F(EventsStorageTest, SortAndLimit)
{
    auto storage = open();
    for (int i = 0; i < 6; ++i)
        storage->save(packet(i % 2 ? kDeviceA : kDeviceB, (10 + i) * 1'000'000, {{i}}));
    storage->flush();

    struct Case
    {
        SortOrder order;
        int limit;
        std::set<ZuUuid> devices;
        std::vector<int> expected;
    };
    const std::vector<Case> cases = {
        {SortOrder::desc, 0, {}, {5, 4, 3, 2, 1, 0}},
        {SortOrder::asc, 0, {}, {0, 1, 2, 3, 4, 5}},
        {SortOrder::desc, 2, {}, {5, 4}},
        {SortOrder::asc, 2, {}, {0, 1}},
        {SortOrder::asc, -1, {}, {0, 1, 2, 3, 4, 5}},
        {SortOrder::desc, 3, {kDeviceA, kDeviceB}, {5, 4, 3}},
        {SortOrder::asc, 3, {kDeviceA, kDeviceB}, {0, 1, 2}},
        {SortOrder::desc, 0, {kDeviceA}, {5, 3, 1}},
    };
    for (const Case& c : cases) {
        Filter filter;
        filter.sortOrder = c.order;
        filter.maxObjectTracksToSelect = c.limit;
        filter.deviceIds = c.devices;
        EXPECT_EQ(ids(find(*storage, filter)), c.expected)
            << static_cast<int>(c.order) << " " << c.limit << " " << c.devices.size();
    }
}

TEST_F(EventsStorageTest, FailedBatchReachesTheHandlerWithPeriodsPerDevice)
{
    auto storage = open();
    std::promise<std::pair<sql::DBResult, std::unordered_map<ZuUuid, ZuTimePeriodList>>> reported;
    storage->setOnSaveErrorHandler([&](sql::DBResult result, auto periods) {
        reported.set_value({result, std::move(periods)});
    });
    storage->save(packet(kDeviceA, 1'000'000, {{1}}));
    storage->flush();

    // The file may not grow any more: the next batch fails with SQLITE_FULL.
    storage->runOnWriter(
        [](sql::Database& db) { db.exec("PRAGMA max_page_count = " + std::to_string(1)); });
    // A value that does not compress, so that the batch needs new pages whatever is stored how.
    std::string padding;
    std::mt19937 random(1);
    for (int i = 0; i < 20'000; ++i)
        padding += static_cast<char>('a' + random() % 26);
    storage->save(packet(kDeviceA, 5'000'500, {{2, "car", {}, {{"big", padding}}}}));
    storage->save(packet(kDeviceB, 7'000'000, {{3}}));
    storage->save(packet(kDeviceA, 6'000'000, {{4}}));
    storage->save(packet(kDeviceA, 9'000'000, {{5}}));
    storage->flush();

    auto future = reported.get_future();
    ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
    auto [result, periods] = future.get();
    EXPECT_EQ(result, sql::DBResult::full);
    ASSERT_EQ(periods.size(), 2u);
    // Packets of 1 ms each; the first rounded outwards to whole milliseconds.
    EXPECT_EQ(periods[kDeviceA], (ZuTimePeriodList{{5000, 2}, {6000, 1}, {9000, 1}}));
    EXPECT_EQ(periods[kDeviceB], (ZuTimePeriodList{{7000, 1}}));
    // Nothing of the failed batch is stored, and the storage goes on afterwards.
    EXPECT_EQ(ids(find(*storage, Filter())), std::vector<int>{1});
    storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA max_page_count = 1000000"); });
    storage->save(packet(kDeviceA, 9'000'000, {{5}}));
    storage->flush();
    EXPECT_EQ(ids(find(*storage, Filter())), (std::vector<int>{5, 1}));
}

TEST_F(EventsStorageTest, BlockedErrorHandlerDoesNotStallWritesAndReportsAreMerged)
{
    auto storage = open();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> entered;
    std::atomic<bool> first{true};
    std::mutex mutex;
    std::vector<std::unordered_map<ZuUuid, ZuTimePeriodList>> reports;
    storage->setOnSaveErrorHandler([&](sql::DBResult, auto periods) {
        if (first.exchange(false))
            entered.set_value();
        released.wait();
        std::lock_guard lock(mutex);
        reports.push_back(std::move(periods));
    });
    const auto failOneBatch = [&](std::int64_t timeMs) {
        storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
        storage->save(packet(kDeviceA, timeMs * 1000, {{1}}));
        storage->flush();
        storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 0"); });
    };
    failOneBatch(1000);  //< The handler takes it and blocks.
    ASSERT_EQ(entered.get_future().wait_for(5s), std::future_status::ready);
    failOneBatch(2000);  //< These two wait and are merged.
    failOneBatch(3000);

    // The writer is not held up by the blocked handler.
    storage->save(packet(kDeviceB, 4'000'000, {{7}}));
    storage->flush();
    EXPECT_EQ(ids(find(*storage, Filter())), std::vector<int>{7});

    release.set_value();
    storage.reset();  //< Delivers what is pending before it returns.
    ASSERT_GE(reports.size(), 2u);
    ZuTimePeriodList all;
    for (const auto& r : reports)
        ZuTimePeriodList::unionTimePeriods(all, r.at(kDeviceA));
    EXPECT_EQ(all, (ZuTimePeriodList{{1000, 1}, {2000, 1}, {3000, 1}}));
    EXPECT_EQ(reports.back().at(kDeviceA), (ZuTimePeriodList{{2000, 1}, {3000, 1}}));
}

// Commit reports carry what was committed, and only that, off the writer thread; flush() returns
// once they are delivered. The counters follow the same packets.
TEST_F(EventsStorageTest, CommittedBatchesAreReportedAndCounted)
{
    m_settings.maxCommitDelay = 10s;
    auto storage = open();
    storage->save(packet(kDeviceA, 500'000, {{9}}));  //< Before any handler: not reported.
    storage->flush();

    std::mutex mutex;
    std::vector<std::unordered_map<ZuUuid, ZuTimePeriodList>> reports;
    std::set<std::thread::id> reportThreads;
    storage->setOnCommitHandler([&](std::unordered_map<ZuUuid, ZuTimePeriodList> periods) {
        std::lock_guard lock(mutex);
        reports.push_back(std::move(periods));
        reportThreads.insert(std::this_thread::get_id());
    });

    // Hold the writer so that the queue is seen.
    std::promise<std::thread::id> writerThread;
    std::promise<void> release;
    auto released = release.get_future();
    storage->runOnWriter([&](sql::Database&) {
        writerThread.set_value(std::this_thread::get_id());
        released.wait();
    });
    const auto writerId = writerThread.get_future().get();
    storage->save(packet(kDeviceA, 1'000'000, {{1}}));
    storage->save(packet(kDeviceA, 1'001'000, {{1}}));  //< Touches the first: one period.
    storage->save(packet(kDeviceA, 9'000'000, {{1}}));
    storage->save(packet(kDeviceB, 2'000'000, {{2}}));
    StorageStatistics statistics = storage->statistics();
    EXPECT_EQ(statistics.packetsAccepted, 5u);
    EXPECT_EQ(statistics.packetsCommitted, 1u);
    EXPECT_EQ(statistics.queuedPackets, 4u);
    EXPECT_EQ(statistics.maxQueuedPackets, m_settings.maxQueuedPackets);
    release.set_value();
    storage->flush();
    {
        std::lock_guard lock(mutex);
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].size(), 2u);
        EXPECT_EQ(reports[0][kDeviceA], (ZuTimePeriodList{{1000, 2}, {9000, 1}}));
        EXPECT_EQ(reports[0][kDeviceB], (ZuTimePeriodList{{2000, 1}}));
        EXPECT_FALSE(reportThreads.contains(writerId));
        EXPECT_FALSE(reportThreads.contains(std::this_thread::get_id()));
    }

    // A batch that fails is a save error, not a commit.
    storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    storage->save(packet(kDeviceB, 3'000'000, {{3}}));
    storage->flush();
    storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 0"); });
    statistics = storage->statistics();
    EXPECT_EQ(statistics.packetsAccepted, 6u);
    EXPECT_EQ(statistics.packetsCommitted, 5u);
    EXPECT_EQ(statistics.packetsFailed, 1u);
    EXPECT_EQ(statistics.queuedPackets, 0u);
    EXPECT_GT(statistics.storeBytes, 0u);
    EXPECT_GT(statistics.diskAvailableBytes, 0u);

    // Without a handler nothing more is reported.
    storage->setOnCommitHandler(nullptr);
    storage->save(packet(kDeviceB, 4'000'000, {{4}}));
    storage->flush();
    std::lock_guard lock(mutex);
    EXPECT_EQ(reports.size(), 1u);
}

TEST_F(EventsStorageTest, NotReadyPastTheHighWaterMarkUntilDrained)
{
    // A mark of 1 has a low-water mark of 0: readiness must still come back.
    for (const std::size_t mark : {std::size_t{1}, std::size_t{10}}) {
        m_settings.maxQueuedPackets = mark;
        m_settings.maxCommitDelay = 10s;
        auto storage = open();
        std::promise<void> release;
        auto released = release.get_future();
        storage->runOnWriter([&](sql::Database&) { released.wait(); });
        std::this_thread::sleep_for(50ms);

        for (std::size_t i = 0; i < mark; ++i)
            storage->save(packet(kDeviceA, 1'000'000 + i, {{1}}));
        EXPECT_TRUE(storage->isReady()) << mark;
        storage->save(packet(kDeviceA, 2'000'000, {{1}}));
        EXPECT_FALSE(storage->isReady()) << mark;

        release.set_value();
        storage->flush();
        EXPECT_TRUE(storage->isReady()) << mark;
        EXPECT_EQ(find(*storage, Filter()).size(), 1u);
    }

    // The memory of the packets waiting counts as well, the batch being written included, and
    // readiness comes back once it is written.
    m_settings.maxQueuedPackets = 1000;
    const auto sample = packet(kDeviceA, 1'000'000, {{1}, {2}, {3}});
    const std::size_t bytes = EventsStorage::packetBytes(*sample);
    EXPECT_GT(bytes, sizeof(*sample) + 3 * sizeof(sample->objectMetadataList[0]));
    m_settings.maxQueuedBytes = 3 * bytes;
    auto storage = open();
    std::promise<void> release;
    auto released = release.get_future();
    storage->save(sample);
    storage->runOnWriter([&](sql::Database&) { released.wait(); });
    std::this_thread::sleep_for(50ms);
    storage->save(packet(kDeviceA, 2'000'000, {{1}, {2}, {3}}));
    storage->save(packet(kDeviceA, 3'000'000, {{1}, {2}, {3}}));
    EXPECT_TRUE(storage->isReady());
    EXPECT_EQ(storage->statistics().queuedBytes, 3 * bytes);
    storage->save(packet(kDeviceA, 4'000'000, {{1}, {2}, {3}}));
    EXPECT_FALSE(storage->isReady());
    release.set_value();
    storage->flush();
    EXPECT_TRUE(storage->isReady());
    EXPECT_EQ(storage->statistics().queuedBytes, 0u);
}

// An idle writer sleeps a second at a time between its housekeeping steps. A packet that comes
// meanwhile must start its own delay: each one here arrives just as the writer has gone idle
// again, so a writer that finished its sleep first would take about a second for each.
TEST_F(EventsStorageTest, ALonePacketIsCommittedAndFoundWithinTheDelayOfAnIdleWriter)
{
    m_settings.maxCommitDelay = 20ms;
    auto storage = open();
    for (int i = 0; i < 3; ++i) {
        const std::uint64_t before = storage->statistics().packetsCommitted;
        const auto savedAt = std::chrono::steady_clock::now();
        storage->save(packet(kDeviceA, 1'000'000 + i * 10'000'000, {{i}}));
        ASSERT_TRUE(waitUntil([&] { return storage->statistics().packetsCommitted > before; }));
        EXPECT_LT(std::chrono::steady_clock::now() - savedAt, 500ms) << "packet " << i;
        EXPECT_EQ(find(*storage, Filter()).size(), static_cast<std::size_t>(i + 1));
    }
}

// The writer starts with a cautious idea of its pace and must learn the real one: stuck at its
// start, the storage would take a few thousand objects a second however fast it writes.
TEST_F(EventsStorageTest, TheWritersPaceRisesFromItsCautiousStart)
{
    auto storage = open();
    constexpr std::size_t kObjects = 100'000;
    std::size_t accepted = 0;
    std::int64_t timestampUs = 1'000'000;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (accepted < kObjects && std::chrono::steady_clock::now() < deadline) {
        if (!storage->isReady()) {
            std::this_thread::yield();
            continue;
        }
        std::vector<Obj> objects;
        for (int k = 0; k < 10; ++k)
            objects.emplace_back(k);
        storage->save(packet(kDeviceA, timestampUs += 40'000, std::move(objects)));
        accepted += 10;
    }
    EXPECT_EQ(accepted, kObjects) << "accepted in 20 s";
}

TEST_F(EventsStorageTest, NotReadyWhileTheOldestUncommittedPacketNearsItsBound)
{
    // What is acknowledged and not yet written must stay within a time bound, however few
    // packets that is: a stalled writer makes the storage refuse more before the bound, and the
    // age of the oldest such packet is there to watch all along.
    m_settings.maxCommitDelay = 10ms;
    auto storage = open();
    std::promise<void> release;
    auto released = release.get_future();
    std::promise<void> blocked;
    storage->runOnWriter([&](sql::Database&) {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();

    EXPECT_EQ(storage->statistics().oldestUncommittedAgeUs, 0u);
    const auto savedAt = std::chrono::steady_clock::now();
    storage->save(packet(kDeviceA, 1'000'000, {{1}}));
    const auto bound =
        m_settings.maxCommitDelay + EventsStorage::kMaxBacklogLag - EventsStorage::kAckMargin;
    // Ready until the bound: unless this thread was held up, it sees that first.
    if (std::chrono::steady_clock::now() - savedAt < bound / 2) {
        EXPECT_TRUE(storage->isReady());
    }
    ASSERT_TRUE(waitUntil([&] { return !storage->isReady(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - savedAt, bound);
    EXPECT_GE(storage->statistics().oldestUncommittedAgeUs,
              static_cast<std::uint64_t>(
                  std::chrono::duration_cast<std::chrono::microseconds>(bound).count()));

    release.set_value();
    storage->flush();
    EXPECT_TRUE(storage->isReady());
    EXPECT_EQ(storage->statistics().oldestUncommittedAgeUs, 0u);
    EXPECT_EQ(find(*storage, Filter()).size(), 1u);
}

// A save that waits for its commit is answered once the commit is done, however the writer is
// held up; saves waiting together share commits; a failed commit answers false.
TEST_F(EventsStorageTest, SavesThatWaitForTheirCommitAreAnsweredByIt)
{
    m_settings.maxCommitDelay = 10s;  //< Only waiters make the writer commit early.
    m_settings.ackAfterCommit = true;
    auto storage = open();
    EXPECT_TRUE(storage->acknowledgesAfterCommit());
    std::atomic<int> commits{0};
    storage->setOnCommitHandler([&](auto) { ++commits; });

    std::promise<void> release;
    auto released = release.get_future();
    std::promise<void> blocked;
    storage->runOnWriter([&](sql::Database&) {
        blocked.set_value();
        released.wait();
    });
    blocked.get_future().wait();

    constexpr int kSavers = 20;
    std::vector<std::promise<bool>> answers(kSavers);
    std::vector<std::future<bool>> futures;
    for (auto& answer : answers)
        futures.push_back(answer.get_future());
    for (int i = 0; i < kSavers; ++i) {
        storage->saveCommitted({packet(kDeviceA, 1'000'000 + i * 1000, {{i}}),
                                packet(kDeviceB, 1'000'000 + i * 1000, {{50 + i}})},
                               [&answers, i](bool committed) { answers[i].set_value(committed); });
    }
    // Held up: nothing can be committed, so nothing is answered.
    for (auto& future : futures)
        EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
    const int commitsBefore = commits;
    release.set_value();
    for (auto& future : futures) {
        ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(future.get());
    }
    // Answered once committed: the commits are counted before the answers, and shared.
    EXPECT_EQ(storage->statistics().packetsCommitted, 2u * kSavers);
    EXPECT_LE(commits - commitsBefore, 2);
    EXPECT_EQ(find(*storage, Filter()).size(), 2u * kSavers);

    // A commit that fails answers false, and the packets are a save error as well.
    std::promise<sql::DBResult> reported;
    storage->setOnSaveErrorHandler([&](sql::DBResult r, auto) { reported.set_value(r); });
    storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 1"); });
    std::promise<bool> failed;
    storage->saveCommitted({packet(kDeviceA, 9'000'000, {{99}})},
                           [&](bool committed) { failed.set_value(committed); });
    auto failedFuture = failed.get_future();
    ASSERT_EQ(failedFuture.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(failedFuture.get());
    EXPECT_EQ(reported.get_future().wait_for(10s), std::future_status::ready);
    storage->runOnWriter([](sql::Database& db) { db.exec("PRAGMA query_only = 0"); });

    // Nothing to wait for is answered at once.
    std::promise<bool> empty;
    storage->saveCommitted({}, [&](bool committed) { empty.set_value(committed); });
    EXPECT_TRUE(empty.get_future().get());
}

TEST_F(EventsStorageTest, InitializeFailureLeavesTheStorageNotReady)
{
    const QString file = m_dir.filePath("plain_file");
    {
        QFile f(file);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("x");
    }
    const auto fails = [&](const QString& path) {
        EventsStorage storage;
        Settings settings;
        settings.path = path;
        EXPECT_FALSE(storage.initialize(settings)) << path.toStdString();
        EXPECT_FALSE(storage.isReady());
        find(storage, Filter(), ResultCode::error);
        std::promise<sql::DBResult> reported;
        storage.setOnSaveErrorHandler([&](sql::DBResult r, auto) { reported.set_value(r); });
        storage.save(packet(kDeviceA, 1000, {{1}}));
        auto future = reported.get_future();
        EXPECT_EQ(future.wait_for(5s), std::future_status::ready);
    };
    fails(file);  //< The directory is a regular file.
    fails("");

    // A file that is not a database.
    const QString dir = m_dir.filePath("corrupt");
    ASSERT_TRUE(QDir().mkpath(dir));
    QFile f(dir + "/" + EventsStorage::kFileName);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QByteArray(8192, 'z'));
    f.close();
    fails(dir);
}

// Old tracks go with their positions and their words, whichever way they were stored, and the
// pages they held take new data: the file does not grow while it is refilled.
TEST_F(EventsStorageTest, RetentionDeletesOldTracksWithTheirWordsAndTheSpaceIsReused)
{
    const auto now = std::chrono::system_clock::time_point(std::chrono::hours(24 * 365 * 50));
    const auto us = [&](std::chrono::system_clock::duration ago) {
        return std::chrono::duration_cast<std::chrono::microseconds>((now - ago).time_since_epoch())
            .count();
    };
    const auto fill = [&](EventsStorage& storage, std::chrono::hours age, int firstTrack,
                          const std::string& word) {
        // Tracks of 20 positions each on 10 devices; the age is where they end.
        for (int step = 0; step < 20; ++step) {
            for (int d = 0; d < 10; ++d) {
                auto p = std::make_shared<ObjectMetadataPacket>();
                p->deviceId = trackId(90 + d);
                p->timestampUs = us(age) - (20 - step) * 500'000;
                p->durationUs = 1000;
                for (int k = 0; k < 100; ++k) {
                    p->objectMetadataList.push_back(
                        {trackId(firstTrack + d * 100 + k),
                         "car",
                         ObjectMetadataType::regular,
                         Rect{0.001 * k, 0.02 * step, 0.1, 0.1},
                         {{"batch", word + std::to_string(d * 100 + k)}, {"color", "red"}},
                         kEngine});
                }
                storage.save(p);
            }
        }
        storage.closeOpenTracks();
    };
    const auto file = m_dir.filePath(EventsStorage::kFileName).toStdString();
    const auto number = [&](const std::string& sql) {
        sql::Database db;
        EXPECT_EQ(db.open(file, {}, false), sql::DBResult::ok);
        auto s = db.prepare(sql);
        return s && s->step() ? s->int64(0) : -1;
    };
    m_settings.maxAgeDays = 0;  //< Filled first, deleted when reopened with an age.
    auto storage = open([&] { return now; });
    fill(*storage, 100h, 10'000, "old");
    // How many position rows a track gets depends on how the writer happened to batch its
    // packets; position rows are numbered in the order they are written, so the old tracks'
    // rows are those up to here.
    const std::int64_t lastOldPosition = number("SELECT max(id) FROM position");
    fill(*storage, 1h, 20'000, "new");
    storage.reset();

    EXPECT_EQ(number("SELECT count(*) FROM track"), 2000);
    EXPECT_EQ(number("SELECT count(*) FROM track_text WHERE track_text MATCH 'old0'"), 1);
    const std::string newPositions =
        "SELECT count(*) FROM position WHERE id > " + std::to_string(lastOldPosition);
    const std::int64_t newPositionsBefore = number(newPositions);
    EXPECT_GE(newPositionsBefore, 1000);
    EXPECT_GE(lastOldPosition, 1000);

    m_settings.maxAgeDays = 2;
    storage = open([&] { return now; });
    Filter all;
    ASSERT_TRUE(waitUntil([&] { return find(*storage, all).size() == 1000; }));
    storage.reset();
    EXPECT_EQ(number("SELECT count(*) FROM track"), 1000);
    // The old tracks' positions went with them, and none of the others did.
    EXPECT_EQ(
        number("SELECT count(*) FROM position WHERE id <= " + std::to_string(lastOldPosition)), 0);
    EXPECT_EQ(number(newPositions), newPositionsBefore);
    // The words of the deleted tracks are out of the full-text index, which holds together.
    EXPECT_EQ(number("SELECT count(*) FROM track_text WHERE track_text MATCH 'old0'"), 0);
    EXPECT_EQ(number("SELECT count(*) FROM track_text WHERE track_text MATCH 'new0'"), 1);
    EXPECT_EQ(number("SELECT count(*) FROM track_text WHERE track_text MATCH 'red'"), 1000);
    {
        sql::Database db;
        ASSERT_EQ(db.open(file, {}, false), sql::DBResult::ok);
        EXPECT_EQ(db.exec("INSERT INTO track_text(track_text) VALUES('integrity-check')"),
                  sql::DBResult::ok)
            << db.lastError();
    }
    const std::int64_t pages = number("PRAGMA page_count");
    const std::int64_t free = number("PRAGMA freelist_count");
    EXPECT_GT(free, pages / 4);

    // As much new data again goes mostly into what the old data left: the file grows by less
    // than half of what the new data takes (the rest is the journal of the open tracks).
    storage = open([&] { return now; });
    fill(*storage, 2h, 30'000, "newer");
    storage.reset();
    EXPECT_EQ(number("SELECT count(*) FROM track"), 2000);
    EXPECT_LE(number("PRAGMA page_count"), pages + (pages - free) / 2);
}

// Seen through the interface, as the service sees it: after deleting by age the storage names
// the time before which it holds nothing, which is earlier than the cutoff while a track that
// started before it is still seen.
TEST_F(EventsStorageTest, RetentionReportsTheOldestDataKept)
{
    const auto now = std::chrono::system_clock::time_point(std::chrono::hours(24 * 365 * 50));
    const auto us = [&](std::chrono::system_clock::duration ago) {
        return std::chrono::duration_cast<std::chrono::microseconds>((now - ago).time_since_epoch())
            .count();
    };
    m_settings.maxAgeDays = 2;
    std::unique_ptr<EventsStorage> concrete = open([&] { return now; });
    AbstractEventsStorage& storage = *concrete;
    std::mutex mutex;
    std::vector<std::chrono::system_clock::time_point> reports;
    storage.setOnRetentionHandler([&](std::chrono::system_clock::time_point oldest) {
        std::lock_guard lock(mutex);
        reports.push_back(oldest);
    });
    const auto reportedSoon = [&](std::chrono::system_clock::time_point expected) {
        for (int i = 0; i < 100; ++i) {
            {
                std::lock_guard lock(mutex);
                if (!reports.empty() && reports.back() == expected)
                    return true;
            }
            std::this_thread::sleep_for(50ms);
        }
        return false;
    };

    storage.save(packet(kDeviceA, us(72h), {{1}}));
    storage.save(packet(kDeviceA, us(47h), {{2}}));
    storage.flush();
    EXPECT_TRUE(reportedSoon(now - 48h));

    storage.save(packet(kDeviceB, us(60h), {{3}}));  //< Started before the cutoff,
    storage.save(packet(kDeviceB, us(1h), {{3}}));   //< still seen.
    storage.flush();
    EXPECT_TRUE(reportedSoon(now - 60h));
    storage.setOnRetentionHandler(nullptr);
}

}  // namespace kest::analytics::db::test
