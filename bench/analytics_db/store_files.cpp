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
