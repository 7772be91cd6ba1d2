#pragma once

// What the storage and HTTP benchmarks share: the generated store they search (filled once and
// reused by later runs), the searches they time, and the packets they time ingest with.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/filter.h>

#include "store_generator.h"
#include "store_info.h"

namespace kest::bench {

/** Opens or creates an events storage in `path`; null, with a message, when it cannot. */
std::unique_ptr<analytics::db::EventsStorage> openStorage(const std::filesystem::path& path);

/** Waits while the storage is not ready, as a client of the service would, then saves. */
void saveWhenReady(analytics::db::EventsStorage& storage,
                   std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet);

/**
 * The store of `tracks` tracks made with `seed` in `dir`/store, with its info beside it: reused
 * when a complete one is there (unless `fresh`), filled otherwise. False when it cannot be made.
 */
bool prepareSearchedStore(const std::filesystem::path& dir, std::int64_t tracks, std::uint64_t seed,
                          bool fresh, StoreInfo* info, bool* reused);
/** Whether `dir` holds a complete store of the data set, which prepareSearchedStore reuses. */
bool isSearchedStoreReady(const std::filesystem::path& dir, const GeneratorOptions& data,
                          StoreInfo* info = nullptr);
/** The same for any generated data set, e.g. short tracks (shortTrackOptions). */
bool prepareSearchedStore(const std::filesystem::path& dir, const GeneratorOptions& data,
                          bool fresh, StoreInfo* info, bool* reused);
std::filesystem::path searchedStorePath(const std::filesystem::path& dir);

/**
 * Where both benchmarks keep the searched store of these parameters under `parent` (default
 * "/tmp/analytics_db_bench"): "tracks_N_seed_S_layout_V", V the storage's schema version, so
 * that a store of an older layout is not searched as if it were current, and is filled anew.
 */
std::filesystem::path benchDir(std::filesystem::path parent, std::int64_t tracks,
                               std::uint64_t seed);

/** The same for the short-track data set: "short_tracks_N_seed_S_layout_V". */
std::filesystem::path shortTrackBenchDir(std::filesystem::path parent, std::int64_t tracks,
                                         std::uint64_t seed);

void printStore(const StoreInfo& info, bool reused);

/** Searches of one shape, with the goal of their p99. */
struct QueryKind
{
    std::string name = {};
    double goalMs = 20;
    std::vector<analytics::db::Filter> filters = {};
    /** Whether every query must find something, e.g. a search by a known track id. */
    bool expectHit = false;
};

constexpr double kLookupGoalMs = 20;
constexpr double kFreeTextGoalMs = 50;

/** `queries` searches of each shape, aimed at data the store holds; the same for a given seed. */
std::vector<QueryKind> makeQueries(std::uint64_t seed, int queries, const StoreInfo& info);

/** Untimed searches of each shape before it is timed: enough to bring its pages into caches. */
constexpr int kWarmUpQueries = 200;
/**
 * The searches that warm a shape up before those of makeQueries(`seed`, `queries`) are timed:
 * other ones of the same shapes (the next seed's), kWarmUpQueries at most.
 */
std::vector<QueryKind> makeWarmUpQueries(std::uint64_t seed, int queries, const StoreInfo& info);

/** `count` packets of 5 objects from 200 devices, made beforehand, for timing ingest. */
std::vector<std::shared_ptr<const common::metadata::ObjectMetadataPacket>> makeIngestPackets(
    std::uint64_t seed, std::int64_t count);

}  // namespace kest::bench
