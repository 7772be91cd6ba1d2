#pragma once

// The files of a store on disk, measured as a quiet store's would be.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kest::bench {

/** Folds the write-ahead logs of the SQLite databases under `dir` into them. */
void checkpointSqliteFiles(const std::filesystem::path& dir);
/** The size of every file under `dir`. */
std::uint64_t directoryBytes(const std::filesystem::path& dir);

/** What one table or index of an SQLite database takes, from its dbstat virtual table. */
struct TableBytes
{
    std::string name;
    std::uint64_t pages = 0;
    /** Its pages, whole. */
    std::uint64_t bytes = 0;
    /** The bytes of its rows or keys. */
    std::uint64_t payload = 0;
    /** Bytes of its pages that hold nothing. */
    std::uint64_t unused = 0;
};
/** Every table and index of `file`, the largest first, and its free pages as "(free pages)". */
std::vector<TableBytes> sqliteTableBytes(const std::filesystem::path& file);

/**
 * Bytes this process has caused to be written to storage so far (/proc/self/io write_bytes,
 * less the cancelled_write_bytes of files truncated before they were written back).
 */
std::uint64_t processWrittenBytes();

}  // namespace kest::bench
