// Tracks are written once: while objects keep coming a track lives in the writer's memory and in
// the journal; when it ends its row, its chunk of positions and its words are written. These
// tests look at what the store holds on the way, and at what a restart makes of the journal.

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <future>
#include <thread>

#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/track_writer.h>
#include <kest/sql/database.h>
#include "wait_until.h"

namespace kest::analytics::db::test {
namespace {

using common::metadata::Attribute;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using common::metadata::Rect;

const ZuUuid kDevice("{22222222-0000-0000-0000-000000000001}");
const ZuUuid kEngine("{eeeeeeee-0000-0000-0000-000000000001}");
constexpr std::int64_t kS = 1'000'000;

ZuUuid trackId(int n)
{
    return ZuUuid(QString("{bbbbbbbb-0000-0000-0000-%1}").arg(n, 12, 10, QChar('0')));
}

std::shared_ptr<const ObjectMetadataPacket> packet(std::int64_t timeUs,
                                                   const std::vector<int>& tracks,
                                                   std::vector<Attribute> attributes = {})
{
    auto p = std::make_shared<ObjectMetadataPacket>();
    p->deviceId = kDevice;
    p->timestampUs = timeUs;
    p->durationUs = 40'000;
    for (const int track : tracks) {
        p->objectMetadataList.push_back({trackId(track), "car", ObjectMetadataType::regular,
                                         Rect{0.001 * (timeUs / kS % 500), 0.2, 0.1, 0.1},
                                         attributes, kEngine});
    }
    return p;
}

class OpenTracksTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    std::unique_ptr<EventsStorage> open()
    {
        auto storage = std::make_unique<EventsStorage>();
        Settings settings;
        settings.path = m_dir.path();
        EXPECT_TRUE(storage->initialize(settings));
        return storage;
    }

    static std::vector<ObjectTrackEx> find(EventsStorage& storage, Filter filter)
    {
        std::promise<std::vector<ObjectTrackEx>> done;
        storage.lookup(std::move(filter), [&](ResultCode code, std::vector<ObjectTrackEx> tracks) {
            EXPECT_EQ(code, ResultCode::ok);
            done.set_value(std::move(tracks));
        });
        return done.get_future().get();
    }

    static std::vector<ObjectTrackEx> fullTrack(EventsStorage& storage, int n)
    {
        Filter filter;
        filter.objectTrackId = trackId(n);
        filter.needFullTrack = true;
        return find(storage, filter);
    }

    /** Rows of a table, read by a connection of its own. */
    std::int64_t count(const std::string& table)
    {
        sql::Database db;
        EXPECT_EQ(db.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}, false),
                  sql::DBResult::ok);
        auto s = db.prepare("SELECT count(*) FROM " + table);
        return s && s->step() ? s->int64(0) : -1;
    }

    QTemporaryDir m_dir;
};

TEST_F(OpenTracksTest, AGrowingTrackIsWrittenOnceWhenItEnds)
{
    auto storage = open();
    // Ten batches of one track: searchable after each, not in a row until it ends.
    for (int i = 0; i < 10; ++i) {
        storage->save(packet(100 * kS + i * kS, {1}, {{"color", "red"}}));
        storage->flush();
        const auto found = fullTrack(*storage, 1);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0].objectPositionSequence.size(), static_cast<std::size_t>(i + 1));
        EXPECT_EQ(count("track"), 0);
        EXPECT_EQ(count("position"), 0);
        EXPECT_EQ(count("journal"), i + 1);
    }
    // The device goes on past the track's end: its row and one chunk are written (with those of
    // other tracks that end about then), the journal is emptied.
    storage->save(packet(100 * kS + 10 * kS + TrackWriter::kCloseGapUs, {2}));
    storage->flush();
    ASSERT_TRUE(waitUntil([&] { return count("track") > 0; }));
    EXPECT_EQ(count("track"), 1);
    EXPECT_EQ(count("position"), 1);
    EXPECT_EQ(count("journal WHERE id < (SELECT max(id) FROM journal)"), 0);
    const auto found = fullTrack(*storage, 1);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].objectPositionSequence.size(), 10u);
    EXPECT_EQ(found[0].lastAppearanceTimeUs, 109 * kS + 40'000);
    Filter byWord;
    byWord.freeText = "red";
    EXPECT_EQ(find(*storage, byWord).size(), 1u);
}

