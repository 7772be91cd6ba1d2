#include "searched_store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <random>
#include <thread>

#include <kest/analytics_db/storage_schema.h>

namespace kest::bench {

namespace fs = std::filesystem;
using namespace std::chrono;
using analytics::db::EventsStorage;
using analytics::db::Filter;
using common::metadata::ObjectMetadataPacket;
using common::metadata::Rect;

namespace {

constexpr int kLookupLimit = 100;

double secondsSince(steady_clock::time_point start)
{
    return duration<double>(steady_clock::now() - start).count();
}

bool isPlate(const common::metadata::Attribute& attribute)
{
    return attribute.name == "License Plate.Number";
}

bool fillStore(const fs::path& storePath, const GeneratorOptions& data, StoreInfo* info)
{
    fs::remove_all(storePath);
    auto storage = openStorage(storePath);
    if (!storage)
        return false;

    const std::int64_t tracks = data.trackCount;
    StoreGenerator generator(data);
    std::printf("\n== Filling a store of %lld tracks in %s\n", static_cast<long long>(tracks),
                storePath.c_str());
    const auto start = steady_clock::now();
    auto lastReport = start;
    while (auto packet = generator.next()) {
        saveWhenReady(*storage, std::move(packet));
        if (steady_clock::now() - lastReport >= seconds(10)) {
            lastReport = steady_clock::now();
            const double elapsed = secondsSince(start);
            std::printf("  %6.0f s: %lld packets, %lld tracks started (%.1f%%), %.0f packets/s\n",
                        elapsed, static_cast<long long>(generator.packetsMade()),
                        static_cast<long long>(generator.tracksStarted()),
                        100.0 * generator.tracksStarted() / tracks,
                        generator.packetsMade() / elapsed);
            std::fflush(stdout);
        }
    }
    // The tracks still open at the end are written as if they had ended, so that the store is
    // all rows.
    storage->closeOpenTracks();
    const double elapsed = secondsSince(start);

    info->trackCount = tracks;
    info->seed = data.seed;
    info->packetCount = generator.packetsMade();
    info->objectCount = generator.objectsMade();
    info->firstTimeUs = generator.firstTimeUs();
    info->lastTimeUs = generator.lastTimeUs();
    info->fillSeconds = elapsed;
    info->deviceIds = generator.deviceIds();
    info->samples = generator.samples();
    return true;
}

}  // namespace

std::unique_ptr<EventsStorage> openStorage(const fs::path& path)
{
    fs::create_directories(path);
    auto storage = std::make_unique<EventsStorage>();
    analytics::db::Settings settings;
    settings.path = QString::fromStdString(path.string());
    if (!storage->initialize(settings)) {
        std::printf("cannot open the events storage in %s\n", path.c_str());
        return nullptr;
    }
    return storage;
}

void saveWhenReady(EventsStorage& storage, std::shared_ptr<const ObjectMetadataPacket> packet)
{
    while (!storage.isReady())
        std::this_thread::sleep_for(microseconds(200));
    storage.save(std::move(packet));
}

fs::path searchedStorePath(const fs::path& dir)
{
    return dir / "store";
}

namespace {

/**
 * The store of these tracks for the current layout. A store of an earlier one is taken over when
 * there is none yet: the storage upgrades it in place when it opens it (new indexes take seconds;
 * filling the 5M-track store again would take half an hour).
 */
fs::path storeDir(fs::path parent, const char* prefix, std::int64_t tracks, std::uint64_t seed)
{
    if (parent.empty())
        parent = fs::temp_directory_path() / "analytics_db_bench";
    const auto dirOf = [&](int layout) {
        return parent / (prefix + std::to_string(tracks) + "_seed_" + std::to_string(seed) +
                         "_layout_" + std::to_string(layout));
    };
    const fs::path dir = dirOf(analytics::db::kSchemaVersion);
    std::error_code error;
    if (fs::exists(dir, error))
        return dir;
    for (int layout = analytics::db::kSchemaVersion - 1; layout > 0; --layout) {
        if (!fs::exists(dirOf(layout), error))
            continue;
        fs::rename(dirOf(layout), dir, error);
        if (!error)
            std::fprintf(stderr, "taking over %s (layout %d): upgraded when opened\n",
                         dirOf(layout).c_str(), layout);
        break;
    }
    return dir;
}

}  // namespace

fs::path benchDir(fs::path parent, std::int64_t tracks, std::uint64_t seed)
{
    return storeDir(std::move(parent), "tracks_", tracks, seed);
}

fs::path shortTrackBenchDir(fs::path parent, std::int64_t tracks, std::uint64_t seed)
{
    return storeDir(std::move(parent), "short_tracks_", tracks, seed);
}

bool prepareSearchedStore(const fs::path& dir, std::int64_t tracks, std::uint64_t seed, bool fresh,
                          StoreInfo* info, bool* reused)
{
    GeneratorOptions data;
    data.seed = seed;
    data.trackCount = tracks;
    return prepareSearchedStore(dir, data, fresh, info, reused);
}

bool isSearchedStoreReady(const fs::path& dir, const GeneratorOptions& data, StoreInfo* info)
{
    StoreInfo read;
    if (!info)
        info = &read;
    return info->load(dir / "bench_store.info") && info->trackCount == data.trackCount &&
           info->seed == data.seed && fs::exists(searchedStorePath(dir));
}

bool prepareSearchedStore(const fs::path& dir, const GeneratorOptions& data, bool fresh,
                          StoreInfo* info, bool* reused)
{
    const fs::path storePath = searchedStorePath(dir);
    const fs::path infoPath = dir / "bench_store.info";
    *reused = !fresh && isSearchedStoreReady(dir, data, info);
    if (*reused)
        return true;
    // An interrupted fill leaves no info file, so that it is redone.
    fs::remove(infoPath);
    if (!fillStore(storePath, data, info))
        return false;
    return info->save(infoPath);
}

void printStore(const StoreInfo& info, bool reused)
{
    std::printf("\n== Store: %lld tracks, %lld packets, %lld objects, %zu devices, %.1f hours\n",
                static_cast<long long>(info.trackCount), static_cast<long long>(info.packetCount),
                static_cast<long long>(info.objectCount), info.deviceIds.size(),
                (info.lastTimeUs - info.firstTimeUs) / 3.6e9);
    std::printf("%s in %.0f s: %.0f packets/s, %.0f objects/s (mixed 1-10 objects per packet)\n",
                reused ? "filled earlier" : "filled", info.fillSeconds,
                info.packetCount / info.fillSeconds, info.objectCount / info.fillSeconds);
}

std::vector<QueryKind> makeQueries(std::uint64_t seed, int queries, const StoreInfo& info)
{
    std::mt19937_64 random(seed + 100);
    const auto uniform = [&](std::int64_t min, std::int64_t max) {
        return std::uniform_int_distribution<std::int64_t>(min, max)(random);
    };
    const auto pickSample = [&]() -> const TrackSample& {
        return info.samples[uniform(0, static_cast<std::int64_t>(info.samples.size()) - 1)];
    };

    QueryKind window{.name = "device + time window, limit 100"};
    QueryKind word{.name = "free text: common word, limit 100", .goalMs = kFreeTextGoalMs};
    QueryKind plate{.name = "free text: plate number, limit 100", .goalMs = kFreeTextGoalMs};
    // The same words in shapes that walk the text matches otherwise: oldest first, and within
    // one device and an hour around a track that has the word.
    QueryKind oldestWord{.name = "free text: common word, oldest first", .goalMs = kFreeTextGoalMs};
    QueryKind scopedWord{.name = "free text: common word, device + 1 h", .goalMs = kFreeTextGoalMs};
    QueryKind deviceWord{.name = "free text: common word, one device", .goalMs = kFreeTextGoalMs};
    QueryKind box{.name = "device + bounding box, limit 100"};
    QueryKind track{.name = "track id", .expectHit = true};
    QueryKind fullTrack{.name = "track id, full track", .expectHit = true};

    std::vector<const TrackSample*> plated;
    for (const auto& sample : info.samples) {
        if (std::any_of(sample.attributes.begin(), sample.attributes.end(), isPlate))
            plated.push_back(&sample);
    }

    const std::int64_t spanMs = (info.lastTimeUs - info.firstTimeUs) / 1000;
    const std::int64_t windowsMs[] = {10 * 60'000, 60 * 60'000, 6 * 60 * 60'000};
    for (int i = 0; i < queries; ++i) {
        Filter filter;
        filter.maxObjectTracksToSelect = kLookupLimit;
        filter.deviceIds = {info.deviceIds[uniform(0, info.deviceIds.size() - 1)]};
        const std::int64_t lengthMs = std::min(windowsMs[i % 3], spanMs);
        filter.timePeriod =
            ZuTimePeriod(info.firstTimeUs / 1000 + uniform(0, spanMs - lengthMs), lengthMs);
        window.filters.push_back(filter);

        const TrackSample& sample = pickSample();
        filter = Filter();
        filter.maxObjectTracksToSelect = kLookupLimit;
        std::vector<std::string> words;
        for (const auto& attribute : sample.attributes) {
            if (!isPlate(attribute))
                words.push_back(attribute.value);
        }
        filter.freeText = words.empty() ? sample.typeId : words[uniform(0, words.size() - 1)];
        word.filters.push_back(filter);
        filter.sortOrder = analytics::db::SortOrder::asc;
        oldestWord.filters.push_back(filter);
        filter.sortOrder = analytics::db::SortOrder::desc;
        filter.deviceIds = {sample.deviceId};
        filter.timePeriod =
            ZuTimePeriod(sample.firstAppearanceUs / 1000 - 30 * 60'000, 60 * 60'000);
        scopedWord.filters.push_back(filter);
        filter.timePeriod = Filter().timePeriod;
        deviceWord.filters.push_back(filter);
        filter.deviceIds.clear();
        filter.timePeriod = Filter().timePeriod;

        if (!plated.empty()) {
            const TrackSample& owner = *plated[uniform(0, plated.size() - 1)];
            filter.freeText =
                std::find_if(owner.attributes.begin(), owner.attributes.end(), isPlate)->value;
            plate.filters.push_back(filter);
        }

        // A region of interest around where a known object appeared.
        filter = Filter();
        filter.maxObjectTracksToSelect = kLookupLimit;
        filter.deviceIds = {sample.deviceId};
        const double centerX = sample.firstBox.x + sample.firstBox.width / 2;
        const double centerY = sample.firstBox.y + sample.firstBox.height / 2;
        filter.boundingBox = Rect{std::clamp(centerX - 0.1, 0.0, 0.8),
                                  std::clamp(centerY - 0.1, 0.0, 0.8), 0.2, 0.2};
        box.filters.push_back(filter);

        filter = Filter();
        filter.objectTrackId = pickSample().id;
        track.filters.push_back(filter);
        filter.objectTrackId = pickSample().id;
        filter.needFullTrack = true;
        fullTrack.filters.push_back(filter);
    }
    return {window, word, oldestWord, scopedWord, deviceWord, plate, box, track, fullTrack};
}

std::vector<QueryKind> makeWarmUpQueries(std::uint64_t seed, int queries, const StoreInfo& info)
{
    return makeQueries(seed + 1, std::min(queries, kWarmUpQueries), info);
}

std::vector<std::shared_ptr<const ObjectMetadataPacket>> makeIngestPackets(std::uint64_t seed,
                                                                           std::int64_t count)
{
    GeneratorOptions options;
    options.seed = seed + 1;
    options.trackCount = std::numeric_limits<std::int64_t>::max();
    options.minObjectsPerPacket = options.maxObjectsPerPacket = 5;
    options.quietPeriods = false;
    StoreGenerator generator(options, 0);
    std::vector<std::shared_ptr<const ObjectMetadataPacket>> packets;
    packets.reserve(count);
    for (std::int64_t i = 0; i < count; ++i)
        packets.push_back(generator.next());
    return packets;
}

}  // namespace kest::bench
