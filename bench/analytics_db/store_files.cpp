#include "store_files.h"

#include <sqlite3.h>

#include <cstring>
#include <fstream>

namespace kest::bench {

namespace fs = std::filesystem;

namespace {

bool isSqliteFile(const fs::path& file)
{
    char header[16] = {};
    std::ifstream in(file, std::ios::binary);
    return in.read(header, sizeof(header)) && std::memcmp(header, "SQLite format 3", 16) == 0;
}

}  // namespace

void checkpointSqliteFiles(const fs::path& dir)
{
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (!entry.is_regular_file() || !isSqliteFile(entry.path()))
            continue;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(entry.path().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) ==
            SQLITE_OK) {
            sqlite3_busy_timeout(db, 5000);
            sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
        }
        sqlite3_close(db);
    }
}

std::vector<TableBytes> sqliteTableBytes(const fs::path& file)
{
    std::vector<TableBytes> tables;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return tables;
    }
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT name, count(*), sum(pgsize), sum(payload), sum(unused) "
                           "FROM dbstat GROUP BY name ORDER BY sum(pgsize) DESC",
                           -1, &s, nullptr) == SQLITE_OK) {
        while (sqlite3_step(s) == SQLITE_ROW) {
            tables.push_back({reinterpret_cast<const char*>(sqlite3_column_text(s, 0)),
                              static_cast<std::uint64_t>(sqlite3_column_int64(s, 1)),
                              static_cast<std::uint64_t>(sqlite3_column_int64(s, 2)),
                              static_cast<std::uint64_t>(sqlite3_column_int64(s, 3)),
                              static_cast<std::uint64_t>(sqlite3_column_int64(s, 4))});
        }
    }
    sqlite3_finalize(s);
    if (sqlite3_prepare_v2(db, "PRAGMA freelist_count", -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_step(s) == SQLITE_ROW && sqlite3_column_int64(s, 0) > 0) {
        const auto pages = static_cast<std::uint64_t>(sqlite3_column_int64(s, 0));
        tables.push_back({"(free pages)", pages, pages * 4096, 0, pages * 4096});
    }
    sqlite3_finalize(s);
    sqlite3_close(db);
    return tables;
}

std::uint64_t processWrittenBytes()
{
    std::ifstream in("/proc/self/io");
    std::string key;
    std::uint64_t value = 0, written = 0, cancelled = 0;
    while (in >> key >> value) {
        if (key == "write_bytes:")
            written = value;
        else if (key == "cancelled_write_bytes:")
            cancelled = value;
    }
    return written > cancelled ? written - cancelled : 0;
}

std::uint64_t directoryBytes(const fs::path& dir)
{
    std::uint64_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file())
            bytes += entry.file_size();
    }
    return bytes;
}

}  // namespace kest::bench