TEST_F(OpenTracksTest, ARestartRebuildsTheOpenTracksFromTheJournal)
{
    std::vector<ObjectTrackEx> before;
    {
        auto storage = open();
        for (int i = 0; i < 5; ++i) {
            storage->save(packet(200 * kS + i * kS, {1, 2}, {{"make", "Volvo"}}));
            storage->flush();
        }
        before = find(*storage, [] {
            Filter f;
            f.needFullTrack = true;
            return f;
        }());
        ASSERT_EQ(before.size(), 2u);
    }  //< Stopped with both tracks open: they stay in the journal.
    EXPECT_EQ(count("track"), 0);

    auto storage = open();
    Filter all;
    all.needFullTrack = true;
    EXPECT_EQ(find(*storage, all), before);
    // They go on where they were, and new tracks get numbers of their own.
    for (int i = 5; i < 8; ++i)
        storage->save(packet(200 * kS + i * kS, {1, 3}, {{"make", "Volvo"}}));
    storage->closeOpenTracks();
    EXPECT_EQ(count("track"), 3);
    EXPECT_EQ(count("journal"), 0);
    EXPECT_EQ(fullTrack(*storage, 1).at(0).objectPositionSequence.size(), 8u);
    EXPECT_EQ(fullTrack(*storage, 2).at(0).objectPositionSequence.size(), 5u);
    EXPECT_EQ(fullTrack(*storage, 3).at(0).objectPositionSequence.size(), 3u);

    // A late packet reopens an ended track: its row is rewritten, its positions go on in a
    // further chunk, and what searches see is the whole track all along.
    storage->save(packet(190 * kS, {2}, {{"make", "Volvo"}, {"color", "green"}}));
    storage->flush();
    Filter green;
    green.freeText = "green";
    EXPECT_EQ(find(*storage, green).size(), 1u);
    storage.reset();
    storage = open();
    EXPECT_EQ(fullTrack(*storage, 2).at(0).objectPositionSequence.size(), 6u);
    storage->closeOpenTracks();
    EXPECT_EQ(count("position"), 4);
    const auto reopened = fullTrack(*storage, 2);
    ASSERT_EQ(reopened.size(), 1u);
    EXPECT_EQ(reopened[0].firstAppearanceTimeUs, 190 * kS);
    EXPECT_EQ(reopened[0].objectPositionSequence.size(), 6u);
    EXPECT_EQ(reopened[0].objectPositionSequence.front().timestampUs, 190 * kS);
    EXPECT_EQ(find(*storage, green).size(), 1u);
    Filter volvo;
    volvo.freeText = "volvo";
    EXPECT_EQ(find(*storage, volvo).size(), 3u);
}

