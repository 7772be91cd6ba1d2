// Distributed search latency over three local instances, next to the same search as an internal
// lookup on one instance that holds all of their data. The instances are metadata_storage
// processes sharing one MongoDB (bench/common/with_standin starts a stand-in); the searches go
// through the client library, one at a time. See README.md.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/cluster_settings.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/testing/packets.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/cloud/storage/testing/scripted_distribution.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/utils/log/logger.h>

#include "command_line.h"
#include "figure.h"
#include "latency_stats.h"

namespace {

using namespace std::chrono_literals;
using namespace kest::cloud::storage::metadatadb;
using kest::analytics::db::ObjectTrackEx;
using kest::bench::Figure;
using kest::bench::LatencyStats;
using kest::common::metadata::ObjectMetadataPacket;
using kest::network::http::StatusCode;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kInstances = 3;
constexpr int kWarmUpSearches = 100;
constexpr std::int64_t kStartMs = 1'767'225'600'000;
constexpr std::size_t kPacketsPerRequest = 1'000;

struct Options
{
    std::string mongoUri;
    std::string service = KEST_METADATA_STORAGE_PATH;
    int devicesPerInstance = 20;
    int packetsPerDevice = 200;  //< One a second, each with a track of its own.
    int searches = 2'000;
    int windowSeconds = 10;
    int freshDevices = 100;
    int activities = 500;
};

/** A metadata_storage process; stopped with SIGTERM when destroyed. */
class Instance
{
public:
    Instance(const Options& options, const fs::path& dir, bool clustered)
    {
        fs::create_directories(dir);
        const std::uint16_t port = test::freeLoopbackPort();
        url = "http://127.0.0.1:" + std::to_string(port);
        std::vector<std::string> args{"--http/listenOn=127.0.0.1:" + std::to_string(port),
                                      "--dataDir=" + dir.string(), "--log/level=warning",
                                      "--log/file=" + (dir / "log").string(),
                                      "--MongoDb/uri=" + options.mongoUri};
        if (clustered)
            args.push_back("--cluster/advertisedUrl=" + url);
        m_process = std::make_unique<test::ServiceProcess>(options.service, std::move(args));
        client = api::ClientFactory::instance().create(kest::utils::Url(url));
    }
    ~Instance()
    {
        client.reset();
        // A stopping instance saves its last data addresses; a slow database must not hold the run.
        m_process->terminate(10s);
    }

    bool waitUntilServing()
    {
        DataRequestData probe;
        probe.internal_lookup = true;
        probe.filter.maxObjectTracksToSelect = 1;
        return test::waitFor(
            [&] { return std::get<0>(client->getDataSync(probe)) == StatusCode::ok; });
    }

