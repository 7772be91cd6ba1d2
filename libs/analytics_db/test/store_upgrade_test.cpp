// Stores written by earlier versions of the storage: upgraded on open, all or nothing, and
// answering every search as they did. The fixture is a store of schema version 4 with the
// answers that version gave to a set of searches (made by the storage of commit 5cb6c35: three
// cameras, sixty tracks with best shots of both kinds, changing types, attributes and boxes,
// positions over several batches, a repeated and a late packet).

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <boost/describe/class.hpp>
#include <cmath>
#include <future>

#include <kest/analytics_db/byte_writer.h>
#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/legacy_store.h>
#include <kest/analytics_db/storage_schema.h>
#include <kest/reflect/json.h>
#include <kest/sql/database.h>

namespace kest::analytics::db::test {

struct Answer
{
    Filter filter;
    std::vector<ObjectTrackEx> tracks;
};
BOOST_DESCRIBE_STRUCT(Answer, (), (filter, tracks))

namespace {

using common::metadata::Rect;

QByteArray fixture(const char* name)
{
    QFile file(QString(KEST_ANALYTICS_DB_TEST_DATA) + "/" + name);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return qUncompress(file.readAll());
}

/** Positions, as version 1 kept them: every field of every position. */
std::string positionsVersion1(const std::vector<ObjectPosition>& positions)
{
    std::string out;
    const auto put = [&](auto value) {
        out.append(reinterpret_cast<const char*>(&value), sizeof(value));
    };
    for (const auto& p : positions) {
        out += p.deviceId.toQUuid().toRfc4122().toStdString();
        put(p.timestampUs);
        put(p.durationUs);
        put(p.boundingBox.x);
        put(p.boundingBox.y);
        put(p.boundingBox.width);
        put(p.boundingBox.height);
        put(static_cast<std::uint32_t>(p.attributes.size()));
        for (const auto& a : p.attributes) {
            put(static_cast<std::uint32_t>(a.name.size()));
            out += a.name;
            put(static_cast<std::uint32_t>(a.value.size()));
            out += a.value;
        }
    }
    return out;
}

bool near(const Rect& a, const Rect& b)
{
    return std::fabs(a.x - b.x) <= 1e-6 && std::fabs(a.y - b.y) <= 1e-6 &&
           std::fabs(a.width - b.width) <= 1e-6 && std::fabs(a.height - b.height) <= 1e-6;
}

/** Equal, boxes within a millionth. */
void expectSameTrack(const ObjectTrackEx& got, const ObjectTrackEx& want, const std::string& where)
{
    ObjectTrackEx a = got, b = want;
    EXPECT_TRUE(near(a.bestShot.rect, b.bestShot.rect)) << where;
    a.bestShot.rect = b.bestShot.rect;
    ASSERT_EQ(a.objectPositionSequence.size(), b.objectPositionSequence.size()) << where;
    for (std::size_t i = 0; i < a.objectPositionSequence.size(); ++i) {
        auto& p = a.objectPositionSequence[i];
        const auto& q = b.objectPositionSequence[i];
        EXPECT_TRUE(near(p.boundingBox, q.boundingBox)) << where << ", position " << i;
        p.boundingBox = q.boundingBox;
    }
    EXPECT_EQ(a, b) << where;
}

class StoreUpgradeTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        const QByteArray store = fixture("events_v4.sqlite.qz");
        ASSERT_FALSE(store.isEmpty()) << "fixture missing";
        QFile file(file_());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(store);
        file.close();
        ASSERT_TRUE(reflect::json::deserialize(fixture("events_v4_answers.json.qz").toStdString(),
                                               &m_answers));
        ASSERT_GT(m_answers.size(), 50u);
    }

    QString file_() const { return m_dir.filePath(EventsStorage::kFileName); }

    int userVersion()
    {
        sql::Database db;
        EXPECT_EQ(db.open(file_().toStdString(), {}, false), sql::DBResult::ok);
        auto s = db.prepare("PRAGMA user_version");
        return s && s->step() ? static_cast<int>(s->int64(0)) : -1;
    }

