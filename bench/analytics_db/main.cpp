// Figures for the analytics events storage: ingest rate up to durable commit, search latencies on
// a large store, and its size on disk. See README.md beside this file.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/utils/log/logger.h>

#include "figure.h"
#include "latency_stats.h"
#include "scale_growth.h"
#include "searched_store.h"
#include "store_files.h"
#include "store_generator.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace kest::bench;
using kest::analytics::db::EventsStorage;
using kest::analytics::db::Filter;
using kest::analytics::db::ObjectTrackEx;
using kest::analytics::db::ResultCode;
using kest::common::metadata::ObjectMetadataPacket;

namespace {

constexpr double kIngestGoalPacketsPerSecond = 50'000;
constexpr double kWriteAmplificationGoal = 3;
constexpr double kNewTracksGoalPerSecond = 66'000;
constexpr double kBytesPerObjectGoal = 20;
/** The store whose searches are compared with those of the previous layout. */
constexpr std::int64_t kComparedTracks = 1'000'000;

struct Options
{
    std::int64_t tracks = 1'000'000;
    std::uint64_t seed = 1;
    fs::path dir;
    bool fresh = false;
    bool quick = false;
    bool ingest = true;
    int queries = 300;
    std::int64_t ingestPackets = 300'000;
    std::int64_t newTrackPackets = 400'000;
    bool printStore = false;
    bool newTracksOnly = false;
    /** Where the stores live, each in a directory of its own under it. */
    fs::path parent;
    bool scale = false;
    /** Only whether every scale store is filled and complete (exit status 0). */
    bool scaleReady = false;
    std::vector<std::int64_t> scaleTracks = kScaleTracks;
};

void printUsage()
{
    std::printf(
        "usage: analytics_db_bench [--tracks N] [--dir PATH] [--fresh] [--quick]\n"
        "                          [--queries N] [--ingest-packets N] [--no-ingest] [--seed N]\n"
        "  --tracks N          tracks in the searched store (default 1000000)\n"
        "  --dir PATH          where the stores live (default /tmp/analytics_db_bench), each in\n"
        "                      tracks_N_seed_S_layout_V; a complete store of the same\n"
        "                      parameters and layout there is reused\n"
        "  --fresh             fill the store again even if one is there\n"
        "  --quick             a small store and fewer queries, for a smoke run\n"
        "  --queries N         queries of each kind (default 300)\n"
        "  --ingest-packets N  packets of the ingest measurement (default 300000)\n"
        "  --no-ingest         skip the ingest measurements\n"
        "  --new-tracks N      packets of the ingest of new tracks (default 400000)\n"
        "  --print-store       print where the searched store of these parameters is, and exit\n"
        "  --new-tracks-only   only the ingest of new tracks (to profile it)\n"
        "  --scale             only the searches on short-track stores of 1M and 5M tracks\n"
        "                      (about 20M and 100M objects; each filled once in\n"
        "                      short_tracks_N_seed_S_layout_V and reused) and the growth of\n"
        "                      each shape's p99 from the smaller to the larger\n"
        "  --scale-tracks A,B  the track counts of --scale (default 1000000,5000000)\n"
        "  --scale-ready       exit 0 if the stores of --scale are filled, 1 if not\n");
}

bool parseOptions(int argc, char** argv, Options* options)
{
    bool tracksGiven = false, queriesGiven = false, ingestGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        try {
            if (arg == "--tracks") {
                const char* v = value();
                if (!v)
                    return false;
                options->tracks = std::stoll(v);
                tracksGiven = true;
            } else if (arg == "--dir") {
                const char* v = value();
                if (!v)
                    return false;
                options->dir = v;
            } else if (arg == "--queries") {
                const char* v = value();
                if (!v)
                    return false;
                options->queries = std::stoi(v);
                queriesGiven = true;
            } else if (arg == "--ingest-packets") {
                const char* v = value();
                if (!v)
                    return false;
                options->ingestPackets = std::stoll(v);
                ingestGiven = true;
            } else if (arg == "--seed") {
                const char* v = value();
                if (!v)
                    return false;
                options->seed = std::stoull(v);
            } else if (arg == "--fresh") {
                options->fresh = true;
            } else if (arg == "--quick") {
                options->quick = true;
            } else if (arg == "--no-ingest") {
                options->ingest = false;
            } else if (arg == "--new-tracks") {
                const char* v = value();
                if (!v)
                    return false;
                options->newTrackPackets = std::stoll(v);
            } else if (arg == "--new-tracks-only") {
                options->newTracksOnly = true;
            } else if (arg == "--scale") {
                options->scale = true;
            } else if (arg == "--scale-ready") {
                options->scaleReady = true;
            } else if (arg == "--scale-tracks") {
                const char* v = value();
                const auto counts = v ? parseTrackCounts(v) : std::nullopt;
                if (!counts)
                    return false;
                options->scaleTracks = *counts;
                options->scale = true;
            } else if (arg == "--print-store") {
                options->printStore = true;
            } else {
                return false;
            }
        } catch (const std::exception&) {
            return false;
        }
    }
    if (options->quick) {
        if (!tracksGiven)
            options->tracks = 20'000;
        if (!queriesGiven)
            options->queries = 50;
        if (!ingestGiven)
            options->ingestPackets = 30'000;
        options->newTrackPackets = std::min<std::int64_t>(options->newTrackPackets, 100'000);
    }
    if (options->tracks <= 0 || options->queries <= 0 || options->ingestPackets <= 0)
        return false;
    options->parent = options->dir;
    options->dir = benchDir(options->dir, options->tracks, options->seed);
    return true;
}

double secondsSince(steady_clock::time_point start)
{
    return duration<double>(steady_clock::now() - start).count();
}

// CPU time of all the process's threads: on a shared machine it tells work from waiting.
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

void measureIngest(const Options& options)
{
    const fs::path path = options.dir / "ingest";
    fs::remove_all(path);

    // Made beforehand so that generating does not take CPU from the writer while it is timed.
    auto packets = makeIngestPackets(options.seed, options.ingestPackets);

    auto storage = openStorage(path);
    if (!storage)
        return;
    const std::uint64_t storeBefore = directoryBytes(path);
    const std::uint64_t writtenBefore = processWrittenBytes();
    const double cpuStart = cpuSeconds();
    const auto start = steady_clock::now();
    for (auto& packet : packets)
        saveWhenReady(*storage, std::move(packet));
    storage->flush();
    const double seconds = secondsSince(start);
    const double cpu = cpuSeconds() - cpuStart;
    // What the writes of the ingest cost once they are where they stay: the tracks still open
    // written as if they had ended, the log folded in.
    storage->closeOpenTracks();
    storage.reset();
    checkpointSqliteFiles(path);
    const std::uint64_t written = processWrittenBytes() - writtenBefore;
    const std::uint64_t grown = directoryBytes(path) - storeBefore;
    fs::remove_all(path);

    const double packetsPerSecond = options.ingestPackets / seconds;
    const double amplification = grown > 0 ? static_cast<double>(written) / grown : 0;
    std::printf("\n== Ingest into a new store (packets of 5 objects, %d devices)\n",
                GeneratorOptions().deviceCount);
    std::printf("%lld packets saved and committed in %.2f s\n",
                static_cast<long long>(options.ingestPackets), seconds);
    std::printf("  %10.0f packets/s   %10.0f objects/s   goal >= %.0f packets/s   %s\n",
                packetsPerSecond, packetsPerSecond * 5, kIngestGoalPacketsPerSecond,
                packetsPerSecond >= kIngestGoalPacketsPerSecond ? "met" : "MISSED");
    std::printf("  process CPU %.2f s (%.1f us per packet, all threads), %.0f%% of the wall time\n",
                cpu, cpu * 1e6 / options.ingestPackets, 100 * cpu / seconds);
    std::printf(
        "  written %.1f MB (write-ahead log and checkpoints included) for %.1f MB of store: "
        "write amplification %.2f   goal <= %.0f   %s\n",
        written / 1e6, grown / 1e6, amplification, kWriteAmplificationGoal,
        amplification <= kWriteAmplificationGoal ? "met" : "MISSED");
    const std::string section = "storage: ingest into a new store";
    recordFigure(Figure::measured(section, "packets of 5 objects", packetsPerSecond, "packets/s")
                     .atLeast(kIngestGoalPacketsPerSecond));
    recordFigure(Figure::measured(section, "objects", packetsPerSecond * 5, "objects/s"));
    recordFigure(Figure::measured(section, "process CPU per object",
                                  cpu * 1e6 / options.ingestPackets / 5, "us"));
    recordFigure(Figure::measured(section,
                                  "write amplification: bytes written per byte the store grew",
                                  amplification, "x")
                     .atMost(kWriteAmplificationGoal)
                     .withNote("/proc/self/io write_bytes, log and checkpoints included"));
}

/**
 * Packets of one object each, of a track of its own, from 4 devices whose times go forward by
 * a millisecond a packet; each object has one attribute whose value 20 packets share (a word of
 * one request): the load where every packet opens a track and the full-text index gets new
 * words all the time.
 */
std::vector<std::shared_ptr<const ObjectMetadataPacket>> makeNewTrackPackets(std::uint64_t seed,
                                                                             std::int64_t count)
{
    std::mt19937_64 random(seed + 7);
    std::vector<ZuUuid> devices;
    for (int d = 0; d < 4; ++d)
        devices.push_back(ZuUuid::createUuid());
    std::vector<std::shared_ptr<const ObjectMetadataPacket>> packets;
    packets.reserve(count);
    std::string word;
    for (std::int64_t i = 0; i < count; ++i) {
        if (i % 20 == 0) {
            char text[32];
            std::snprintf(text, sizeof(text), "lot%016llx",
                          static_cast<unsigned long long>(random()));
            word = text;
        }
        auto packet = std::make_shared<ObjectMetadataPacket>();
        packet->deviceId = devices[i % devices.size()];
        packet->timestampUs = 1'767'225'600'000'000 + (i / 4) * 1000;
        packet->durationUs = 1000;
        packet->streamIndex = kest::common::metadata::StreamIndex::primary;
        packet->objectMetadataList.push_back({ZuUuid::createUuid(),
                                              "car",
                                              kest::common::metadata::ObjectMetadataType::regular,
                                              kest::common::metadata::Rect{0.1, 0.2, 0.3, 0.4},
                                              {{"batch", word}},
                                              devices[0]});
        packets.push_back(std::move(packet));
    }
    return packets;
}

void measureNewTracks(const Options& options)
{
    const fs::path path = options.dir / "new_tracks";
    fs::remove_all(path);
    auto packets = makeNewTrackPackets(options.seed, options.newTrackPackets);
    auto storage = openStorage(path);
    if (!storage)
        return;
    // The first fifth fills the store's structures; the rest is timed.
    const std::size_t warmUp = packets.size() / 5;
    for (std::size_t i = 0; i < warmUp; ++i)
        saveWhenReady(*storage, std::move(packets[i]));
    storage->flush();
    const auto start = steady_clock::now();
    for (std::size_t i = warmUp; i < packets.size(); ++i)
        saveWhenReady(*storage, std::move(packets[i]));
    storage->flush();
    const double seconds = secondsSince(start);
    storage.reset();
    fs::remove_all(path);

    const double rate = (packets.size() - warmUp) / seconds;
    std::printf("\n== Ingest of new tracks: a track of its own in each packet, with a rare word\n");
    std::printf("  %zu packets after %zu: %.0f new tracks/s   goal >= %.0f   %s\n",
                packets.size() - warmUp, warmUp, rate, kNewTracksGoalPerSecond,
                rate >= kNewTracksGoalPerSecond ? "met" : "MISSED");
    recordFigure(Figure::measured("storage: ingest into a new store",
                                  "new tracks, one per packet, each with a rare word", rate,
                                  "tracks/s")
                     .atLeast(kNewTracksGoalPerSecond)
                     .withNote("4 devices, 20 packets share a word"));
}

struct LookupResult
{
    ResultCode code = ResultCode::error;
    std::size_t tracks = 0;
    std::size_t positions = 0;
};

LookupResult lookup(EventsStorage& storage, Filter filter)
{
    std::promise<LookupResult> done;
    auto future = done.get_future();
    storage.lookup(std::move(filter),
                   [&done](ResultCode code, std::vector<ObjectTrackEx> tracks) mutable {
                       LookupResult result{code, tracks.size(), 0};
                       for (const auto& track : tracks)
                           result.positions += track.objectPositionSequence.size();
                       done.set_value(result);
                   });
    return future.get();
}

/**
 * Times every shape and returns the p99 of each, by name. Before a shape is timed, other searches
 * of it (another seed's, kWarmUpQueries) run untimed: the store is searched with what such
 * searches read in the file cache and the workers' connections, as one that has served a while,
 * and not just after another program pushed its pages out.
 */
std::map<std::string, double> measureLookups(EventsStorage& storage, std::uint64_t seed,
                                             int queries, const StoreInfo& info,
                                             const std::string& section,
                                             const std::map<std::string, double>& previous)
{
    const std::vector<QueryKind> kinds = makeQueries(seed, queries, info);
    const std::vector<QueryKind> warmUp = makeWarmUpQueries(seed, queries, info);
    std::map<std::string, double> p99s;
    std::printf("\n== Lookups, one at a time (milliseconds, from the call to its completion)\n");
    std::printf("%-36s %8s %8s %8s %10s %10s %8s\n", "", "p50", "p99", "max", "goal p99",
                "mean hits", "");
    for (std::size_t k = 0; k < kinds.size(); ++k) {
        const QueryKind& kind = kinds[k];
        if (kind.filters.empty())
            continue;
        for (const auto& filter : warmUp[k].filters)
            lookup(storage, filter);

        LatencyStats stats;
        std::size_t hits = 0, positions = 0, failures = 0, misses = 0;
        // The words behind the slowest text searches say which kind of word the index misjudges.
        std::vector<std::pair<double, std::string>> slowestWords;
        for (const auto& filter : kind.filters) {
            const auto start = steady_clock::now();
            const LookupResult result = lookup(storage, filter);
            const nanoseconds elapsed = steady_clock::now() - start;
            stats.add(elapsed);
            if (!filter.freeText.empty())
                slowestWords.emplace_back(toMs(elapsed), filter.freeText);
            if (result.code != ResultCode::ok)
                ++failures;
            if (result.tracks == 0)
                ++misses;
            hits += result.tracks;
            positions += result.positions;
        }
        const double p99 = toMs(stats.percentile(99));
        p99s[kind.name] = p99;
        std::printf("%-36s %8.2f %8.2f %8.2f %7.0f ms %10.1f %8s\n", kind.name.c_str(),
                    toMs(stats.percentile(50)), p99, toMs(stats.percentile(100)), kind.goalMs,
                    static_cast<double>(hits) / kind.filters.size(),
                    p99 <= kind.goalMs ? "met" : "MISSED");
        recordFigure(
            Figure::measured(section, kind.name + ", p50", toMs(stats.percentile(50)), "ms"));
        recordFigure(Figure::measured(section, kind.name + ", p99", p99, "ms").atMost(kind.goalMs));
        if (const auto before = previous.find(kind.name); before != previous.end()) {
            std::printf("%-36s p99 %.2f ms with the previous layout: %.2f of it\n", "",
                        before->second, p99 / before->second);
            recordFigure(Figure::measured(section, kind.name + ", p99 / previous layout's",
                                          p99 / before->second, "x")
                             .atMost(1)
                             .withNote("previous: " + std::to_string(before->second) + " ms"));
        }
        if (!slowestWords.empty()) {
            const auto count = std::min<std::size_t>(5, slowestWords.size());
            std::partial_sort(slowestWords.begin(), slowestWords.begin() + count,
                              slowestWords.end(), std::greater<>());
            std::printf("%-36s slowest:", "");
            for (std::size_t i = 0; i < count; ++i)
                std::printf(" \"%s\" %.1f ms%s", slowestWords[i].second.c_str(),
                            slowestWords[i].first, i + 1 < count ? "," : "\n");
        }
        if (positions > 0) {
            std::printf("%-36s %.1f positions per query\n", "",
                        static_cast<double>(positions) / kind.filters.size());
        }
        if (failures > 0 || (kind.expectHit && misses > 0) || misses == kind.filters.size()) {
            std::printf("%-36s note: %zu of %zu queries failed, %zu found nothing\n", "", failures,
                        kind.filters.size(), misses);
        }
        std::fflush(stdout);
    }
    return p99s;
}

/** The p99 of each shape on the store of the layout before, kept beside this file. */
std::map<std::string, double> previousLayoutP99()
{
    std::map<std::string, double> p99;
    std::ifstream in(std::string(KEST_BENCH_SOURCE_DIR) + "/previous_layout_p99.tsv");
    std::string line;
    while (std::getline(in, line)) {
        const auto tab = line.find('\t');
        if (line.empty() || line[0] == '#' || tab == std::string::npos)
            continue;
        p99[line.substr(0, tab)] = std::stod(line.substr(tab + 1));
    }
    return p99;
}

void measureDisk(const fs::path& storePath, const StoreInfo& info, const std::string& section)
{
    checkpointSqliteFiles(storePath);  // As a quiet store would be.
    std::uintmax_t bytes = 0;
    std::printf("\n== Size on disk (write-ahead log checkpointed)\n");
    for (const auto& entry : fs::recursive_directory_iterator(storePath)) {
        if (!entry.is_regular_file())
            continue;
        bytes += entry.file_size();
        std::printf("  %-40s %12.1f MB\n", fs::relative(entry.path(), storePath).c_str(),
                    entry.file_size() / 1e6);
    }
    const double perObject = static_cast<double>(bytes) / info.objectCount;
    std::printf("total %.1f MB: %.0f bytes per track, %.1f bytes per object   goal <= %.0f   %s\n",
                bytes / 1e6, static_cast<double>(bytes) / info.trackCount, perObject,
                kBytesPerObjectGoal, perObject <= kBytesPerObjectGoal ? "met" : "MISSED");
    std::printf("\n%-32s %10s %14s %14s %14s\n", "table or index (dbstat)", "pages", "bytes/object",
                "payload/obj", "unused/obj");
    const auto file = storePath / kest::analytics::db::EventsStorage::kFileName;
    for (const auto& table : sqliteTableBytes(file)) {
        const double objects = static_cast<double>(info.objectCount);
        std::printf("%-32s %10llu %14.2f %14.2f %14.2f\n", table.name.c_str(),
                    static_cast<unsigned long long>(table.pages), table.bytes / objects,
                    table.payload / objects, table.unused / objects);
        recordFigure(Figure::measured(section, "bytes per object: " + table.name,
                                      table.bytes / objects, "B"));
    }
    recordFigure(Figure::measured(section, "bytes per track",
                                  static_cast<double>(bytes) / info.trackCount, "B"));
    recordFigure(
        Figure::measured(section, "bytes per object", perObject, "B").atMost(kBytesPerObjectGoal));
}

std::string sectionOf(const std::string& what, const StoreInfo& info)
{
    return "storage: searches on " + std::to_string(info.trackCount) + what + " (" +
           std::to_string(info.objectCount) + " objects, " +
           std::to_string(static_cast<int>((info.lastTimeUs - info.firstTimeUs) / 3.6e9 + 0.5)) +
           " h)";
}

/**
 * The same shapes on short-track stores of growing size: how each shape's p99 grows with the
 * store. Short tracks (about 20 objects each) at every size, so that only the size changes.
 */
bool measureScale(const Options& options)
{
    std::vector<std::pair<StoreInfo, std::map<std::string, double>>> sizes;
    for (const std::int64_t tracks : options.scaleTracks) {
        const fs::path dir = shortTrackBenchDir(options.parent, tracks, options.seed);
        StoreInfo info;
        bool reused = false;
        if (!prepareSearchedStore(dir, shortTrackOptions(options.seed, tracks), options.fresh,
                                  &info, &reused)) {
            return false;
        }
        printStore(info, reused);
        auto storage = openStorage(searchedStorePath(dir));
        if (!storage || info.samples.empty())
            return false;
        auto p99s = measureLookups(*storage, options.seed, options.queries, info,
                                   sectionOf(" short tracks", info), {});
        storage.reset();
        checkpointSqliteFiles(searchedStorePath(dir));
        std::printf("  store: %.1f GB in %s\n", directoryBytes(searchedStorePath(dir)) / 1e9,
                    dir.c_str());
        sizes.emplace_back(std::move(info), std::move(p99s));
    }
    const auto& [small, smallP99] = sizes.front();
    const auto& [large, largeP99] = sizes.back();
    const std::string section = "storage: scale, short tracks " + std::to_string(small.trackCount) +
                                " -> " + std::to_string(large.trackCount) + " (" +
                                std::to_string(small.objectCount) + " -> " +
                                std::to_string(large.objectCount) + " objects)";
    std::printf("\n== Growth of p99 from %lld to %lld short tracks\n",
                static_cast<long long>(small.trackCount), static_cast<long long>(large.trackCount));
    for (const auto& figure : growthFigures(section, smallP99, largeP99)) {
        std::printf("  %-52s %s: %.2fx  %s\n", figure.name.c_str(), figure.note.c_str(),
                    *figure.value, figure.met() == true ? "met" : "MISSED");
        recordFigure(figure);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        printUsage();
        return 2;
    }
    if (options.scaleReady) {
        for (const std::int64_t tracks : options.scaleTracks) {
            if (!isSearchedStoreReady(shortTrackBenchDir(options.parent, tracks, options.seed),
                                      shortTrackOptions(options.seed, tracks)))
                return 1;
        }
        return 0;
    }
    if (options.printStore) {
        std::printf("%s\n", searchedStorePath(options.dir).c_str());
        return 0;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);
    std::printf("analytics_db_bench: stores in %s\n", options.dir.c_str());
    std::printf(
        "goals: ingest >= %.0f packets/s of 5 objects, write amplification <= %.0f, new tracks "
        ">= %.0f/s; lookup p99 <= %.0f ms, free text p99 <= %.0f ms, at 1M tracks and no worse "
        "than the previous layout's; <= %.0f bytes per object\n",
        kIngestGoalPacketsPerSecond, kWriteAmplificationGoal, kNewTracksGoalPerSecond,
        kLookupGoalMs, kFreeTextGoalMs, kBytesPerObjectGoal);
    if (options.scale)
        return measureScale(options) ? 0 : 1;
    fs::create_directories(options.dir);

    if (options.newTracksOnly) {
        measureNewTracks(options);
        return 0;
    }
    if (options.ingest) {
        measureIngest(options);
        measureNewTracks(options);
    }

    const fs::path storePath = searchedStorePath(options.dir);
    StoreInfo info;
    bool reuse = false;
    if (!prepareSearchedStore(options.dir, options.tracks, options.seed, options.fresh, &info,
                              &reuse)) {
        return 1;
    }
    printStore(info, reuse);
    if (info.samples.empty() || info.deviceIds.empty()) {
        std::printf("the store holds no tracks to search for\n");
        return 1;
    }

    auto storage = openStorage(storePath);
    if (!storage)
        return 1;
    const std::string section = sectionOf(" tracks", info);
    measureLookups(
        *storage, options.seed, options.queries, info, section,
        options.tracks == kComparedTracks ? previousLayoutP99() : std::map<std::string, double>());
    storage.reset();

    measureDisk(storePath, info, section);
    return 0;
}