TEST_F(OpenTracksTest, ALongTrackIsWrittenInChunksAsItGoes)
{
    auto storage = open();
    const int objects = static_cast<int>(TrackWriter::kFlushObjects) * 3;
    for (int i = 0; i < objects; i += 500) {
        for (int k = i; k < std::min(objects, i + 500); ++k)
            storage->save(packet(300 * kS + k * 40'000, {7}));
        storage->flush();
    }
    EXPECT_EQ(count("track"), 1);  //< Written before it ended, and open still.
    EXPECT_GE(count("position"), 2);
    auto found = fullTrack(*storage, 7);
    ASSERT_EQ(found.size(), 1u);
    ASSERT_EQ(found[0].objectPositionSequence.size(), static_cast<std::size_t>(objects));
    for (int k = 1; k < objects; ++k) {
        ASSERT_EQ(found[0].objectPositionSequence[k].timestampUs, 300 * kS + k * 40'000) << k;
    }
    storage->closeOpenTracks();
    found = fullTrack(*storage, 7);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].objectPositionSequence.size(), static_cast<std::size_t>(objects));
    EXPECT_EQ(count("journal"), 0);
}

TEST_F(OpenTracksTest, ABacklogWritesLargeRunsWhereTheyStayAndTheJournalOnlyNamesThem)
{
    const int run = static_cast<int>(TrackWriter::kDirectChunkObjects);
    std::vector<ObjectTrackEx> before;
    {
        auto storage = open();
        // One batch: a run of track 1 large enough for a chunk of its own, with a best shot in
        // it, and a small run of track 2, which goes to the journal.
        for (int k = 0; k < run + 4; ++k) {
            auto p = std::make_shared<ObjectMetadataPacket>(
                *packet(400 * kS + k * 100'000, {1}, {{"color", "blue"}}));
            if (k == 3) {
                p->objectMetadataList.push_back(p->objectMetadataList.front());
                p->objectMetadataList.back().objectMetadataType = ObjectMetadataType::bestShot;
            }
            storage->save(p);
        }
        storage->save(packet(400 * kS, {2}));
        storage->flush();
        EXPECT_EQ(count("position"), 1);
        EXPECT_EQ(count("journal"), 1);
        EXPECT_EQ(count("track"), 0);
        Filter all;
        all.needFullTrack = true;
        before = find(*storage, all);
        ASSERT_EQ(before.size(), 2u);
        EXPECT_EQ(fullTrack(*storage, 1).at(0).objectPositionSequence.size(),
                  static_cast<std::size_t>(run + 4));
    }  //< Stopped with both open.

    auto storage = open();
    Filter all;
    all.needFullTrack = true;
    EXPECT_EQ(find(*storage, all), before);
    // An earlier object moves the track's start before that of the chunk: the chunk still reads.
    storage->save(packet(399 * kS, {1}, {{"color", "blue"}}));
    storage->closeOpenTracks();
    EXPECT_EQ(count("track"), 2);
    EXPECT_EQ(count("journal"), 0);
    EXPECT_EQ(count("position"), 3);
    const auto track = fullTrack(*storage, 1);
    ASSERT_EQ(track.size(), 1u);
    EXPECT_EQ(track[0].firstAppearanceTimeUs, 399 * kS);
    EXPECT_EQ(track[0].bestShot.timestampUs, 400 * kS + 300'000);
    auto expected = before[0].id == trackId(1) ? before[0] : before[1];
    ASSERT_EQ(track[0].objectPositionSequence.size(), expected.objectPositionSequence.size() + 1);
    EXPECT_EQ(track[0].objectPositionSequence.front().timestampUs, 399 * kS);
    EXPECT_TRUE(std::equal(expected.objectPositionSequence.begin(),
                           expected.objectPositionSequence.end(),
                           track[0].objectPositionSequence.begin() + 1));
}

// Writing ended tracks must not hold back the commit of new packets: a commit writes those its
// deadline leaves time for, and the others wait, in the journal still, for the next ones.
TEST_F(OpenTracksTest, EndedTracksADeadlineLeavesWaitInTheJournalForLaterCommits)
{
    constexpr int kTracks = 1000;
    const std::string file = m_dir.filePath(EventsStorage::kFileName).toStdString();
    {
        TrackWriter writer(std::make_shared<OpenTracksSnapshots>());
        ASSERT_EQ(writer.open(file, {}), sql::DBResult::ok);
        std::vector<PacketPtr> packets;
        for (int i = 0; i < kTracks; ++i)
            packets.push_back(packet(100 * kS + i * 1000, {i + 1}));
        ASSERT_EQ(writer.write(packets), sql::DBResult::ok);
        // The device goes on with another track: every track before ends, and waits to be
        // written with the others.
        ASSERT_EQ(writer.write({packet(200 * kS, {kTracks + 1})}), sql::DBResult::ok);
        ASSERT_EQ(writer.endedTracks(), static_cast<std::size_t>(kTracks));

        // Once they are due, a commit past its deadline still writes a few.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (writer.endedTracks() == kTracks && std::chrono::steady_clock::now() < deadline) {
            ASSERT_EQ(writer.closeTracks(true, std::chrono::steady_clock::now()),
                      sql::DBResult::ok);
        }
        EXPECT_EQ(writer.endedTracks(), kTracks - TrackWriter::kMinClosesPerCommit);
        EXPECT_EQ(count("track"), static_cast<std::int64_t>(TrackWriter::kMinClosesPerCommit));
    }
    // A crash now: the others come back from the journal, and are written when they end.
    TrackWriter writer(std::make_shared<OpenTracksSnapshots>());
    ASSERT_EQ(writer.open(file, {}), sql::DBResult::ok);
    EXPECT_EQ(writer.openTracks(), kTracks + 1 - TrackWriter::kMinClosesPerCommit);
    ASSERT_EQ(writer.closeTracks(false), sql::DBResult::ok);
    EXPECT_EQ(count("track"), kTracks + 1);
    EXPECT_EQ(count("journal"), 0);
}

// Tracks that do not end keep their runs in memory; past the bound those that hold the most are
// written as they go, and every object is still there once they end.
TEST_F(OpenTracksTest, TheOpenTracksStayWithinTheirMemoryBoundAndLoseNothing)
{
    constexpr int kTracks = 200;
    constexpr int kBatches = 40;
    constexpr int kPacketsPerBatch = 3;
    constexpr std::size_t kBound = 64 * 1024;
    // What one batch may add on top of the bound: a run per track (a few objects each).
    constexpr std::size_t kBatchRuns = kTracks * (TrackWriter::kRunOverheadBytes + 160);
    std::vector<int> tracks;
    for (int i = 1; i <= kTracks; ++i)
        tracks.push_back(i);
    {
        TrackWriter writer(std::make_shared<OpenTracksSnapshots>());
        ASSERT_EQ(writer.open(m_dir.filePath(EventsStorage::kFileName).toStdString(), {}),
                  sql::DBResult::ok);
        writer.setMaxOpenTrackBytes(kBound);
        std::int64_t at = 500 * kS;
        for (int batch = 0; batch < kBatches; ++batch) {
            std::vector<PacketPtr> packets;
            for (int k = 0; k < kPacketsPerBatch; ++k, at += 40'000)
                packets.push_back(packet(at, tracks));
            ASSERT_EQ(writer.write(packets), sql::DBResult::ok);
            ASSERT_LE(writer.openTrackBytes(), kBound + kBatchRuns) << batch;
        }
        // None has ended, and some were written for the memory they took.
        EXPECT_EQ(writer.openTracks(), static_cast<std::size_t>(kTracks));
        EXPECT_GT(count("track"), 0);
        EXPECT_GT(writer.openTrackBytes(), 0u);

        ASSERT_EQ(writer.closeTracks(false), sql::DBResult::ok);
        EXPECT_EQ(writer.openTracks(), 0u);
        EXPECT_EQ(writer.openTrackBytes(), 0u);
    }
    auto storage = open();
    EXPECT_EQ(count("track"), kTracks);
    EXPECT_EQ(count("journal"), 0);
    for (const int n : {1, kTracks / 2, kTracks}) {
        const auto found = fullTrack(*storage, n);
        ASSERT_EQ(found.size(), 1u) << n;
        const auto& positions = found[0].objectPositionSequence;
        ASSERT_EQ(positions.size(), static_cast<std::size_t>(kBatches * kPacketsPerBatch)) << n;
        for (std::size_t i = 0; i < positions.size(); ++i)
            ASSERT_EQ(positions[i].timestampUs, 500 * kS + static_cast<std::int64_t>(i) * 40'000);
    }
}

TEST_F(OpenTracksTest, AWrittenTrackHoldsExactlyWhatItsJournalRunsShowed)
{
    // Small runs, each batch with its own attribute lists, one object arriving late and a best
    // shot among them: the row written from the runs must answer as the open track did.
    auto storage = open();
    const std::vector<std::vector<Attribute>> lists = {
        {{"color", "red"}}, {{"color", "red"}, {"plate", "AB123"}}, {}, {{"color", "grey"}}};
    for (int batch = 0; batch < 6; ++batch) {
        for (int k = 0; k < 3; ++k) {
            const std::int64_t at = 700 * kS + (batch * 3 + k) * 200'000 - (k == 2 ? 5 * kS : 0);
            auto p = std::make_shared<ObjectMetadataPacket>(
                *packet(at, {1}, lists[(batch + k) % lists.size()]));
            if (batch == 2 && k == 1) {
                p->objectMetadataList.push_back(p->objectMetadataList.front());
                p->objectMetadataList.back().objectMetadataType = ObjectMetadataType::bestShot;
            }
            storage->save(p);
        }
        storage->flush();
    }
    EXPECT_EQ(count("track"), 0);
    const auto open = fullTrack(*storage, 1);
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].objectPositionSequence.size(), 18u);

    storage->closeOpenTracks();
    EXPECT_EQ(count("track"), 1);
    EXPECT_EQ(count("journal"), 0);
    EXPECT_EQ(fullTrack(*storage, 1), open);
}

TEST_F(OpenTracksTest, ObjectsThatChangeTypeEngineOrDeviceComeBackSoAfterARestart)
{
    // The journal keeps each object's type, engine and device: the track rebuilt from it after a
    // restart must take the same origin as the track that saw the objects, in whatever order.
    const ZuUuid otherEngine("{eeeeeeee-0000-0000-0000-000000000002}");
    const ZuUuid otherDevice("{22222222-0000-0000-0000-000000000002}");
    struct Object
    {
        std::int64_t atUs;
        const char* type;
        ZuUuid engine;
        ZuUuid device;
    };
    const std::vector<std::vector<Object>> batches = {
        {{810 * kS, "", kEngine, kDevice},
         {811 * kS, "truck", otherEngine, kDevice},
         {812 * kS, "car", kEngine, kDevice}},
        {{813 * kS, "car", otherEngine, otherDevice},
         {809 * kS, "car", kEngine, kDevice},
         {814 * kS, "bus", otherEngine, kDevice}},
    };
    std::vector<ObjectTrackEx> before;
    {
        auto storage = open();
        for (const auto& batch : batches) {
            for (const Object& o : batch) {
                auto p = std::make_shared<ObjectMetadataPacket>(*packet(o.atUs, {1}));
                p->deviceId = o.device;
                p->objectMetadataList[0].typeId = o.type;
                p->objectMetadataList[0].analyticsEngineId = o.engine;
                storage->save(p);
            }
            storage->flush();
        }
        before = fullTrack(*storage, 1);
        ASSERT_EQ(before.size(), 1u);
        EXPECT_EQ(before[0].objectTypeId, "car");
        EXPECT_EQ(before[0].firstAppearanceTimeUs, 809 * kS);
    }
    EXPECT_EQ(count("track"), 0);
    auto storage = open();
    EXPECT_EQ(fullTrack(*storage, 1), before);
    storage->closeOpenTracks();
    EXPECT_EQ(fullTrack(*storage, 1), before);
}

}  // namespace
}  // namespace kest::analytics::db::test