    std::unique_ptr<EventsStorage> open(bool expectOk = true)
    {
        auto storage = std::make_unique<EventsStorage>();
        Settings settings;
        settings.path = m_dir.path();
        EXPECT_EQ(storage->initialize(settings), expectOk);
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

    void expectTheAnswersOfBefore(EventsStorage& storage)
    {
        for (std::size_t i = 0; i < m_answers.size(); ++i) {
            const auto found = find(storage, m_answers[i].filter);
            const std::string where = "search " + std::to_string(i) + ": " +
                                      reflect::json::serialize(m_answers[i].filter);
            ASSERT_EQ(found.size(), m_answers[i].tracks.size()) << where;
            for (std::size_t t = 0; t < found.size(); ++t)
                expectSameTrack(found[t], m_answers[i].tracks[t], where);
        }
    }

    QTemporaryDir m_dir;
    std::vector<Answer> m_answers;
};

}  // namespace

TEST_F(StoreUpgradeTest, AStoreOfTheLastVersionAnswersAsBeforeAndGoesOn)
{
    ASSERT_EQ(userVersion(), 4);
    auto storage = open();
    EXPECT_EQ(userVersion(), kSchemaVersion);
    EXPECT_FALSE(QFile::exists(file_() + ".upgrade"));
    expectTheAnswersOfBefore(*storage);

    // An upgraded track takes more objects: its positions go on where they were.
    Filter filter;
    filter.objectTrackId = ZuUuid("{000000a0-0000-4000-8000-000000000001}");
    filter.needFullTrack = true;
    const auto before = find(*storage, filter);
    ASSERT_EQ(before.size(), 1u);
    auto packet = std::make_shared<common::metadata::ObjectMetadataPacket>();
    packet->deviceId = before[0].deviceId;
    packet->timestampUs = before[0].lastAppearanceTimeUs + 1'000'000;
    packet->durationUs = 40'000;
    packet->objectMetadataList.push_back({filter.objectTrackId,
                                          before[0].objectTypeId,
                                          common::metadata::ObjectMetadataType::regular,
                                          Rect{0.5, 0.5, 0.1, 0.1},
                                          {{"color", "violet"}},
                                          before[0].analyticsEngineId});
    storage->save(packet);
    storage->flush();
    for (int pass = 0; pass < 2; ++pass) {
        const auto after = find(*storage, filter);
        ASSERT_EQ(after.size(), 1u);
        EXPECT_EQ(after[0].objectPositionSequence.size(),
                  before[0].objectPositionSequence.size() + 1);
        EXPECT_EQ(after[0].lastAppearanceTimeUs, packet->timestampUs + 40'000);
        Filter byWord;
        byWord.freeText = "violet";
        EXPECT_EQ(find(*storage, byWord).size(), 1u);
        storage->closeOpenTracks();  //< Then from its rewritten row.
    }

    // Reopened, it is the same store: no second upgrade.
    storage.reset();
    storage = open();
    EXPECT_EQ(find(*storage, filter).at(0).objectPositionSequence.size(),
              before[0].objectPositionSequence.size() + 1);
}

TEST_F(StoreUpgradeTest, AStoreOfTheFirstVersionToo)
{
    {
        sql::Database db;
        ASSERT_EQ(db.open(file_().toStdString(), {}), sql::DBResult::ok);
        auto select = db.prepare("SELECT rowid, data FROM track_position");
        std::vector<std::pair<std::int64_t, std::string>> chunks;
        while (select->step()) {
            std::vector<ObjectPosition> positions;
            LegacyStore::decodePositions(select->blob(1), &positions);
            chunks.emplace_back(select->int64(0), positionsVersion1(positions));
        }
        select.reset();
        ASSERT_FALSE(chunks.empty());
        for (const auto& [rowId, data] : chunks) {
            auto* update = db.cached("UPDATE track_position SET data = ? WHERE rowid = ?");
            update->bindBlob(1, data);
            update->bind(2, rowId);
            ASSERT_EQ(update->exec(), sql::DBResult::ok);
        }
        ASSERT_EQ(db.exec("PRAGMA user_version = 1"), sql::DBResult::ok);
    }
    auto storage = open();
    EXPECT_EQ(userVersion(), kSchemaVersion);
    expectTheAnswersOfBefore(*storage);
}

// Versions 5 to 7 had today's tables: 5 its full-text index without prefix lists, 5 and 6 the
// (device, first appearance) index without the grids, all three a full-text index that counted
// each row's words. Those indexes alone are made again, from the track rows, and every answer
// stays.
TEST_F(StoreUpgradeTest, AStoreOfTodaysTablesGetsTheIndexesItLacks)
{
    open().reset();
    const auto schemaOf = [&](const char* name) {
        sql::Database db;
        EXPECT_EQ(db.open(file_().toStdString(), {}, false), sql::DBResult::ok);
        auto s = db.prepare("SELECT sql FROM sqlite_schema WHERE name = ?");
        s->bindText(1, name);
        return s->step() ? std::string(s->text(0)) : std::string();
    };
    const std::string today = schemaOf("track_device_first");
    const std::string todaysText = schemaOf("track_text");
    ASSERT_NE(today.find("grid"), std::string::npos);
    ASSERT_NE(todaysText.find("prefix"), std::string::npos);
    ASSERT_EQ(schemaOf("track_text_docsize"), "");
    for (const int version : {7, 6, 5}) {
        SCOPED_TRACE(version);
        {
            sql::Database db;
            ASSERT_EQ(db.open(file_().toStdString(), {}), sql::DBResult::ok);
            ASSERT_EQ(addStoreFunctions(db), sql::DBResult::ok);
            std::string sql;
            if (version < 7) {
                sql +=
                    "DROP INDEX track_device_first;"
                    "CREATE INDEX track_device_first ON track(device, first_us);";
            }
            sql += std::string(
                       "DROP TABLE track_text;"
                       "CREATE VIRTUAL TABLE track_text USING fts5(text, content = '', "
                       "detail = none, ") +
                   (version == 5 ? "" : "prefix = '2 3', ") +
                   "tokenize = 'unicode61 remove_diacritics 2');"
                   "INSERT INTO track_text(rowid, text) "
                   "SELECT id, search_text(attributes) FROM track;";
            ASSERT_EQ(db.exec(sql + "PRAGMA user_version = " + std::to_string(version)),
                      sql::DBResult::ok);
        }
        ASSERT_NE(schemaOf("track_text_docsize"), "");
        auto storage = open();
        EXPECT_EQ(userVersion(), kSchemaVersion);
        EXPECT_EQ(schemaOf("track_device_first"), today);
        EXPECT_EQ(schemaOf("track_text"), todaysText);
        EXPECT_EQ(schemaOf("track_text_docsize"), "");
        expectTheAnswersOfBefore(*storage);
    }
}

TEST_F(StoreUpgradeTest, AnUpgradeThatCannotFinishLeavesTheStoreAsItWas)
{
    const auto bytes = [&] {
        QFile file(file_());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    const QByteArray original = bytes();
    // The new store cannot be made: the upgrade fails and the old one is untouched.
    ASSERT_TRUE(QDir().mkpath(file_() + ".upgrade/blocked"));
    open(false);
    EXPECT_EQ(bytes(), original);
    EXPECT_EQ(userVersion(), 4);

    // What an interrupted upgrade left is thrown away, and the upgrade done again.
    ASSERT_TRUE(QDir(file_() + ".upgrade").removeRecursively());
    {
        QFile partial(file_() + ".upgrade");
        ASSERT_TRUE(partial.open(QIODevice::WriteOnly));
        partial.write("SQLite format 3");
    }
    auto storage = open();
    EXPECT_EQ(userVersion(), kSchemaVersion);
    EXPECT_FALSE(QFile::exists(file_() + ".upgrade"));
    EXPECT_EQ(find(*storage, Filter()).size(), m_answers[1].tracks.size());
    storage.reset();

    // A store of a newer version is left alone.
    {
        sql::Database db;
        ASSERT_EQ(db.open(file_().toStdString(), {}), sql::DBResult::ok);
        ASSERT_EQ(db.exec("PRAGMA user_version = 99"), sql::DBResult::ok);
    }
    auto newer = open(false);
    EXPECT_FALSE(newer->isReady());
    EXPECT_EQ(userVersion(), 99);
}

}  // namespace kest::analytics::db::test
