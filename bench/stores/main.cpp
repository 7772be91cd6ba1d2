// Our events storage side by side with the layouts a user would otherwise pick (SQLite with a
// JSON row per object, PostgreSQL with a track table), on the same generated data and the same
// searches: ingest, search latencies and bytes on disk, and the raw SQLite ceiling of our
// ingest. See README.md beside this file.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/utils/log/logger.h>

#include "../analytics_db/scale_growth.h"
#include "../analytics_db/searched_store.h"
#include "../analytics_db/store_files.h"
#include "figure.h"
#include "json_blob_store.h"
#include "latency_stats.h"
#include "our_store.h"
#include "sqlite_ceiling.h"
#ifdef KEST_BENCH_HAVE_LIBPQ
#include "postgres_store.h"
#endif

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace kest::bench;

namespace {

constexpr double kIngestGoal = 2;     //< Ours over the best alternative.
constexpr double kCeilingGoal = 0.5;  //< Ours over the raw SQLite ceiling.
constexpr double kQueryGoal = 5;      //< Best alternative's p99 over ours.
/** Ours over the best alternative's p99: every shape, and free text and box shapes. */
constexpr double kAheadGoal = 1;
constexpr double kAheadGoalIndexed = 1.0 / 3;
constexpr double kFreeTextJsonGoal = 100;         //< The JSON table's free-text p99 over ours.
constexpr double kIngestGoalObjects = 1'000'000;  //< Ours, objects/s.
constexpr double kShortTrackBytesGoal = 30;       //< Ours, bytes per object of short tracks.
constexpr double kShortTrackPostgresGoal = 0.5;   //< Ours over PostgreSQL's, the same.
/** Searches of each shape on the scale stores: analytics_db_bench's own count for them. */
constexpr int kScaleQueries = 300;

struct Options
{
    std::int64_t tracks = 30'000;
    std::uint64_t seed = 1;
    fs::path dir;
    bool quick = false;
    // A p99 of 100 searches is their second slowest, which one late thread wake-up on a shared
    // machine sets; of 1,000 it is the 11th slowest.
    int queries = 1000;
    bool queriesGiven = false;
    int minQueries = 5;
    double shapeSeconds = 15;
    std::string postgres;
    bool json = true;
    bool explain = false;
    bool scalePostgres = false;
    std::vector<std::int64_t> scaleTracks = kScaleTracks;
    std::size_t chunkPackets = 16384;
    std::int64_t shortTracks = 100'000;
};

void printUsage()
{
    std::printf(
        "usage: stores_bench [--quick] [--tracks N] [--queries N] [--shape-seconds S]\n"
        "                    [--postgres CONNINFO] [--no-json] [--dir PATH] [--seed N]\n"
        "  --tracks N          tracks of the generated data set (default 30000)\n"
        "  --queries N         searches of each shape per store (default 1000; with\n"
        "                      --scale-postgres 300, as analytics_db_bench --scale)\n"
        "  --shape-seconds S   a store's searches of one shape stop after S seconds, once 5\n"
        "                      have run (default 15)\n"
        "  --postgres CONN     a libpq connection string of a server to load (its tables\n"
        "                      tracks and track_positions are replaced); without it PostgreSQL\n"
        "                      is left out\n"
        "  --no-json           leave the SQLite JSON table out\n"
        "  --explain           print PostgreSQL's plan of each shape's first search once the\n"
        "                      shape has run (its cached plan), before and after tuning\n"
        "  --short-tracks N    tracks of the short-track data set (default 100000; 0: none)\n"
        "  --quick             5000 tracks, 20 searches of each shape, 2 s per shape (3 at\n"
        "                      least)\n"
        "  --scale-postgres    only tuned PostgreSQL on short tracks, 1M and 5M of them (the\n"
        "                      data and searches of analytics_db_bench --scale), loaded in\n"
        "                      turn: each shape's p99 at both and its growth; needs --postgres\n"
        "  --scale-tracks A,B  the track counts of --scale-postgres (default 1000000,5000000)\n");
}

bool parseOptions(int argc, char** argv, Options* options)
{
    bool tracksGiven = false, secondsGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw std::invalid_argument(arg);
            return argv[++i];
        };
        try {
            if (arg == "--tracks") {
                options->tracks = std::stoll(value());
                tracksGiven = true;
            } else if (arg == "--queries") {
                options->queries = std::stoi(value());
                options->queriesGiven = true;
            } else if (arg == "--shape-seconds") {
                options->shapeSeconds = std::stod(value());
                secondsGiven = true;
            } else if (arg == "--postgres") {
                options->postgres = value();
            } else if (arg == "--dir") {
                options->dir = value();
            } else if (arg == "--seed") {
                options->seed = std::stoull(value());
            } else if (arg == "--short-tracks") {
                options->shortTracks = std::stoll(value());
            } else if (arg == "--no-json") {
                options->json = false;
            } else if (arg == "--explain") {
                options->explain = true;
            } else if (arg == "--scale-postgres") {
                options->scalePostgres = true;
            } else if (arg == "--scale-tracks") {
                const auto counts = parseTrackCounts(value());
                if (!counts)
                    return false;
                options->scaleTracks = *counts;
            } else if (arg == "--quick") {
                options->quick = true;
            } else {
                return false;
            }
        } catch (const std::exception&) {
            return false;
        }
    }
    if (options->quick) {
        if (!tracksGiven)
            options->tracks = 5'000;
        if (!options->queriesGiven)
            options->queries = 100;
        if (!secondsGiven)
            options->shapeSeconds = 2;
        options->shortTracks = std::min<std::int64_t>(options->shortTracks, 10'000);
        options->minQueries = 3;
    }
    if (options->tracks <= 0 || options->queries <= 0 || options->shapeSeconds <= 0 ||
        (options->scalePostgres && options->postgres.empty())) {
        return false;
    }
    options->minQueries = std::min(options->minQueries, options->queries);
    if (options->dir.empty()) {
        options->dir = fs::temp_directory_path() / "stores_bench" /
                       ("tracks_" + std::to_string(options->tracks) + "_seed_" +
                        std::to_string(options->seed));
    }
    return true;
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double toMs(nanoseconds value)
{
    return duration<double, std::milli>(value).count();
}

GeneratorOptions generatorOptions(const Options& options)
{
    GeneratorOptions generator;
    generator.seed = options.seed;
    generator.trackCount = options.tracks;
    return generator;
}

GeneratorOptions shortTrackDataSet(const Options& options)
{
    return kest::bench::shortTrackOptions(options.seed + 11, options.shortTracks);
}

struct ShapeResult
{
    double p50 = 0;
    double p99 = 0;
    std::size_t queries = 0;
    double meanHits = 0;
    std::size_t failures = 0;
};

struct StoreResult
{
    std::string name = {};
    std::string description = {};
    bool loaded = false;
    double loadSeconds = 0;
    double objectsPerSecond = 0;
    double cpuPerObjectUs = 0;
    std::int64_t objects = 0;
    double bytesPerObject = 0;
    std::map<std::string, ShapeResult> shapes = {};
};

/**
 * Generates the data set chunk by chunk (not timed) and loads each chunk (timed), so that the
 * whole set never has to be in memory. Fills `info` with what the generator made.
 */
bool loadDataSet(const Options& options, const GeneratorOptions& data, ComparedStore& store,
                 StoreResult* result, StoreInfo* info)
{
    StoreGenerator generator(data);
    double seconds = 0, cpu = 0, serverCpu = 0;
    std::vector<PacketPtr> chunk;
    chunk.reserve(options.chunkPackets);
    auto lastReport = steady_clock::now();
    for (bool more = true; more;) {
        chunk.clear();
        while (chunk.size() < options.chunkPackets) {
            auto packet = generator.next();
            if (!packet) {
                more = false;
                break;
            }
            chunk.push_back(std::move(packet));
        }
        if (chunk.empty())
            break;
        const double cpuStart = cpuSeconds();
        const double serverStart = store.serverCpuSeconds();
        const auto start = steady_clock::now();
        if (!store.load(chunk)) {
            std::printf("  %s: loading failed: %s\n", store.name().c_str(),
                        store.lastError().c_str());
            return false;
        }
        seconds += duration<double>(steady_clock::now() - start).count();
        cpu += cpuSeconds() - cpuStart;
        serverCpu += store.serverCpuSeconds() - serverStart;
        if (steady_clock::now() - lastReport > 15s) {
            lastReport = steady_clock::now();
            std::printf("  %s: %lld objects loaded, %.0f objects/s\n", store.name().c_str(),
                        static_cast<long long>(generator.objectsMade()),
                        generator.objectsMade() / seconds);
            std::fflush(stdout);
        }
    }
    {
        const double cpuStart = cpuSeconds();
        const double serverStart = store.serverCpuSeconds();
        const auto start = steady_clock::now();
        if (!store.finishWriting()) {
            std::printf("  %s: writing the last data failed: %s\n", store.name().c_str(),
                        store.lastError().c_str());
            return false;
        }
        seconds += duration<double>(steady_clock::now() - start).count();
        cpu += cpuSeconds() - cpuStart;
        serverCpu += store.serverCpuSeconds() - serverStart;
    }
    if (!store.finishLoading()) {
        std::printf("  %s: finishing the load failed: %s\n", store.name().c_str(),
                    store.lastError().c_str());
        return false;
    }
    result->loaded = true;
    result->loadSeconds = seconds;
    result->objects = generator.objectsMade();
    result->objectsPerSecond = generator.objectsMade() / seconds;
    result->cpuPerObjectUs = (cpu + serverCpu) * 1e6 / generator.objectsMade();

    info->trackCount = data.trackCount;
    info->seed = data.seed;
    info->packetCount = generator.packetsMade();
    info->objectCount = generator.objectsMade();
    info->firstTimeUs = generator.firstTimeUs();
    info->lastTimeUs = generator.lastTimeUs();
    info->deviceIds = generator.deviceIds();
    info->samples = generator.samples();
    std::printf(
        "  %s: %lld objects (%lld packets) in %.1f s: %.0f objects/s, CPU %.1f us per "
        "object%s\n",
        store.name().c_str(), static_cast<long long>(result->objects),
        static_cast<long long>(generator.packetsMade()), seconds, result->objectsPerSecond,
        result->cpuPerObjectUs, serverCpu > 0 ? " (client and server)" : "");
    std::fflush(stdout);
    return true;
}

/**
 * Times each shape of `kinds`. Before it, the shape's searches of `warmUp` (other searches of
 * the same shapes, or none) run untimed for up to a third of the shape's time, then the first
 * three of its own: each store is timed with what such searches read already in its caches (our
 * readers' memory maps, PostgreSQL's buffers), as a store that has served a while has it.
 */
void runSearches(const Options& options, ComparedStore& store, const std::vector<QueryKind>& kinds,
                 const std::vector<QueryKind>& warmUp, StoreResult* result)
{
    for (std::size_t k = 0; k < kinds.size(); ++k) {
        const QueryKind& kind = kinds[k];
        if (kind.filters.empty())
            continue;
        std::size_t found = 0;
        if (k < warmUp.size() && warmUp[k].name == kind.name) {
            const auto until =
                steady_clock::now() +
                duration_cast<nanoseconds>(duration<double>(options.shapeSeconds / 3));
            for (const auto& filter : warmUp[k].filters) {
                if (steady_clock::now() >= until)
                    break;
                store.beforeSearch();
                store.search(filter, &found);
            }
        }
        for (std::size_t i = 0; i < std::min<std::size_t>(3, kind.filters.size()); ++i) {
            store.beforeSearch();
            store.search(kind.filters[i], &found);
        }
        LatencyStats stats;
        ShapeResult shape;
        std::size_t hits = 0;
        const auto deadline = steady_clock::now() +
                              duration_cast<nanoseconds>(duration<double>(options.shapeSeconds));
        for (const auto& filter : kind.filters) {
            if (stats.count() >= static_cast<std::size_t>(options.minQueries) &&
                steady_clock::now() >= deadline) {
                break;
            }
            store.beforeSearch();
            const auto start = steady_clock::now();
            const bool ok = store.search(filter, &found);
            stats.add(steady_clock::now() - start);
            shape.failures += !ok;
            hits += found;
        }
        shape.queries = stats.count();
        shape.p50 = toMs(stats.percentile(50));
        shape.p99 = toMs(stats.percentile(99));
        shape.meanHits = static_cast<double>(hits) / shape.queries;
        result->shapes[kind.name] = shape;
        std::printf(
            "  %-14s %-38s p50 %9.2f ms  p99 %9.2f ms  %4zu searches  %6.1f hits%s\n",
            store.name().c_str(), kind.name.c_str(), shape.p50, shape.p99, shape.queries,
            shape.meanHits,
            shape.failures
                ? std::string(" ").append(std::to_string(shape.failures)).append(" FAILED").c_str()
                : "");
        std::fflush(stdout);
    }
}

/**
 * Our searches again, each right after a commit, as they run during ingest: a reader then finds
 * the store changed since its last search (measured, no goal). After the store's size is taken,
 * as the commits add a track.
 */
void measureSearchesAfterCommits(const Options& options, OurStore& store,
                                 const std::vector<QueryKind>& kinds,
                                 const std::vector<QueryKind>& warmUp, const StoreInfo& info)
{
    std::printf("  searches, each after a commit:\n");
    store.commitBeforeEachSearch();
    StoreResult result{"ours after commits"};
    runSearches(options, store, kinds, warmUp, &result);
    const std::string section = "stores: searches, each after a commit (" +
                                std::to_string(options.tracks) + " tracks, " +
                                std::to_string(info.objectCount) + " objects)";
    for (const auto& [name, shape] : result.shapes) {
        recordFigure(Figure::measured(section, name + ": ours p50", shape.p50, "ms"));
        recordFigure(Figure::measured(section, name + ": ours p99", shape.p99, "ms"));
    }
}

void measureSize(ComparedStore& store, StoreResult* result)
{
    const std::uint64_t bytes = store.bytesOnDisk();
    result->bytesPerObject = static_cast<double>(bytes) / result->objects;
    std::printf("  %s: %.1f MB on disk, %.1f bytes per object\n", store.name().c_str(), bytes / 1e6,
                result->bytesPerObject);
}

bool isFreeText(const QueryKind& kind)
{
    return kind.goalMs == kFreeTextGoalMs;
}

bool isBox(const QueryKind& kind)
{
    return !kind.filters.empty() && kind.filters.front().boundingBox.has_value();
}

void printPlans(const Options& options, ComparedStore& store, const std::vector<QueryKind>& kinds)
{
#ifdef KEST_BENCH_HAVE_LIBPQ
    auto* postgres = dynamic_cast<PostgresStore*>(&store);
    if (!options.explain || !postgres)
        return;
    for (const auto& kind : kinds) {
        if (kind.filters.empty())
            continue;
        std::printf("  plan of %s, %s:\n", store.name().c_str(), kind.name.c_str());
        for (const auto& line : postgres->explain(kind.filters.front()))
            std::printf("    %s\n", line.c_str());
    }
    std::fflush(stdout);
#else
    (void)options, (void)store, (void)kinds;
#endif
}

void report(const Options& options, const StoreInfo& info, const std::vector<QueryKind>& kinds,
            const std::vector<StoreResult>& results, std::optional<double> ceiling)
{
    const StoreResult& ours = results.front();
    std::vector<const StoreResult*> alternatives;
    for (std::size_t i = 1; i < results.size(); ++i) {
        if (results[i].loaded)
            alternatives.push_back(&results[i]);
    }
    const std::string data = std::to_string(options.tracks) + " tracks, " +
                             std::to_string(info.objectCount) + " objects";
    const std::string ingestSection = "stores: ingest (" + data + ")";
    const std::string querySection = "stores: searches, p50 and p99 (" + data + ")";
    const std::string sizeSection = "stores: size on disk (" + data + ")";

    std::printf("\n== Side by side (%s, %zu devices, %.1f hours)\n", data.c_str(),
                info.deviceIds.size(), (info.lastTimeUs - info.firstTimeUs) / 3.6e9);
    std::printf("%-38s", "");
    for (const auto& r : results)
        std::printf(" %20s", r.name.c_str());
    std::printf("\n%-38s", "ingest, objects/s");
    for (const auto& r : results)
        std::printf(" %20.0f", r.loaded ? r.objectsPerSecond : 0.0);
    std::printf("\n%-38s", "CPU per object, us");
    for (const auto& r : results)
        std::printf(" %20.1f", r.loaded ? r.cpuPerObjectUs : 0.0);
    std::printf("\n%-38s", "bytes per object");
    for (const auto& r : results)
        std::printf(" %20.1f", r.loaded ? r.bytesPerObject : 0.0);
    for (const auto& kind : kinds) {
        std::printf("\n%-38s", (kind.name + ", p50/p99 ms").c_str());
        for (const auto& r : results) {
            const auto it = r.shapes.find(kind.name);
            if (it == r.shapes.end())
                std::printf(" %20s", "-");
            else
                std::printf(" %9.2f /%9.2f", it->second.p50, it->second.p99);
        }
    }
    std::printf("\n");

    for (const auto& r : results) {
        if (r.loaded)
            recordFigure(Figure::measured(ingestSection, "ingest, " + r.name, r.objectsPerSecond,
                                          "objects/s"));
    }
    if (ceiling)
        recordFigure(Figure::measured(ingestSection,
                                      "raw SQLite ceiling (our rows, prepared "
                                      "inserts)",
                                      *ceiling, "objects/s"));
    double bestIngest = 0;
    std::string bestIngestName;
    for (const auto* a : alternatives) {
        if (a->objectsPerSecond > bestIngest) {
            bestIngest = a->objectsPerSecond;
            bestIngestName = a->name;
        }
    }
    Figure ingestRatio{ingestSection, "ingest, ours / best alternative", std::nullopt, "x"};
    if (bestIngest > 0) {
        ingestRatio.value = ours.objectsPerSecond / bestIngest;
        ingestRatio.note = "best: " + bestIngestName;
    } else {
        ingestRatio.note = "no alternative measured";
    }
    recordFigure(ingestRatio.atLeast(kIngestGoal));
    Figure ceilingRatio{ingestSection, "ingest, ours / raw SQLite ceiling", std::nullopt, "x"};
    if (ceiling)
        ceilingRatio.value = ours.objectsPerSecond / *ceiling;
    recordFigure(ceilingRatio.atLeast(kCeilingGoal));
    recordFigure(Figure::measured(ingestSection, "ingest, ours (goal on this 2-core machine)",
                                  ours.objectsPerSecond, "objects/s")
                     .atLeast(kIngestGoalObjects));

    for (const auto& kind : kinds) {
        if (kind.filters.empty())
            continue;
        for (const auto& r : results) {
            const auto it = r.shapes.find(kind.name);
            if (it == r.shapes.end())
                continue;
            const std::string note =
                std::to_string(it->second.queries) + " searches" +
                (it->second.failures ? ", " + std::to_string(it->second.failures) + " failed"
                                     : std::string());
            recordFigure(Figure::measured(querySection, kind.name + ": " + r.name + " p50",
                                          it->second.p50, "ms"));
            recordFigure(Figure::measured(querySection, kind.name + ": " + r.name + " p99",
                                          it->second.p99, "ms")
                             .withNote(note));
        }
        const auto oursShape = ours.shapes.find(kind.name);
        double bestP99 = std::numeric_limits<double>::infinity();
        std::string bestName;
        for (const auto* a : alternatives) {
            const auto it = a->shapes.find(kind.name);
            if (it != a->shapes.end() && it->second.p99 < bestP99) {
                bestP99 = it->second.p99;
                bestName = a->name;
            }
        }
        Figure ratio{querySection, kind.name + ": best alternative p99 / ours", std::nullopt, "x"};
        if (oursShape != ours.shapes.end() && !bestName.empty() && oursShape->second.p99 > 0) {
            ratio.value = bestP99 / oursShape->second.p99;
            ratio.note = "best: " + bestName;
        }
        recordFigure(ratio.atLeast(kQueryGoal));
        Figure ahead{querySection, kind.name + ": ours p99 / best alternative's", std::nullopt,
                     "x"};
        if (oursShape != ours.shapes.end() && !bestName.empty() && bestP99 > 0) {
            ahead.value = oursShape->second.p99 / bestP99;
            ahead.note = "best: " + bestName;
        }
        recordFigure(
            ahead.atMost(isFreeText(kind) || isBox(kind) ? kAheadGoalIndexed : kAheadGoal));
        if (kind.name == "track id") {
            Figure versus{querySection, kind.name + ": postgresql p99 / ours", std::nullopt, "x"};
            for (const auto* a : alternatives) {
                const auto it = a->shapes.find(kind.name);
                if (a->name == "postgresql" && it != a->shapes.end() &&
                    oursShape != ours.shapes.end() && oursShape->second.p99 > 0) {
                    versus.value = it->second.p99 / oursShape->second.p99;
                }
            }
            recordFigure(versus.atLeast(1).withNote("at least as fast as PostgreSQL"));
        }
        if (isFreeText(kind)) {
            Figure json{querySection, kind.name + ": sqlite json p99 / ours", std::nullopt, "x"};
            for (const auto* a : alternatives) {
                const auto it = a->shapes.find(kind.name);
                if (a->name == "sqlite json" && it != a->shapes.end() &&
                    oursShape != ours.shapes.end() && oursShape->second.p99 > 0) {
                    json.value = it->second.p99 / oursShape->second.p99;
                }
            }
            recordFigure(json.atLeast(kFreeTextJsonGoal));
        }
    }

    double fewestOther = std::numeric_limits<double>::infinity();
    for (const auto& r : results) {
        if (!r.loaded)
            continue;
        recordFigure(
            Figure::measured(sizeSection, "bytes per object, " + r.name, r.bytesPerObject, "B"));
        if (&r != &ours)
            fewestOther = std::min(fewestOther, r.bytesPerObject);
    }
    Figure size{sizeSection, "bytes per object, fewest alternative / ours", std::nullopt, "x"};
    if (std::isfinite(fewestOther) && ours.bytesPerObject > 0)
        size.value = fewestOther / ours.bytesPerObject;
    recordFigure(size.atLeast(1).withNote("above 1: ours is the smallest"));
}

/** Bytes per object of ours and PostgreSQL on the short-track data set. */
void measureShortTracks(const Options& options)
{
    const GeneratorOptions data = shortTrackDataSet(options);
    std::printf(
        "\n== Short tracks: %lld tracks of 1 to 60 s, a packet every 1.2 to 1.8 s, Zipf "
        "words\n",
        static_cast<long long>(data.trackCount));
    std::vector<StoreResult> results;
    {
        auto store = std::make_unique<OurStore>(options.dir / "ours_short");
        StoreResult result{store->name(), store->description()};
        StoreInfo info;
        const bool loaded = store->isOpen() && loadDataSet(options, data, *store, &result, &info);
        // Measured closed: a checkpoint that meets the storage's own connections may leave the
        // write-ahead log behind, which the size would count. The file is not vacuumed, so the
        // pages that the open tracks' journal used and gave back count; dbstat shows them.
        store.reset();
        const fs::path dir = options.dir / "ours_short";
        if (loaded && result.objects > 0) {
            checkpointSqliteFiles(dir);
            const std::uint64_t bytes = directoryBytes(dir);
            result.bytesPerObject = static_cast<double>(bytes) / result.objects;
            std::printf("  %s: %.1f MB on disk, %.1f bytes per object\n", result.name.c_str(),
                        bytes / 1e6, result.bytesPerObject);
            for (const auto& table :
                 sqliteTableBytes(dir / kest::analytics::db::EventsStorage::kFileName)) {
                std::printf("    %-28s %8.2f bytes per object\n", table.name.c_str(),
                            static_cast<double>(table.bytes) / result.objects);
            }
        }
        results.push_back(std::move(result));
        fs::remove_all(options.dir / "ours_short");
    }
#ifdef KEST_BENCH_HAVE_LIBPQ
    if (!options.postgres.empty()) {
        auto store = std::make_unique<PostgresStore>(options.postgres);
        StoreResult result{store->name(), store->description()};
        StoreInfo info;
        if (store->isOpen() && loadDataSet(options, data, *store, &result, &info)) {
            store->finishLoading();
            measureSize(*store, &result);
        }
        results.push_back(std::move(result));
    }
#endif
    const std::string section = "stores: size on disk, short tracks (" +
                                std::to_string(data.trackCount) + " tracks, " +
                                std::to_string(results.front().objects) + " objects)";
    const StoreResult& ours = results.front();
    Figure size{section, "bytes per object, ours", std::nullopt, "B"};
    if (ours.loaded)
        size.value = ours.bytesPerObject;
    recordFigure(size.atMost(kShortTrackBytesGoal));
    Figure versus{section, "bytes per object, ours / postgresql", std::nullopt, "x"};
    for (const auto& r : results) {
        if (&r == &ours || !r.loaded)
            continue;
        recordFigure(
            Figure::measured(section, "bytes per object, " + r.name, r.bytesPerObject, "B"));
        if (r.name == "postgresql" && ours.loaded && r.bytesPerObject > 0)
            versus.value = ours.bytesPerObject / r.bytesPerObject;
    }
    if (!versus.value)
        versus.note = "PostgreSQL not measured";
    recordFigure(versus.atMost(kShortTrackPostgresGoal));
}

/**
 * Tuned PostgreSQL on the short-track data sets of the scale stores (the same data and searches
 * as ours in analytics_db_bench --scale), loaded, tuned and searched size after size, and how
 * each shape's p99 grows.
 */
bool measurePostgresScale(const Options& options)
{
#ifdef KEST_BENCH_HAVE_LIBPQ
    std::vector<std::pair<StoreInfo, std::map<std::string, double>>> sizes;
    for (const std::int64_t tracks : options.scaleTracks) {
        // The schema is made anew: the tables of the size before are dropped.
        PostgresStore store(options.postgres);
        if (!store.isOpen()) {
            std::printf("cannot use PostgreSQL: %s\n", store.lastError().c_str());
            return false;
        }
        std::printf("\n== postgresql, %lld short tracks\n", static_cast<long long>(tracks));
        StoreResult result{store.name(), store.description()};
        StoreInfo info;
        if (!loadDataSet(options, shortTrackOptions(options.seed, tracks), store, &result, &info))
            return false;
        const auto start = steady_clock::now();
        if (!store.tune()) {
            std::printf("  cannot tune: %s\n", store.lastError().c_str());
            return false;
        }
        std::printf("  tuned in %.1f s\n", duration<double>(steady_clock::now() - start).count());
        result.name = store.name();
        const auto kinds =
            makeQueries(options.seed, options.queriesGiven ? options.queries : kScaleQueries, info);
        runSearches(options, store, kinds, {}, &result);
        printPlans(options, store, kinds);
        measureSize(store, &result);
        std::map<std::string, double> p99s;
        const std::string section = "stores: scale, postgresql tuned, " + std::to_string(tracks) +
                                    " short tracks (" + std::to_string(info.objectCount) +
                                    " objects)";
        for (const auto& [name, shape] : result.shapes) {
            p99s[name] = shape.p99;
            recordFigure(Figure::measured(section, name + ", p99", shape.p99, "ms"));
        }
        recordFigure(
            Figure::measured(section, "bytes per object", result.bytesPerObject, "B")
                .withNote("load " + std::to_string(static_cast<int>(result.loadSeconds)) + " s"));
        sizes.emplace_back(std::move(info), std::move(p99s));
    }
    const auto& [small, smallP99] = sizes.front();
    const auto& [large, largeP99] = sizes.back();
    const std::string section = "stores: scale, postgresql tuned, short tracks " +
                                std::to_string(small.trackCount) + " -> " +
                                std::to_string(large.trackCount);
    std::printf("\n== Growth of tuned PostgreSQL's p99\n");
    for (const auto& figure : growthFigures(section, smallP99, largeP99)) {
        std::printf("  %-52s %s: %.2fx\n", figure.name.c_str(), figure.note.c_str(), *figure.value);
        recordFigure(figure);
    }
    return true;
#else
    (void)options;
    std::printf("PostgreSQL left out: built without libpq (libpq-dev)\n");
    return false;
#endif
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        printUsage();
        return 2;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);
    fs::create_directories(options.dir);
    if (options.scalePostgres)
        return measurePostgresScale(options) ? 0 : 1;
    std::printf("stores_bench: %lld tracks, seed %llu, in %s\n",
                static_cast<long long>(options.tracks),
                static_cast<unsigned long long>(options.seed), options.dir.c_str());

    std::vector<StoreResult> results;
    StoreInfo info;
    std::vector<QueryKind> kinds;
    std::vector<QueryKind> warmUp;
    std::optional<double> ceiling;

    // Ours first: its data set's info gives every store the same searches.
    {
        std::printf("\n== ours\n");
        auto store = std::make_unique<OurStore>(options.dir / "ours");
        StoreResult result{store->name(), store->description()};
        if (!store->isOpen() ||
            !loadDataSet(options, generatorOptions(options), *store, &result, &info))
            return 1;
        kinds = makeQueries(options.seed, options.queries, info);
        warmUp = makeWarmUpQueries(options.seed, options.queries, info);
        runSearches(options, *store, kinds, warmUp, &result);
        measureSize(*store, &result);
        if (store->reopen())
            measureSearchesAfterCommits(options, *store, kinds, warmUp, info);
        store->close();

        SqliteCeiling raw;
        if (raw.read(options.dir / "ours" / kest::analytics::db::EventsStorage::kFileName)) {
            if (const auto seconds = raw.insertInto(options.dir / "ceiling")) {
                ceiling = result.objects / *seconds;
                std::printf(
                    "  raw SQLite ceiling: our %zu rows inserted in %.2f s: %.0f "
                    "objects/s; ours is %.2f of it\n",
                    raw.rows(), *seconds, *ceiling, result.objectsPerSecond / *ceiling);
            }
        }
        if (!ceiling)
            std::printf("  raw SQLite ceiling not measured: %s\n", raw.lastError().c_str());
        fs::remove_all(options.dir / "ceiling");
        fs::remove_all(options.dir / "ours");
        results.push_back(std::move(result));
    }

    std::vector<std::function<std::unique_ptr<ComparedStore>()>> alternatives;
    if (options.json) {
        alternatives.push_back([&]() -> std::unique_ptr<ComparedStore> {
            auto store = std::make_unique<JsonBlobStore>(options.dir / "json");
            if (store->isOpen())
                return store;
            std::printf("  cannot make the SQLite JSON table: %s\n", store->lastError().c_str());
            return nullptr;
        });
    }
    if (!options.postgres.empty()) {
#ifdef KEST_BENCH_HAVE_LIBPQ
        alternatives.push_back([&]() -> std::unique_ptr<ComparedStore> {
            auto store = std::make_unique<PostgresStore>(options.postgres);
            if (store->isOpen())
                return store;
            std::printf("  cannot use PostgreSQL: %s\n", store->lastError().c_str());
            return nullptr;
        });
#else
        std::printf("\nPostgreSQL left out: built without libpq (libpq-dev)\n");
#endif
    }
    for (const auto& make : alternatives) {
        auto store = make();
        if (!store)
            continue;
        std::printf("\n== %s: %s\n", store->name().c_str(), store->description().c_str());
        StoreResult result{store->name(), store->description()};
        StoreInfo same;
        if (!loadDataSet(options, generatorOptions(options), *store, &result, &same)) {
            results.push_back(std::move(result));
            continue;
        }
        runSearches(options, *store, kinds, warmUp, &result);
        printPlans(options, *store, kinds);
        measureSize(*store, &result);
        results.push_back(std::move(result));

        // The same store once the indexes its searches ask for are added: one load serves both.
        const auto start = steady_clock::now();
        if (!store->tune()) {
            if (!store->lastError().empty())
                std::printf("  %s: cannot tune: %s\n", store->name().c_str(),
                            store->lastError().c_str());
            continue;
        }
        StoreResult tuned = results.back();
        tuned.name = store->name();
        tuned.description = store->description();
        tuned.shapes.clear();
        std::printf("\n== %s: %s\n  indexes added and analysed in %.1f s\n", tuned.name.c_str(),
                    tuned.description.c_str(),
                    duration<double>(steady_clock::now() - start).count());
        runSearches(options, *store, kinds, warmUp, &tuned);
        printPlans(options, *store, kinds);
        measureSize(*store, &tuned);
        results.push_back(std::move(tuned));
    }
    fs::remove_all(options.dir / "json");

    report(options, info, kinds, results, ceiling);
    if (options.shortTracks > 0)
        measureShortTracks(options);
    return 0;
}
