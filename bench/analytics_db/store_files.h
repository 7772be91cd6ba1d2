#pragma once

// The files of a store on disk, measured as a quiet store's would be.

#include <cstdint>
#include <filesystem>

namespace kest::bench {

/** Folds the write-ahead logs of the SQLite databases under `dir` into them. */
void checkpointSqliteFiles(const std::filesystem::path& dir);
/** The size of every file under `dir`. */
std::uint64_t directoryBytes(const std::filesystem::path& dir);

}  // namespace kest::bench
