// End-to-end HTTP figures of the service: metadata ingest through POST /metadataDb/v1/data next
// to the storage's own ingest measured in the same run, and internal-lookup searches through
// GET /metadataDb/v1/data on the storage benchmark's 1M-track store. See README.md beside this
// file.

#include <pthread.h>

#include <QUrl>
#include <QUrlQuery>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/reflect/json.h>
#include <kest/utils/log/logger.h>

#include "../analytics_db/searched_store.h"
#include "command_line.h"
#include "figure.h"
#include "http_client.h"
#include "latency_stats.h"
#include "process_info.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace kest::bench;
using kest::analytics::db::ObjectTrackEx;
using kest::cloud::storage::metadatadb::DataRequestData;
using kest::cloud::storage::metadatadb::test::RunningService;
using kest::common::metadata::ObjectMetadataPacket;

namespace {

constexpr double kIngestGoalRatio = 0.7;
/** HTTP ingest with saves answered once committed, over the same without. */
constexpr double kAckAfterCommitGoalRatio = 0.5;
constexpr int kAckAfterCommitConnections = 16;
constexpr const char* kDataPath = "/metadataDb/v1/data";
/** A search for a camera the store does not hold. */
constexpr const char* kEmptyLookup = "empty lookup (unknown camera)";
/** Track id and plate searches, p99 over the empty lookup's. */
constexpr double kPointLookupGoalRatio = 2;

struct Options
{
    std::int64_t tracks = 1'000'000;
    std::int64_t seed = 1;
    fs::path dir;
    bool fresh = false;
    bool quick = false;
    bool noIngest = false;
    bool noLookups = false;
    int queries = 300;
    std::int64_t ingestPackets = 300'000;
    int batch = 100;
    int connections = 4;
    int rounds = 3;
    /** A service already running on this port, instead of one in this process. */
    int port = 0;
    /** With a port: how long to keep posting the ingest requests, over and over. */
    double ingestSeconds = 20;
};

bool parseOptions(int argc, char** argv, Options* options, bool* help)
{
    CommandLine commandLine("http_api_bench [OPTIONS]: HTTP ingest and searches of the service");
    commandLine.option("--connections", &options->connections, "kept-alive connections", 1)
        .option("--batch", &options->batch, "packets per POST", 1)
        .option("--ingest-packets", &options->ingestPackets, "packets of the ingest measures", 1)
        .option("--rounds", &options->rounds, "ingest rounds, each storage only then HTTP", 1)
        .flag("--no-ingest", &options->noIngest, "no ingest measures")
        .flag("--no-lookups", &options->noLookups, "no searches")
        .option("--tracks", &options->tracks, "tracks in the searched store", 1)
        .option("--queries", &options->queries, "searches of each kind", 1)
        .option("--dir", &options->dir,
                "where the storage benchmark keeps its stores (default /tmp/analytics_db_bench); "
                "the store of these parameters is reused")
        .flag("--fresh", &options->fresh, "fill the searched store again")
        .option("--seed", &options->seed, "of the generated data", 0)
        .option("--port", &options->port,
                "use the service running on 127.0.0.1:PORT: ingest posts for --ingest-seconds, "
                "lookups search it",
                1)
        .option("--ingest-seconds", &options->ingestSeconds, "with --port")
        .flag("--quick", &options->quick, "a small store and fewer packets and queries");
    if (!commandLine.parse(argc, argv, help))
        return false;
    if (options->quick) {
        if (!commandLine.given("--tracks"))
            options->tracks = 20'000;
        if (!commandLine.given("--queries"))
            options->queries = 50;
        if (!commandLine.given("--ingest-packets"))
            options->ingestPackets = 30'000;
    }
    options->dir = benchDir(options->dir, options->tracks, options->seed);
    return true;
}

double secondsSince(steady_clock::time_point start)
{
    return duration<double>(steady_clock::now() - start).count();
}

/** CPU seconds of each thread of this process so far, by thread id. */
std::map<int, ProcessInfo::Thread> threadCpu()
{
    std::map<int, ProcessInfo::Thread> threads;
    for (auto& thread : ProcessInfo().threads())
        threads[thread.id] = std::move(thread);
    return threads;
}

/** The CPU each thread used since `before`, the busiest first. */
void printThreadCpu(const std::map<int, ProcessInfo::Thread>& before,
                    const std::map<int, ProcessInfo::Thread>& after, std::int64_t packets)
{
    std::vector<std::pair<double, std::string>> used;
    for (const auto& [tid, thread] : after) {
        const auto it = before.find(tid);
        const double seconds = thread.cpuSeconds - (it == before.end() ? 0 : it->second.cpuSeconds);
        if (seconds >= 0.01)
            used.emplace_back(seconds, thread.name);
    }
    std::sort(used.rbegin(), used.rend());
    std::printf("  CPU by thread:");
    for (const auto& [seconds, name] : used)
        std::printf(" %s %.2f s (%.1f us/packet);", name.c_str(), seconds, seconds * 1e6 / packets);
    std::printf("\n");
}

double toMs(nanoseconds value)
{
    return duration<double, std::milli>(value).count();
}

/**
 * How a client waits before resending a batch that the service refused because its storage is
 * behind: 1 ms, doubling up to 32 ms while refusals last. Every refused request costs the service
 * the reading of its whole body, so resending at a fixed short pace would take the CPU that the
 * storage needs to catch up.
 */
class BackOff
{
public:
    void reset() { m_delay = milliseconds(1); }
    void wait()
    {
        std::this_thread::sleep_for(m_delay);
        m_delay = std::min(m_delay * 2, milliseconds(32));
    }

private:
    milliseconds m_delay{1};
};

double measureStorageIngest(const Options& options,
                            std::vector<std::shared_ptr<const ObjectMetadataPacket>> packets)
{
    const fs::path path = options.dir / "http_bench_storage_ingest";
    fs::remove_all(path);
    auto storage = openStorage(path);
    if (!storage)
        return 0;
    const auto threadsBefore = threadCpu();
    const double cpuStart = ProcessInfo().cpuSeconds().value_or(0);
    const auto start = steady_clock::now();
    for (auto& packet : packets)
        saveWhenReady(*storage, std::move(packet));
    storage->flush();
    const double seconds = secondsSince(start);
    const double cpu = ProcessInfo().cpuSeconds().value_or(0) - cpuStart;
    const auto threadsAfter = threadCpu();
    storage.reset();
    fs::remove_all(path);

    const double rate = packets.size() / seconds;
    std::printf("  storage only: save() from one thread, timed until committed\n");
    std::printf("  %10.0f packets/s   %.2f s   process CPU %.1f us per packet\n", rate, seconds,
                cpu * 1e6 / packets.size());
    printThreadCpu(threadsBefore, threadsAfter, static_cast<std::int64_t>(packets.size()));
    return rate;
}

double measureHttpIngest(const Options& options, const std::vector<std::string>& requests,
                         std::int64_t packetCount, int connections,
                         std::vector<std::string> serviceArgs = {})
{
    const fs::path dataDir = options.dir / "http_bench_service";
    fs::remove_all(dataDir);
    double rate = 0;
    {
        // MongoDB is not used by saves and internal lookups.
        std::vector<std::string> args{"--log/level=warning", "--dataDir=" + dataDir.string()};
        args.insert(args.end(), serviceArgs.begin(), serviceArgs.end());
        RunningService service(kest::cloud::storage::metadatadb::test::kUnreachableMongo,
                               std::move(args));
        if (!service.started()) {
            std::printf("the service did not start\n");
            return 0;
        }
        std::atomic<std::size_t> next{0};
        std::atomic<std::int64_t> refused{0};
        std::atomic<std::int64_t> failed{0};
        std::vector<LatencyStats> stats(connections);
        std::vector<std::thread> threads;
        const auto threadsBefore = threadCpu();
        const double cpuStart = ProcessInfo().cpuSeconds().value_or(0);
        const auto start = steady_clock::now();
        for (int c = 0; c < connections; ++c) {
            threads.emplace_back([&, c] {
                pthread_setname_np(pthread_self(), "bench client");
                HttpClient client(service.url());
                BackOff backOff;
                for (std::size_t i; (i = next++) < requests.size();) {
                    for (;;) {
                        const auto sent = steady_clock::now();
                        const int status = client.post(kDataPath, requests[i]).status;
                        stats[c].add(steady_clock::now() - sent);
                        if (status == 200) {
                            backOff.reset();
                            break;
                        }
                        // 500: the storage's queue is full; a client backs off and resends.
                        if (status == 500) {
                            ++refused;
                            backOff.wait();
                            continue;
                        }
                        ++failed;
                        break;
                    }
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
        const double answered = secondsSince(start);
        service.events().flush();
        const double seconds = secondsSince(start);
        const double cpu = ProcessInfo().cpuSeconds().value_or(0) - cpuStart;
        const auto threadsAfter = threadCpu();

        LatencyStats all;
        for (const auto& s : stats)
            all.add(s);
        rate = packetCount / seconds;
        std::printf(
            "  HTTP: POST %s, %d packets per request, %d kept-alive connections, timed "
            "until committed\n",
            kDataPath, options.batch, connections);
        std::printf(
            "  %10.0f packets/s   %.2f s (all answered after %.2f s)   process CPU %.1f us "
            "per packet (client included)\n",
            rate, seconds, answered, cpu * 1e6 / packetCount);
        std::printf(
            "  request latency p50 %.2f ms   p99 %.2f ms   max %.2f ms   (%zu requests, "
            "%lld refused while the queue was full, %lld failed)\n",
            toMs(all.percentile(50)), toMs(all.percentile(99)), toMs(all.percentile(100)),
            all.count(), static_cast<long long>(refused), static_cast<long long>(failed));
        printThreadCpu(threadsBefore, threadsAfter, packetCount);
    }
    fs::remove_all(dataDir);
    return rate;
}

/** Posts the requests over and over from every connection for the set time (memory runs). */
void feedIngest(const Options& options, const std::vector<std::string>& requests)
{
    std::printf("\n== Posting to 127.0.0.1:%d for %.0f s from %d connections\n", options.port,
                options.ingestSeconds, options.connections);
    std::fflush(stdout);
    std::atomic<std::size_t> next{0};
    std::atomic<std::int64_t> accepted{0}, refused{0}, failed{0};
    const auto end =
        steady_clock::now() + duration_cast<nanoseconds>(duration<double>(options.ingestSeconds));
    std::vector<std::thread> threads;
    for (int c = 0; c < options.connections; ++c) {
        threads.emplace_back([&] {
            HttpClient client("http://127.0.0.1:" + std::to_string(options.port));
            BackOff backOff;
            while (steady_clock::now() < end) {
                const int status =
                    client.post(kDataPath, requests[next++ % requests.size()]).status;
                if (status == 200) {
                    ++accepted;
                    backOff.reset();
                } else if (status == 500) {
                    ++refused;
                    backOff.wait();
                } else {
                    ++failed;
                    std::this_thread::sleep_for(milliseconds(10));
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::printf(
        "  %lld requests accepted (%.0f packets/s), %lld refused while the queue was "
        "full, %lld failed\n",
        static_cast<long long>(accepted.load()), accepted * options.batch / options.ingestSeconds,
        static_cast<long long>(refused.load()), static_cast<long long>(failed.load()));
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

void measureIngest(const Options& options)
{
    // Request bodies made beforehand, so that the client spends its time sending.
    std::vector<std::string> requests;
    {
        const auto packets = makeIngestPackets(options.seed, options.ingestPackets);
        for (std::size_t i = 0; i < packets.size(); i += options.batch) {
            std::vector<ObjectMetadataPacket> batch;
            for (std::size_t j = i; j < std::min(packets.size(), i + options.batch); ++j)
                batch.push_back(*packets[j]);
            requests.push_back(kest::reflect::json::serialize(batch));
        }
    }
    if (options.port) {
        feedIngest(options, requests);
        return;
    }
    std::size_t bytes = 0;
    for (const auto& request : requests)
        bytes += request.size();
    std::printf(
        "\n== Ingest: %lld packets of 5 objects, %zu requests, %.0f KB per body, %d "
        "rounds of storage only then HTTP\n",
        static_cast<long long>(options.ingestPackets), requests.size(),
        bytes / 1024.0 / requests.size(), options.rounds);

    // Rounds take turns, so that a burst of other work on the machine weighs on both sides.
    std::vector<double> ratios, storageRates, httpRates;
    for (int round = 1; round <= options.rounds; ++round) {
        std::printf("\n-- round %d\n", round);
        const double storageRate =
            measureStorageIngest(options, makeIngestPackets(options.seed, options.ingestPackets));
        const double httpRate =
            measureHttpIngest(options, requests, options.ingestPackets, options.connections);
        storageRates.push_back(storageRate);
        httpRates.push_back(httpRate);
        ratios.push_back(storageRate > 0 ? httpRate / storageRate : 0);
        std::printf("  HTTP / storage only = %.2f\n", ratios.back());
        std::fflush(stdout);
    }
    const double ratio = median(ratios);
    std::printf(
        "\n  HTTP / storage only, median of %zu rounds = %.2f (lowest %.2f, highest %.2f)   "
        "goal >= %.2f   %s\n",
        ratios.size(), ratio, *std::min_element(ratios.begin(), ratios.end()),
        *std::max_element(ratios.begin(), ratios.end()), kIngestGoalRatio,
        ratio >= kIngestGoalRatio ? "met" : "MISSED");
    std::fflush(stdout);
    const std::string section = "end to end: HTTP ingest (packets of 5 objects, " +
                                std::to_string(options.batch) + " per request)";
    const std::string rounds = "median of " + std::to_string(ratios.size()) + " rounds";
    recordFigure(Figure::measured(section, "storage only", median(storageRates), "packets/s")
                     .withNote(rounds));
    recordFigure(
        Figure::measured(section, "over HTTP", median(httpRates), "packets/s").withNote(rounds));
    recordFigure(Figure::measured(section, "HTTP / storage only", ratio, "x")
                     .atLeast(kIngestGoalRatio)
                     .withNote(rounds));

    // Saves answered only once committed, from many clients at once: each waits for a commit,
    // which the writer shares between the saves that wait together.
    std::printf("\n== analyticsDb/ackAfterCommit, %d kept-alive connections\n",
                kAckAfterCommitConnections);
    std::vector<double> ackRatios;
    for (int round = 1; round <= std::max(1, options.rounds - 1); ++round) {
        std::printf("\n-- round %d\n", round);
        const double without =
            measureHttpIngest(options, requests, options.ingestPackets, kAckAfterCommitConnections);
        const double with =
            measureHttpIngest(options, requests, options.ingestPackets, kAckAfterCommitConnections,
                              {"--analyticsDb/ackAfterCommit=true"});
        ackRatios.push_back(without > 0 ? with / without : 0);
        std::printf("  acknowledged after commit / at once = %.2f\n", ackRatios.back());
        std::fflush(stdout);
    }
    const std::string ackNote = std::to_string(kAckAfterCommitConnections) + " connections, " +
                                "median of " + std::to_string(ackRatios.size()) + " rounds";
    recordFigure(
        Figure::measured(section, "HTTP ingest, ackAfterCommit on / off", median(ackRatios), "x")
            .atLeast(kAckAfterCommitGoalRatio)
            .withNote(ackNote));
}

std::string searchTarget(const kest::analytics::db::Filter& filter)
{
    DataRequestData request{filter, /*internal_lookup*/ true};
    QUrlQuery query;
    serializeToUrlQuery(request, &query);
    return std::string(kDataPath) + "?" + query.toString(QUrl::FullyEncoded).toStdString();
}

void measureLookups(const Options& options)
{
    StoreInfo info;
    bool reused = false;
    if (!prepareSearchedStore(options.dir, options.tracks, options.seed, options.fresh, &info,
                              &reused)) {
        std::printf("cannot prepare the searched store in %s\n", options.dir.c_str());
        return;
    }
    printStore(info, reused);
    if (info.samples.empty() || info.deviceIds.empty()) {
        std::printf("the store holds no tracks to search for\n");
        return;
    }
    auto kinds = makeQueries(options.seed, options.queries, info);
    // The round trip of a search that the storage answers at once: what the frame, the hand-off
    // and the socket cost, against which the point lookups are measured.
    QueryKind empty{.name = kEmptyLookup};
    for (int i = 0; i < options.queries; ++i) {
        kest::analytics::db::Filter filter;
        filter.deviceIds = {ZuUuid::createUuid()};
        empty.filters.push_back(filter);
    }
    // Last, on a service that every other search has warmed up.
    kinds.push_back(std::move(empty));

    const fs::path dataDir = options.dir / "http_bench_lookups";
    fs::remove_all(dataDir);
    std::optional<RunningService> service;
    std::string url = "http://127.0.0.1:" + std::to_string(options.port);
    if (!options.port) {
        service.emplace(kest::cloud::storage::metadatadb::test::kUnreachableMongo,
                        std::vector<std::string>{
                            "--log/level=warning", "--dataDir=" + dataDir.string(),
                            "--analyticsDb/path=" + searchedStorePath(options.dir).string()});
        if (!service->started()) {
            std::printf("the service did not start\n");
            return;
        }
        url = service->url();
    }
    const std::string section =
        "end to end: internal lookups over HTTP on " + std::to_string(info.trackCount) + " tracks";

    std::printf(
        "\n== Internal lookups over HTTP, one at a time on one connection (ms, from "
        "sending the request to its whole answer)\n");
    std::printf("%-36s %8s %8s %8s %10s %10s %8s\n", "", "p50", "p99", "max", "goal p99",
                "mean hits", "");
    HttpClient client(url);
    std::vector<std::string> all;
    std::map<std::string, double> p99s;
    for (const auto& kind : kinds) {
        if (kind.filters.empty())
            continue;
        std::vector<std::string> requests;
        for (const auto& filter : kind.filters)
            requests.push_back(searchTarget(filter));
        if (kind.name != kEmptyLookup)
            all.insert(all.end(), requests.begin(), requests.end());
        for (std::size_t i = 0; i < std::min<std::size_t>(5, requests.size()); ++i)
            client.get(requests[i]);

        LatencyStats stats;
        std::size_t hits = 0, failures = 0;
        for (const auto& request : requests) {
            const auto start = steady_clock::now();
            const auto reply = client.get(request);
            stats.add(steady_clock::now() - start);
            std::vector<ObjectTrackEx> tracks;
            if (reply.status != 200 || !kest::reflect::json::deserialize(reply.body, &tracks))
                ++failures;
            hits += tracks.size();
        }
        const double p99 = toMs(stats.percentile(99));
        p99s[kind.name] = p99;
        std::printf("%-36s %8.2f %8.2f %8.2f %7.0f ms %10.1f %8s\n", kind.name.c_str(),
                    toMs(stats.percentile(50)), p99, toMs(stats.percentile(100)), kind.goalMs,
                    static_cast<double>(hits) / requests.size(),
                    p99 <= kind.goalMs ? "met" : "MISSED");
        if (failures > 0)
            std::printf("%-36s note: %zu of %zu searches failed\n", "", failures, requests.size());
        if (!options.port) {
            recordFigure(Figure::measured(section, kind.name + ", p99", p99, "ms")
                             .atMost(kind.goalMs)
                             .withNote(failures ? std::to_string(failures) + " failed" : ""));
        }
        std::fflush(stdout);
    }

    for (const char* name : {"track id", "free text: plate number, limit 100"}) {
        const auto found = p99s.find(name);
        if (found == p99s.end() || p99s[kEmptyLookup] <= 0)
            continue;
        const double ratio = found->second / p99s[kEmptyLookup];
        std::printf("%-36s p99 %.2f of the empty lookup's (goal <= %.0f): %s\n", name, ratio,
                    kPointLookupGoalRatio, ratio <= kPointLookupGoalRatio ? "met" : "MISSED");
        if (!options.port) {
            recordFigure(
                Figure::measured(section, std::string(name) + ", p99 / empty lookup's", ratio, "x")
                    .atMost(kPointLookupGoalRatio)
                    .withNote("empty lookup p99 " + std::to_string(p99s[kEmptyLookup]) + " ms"));
        }
    }

    // Every search of every kind, from several connections at once.
    std::atomic<std::size_t> next{0};
    std::vector<LatencyStats> stats(options.connections);
    std::vector<std::thread> threads;
    const auto start = steady_clock::now();
    for (int c = 0; c < options.connections; ++c) {
        threads.emplace_back([&, c] {
            HttpClient own(url);
            for (std::size_t i; (i = next++) < all.size();) {
                const auto sent = steady_clock::now();
                own.get(all[i]);
                stats[c].add(steady_clock::now() - sent);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    const double seconds = secondsSince(start);
    LatencyStats merged;
    for (const auto& s : stats)
        merged.add(s);
    std::printf("\n== Internal lookups over HTTP, all kinds mixed, %d connections at once\n",
                options.connections);
    std::printf("  %10.0f searches/s   p50 %.2f ms   p99 %.2f ms   (%zu searches)\n",
                all.size() / seconds, toMs(merged.percentile(50)), toMs(merged.percentile(99)),
                all.size());
    if (!options.port) {
        recordFigure(Figure::measured(
            section, "all kinds mixed, " + std::to_string(options.connections) + " connections",
            all.size() / seconds, "searches/s"));
    }
    fs::remove_all(dataDir);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    bool help = false;
    if (!parseOptions(argc, argv, &options, &help))
        return help ? 0 : 2;
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);
    std::printf("http_api_bench: working in %s\n", options.dir.c_str());
    std::printf(
        "goals: HTTP ingest >= %.0f%% of the storage-only ingest of the same run; search "
        "p99 as the storage benchmark's (%.0f ms, free text %.0f ms)\n",
        kIngestGoalRatio * 100, kLookupGoalMs, kFreeTextGoalMs);
    fs::create_directories(options.dir);

    if (!options.noIngest)
        measureIngest(options);
    if (!options.noLookups)
        measureLookups(options);
    return 0;
}
