#include "storage_schema.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <kest/utils/log/log.h>

#include "attribute_coder.h"
#include "legacy_store.h"
#include "object_run.h"
#include "store_dictionary.h"
#include "track_row.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using sql::DBResult;
using Kind = StoreDictionary::Kind;

namespace {

constexpr const char* kCreate = R"sql(
CREATE TABLE track(
    id INTEGER PRIMARY KEY,
    id_key INTEGER NOT NULL,
    id_lo INTEGER NOT NULL,
    device INTEGER NOT NULL,
    type INTEGER NOT NULL,
    engine INTEGER NOT NULL,
    first_us INTEGER NOT NULL,
    span_us INTEGER NOT NULL,
    best INTEGER NOT NULL,
    grid BLOB NOT NULL,
    attributes BLOB NOT NULL,
    detail BLOB NOT NULL);
CREATE INDEX track_id ON track(id_key);
CREATE INDEX track_first ON track(first_us);
CREATE INDEX track_type_first ON track(type, first_us);
CREATE TABLE position(id INTEGER PRIMARY KEY, data BLOB NOT NULL);
CREATE TABLE journal(id INTEGER PRIMARY KEY, data BLOB NOT NULL);
CREATE TABLE dictionary(
    kind INTEGER NOT NULL, id INTEGER NOT NULL, value BLOB NOT NULL, PRIMARY KEY(kind, id))
    WITHOUT ROWID;
CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
INSERT INTO meta(key, value) VALUES('maxLagUs', 0);
)sql";

// A region within a camera's tracks is tested on the grids of this index, in its order (the row
// id is named so that ties on first appearance stay in row order): only the rows that match are
// read from the table.
constexpr const char* kDeviceFirstIndex =
    "CREATE INDEX track_device_first ON track(device, first_us, id, grid);\n";

// Searches ask for word prefixes; those of two and three characters (a plate's letters or
// digits, "no") would merge the lists of every word that starts with them, so they have lists
// of their own. Nothing ranks matches, so the index keeps no count of each row's words.
constexpr const char* kCreateText = R"sql(
CREATE VIRTUAL TABLE track_text USING fts5(
    text, content = '', detail = none, columnsize = 0, prefix = '2 3',
    tokenize = 'unicode61 remove_diacritics 2');
)sql";

std::string createSql()
{
    return std::string(kCreate) + kDeviceFirstIndex + kCreateText +
           "PRAGMA user_version = " + std::to_string(kSchemaVersion) + ";\n";
}

int userVersion(sql::Database& db)
{
    auto version = db.prepare("PRAGMA user_version");
    return version && version->step() ? static_cast<int>(version->int64(0)) : -1;
}

