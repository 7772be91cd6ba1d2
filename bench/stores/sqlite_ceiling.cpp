#include "sqlite_ceiling.h"

#include <sqlite3.h>

#include <chrono>
#include <span>

#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/storage_schema.h>
#include <kest/sql/database.h>
#include <kest/sql/transaction.h>

namespace kest::bench {

namespace fs = std::filesystem;
using sql::DBResult;

namespace {

/** Rows per transaction. */
constexpr std::size_t kTransactionRows = 200'000;

}  // namespace

bool SqliteCeiling::read(const fs::path& file)
{
    sql::Database source;
    if (source.open(file.string(), sql::ConnectionOptions(), /*create*/ false) != DBResult::ok ||
        analytics::db::addStoreFunctions(source) != DBResult::ok) {
        m_error = source.lastError();
        return false;
    }
    sqlite3* db = source.handle();
    m_tables.clear();
    bool ok = true;
    // The storage's own list of its tables, and how each is read back and inserted as it is.
    for (const auto& stored : analytics::db::storedTables()) {
        sqlite3_stmt* select = nullptr;
        if (sqlite3_prepare_v2(db, stored.select.c_str(), -1, &select, nullptr) != SQLITE_OK) {
            ok = false;
            break;
        }
        Table table{stored.name, stored.insert, {}};
        int rc = SQLITE_ROW;
        // Columns by their stored type, so that the copy binds exactly what was stored.
        while ((rc = sqlite3_step(select)) == SQLITE_ROW) {
            std::vector<Value> row;
            const int columns = sqlite3_column_count(select);
            for (int c = 0; c < columns; ++c) {
                switch (sqlite3_column_type(select, c)) {
                    case SQLITE_INTEGER:
                        row.emplace_back(sqlite3_column_int64(select, c));
                        break;
                    case SQLITE_FLOAT:
                        row.emplace_back(sqlite3_column_double(select, c));
                        break;
                    case SQLITE_TEXT:
                        row.emplace_back(std::string(
                            reinterpret_cast<const char*>(sqlite3_column_text(select, c)),
                            sqlite3_column_bytes(select, c)));
                        break;
                    case SQLITE_BLOB: {
                        const auto* data =
                            static_cast<const std::uint8_t*>(sqlite3_column_blob(select, c));
                        row.emplace_back(std::vector<std::uint8_t>(
                            data, data + sqlite3_column_bytes(select, c)));
                        break;
                    }
                    default:
                        row.emplace_back(std::monostate());
                        break;
                }
            }
            table.rows.push_back(std::move(row));
        }
        sqlite3_finalize(select);
        if (rc != SQLITE_DONE) {
            ok = false;
            break;
        }
        m_tables.push_back(std::move(table));
    }
    if (!ok)
        m_error = sqlite3_errmsg(db);
    return ok;
}

std::size_t SqliteCeiling::rows() const
{
    std::size_t count = 0;
    for (const auto& table : m_tables)
        count += table.rows.size();
    return count;
}

std::optional<double> SqliteCeiling::insertInto(const fs::path& dir)
{
    fs::remove_all(dir);
    fs::create_directories(dir);
    sql::Database db;
    const std::string file = (dir / analytics::db::EventsStorage::kFileName).string();
    if (db.open(file, sql::ConnectionOptions()) != DBResult::ok ||
        analytics::db::applySchema(db, file, sql::ConnectionOptions()) != DBResult::ok) {
        m_error = db.lastError();
        return std::nullopt;
    }
    const auto start = std::chrono::steady_clock::now();
    std::size_t inTransaction = 0;
    if (db.exec("BEGIN") != DBResult::ok) {
        m_error = db.lastError();
        return std::nullopt;
    }
    for (const auto& table : m_tables) {
        auto insert = db.prepare(table.insert);
        if (!insert) {
            m_error = db.lastError();
            return std::nullopt;
        }
        for (const auto& row : table.rows) {
            insert->reset();
            for (std::size_t c = 0; c < row.size(); ++c) {
                const int index = static_cast<int>(c + 1);
                const Value& value = row[c];
                if (const auto* i = std::get_if<std::int64_t>(&value))
                    insert->bind(index, *i);
                else if (const auto* d = std::get_if<double>(&value))
                    insert->bind(index, *d);
                else if (const auto* t = std::get_if<std::string>(&value))
                    insert->bindText(index, *t);
                else if (const auto* b = std::get_if<std::vector<std::uint8_t>>(&value))
                    insert->bindBlob(index, std::span<const std::uint8_t>(*b));
                else
                    insert->bindNull(index);
            }
            if (insert->exec() != DBResult::ok) {
                m_error = db.lastError();
                return std::nullopt;
            }
            if (++inTransaction == kTransactionRows) {
                inTransaction = 0;
                if (db.exec("COMMIT; BEGIN") != DBResult::ok) {
                    m_error = db.lastError();
                    return std::nullopt;
                }
            }
        }
    }
    if (db.exec("COMMIT") != DBResult::ok) {
        m_error = db.lastError();
        return std::nullopt;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace kest::bench
