// Where the time of each search shape goes, on the storage benchmark's store: the hand-off to a
// lookup worker (the storage's lookup against the same search run on the calling thread), the
// SQLite statements, the decoding of track rows, the row by row text test, the answers (positions
// included) and the JSON text of the answer. See README.md beside this file.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <numeric>
#include <string>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/track_reader.h>
#include <kest/reflect/json.h>
#include <kest/utils/log/logger.h>

#include "../analytics_db/searched_store.h"
#include "../analytics_db/store_generator.h"
#include "command_line.h"
#include "latency_stats.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace kest::bench;
using kest::analytics::db::EventsStorage;
using kest::analytics::db::Filter;
using kest::analytics::db::ObjectTrackEx;
using kest::analytics::db::ResultCode;
using kest::analytics::db::TrackReader;

namespace {

struct Options
{
    std::int64_t tracks = 1'000'000;
    std::int64_t seed = 1;
    fs::path dir = "/tmp/analytics_db_bench";
    int queries = 300;
    std::string shape;
    int repeat = 1;
    bool shortTracks = false;
    int slowest = 0;
    std::string text;
};

double toUs(nanoseconds d)
{
    return duration<double, std::micro>(d).count();
}

std::vector<ObjectTrackEx> lookupThroughStorage(EventsStorage& storage, const Filter& filter)
{
    std::promise<std::vector<ObjectTrackEx>> done;
    auto future = done.get_future();
    storage.lookup(filter, [&done](ResultCode, std::vector<ObjectTrackEx> tracks) {
        done.set_value(std::move(tracks));
    });
    return future.get();
}

struct ShapeFigures
{
    LatencyStats storage;
    LatencyStats direct;
    LatencyStats json;
    TrackReader::Profile profile;
    std::size_t jsonBytes = 0;
    std::size_t answers = 0;
    /** The calling thread's time of each search of the first round, by its index. */
    std::vector<nanoseconds> directTimes;
};

ShapeFigures measure(EventsStorage& storage, TrackReader& reader, const QueryKind& kind, int repeat)
{
    ShapeFigures f;
    // A few first, so that no figure includes the preparing of statements.
    for (std::size_t i = 0; i < std::min<std::size_t>(5, kind.filters.size()); ++i) {
        std::vector<ObjectTrackEx> tracks;
        reader.lookup(kind.filters[i], &tracks);
        lookupThroughStorage(storage, kind.filters[i]);
    }
    for (int round = 0; round < repeat; ++round) {
        for (std::size_t i = 0; i < kind.filters.size(); ++i) {
            const Filter& filter = kind.filters[i];
            // Whichever runs first reads the pages that the other then finds in memory: the two
            // take turns at going first.
            const auto throughStorage = [&] {
                const auto start = steady_clock::now();
                lookupThroughStorage(storage, filter);
                f.storage.add(steady_clock::now() - start);
            };
            if (i % 2 == 0)
                throughStorage();
            std::vector<ObjectTrackEx> tracks;
            auto start = steady_clock::now();
            reader.lookup(filter, &tracks);
            f.direct.add(steady_clock::now() - start);
            if (round == 0)
                f.directTimes.push_back(steady_clock::now() - start);
            if (i % 2 == 1)
                throughStorage();

            start = steady_clock::now();
            const std::string text = kest::reflect::json::serialize(tracks);
            f.json.add(steady_clock::now() - start);
            f.jsonBytes += text.size();
            ++f.answers;
        }
    }
    // The split, in a pass of its own: its clock reads cost a little per row.
    reader.setProfile(&f.profile);
    for (const Filter& filter : kind.filters) {
        std::vector<ObjectTrackEx> tracks;
        reader.lookup(filter, &tracks);
    }
    reader.setProfile(nullptr);
    return f;
}

void print(const QueryKind& kind, const ShapeFigures& f)
{
    const TrackReader::Profile& p = f.profile;
    const auto mean = [&p](nanoseconds d) {
        return p.searches ? toUs(d) / static_cast<double>(p.searches) : 0.0;
    };
    std::printf("%s\n", kind.name.c_str());
    std::printf(
        "  p50/p99 us: storage %.0f / %.0f, on the calling thread %.0f / %.0f, "
        "JSON %.0f / %.0f (%.0f bytes)\n",
        toUs(f.storage.percentile(50)), toUs(f.storage.percentile(99)),
        toUs(f.direct.percentile(50)), toUs(f.direct.percentile(99)), toUs(f.json.percentile(50)),
        toUs(f.json.percentile(99)),
        f.answers ? static_cast<double>(f.jsonBytes) / f.answers : 0.0);
    std::printf("  hand-off at p50: %.0f us\n",
                toUs(f.storage.percentile(50)) - toUs(f.direct.percentile(50)));
    std::printf(
        "  mean us per search: statements %.0f, row decoding %.0f (%.0f rows), "
        "text matcher %.0f (%.0f rows), open tracks %.0f, answers %.0f; whole %.0f\n",
        mean(p.statements()), mean(p.decoding),
        p.searches ? static_cast<double>(p.rowsDecoded) / p.searches : 0.0, mean(p.matcher),
        p.searches ? static_cast<double>(p.rowsMatched) / p.searches : 0.0, mean(p.openTracks),
        mean(p.answers), mean(p.total));
    std::fflush(stdout);
}

std::string describe(const Filter& filter)
{
    std::string text = "\"" + filter.freeText + "\"";
    if (!filter.deviceIds.empty())
        text += ", " + std::to_string(filter.deviceIds.size()) + " device(s)";
    if (!filter.timePeriod.isInfinite())
        text += ", " + std::to_string(filter.timePeriod.durationMs / 60'000) + " min";
    else if (filter.timePeriod.startTimeMs > 0)
        text += ", from a time on";
    if (filter.boundingBox)
        text += ", a box";
    if (filter.sortOrder == kest::analytics::db::SortOrder::asc)
        text += ", oldest first";
    return text;
}

/** The `count` slowest searches of the first round, each profiled as it runs once more. */
void printSlowest(TrackReader& reader, const QueryKind& kind, const ShapeFigures& f, int count)
{
    std::vector<std::size_t> order(f.directTimes.size());
    std::iota(order.begin(), order.end(), 0);
    const std::size_t n = std::min<std::size_t>(count, order.size());
    std::partial_sort(
        order.begin(), order.begin() + n, order.end(),
        [&](std::size_t a, std::size_t b) { return f.directTimes[a] > f.directTimes[b]; });
    for (std::size_t k = 0; k < n; ++k) {
        const Filter& filter = kind.filters[order[k]];
        TrackReader::Profile p;
        reader.setProfile(&p);
        std::vector<ObjectTrackEx> tracks;
        reader.lookup(filter, &tracks);
        reader.setProfile(nullptr);
        std::printf(
            "  slow: %.0f us, again %.0f us (statements %.0f, %lld rows decoded, %lld tested), "
            "%zu answers: %s\n",
            toUs(f.directTimes[order[k]]), toUs(p.total), toUs(p.statements()),
            static_cast<long long>(p.rowsDecoded), static_cast<long long>(p.rowsMatched),
            tracks.size(), describe(filter).c_str());
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CommandLine commandLine("search_profile_bench [OPTIONS]: where each search shape's time goes");
    commandLine.option("--tracks", &options.tracks, "tracks in the searched store", 1)
        .option("--seed", &options.seed, "seed of the store", 0)
        .option("--dir", &options.dir, "where the storage benchmark keeps its stores")
        .option("--queries", &options.queries, "searches of each shape", 1)
        .option("--shape", &options.shape, "only the shapes whose name contains this")
        .option("--repeat", &options.repeat, "rounds of the timed searches (for perf)", 1)
        .flag("--short-tracks", &options.shortTracks,
              "the short-track store of analytics_db_bench --scale instead, never filled here")
        .option("--slowest", &options.slowest,
                "print this many slowest searches of each shape, each profiled once more", 0)
        .option("--text", &options.text, "only the searches of this free text (with --repeat)");
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);

    StoreInfo info;
    bool reused = false;
    const fs::path dir = options.shortTracks
                             ? shortTrackBenchDir(options.dir, options.tracks, options.seed)
                             : benchDir(options.dir, options.tracks, options.seed);
    if (options.shortTracks) {
        // Filling one takes up to half an hour: that is analytics_db_bench --scale's to do.
        if (!isSearchedStoreReady(dir, shortTrackOptions(options.seed, options.tracks), &info)) {
            std::printf("no complete short-track store in %s\n", dir.c_str());
            return 1;
        }
        reused = true;
    } else if (!prepareSearchedStore(dir, options.tracks, options.seed, /*fresh*/ false, &info,
                                     &reused)) {
        std::printf("cannot prepare the searched store in %s\n", dir.c_str());
        return 1;
    }
    printStore(info, reused);
    auto storage = openStorage(searchedStorePath(dir));
    if (!storage)
        return 1;
    TrackReader reader;
    const std::string file = (searchedStorePath(dir) / EventsStorage::kFileName).string();
    if (reader.open(file, {}) != kest::sql::DBResult::ok) {
        std::printf("cannot open %s\n", file.c_str());
        return 1;
    }
    for (QueryKind kind : makeQueries(options.seed, options.queries, info)) {
        if (!options.text.empty()) {
            std::erase_if(kind.filters,
                          [&](const Filter& filter) { return filter.freeText != options.text; });
        }
        if (kind.filters.empty() || kind.name.find(options.shape) == std::string::npos)
            continue;
        const ShapeFigures figures = measure(*storage, reader, kind, options.repeat);
        print(kind, figures);
        printSlowest(reader, kind, figures, options.slowest);
    }
    return 0;
}
