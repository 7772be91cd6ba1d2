#include "storage_schema.h"

#include <algorithm>
#include <utility>

#include <kest/sql/transaction.h>
#include <kest/utils/log/log.h>

#include "record_codec.h"

namespace kest::analytics::db {

namespace {

constexpr const char* kCreate = R"sql(
CREATE TABLE device(id INTEGER PRIMARY KEY, guid BLOB NOT NULL UNIQUE);
CREATE TABLE object_type(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
CREATE TABLE track(
    id INTEGER PRIMARY KEY,
    guid BLOB NOT NULL UNIQUE,
    device INTEGER NOT NULL,
    type INTEGER NOT NULL,
    engine BLOB NOT NULL,
    origin_us INTEGER NOT NULL,
    first_us INTEGER NOT NULL,
    last_us INTEGER NOT NULL,
    grid BLOB NOT NULL,
    best_us INTEGER NOT NULL,
    best_kind INTEGER NOT NULL,
    best_x REAL NOT NULL,
    best_y REAL NOT NULL,
    best_w REAL NOT NULL,
    best_h REAL NOT NULL,
    best_stream INTEGER NOT NULL,
    attributes BLOB NOT NULL);
CREATE INDEX track_device_first ON track(device, first_us);
CREATE INDEX track_first ON track(first_us);
CREATE INDEX track_best_shot_first ON track(first_us) WHERE best_kind != 0;
CREATE INDEX track_type_first ON track(type, first_us);
CREATE INDEX track_type_best_shot_first ON track(type, first_us) WHERE best_kind != 0;
CREATE TABLE track_position(track INTEGER NOT NULL, data BLOB NOT NULL);
CREATE INDEX track_position_track ON track_position(track);
CREATE VIRTUAL TABLE track_text USING fts5(
    text, tokenize = 'unicode61 remove_diacritics 2', prefix = '2 3');
CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);
INSERT INTO meta(key, value) VALUES('maxLagUs', 0);
PRAGMA user_version = 4;
)sql";

/** Rewrites the position chunks in the compact form; all or nothing. */
sql::DBResult upgradeFrom1(sql::Database& db)
{
    KEST_INFO("analytics_db", "Upgrading the analytics database schema from version 1");
    sql::Transaction transaction(db);
    if (transaction.beginResult() != sql::DBResult::ok)
        return transaction.beginResult();
    auto select = db.prepare("SELECT rowid, data FROM track_position");
    auto update = db.prepare("UPDATE track_position SET data = ? WHERE rowid = ?");
    if (!select || !update)
        return db.lastResult();
    while (select->step()) {
        std::vector<ObjectPosition> positions;
        decodePositionsV1(select->blob(1), &positions);
        update->reset();
        update->bindBlob(1, encodePositions(positions));
        update->bind(2, select->int64(0));
        if (auto r = update->exec(); r != sql::DBResult::ok)
            return r;
    }
    if (select->result() != sql::DBResult::ok)
        return select->result();
    select.reset();
    update.reset();
    if (auto r = db.exec("PRAGMA user_version = 2"); r != sql::DBResult::ok)
        return r;
    return transaction.commit();
}

/** Computes the row order statistics of kMaxLagKey from the stored tracks. */
sql::DBResult upgradeFrom3(sql::Database& db)
{
    KEST_INFO("analytics_db", "Upgrading the analytics database schema from version 3");
    sql::Transaction transaction(db);
    if (transaction.beginResult() != sql::DBResult::ok)
        return transaction.beginResult();
    auto select = db.prepare("SELECT first_us FROM track ORDER BY id");
    if (!select)
        return db.lastResult();
    std::int64_t maxFirst = kNoFirstUs;
    std::int64_t maxLag = 0;
    while (select->step()) {
        const std::int64_t first = select->int64(0);
        maxFirst = std::max(maxFirst, first);
        maxLag = std::max(maxLag, lagOf(maxFirst, first));
    }
    if (select->result() != sql::DBResult::ok)
        return select->result();
    select.reset();
    auto insert = db.prepare("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
    if (!insert)
        return db.lastResult();
    for (const auto& [key, value] : {std::pair{kMaxFirstKey, maxFirst}, {kMaxLagKey, maxLag}}) {
        insert->reset();
        insert->bindText(1, key);
        insert->bind(2, value);
        if (auto r = insert->exec(); r != sql::DBResult::ok)
            return r;
    }
    insert.reset();
    if (auto r = db.exec("PRAGMA user_version = 4"); r != sql::DBResult::ok)
        return r;
    return transaction.commit();
}

}  // namespace

sql::DBResult applySchema(sql::Database& db)
{
    auto version = db.prepare("PRAGMA user_version");
    if (!version)
        return db.lastResult();
    const int current = version->step() ? static_cast<int>(version->int64(0)) : 0;
    version.reset();

    if (current > kSchemaVersion) {
        KEST_ERROR("analytics_db", "Database schema version %1 is newer than supported %2", current,
                   kSchemaVersion);
        return sql::DBResult::logicError;
    }
    if (current == kSchemaVersion)
        return sql::DBResult::ok;

    if (current == 0) {
        if (auto r = db.exec(std::string("BEGIN IMMEDIATE;") + kCreate + "COMMIT;");
            r != sql::DBResult::ok) {
            db.exec("ROLLBACK");
            return r;
        }
        return sql::DBResult::ok;
    }
    // Each step upgrades one version inside its own transaction.
    if (current == 1) {
        if (auto r = upgradeFrom1(db); r != sql::DBResult::ok)
            return r;
    }
    if (current <= 2) {
        if (auto r = db.exec("BEGIN IMMEDIATE;"
                             "CREATE INDEX IF NOT EXISTS track_type_first ON track(type, first_us);"
                             "CREATE INDEX IF NOT EXISTS track_type_best_shot_first "
                             "ON track(type, first_us) WHERE best_kind != 0;"
                             "PRAGMA user_version = 3;"
                             "COMMIT;");
            r != sql::DBResult::ok) {
            db.exec("ROLLBACK");
            return r;
        }
    }
    if (current <= 3) {
        if (auto r = upgradeFrom3(db); r != sql::DBResult::ok)
            return r;
    }
    return sql::DBResult::ok;
}

}  // namespace kest::analytics::db