bool syncFile(const std::string& path, bool directory)
{
    const int fd = ::open(path.c_str(), directory ? O_RDONLY | O_DIRECTORY : O_RDWR);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

void removeDatabase(const std::string& file)
{
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
        std::remove((file + suffix).c_str());
}

/** Rewrites every track of `legacy` into `out`, a new store of the current version. */
DBResult convert(LegacyStore& legacy, sql::Database& out, std::int64_t* tracks)
{
    std::int64_t chunkCount = 0;
    std::int64_t* chunks = &chunkCount;
    StoreDictionary dictionary;
    AttributeCoder coder(dictionary);
    auto row = out.prepare(TrackRow::kInsert);
    auto chunk = out.prepare("INSERT INTO position(id, data) VALUES(?, ?)");
    auto text = out.prepare("INSERT INTO track_text(rowid, text) VALUES(?, ?)");
    if (!row || !chunk || !text)
        return out.lastResult();
    std::int64_t maxRowId = 0, maxSpan = 0, maxFirst = kNoFirstUs, maxLag = 0;
    auto lastReport = std::chrono::steady_clock::now();
    const DBResult result = legacy.forEachTrack([&](LegacyStore::Track& old) -> DBResult {
        StoredTrack stored;
        stored.rowId = old.rowId;
        stored.track = std::move(old.track);
        stored.sealed = 0;
        TrackAggregate& t = stored.track;
        if (!old.positions.empty()) {
            std::vector<ObjectRecord> records;
            std::vector<AttributeList> lists;
            std::vector<const std::vector<common::metadata::Attribute>*> sources;
            for (const auto& p : old.positions) {
                ObjectRecord r;
                r.timestampUs = p.timestampUs;
                r.durationUs = p.durationUs;
                r.device = dictionary.key(Kind::device, UuidBytes(p.deviceId));
                r.kind = 0;
                r.box = p.boundingBox;
                const auto same = std::find_if(sources.begin(), sources.end(),
                                               [&](auto* s) { return *s == p.attributes; });
                r.attributes = static_cast<std::uint32_t>(same - sources.begin());
                if (same == sources.end()) {
                    sources.push_back(&p.attributes);
                    AttributeList codes;
                    for (const auto& a : p.attributes)
                        codes.push_back(coder.encode(a));
                    lists.push_back(std::move(codes));
                }
                records.push_back(r);
            }
            std::stable_sort(records.begin(), records.end(), [](const auto& a, const auto& b) {
                return a.timestampUs < b.timestampUs;
            });
            chunk->reset();
            chunk->bind(1, ++*chunks);
            chunk->bindBlob(2, ObjectRun::encode(records, lists, 0));
            if (auto r = chunk->exec(); r != DBResult::ok)
                return r;
            stored.chunks = {*chunks};
        }
        row->reset();
        TrackRow::Encoded encoded;
        TrackRow::bind(*row, stored, coder, dictionary, &encoded);
        if (auto r = row->exec(); r != DBResult::ok)
            return r;
        text->reset();
        text->bind(1, stored.rowId);
        text->bindText(2, attributesSearchText(t.attributes));
        if (auto r = text->exec(); r != DBResult::ok)
            return r;
        for (const auto& a : t.attributes)
            coder.noteStored(a);
        maxRowId = std::max(maxRowId, stored.rowId);
        maxFirst = std::max(maxFirst, t.firstUs);
        maxLag = std::max(maxLag, lagOf(maxFirst, t.firstUs));
        maxSpan = std::max(maxSpan, t.lastUs - t.firstUs);
        if (++*tracks % 1000 == 0 &&
            std::chrono::steady_clock::now() - lastReport > std::chrono::seconds(10)) {
            lastReport = std::chrono::steady_clock::now();
            KEST_INFO("analytics_db", "Upgrading the analytics database: %1 tracks so far",
                      *tracks);
        }
        return DBResult::ok;
    });
    if (result != DBResult::ok)
        return result;
    if (auto r = dictionary.saveAdded(out); r != DBResult::ok)
        return r;
    auto meta = out.prepare("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
    if (!meta)
        return out.lastResult();
    const std::pair<const char*, std::int64_t> values[] = {
        {"seq", 1},
        {"nextRowId", maxRowId + 1},
        {"maxSpanUs", std::max(maxSpan, legacy.meta("maxSpanUs", 0))},
        // Row ids keep their order: the bound on how far it strays from first appearances is
        // that of the rows as they are.
        {kMaxFirstKey, maxFirst},
        {kMaxLagKey, maxLag},
        {"dictionary", static_cast<std::int64_t>(dictionary.entries())},
    };
    for (const auto& [key, value] : values) {
        meta->reset();
        meta->bindText(1, key);
        meta->bind(2, value);
        if (auto r = meta->exec(); r != DBResult::ok)
            return r;
    }
    return DBResult::ok;
}

DBResult upgrade(sql::Database& db, int version, const std::string& file,
                 const sql::ConnectionOptions& options)
{
    KEST_INFO("analytics_db", "Upgrading the analytics database %1 from version %2 to %3", file,
              version, kSchemaVersion);
    const auto start = std::chrono::steady_clock::now();
    const std::string next = file + ".upgrade";
    removeDatabase(next);
    std::int64_t tracks = 0;
    {
        sql::Database out;
        // A crash leaves a file that the next attempt removes: no journal needed meanwhile.
        sql::ConnectionOptions bulk = options;
        bulk.journalMode = "OFF";
        bulk.synchronous = "OFF";
        if (auto r = out.open(next, bulk); r != DBResult::ok) {
            KEST_ERROR("analytics_db", "Cannot write the upgraded analytics database %1: %2 (%3)",
                       next, r, out.lastError());
            return r;
        }
        if (auto r = out.exec("BEGIN;" + createSql()); r != DBResult::ok)
            return r;
        // The old store is read in one transaction, so that what is copied is one state.
        if (auto r = db.exec("BEGIN"); r != DBResult::ok)
            return r;
        LegacyStore legacy(db, version);
        DBResult result = convert(legacy, out, &tracks);
        db.resetCached();
        db.exec("COMMIT");
        if (result == DBResult::ok)
            result = out.exec("COMMIT");
        if (result != DBResult::ok) {
            KEST_ERROR("analytics_db", "Upgrading the analytics database %1 failed: %2 (%3)", file,
                       result, out.lastError());
            out.close();
            removeDatabase(next);
            return result;
        }
    }
    if (!syncFile(next, false)) {
        removeDatabase(next);
        return db.fail(SQLITE_IOERR, "sync " + next);
    }
    // The old store goes without its write-ahead log, which must never meet the new file.
    if (auto r = db.exec("PRAGMA journal_mode = DELETE"); r != DBResult::ok) {
        removeDatabase(next);
        return r;
    }
    db.close();
    std::error_code error;
    std::filesystem::rename(next, file, error);
    if (error) {
        removeDatabase(next);
        return db.fail(SQLITE_IOERR, "rename " + next + ": " + error.message());
    }
    syncFile(std::filesystem::path(file).parent_path().string(), true);
    KEST_INFO(
        "analytics_db", "Upgraded the analytics database %1: %2 tracks in %3 s", file, tracks,
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count());
    return db.open(file, options);
}

/** The first version of today's tables: what later ones changed is indexes only. */
constexpr int kFirstCompactVersion = 5;
/** Versions before it had the (device, first appearance) index without the grids. */
constexpr int kDeviceGridsVersion = 7;

/**
 * Upgrades a store of versions 5 to 7, whose tables are those of today, in one transaction: the
 * words are indexed again from the track rows (version 5 had no prefix lists, and up to 7 the
 * index counted each row's words), and the device index is made again before version 7.
 */
DBResult upgradeIndexes(sql::Database& db, int version)
{
    const bool grids = version < kDeviceGridsVersion;
    KEST_INFO("analytics_db", "Upgrading the analytics database from version %1 to %2: %3", version,
              kSchemaVersion,
              grids ? "indexing the words and the grids again" : "indexing the words again");
    if (auto r = addStoreFunctions(db); r != DBResult::ok)
        return r;
    std::string sql = std::string("BEGIN IMMEDIATE; DROP TABLE track_text;") + kCreateText +
                      "INSERT INTO track_text(rowid, text) SELECT id, search_text(attributes) "
                      "FROM track;";
    if (grids)
        sql += std::string("DROP INDEX track_device_first;") + kDeviceFirstIndex;
    sql += "PRAGMA user_version = " + std::to_string(kSchemaVersion) + "; COMMIT;";
    if (auto r = db.exec(sql); r != DBResult::ok) {
        KEST_ERROR("analytics_db", "Upgrading the analytics database failed: %1 (%2)", r,
                   db.lastError());
        db.exec("ROLLBACK");
        return r;
    }
    return DBResult::ok;
}

}  // namespace

DBResult applySchema(sql::Database& db, const std::string& file,
                     const sql::ConnectionOptions& options)
{
    const int current = userVersion(db);
    if (current < 0)
        return db.lastResult();
    if (current > kSchemaVersion) {
        KEST_ERROR("analytics_db", "Database schema version %1 is newer than supported %2", current,
                   kSchemaVersion);
        return DBResult::logicError;
    }
    if (current == kSchemaVersion)
        return DBResult::ok;
    if (current == 0) {
        if (auto r = db.exec("BEGIN IMMEDIATE;" + createSql() + "COMMIT;"); r != DBResult::ok) {
            db.exec("ROLLBACK");
            return r;
        }
        return DBResult::ok;
    }
    if (current >= kFirstCompactVersion)
        return upgradeIndexes(db, current);
    removeDatabase(file + ".upgrade");
    return upgrade(db, current, file, options);
}

std::vector<StoredTable> storedTables()
{
    return {
        {"dictionary", "SELECT kind, id, value FROM dictionary",
         "INSERT INTO dictionary(kind, id, value) VALUES(?, ?, ?)"},
        {"track",
         "SELECT id, id_key, id_lo, device, type, engine, first_us, span_us, best, grid, "
         "attributes, detail FROM track ORDER BY id",
         "INSERT INTO track(id, id_key, id_lo, device, type, engine, first_us, span_us, best, "
         "grid, "
         "attributes, detail) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"},
        {"track_text", "SELECT id, search_text(attributes) FROM track ORDER BY id",
         "INSERT INTO track_text(rowid, text) VALUES(?, ?)"},
        {"position", "SELECT id, data FROM position ORDER BY id",
         "INSERT INTO position(id, data) VALUES(?, ?)"},
        {"journal", "SELECT id, data FROM journal ORDER BY id",
         "INSERT INTO journal(id, data) VALUES(?, ?)"},
        {"meta", "SELECT key, value FROM meta",
         "INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)"},
    };
}

namespace {

void searchText(sqlite3_context* context, int, sqlite3_value** args)
{
    const auto* dictionary = static_cast<const StoreDictionary*>(sqlite3_user_data(context));
    const auto* data = static_cast<const char*>(sqlite3_value_blob(args[0]));
    std::vector<common::metadata::Attribute> attributes;
    if (!TrackRow::decodeAttributes(
            data ? std::string_view(data, sqlite3_value_bytes(args[0])) : std::string_view(),
            *dictionary, &attributes)) {
        sqlite3_result_error(context, "malformed attributes", -1);
        return;
    }
    const std::string text = attributesSearchText(attributes);
    sqlite3_result_text(context, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

}  // namespace

DBResult addStoreFunctions(sql::Database& db)
{
    auto dictionary = std::make_unique<StoreDictionary>();
    if (auto r = dictionary->load(db); r != DBResult::ok)
        return r;
    const int rc = sqlite3_create_function_v2(
        db.handle(), "search_text", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, dictionary.release(),
        &searchText, nullptr, nullptr, [](void* p) { delete static_cast<StoreDictionary*>(p); });
    return rc == SQLITE_OK ? DBResult::ok : db.fail(rc, "search_text");
}

}  // namespace kest::analytics::db