    std::string url;
    std::unique_ptr<api::AbstractClient> client;

private:
    std::unique_ptr<test::ServiceProcess> m_process;
};

std::set<ZuUuid> idsOf(const std::vector<ObjectTrackEx>& tracks)
{
    std::set<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.insert(track.id);
    return ids;
}

double ms(std::chrono::nanoseconds duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

void printRow(const char* name, const LatencyStats& stats)
{
    std::printf("%-44s %8.2f %8.2f %8.2f\n", name, ms(stats.percentile(50)),
                ms(stats.percentile(99)), ms(stats.percentile(100)));
}

/** Times from the save's answer and from the commit to found through another instance. */
struct Freshness
{
    LatencyStats fromSave;
    LatencyStats fromCommit;
    int missed = 0;
};

/**
 * How soon a packet saved into one instance is found by a distributed search through another:
 * one new device at a time, its packet stamped now. The commit is when the saving instance's
 * internal lookup first finds it; then the other instance is asked until it finds it too.
 */
Freshness measureFreshness(Instance& saved, Instance& searched, int devices)
{
    Freshness result;
    for (int d = 0; d < devices; ++d) {
        const std::int64_t nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count();
        const auto packet = test::packet(ZuUuid::createUuid(), nowMs, ZuUuid::createUuid(), "car");
        DataRequestData search;
        search.filter.deviceIds = {packet.deviceId};
        search.filter.timePeriod = ZuTimePeriod(nowMs - 1'000, 60'000);
        auto local = search;
        local.internal_lookup = true;
        if (std::get<0>(saved.client->saveDataSync({packet})) != StatusCode::ok) {
            ++result.missed;
            continue;
        }
        const auto savedAt = Clock::now();
        const auto foundBy = [&](Instance& instance, const DataRequestData& request) {
            return test::waitFor(
                [&] { return !std::get<1>(instance.client->getDataSync(request)).empty(); });
        };
        if (!foundBy(saved, local)) {
            ++result.missed;
            continue;
        }
        const auto committedAt = Clock::now();
        if (!foundBy(searched, search)) {
            ++result.missed;
            continue;
        }
        result.fromSave.add(Clock::now() - savedAt);
        result.fromCommit.add(Clock::now() - committedAt);
    }
    return result;
}

/** Devices of their own per instance, saved into it and into `single` too; the tracks. */
std::size_t fill(const Options& options, std::vector<std::unique_ptr<Instance>>& cluster,
                 Instance& single, std::vector<std::vector<ZuUuid>>* devices)
{
    std::size_t tracks = 0;
    for (int i = 0; i < kInstances; ++i) {
        std::vector<ObjectMetadataPacket> packets;
        const auto send = [&]() {
            for (Instance* target : {cluster[i].get(), &single}) {
                // A storage that is behind refuses saves (500) until it catches up: a packet that
                // opens a track is the slowest kind to write, and every packet here does.
                StatusCode::Value status = StatusCode::internalServerError;
                for (int attempt = 0; attempt < 200; ++attempt) {
                    status = std::get<0>(target->client->saveDataSync(packets));
                    if (status != StatusCode::internalServerError)
                        break;
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                }
                if (status != StatusCode::ok) {
                    std::fprintf(stderr, "saving to %s failed\n", target->url.c_str());
                    std::exit(1);
                }
            }
            tracks += packets.size();
            packets.clear();
        };
        for (int d = 0; d < options.devicesPerInstance; ++d) {
            const ZuUuid device = ZuUuid::createUuid();
            (*devices)[i].push_back(device);
            for (int p = 0; p < options.packetsPerDevice; ++p) {
                packets.push_back(test::packet(device, kStartMs + p * 1'000, ZuUuid::createUuid(),
                                               p % 3 == 0 ? "car" : "person",
                                               {{"color", p % 2 == 0 ? "red" : "blue"}}));
                if (packets.size() == kPacketsPerRequest)
                    send();
            }
        }
        if (!packets.empty())
            send();
    }
    return tracks;
}

/**
 * Whether the single instance has committed every packet and, through the cluster, the first and
 * the last second of every device's data are found: the spans are recorded. Device by device: an
 * instance asked for several devices answers for all that it holds, so a search for all of them
 * finds everything once any span is recorded.
 */
bool ready(const Options& options, Instance& entry, Instance& single,
           const std::vector<std::vector<ZuUuid>>& devices, std::size_t tracks)
{
    const auto idsFound = [](Instance& instance, DataRequestData request, bool internal) {
        request.internal_lookup = internal;
        return idsOf(std::get<1>(instance.client->getDataSync(request)));
    };
    DataRequestData all;
    for (const auto& group : devices)
        all.filter.deviceIds.insert(group.begin(), group.end());
    if (idsFound(single, all, true).size() != tracks)
        return false;
    for (const auto& group : devices) {
        for (const ZuUuid& device : group) {
            for (const std::int64_t second : {0, options.packetsPerDevice - 1}) {
                DataRequestData edge;
                edge.filter.deviceIds = {device};
                edge.filter.timePeriod = ZuTimePeriod(kStartMs + second * 1'000, 1'000);
                if (idsFound(entry, edge, false) != idsFound(single, edge, true))
                    return false;
            }
        }
    }
    return true;
}

/** Activity counts timed as internal, distributed and with an instant address lookup. */
struct ActivityTimes
{
    LatencyStats internal;
    LatencyStats distributed;
    LatencyStats instant;
    std::size_t differing = 0;
};

/**
 * Activity counts of one device of each instance over the whole of the data, a bucket a second
 * with the heatmap, one at a time: on the single instance as an internal count, then through the
 * cluster and through the entry whose address lookup answers at once. Each sum must equal the
 * internal count.
 */
ActivityTimes measureActivity(const Options& options,
                              const std::vector<std::vector<ZuUuid>>& devices, Instance& a,
                              Instance& b, Instance& c, Instance& single,
                              api::AbstractClient& entry)
{
    ActivityTimes result;
    Instance* cluster[] = {&a, &b, &c};
    std::mt19937 random(7);
    std::uniform_int_distribution<int> pickDevice(0, options.devicesPerInstance - 1);
    for (int s = 0; s < options.activities + kWarmUpSearches && options.activities > 0; ++s) {
        const bool measured = s >= kWarmUpSearches;
        ActivityRequestData request;
        for (int i = 0; i < kInstances; ++i)
            request.filter.deviceIds.insert(devices[i][pickDevice(random)]);
        request.filter.timePeriod = ZuTimePeriod(kStartMs, options.packetsPerDevice * 1'000);
        request.bucketMs = 1'000;
        request.heatmap = true;
        auto local = request;
        local.internal_lookup = true;

        auto started = Clock::now();
        const auto [localStatus, counted] = single.client->getActivitySync(local);
        if (measured)
            result.internal.add(Clock::now() - started);
        started = Clock::now();
        const auto [status, summed] = cluster[s % kInstances]->client->getActivitySync(request);
        if (measured)
            result.distributed.add(Clock::now() - started);
        started = Clock::now();
        const auto [instantStatus, instantSum] = entry.getActivitySync(request);
        if (measured)
            result.instant.add(Clock::now() - started);

        using Activity = kest::analytics::db::Activity;
        const auto& expected = static_cast<const Activity&>(counted);
        if (localStatus != StatusCode::ok || status != StatusCode::ok ||
            instantStatus != StatusCode::ok || static_cast<const Activity&>(summed) != expected ||
            static_cast<const Activity&>(instantSum) != expected) {
            if (++result.differing <= 3) {
                std::fprintf(stderr,
                             "activity count %d differs: internal %d, distributed %d (%u of %u "
                             "answered), instant lookup %d\n",
                             s, static_cast<int>(localStatus), static_cast<int>(status),
                             summed.instancesAnswered.value_or(0),
                             summed.instancesAsked.value_or(0), static_cast<int>(instantStatus));
            }
        }
    }
    return result;
}

/** Starts the instances, fills them, measures and prints; the exit status. */
int run(const Options& options, const fs::path& work)
{
    std::vector<std::unique_ptr<Instance>> cluster;
    for (int i = 0; i < kInstances; ++i)
        cluster.push_back(
            std::make_unique<Instance>(options, work / ("node" + std::to_string(i + 1)), true));
    Instance single(options, work / "single", false);
    for (Instance* instance : {cluster[0].get(), cluster[1].get(), cluster[2].get(), &single}) {
        if (!instance->waitUntilServing()) {
            std::fprintf(stderr, "the instance at %s did not start\n", instance->url.c_str());
            return 1;
        }
    }

    std::vector<std::vector<ZuUuid>> devices(kInstances);
    const std::size_t tracks = fill(options, cluster, single, &devices);

    // Searches: one device of each instance, a window of the data.
    std::mt19937 random(42);
    std::uniform_int_distribution<int> pickDevice(0, options.devicesPerInstance - 1);
    std::uniform_int_distribution<int> pickStart(
        0, std::max(0, options.packetsPerDevice - options.windowSeconds));
    std::vector<DataRequestData> searches;
    for (int s = 0; s < options.searches + kWarmUpSearches; ++s) {
        DataRequestData search;
        for (int i = 0; i < kInstances; ++i)
            search.filter.deviceIds.insert(devices[i][pickDevice(random)]);
        search.filter.timePeriod =
            ZuTimePeriod(kStartMs + pickStart(random) * 1'000, options.windowSeconds * 1'000);
        searches.push_back(std::move(search));
    }

    if (!test::waitFor([&] { return ready(options, *cluster[0], single, devices, tracks); }, 60s)) {
        std::fprintf(stderr, "the data was not committed and recorded within a minute\n");
        return 1;
    }

    // An entry in this process whose address lookup names the three instances at once, as the
    // shared database does for a search of one device of each: the fan-out and merge alone.
    test::ScriptedDistribution instantLookup;
    instantLookup.setAddresses({cluster[0]->url, cluster[1]->url, cluster[2]->url});
    test::RunningService entryService(test::kUnreachableMongo, {"--log/level=warning"});
    if (!entryService.started()) {
        std::fprintf(stderr, "the in-process entry instance did not start\n");
        return 1;
    }
    const auto entry = api::ClientFactory::instance().create(kest::utils::Url(entryService.url()));

    MongoDataDistributionStorage addresses(options.mongoUri);
    LatencyStats internal, distributed, instant, lookup;
    std::size_t asked = 0, differing = 0, found = 0;
    for (std::size_t s = 0; s < searches.size(); ++s) {
        const bool measured = s >= kWarmUpSearches;
        const auto timed = [&](LatencyStats& stats, auto call) {
            const auto started = Clock::now();
            auto result = call();
            if (measured)
                stats.add(Clock::now() - started);
            return result;
        };
        auto local = searches[s];
        local.internal_lookup = true;
        const auto [localStatus, localTracks] =
            timed(internal, [&] { return single.client->getDataSync(local); });
        // Entered through each instance in turn.
        const auto [status, tracks] = timed(
            distributed, [&] { return cluster[s % kInstances]->client->getDataSync(searches[s]); });
        const auto [instantStatus, instantTracks] =
            timed(instant, [&] { return entry->getDataSync(searches[s]); });
        if (localStatus != StatusCode::ok || status != StatusCode::ok ||
            instantStatus != StatusCode::ok || idsOf(tracks) != idsOf(localTracks) ||
            idsOf(instantTracks) != idsOf(localTracks)) {
            if (++differing <= 3) {
                std::fprintf(stderr,
                             "search %zu differs: internal %d with %zu tracks, distributed %d "
                             "with %zu, instant lookup %d with %zu\n",
                             s, static_cast<int>(localStatus), localTracks.size(),
                             static_cast<int>(status), idsOf(tracks).size(),
                             static_cast<int>(instantStatus), idsOf(instantTracks).size());
            }
        }

        std::vector<std::string> deviceIds;
        for (const ZuUuid& id : searches[s].filter.deviceIds)
            deviceIds.push_back(id.toStdString());
        const std::size_t count = timed(lookup, [&] {
            std::promise<std::size_t> nodes;
            addresses.getStorageInfo(
                deviceIds, searches[s].filter.timePeriod,
                [&nodes](bool, std::vector<std::string> list) { nodes.set_value(list.size()); });
            return nodes.get_future().get();
        });
        if (measured) {
            asked += count;
            found += localTracks.size();
        }
    }

    const double n = options.searches;
    std::printf(
        "Distributed search over %d local instances against an internal lookup on one "
        "instance\nholding the same data: %zu tracks (%d devices per instance, %d tracks "
        "each, one a second).\nEach search: one device of each instance, a %d s window, "
        "%.1f tracks on average, %d searches\nafter %d warm-up ones, one at a time through "
        "the client library; %u cores.\n\n",
        kInstances, tracks, options.devicesPerInstance, options.packetsPerDevice,
        options.windowSeconds, found / n, options.searches, kWarmUpSearches,
        std::thread::hardware_concurrency());
    std::printf("%-44s %8s %8s %8s\n", "", "p50 ms", "p99 ms", "max ms");
    printRow("internal lookup, one instance", internal);
    printRow("distributed search, three instances", distributed);
    printRow("  address lookup alone (MongoDB stand-in)", lookup);
    printRow("distributed, instant address lookup", instant);
    const double added = ms(distributed.percentile(50)) - ms(internal.percentile(50));
    const double addedInstant = ms(instant.percentile(50)) - ms(internal.percentile(50));
    std::printf("\nfan-out added at p50: %.2f ms (goal <= 2 ms): %s\n", added,
                added <= 2.0 ? "met" : "NOT met");
    std::printf("  without the address lookup: %.2f ms\n", addedInstant);
    std::printf("instances asked per search: %.2f (one per stored span that overlaps)\n",
                asked / n);
    std::printf("answers that differed from the internal lookup: %zu\n", differing);

    const ActivityTimes activity =
        measureActivity(options, devices, *cluster[0], *cluster[1], *cluster[2], single, *entry);
    if (options.activities > 0) {
        std::printf(
            "\nActivity counts of one device of each instance over all of their data (%d s), a "
            "bucket\na second, with the heatmap; %d counts after %d warm-up ones:\n",
            options.packetsPerDevice, options.activities, kWarmUpSearches);
        std::printf("%-44s %8s %8s %8s\n", "", "p50 ms", "p99 ms", "max ms");
        printRow("internal count, one instance", activity.internal);
        printRow("distributed count, three instances", activity.distributed);
        printRow("distributed, instant address lookup", activity.instant);
        std::printf("sums that differed from the internal count: %zu\n", activity.differing);
        const std::string activitySection = "end to end: activity over three instances";
        const double activityAdded =
            ms(activity.instant.percentile(50)) - ms(activity.internal.percentile(50));
        recordFigure(Figure::measured(activitySection, "internal count, one instance, p50",
                                      ms(activity.internal.percentile(50)), "ms"));
        recordFigure(Figure::measured(activitySection, "distributed count, p50",
                                      ms(activity.distributed.percentile(50)), "ms")
                         .withNote("the address lookup in the stand-in included"));
        recordFigure(Figure::measured(activitySection, "added p50, the stand-in's lookup apart",
                                      activityAdded, "ms")
                         .atMost(10.0)
                         .withNote(std::to_string(options.activities) +
                                   " counts, an entry whose address lookup answers at once" +
                                   (activity.differing ? ", " + std::to_string(activity.differing) +
                                                             " sums differed"
                                                       : std::string())));
    }

    const std::string section = "end to end: distributed search over three instances";
    const std::string note =
        std::to_string(options.searches) + " searches" +
        (differing ? ", " + std::to_string(differing) + " answers differed" : std::string());
    recordFigure(Figure::measured(section, "internal lookup, one instance, p50",
                                  ms(internal.percentile(50)), "ms"));
    recordFigure(
        Figure::measured(section, "distributed search, p50", ms(distributed.percentile(50)), "ms"));
    recordFigure(
        Figure::measured(section, "distributed search, p99", ms(distributed.percentile(99)), "ms"));
    recordFigure(Figure::measured(section, "added p50 latency", added, "ms")
                     .atMost(2.0)
                     .withNote(note + "; address lookup p50 " +
                               std::to_string(ms(lookup.percentile(50))) + " ms"));
    recordFigure(
        Figure::measured(section, "added p50, address lookup answered at once", addedInstant, "ms")
            .withNote("the fan-out and merge alone"));

    if (options.freshDevices == 0)
        return differing == 0 && activity.differing == 0 ? 0 : 1;
    const auto fresh = measureFreshness(*cluster[0], *cluster[1], options.freshDevices);
    std::printf(
        "\nA packet of a new device saved into one instance, found through another (%d "
        "devices,\none at a time; the commit is when that instance first finds it; lease length "
        "F = %lld s,\nthe default):\n",
        options.freshDevices,
        static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                   conf::ClusterSettings::kDefaultDataAddressFlushInterval)
                                   .count()));
    std::printf("%-44s %8s %8s %8s\n", "", "p50 ms", "p99 ms", "max ms");
    printRow("committed to found through another instance", fresh.fromCommit);
    printRow("saved to found through another instance", fresh.fromSave);
    std::printf("not found within 30 s: %d\n", fresh.missed);
    const std::string freshNote =
        std::to_string(options.freshDevices) + " new devices, at the default lease length" +
        (fresh.missed ? ", " + std::to_string(fresh.missed) + " not found" : "");
    recordFigure(Figure::measured(section, "committed to found through another instance, p50",
                                  ms(fresh.fromCommit.percentile(50)), "ms")
                     .withNote(freshNote));
    recordFigure(Figure::measured(section, "committed to found through another instance, p99",
                                  ms(fresh.fromCommit.percentile(99)), "ms")
                     .atMost(5'000)
                     .withNote(freshNote));
    recordFigure(Figure::measured(section, "saved to found through another instance, p99",
                                  ms(fresh.fromSave.percentile(99)), "ms")
                     .withNote("the commit included"));
    return differing == 0 && fresh.missed == 0 && activity.differing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (const char* uri = std::getenv("KEST_TEST_MONGODB_URI"))
        options.mongoUri = uri;
    kest::bench::CommandLine commandLine(
        "fanout_bench [OPTIONS]: distributed searches over three metadata_storage processes\n"
        "(run through bench/common/with_standin, or with KEST_TEST_MONGODB_URI or --mongo)");
    commandLine.option("--mongo", &options.mongoUri, "the shared MongoDB's URI")
        .option("--service", &options.service, "the service executable")
        .option("--devices", &options.devicesPerInstance, "devices per instance", 1)
        .option("--packets", &options.packetsPerDevice, "packets per device, one a second", 1)
        .option("--searches", &options.searches, "measured searches of each kind", 1)
        .option("--window-s", &options.windowSeconds, "seconds of data each search names", 1)
        .option("--fresh-devices", &options.freshDevices, "new devices timed until found", 0)
        .option("--activities", &options.activities, "measured activity counts of each kind", 0);
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;
    if (options.mongoUri.empty()) {
        commandLine.printUsage(stderr);
        return 2;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);

    char pattern[] = "/tmp/fanout_bench.XXXXXX";
    const fs::path work = ::mkdtemp(pattern);
    const int status = run(options, work);
    if (status == 0)
        fs::remove_all(work);
    else
        std::fprintf(stderr, "the instances' logs are under %s\n", work.c_str());
    return status;
}
