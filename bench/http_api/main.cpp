// End-to-end HTTP figures of the service: metadata ingest through POST /metadataDb/v1/data next
// to the storage's own ingest measured in the same run, and internal-lookup searches through
// GET /metadataDb/v1/data on the storage benchmark's 1M-track store. See README.md beside this
// file.

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QUrl>
#include <QUrlQuery>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <kest/analytics_db/events_storage.h>
#include <kest/cloud/storage/controller/data_request_data.h>
#include <kest/cloud/storage/model/dd_provider_factory.h>
#include <kest/cloud/storage/test_launcher.h>
#include <kest/reflect/json.h>
#include <kest/utils/log/logger.h>

#include "../analytics_db/latency_stats.h"
#include "../analytics_db/searched_store.h"
#include "figure.h"
#include "http_connection.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using namespace kest::bench;
using kest::analytics::db::EventsStorage;
using kest::analytics::db::ObjectTrackEx;
using kest::cloud::storage::metadatadb::DataRequestData;
using kest::cloud::storage::metadatadb::DdProviderFactory;
using kest::common::metadata::ObjectMetadataPacket;

namespace {

constexpr double kIngestGoalRatio = 0.7;
/** HTTP ingest with saves answered once committed, over the same without. */
constexpr double kAckAfterCommitGoalRatio = 0.5;
constexpr int kAckAfterCommitConnections = 16;
constexpr const char* kDataPath = "/metadataDb/v1/data";

struct Options
{
    std::int64_t tracks = 1'000'000;
    std::uint64_t seed = 1;
    fs::path dir;
    bool fresh = false;
    bool quick = false;
    bool ingest = true;
    bool lookups = true;
    int queries = 300;
    std::int64_t ingestPackets = 300'000;
    int batch = 100;
    int connections = 4;
    int rounds = 3;
    /** A service already running on this port, instead of one in this process. */
    std::uint16_t port = 0;
    /** With a port: how long to keep posting the ingest requests, over and over. */
    double ingestSeconds = 20;
};

void printUsage()
{
    std::printf(
        "usage: http_api_bench [--quick] [--connections N] [--batch N] [--ingest-packets N]\n"
        "                      [--rounds N] [--no-ingest] [--no-lookups] [--tracks N] [--queries "
        "N]\n"
        "                      [--dir PATH] [--fresh] [--seed N]\n"
        "  --connections N     kept-alive client connections (default 4)\n"
        "  --batch N           packets per POST (default 100)\n"
        "  --ingest-packets N  packets of the ingest measurements (default 300000)\n"
        "  --rounds N          ingest rounds, each storage only then HTTP (default 3)\n"
        "  --tracks N          tracks in the searched store (default 1000000)\n"
        "  --queries N         searches of each kind (default 300)\n"
        "  --dir PATH          where the storage benchmark keeps its stores (default\n"
        "                      /tmp/analytics_db_bench); the store of these parameters is\n"
        "                      reused\n"
        "  --fresh             fill the searched store again\n"
        "  --port N            use the service running on 127.0.0.1:N: ingest posts for\n"
        "                      --ingest-seconds S (default 20), lookups search it\n"
        "  --quick             a small store and fewer packets and queries, for a smoke run\n");
}

bool parseOptions(int argc, char** argv, Options* options)
{
    bool tracksGiven = false, queriesGiven = false, ingestGiven = false;
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
                queriesGiven = true;
            } else if (arg == "--ingest-packets") {
                options->ingestPackets = std::stoll(value());
                ingestGiven = true;
            } else if (arg == "--batch") {
                options->batch = std::stoi(value());
            } else if (arg == "--rounds") {
                options->rounds = std::stoi(value());
            } else if (arg == "--port") {
                const int port = std::stoi(value());
                if (port <= 0 || port > 65535)
                    return false;
                options->port = static_cast<std::uint16_t>(port);
            } else if (arg == "--ingest-seconds") {
                options->ingestSeconds = std::stod(value());
            } else if (arg == "--connections") {
                options->connections = std::stoi(value());
            } else if (arg == "--dir") {
                options->dir = value();
            } else if (arg == "--seed") {
                options->seed = std::stoull(value());
            } else if (arg == "--fresh") {
                options->fresh = true;
            } else if (arg == "--quick") {
                options->quick = true;
            } else if (arg == "--no-ingest") {
                options->ingest = false;
            } else if (arg == "--no-lookups") {
                options->lookups = false;
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
    }
    if (options->tracks <= 0 || options->queries <= 0 || options->ingestPackets <= 0 ||
        options->batch <= 0 || options->connections <= 0 || options->rounds <= 0) {
        return false;
    }
    options->dir = benchDir(options->dir, options->tracks, options->seed);
    return true;
}

double secondsSince(steady_clock::time_point start)
{
    return duration<double>(steady_clock::now() - start).count();
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/** CPU seconds of each thread of the process so far, by thread id. */
std::map<int, std::pair<std::string, double>> threadCpuSeconds()
{
    std::map<int, std::pair<std::string, double>> threads;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        std::ifstream in(entry.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const auto open = text.find('('), close = text.rfind(')');
        if (open == std::string::npos || close == std::string::npos)
            continue;
        std::istringstream fields(text.substr(close + 2));
        std::string field;
        double utime = 0, stime = 0;
        // After the name: state is field 3; utime and stime are fields 14 and 15.
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14)
                utime = std::stod(field);
            if (i == 15)
                stime = std::stod(field);
        }
        threads[std::stoi(entry.path().filename().string())] = {
            text.substr(open + 1, close - open - 1), (utime + stime) / tick};
    }
    return threads;
}

/** The CPU each thread used since `before`, the busiest first. */
void printThreadCpu(const std::map<int, std::pair<std::string, double>>& before,
                    const std::map<int, std::pair<std::string, double>>& after,
                    std::int64_t packets)
{
    std::vector<std::pair<double, std::string>> used;
    for (const auto& [tid, thread] : after) {
        const auto it = before.find(tid);
        const double seconds = thread.second - (it == before.end() ? 0 : it->second.second);
        if (seconds >= 0.01)
            used.emplace_back(seconds, thread.first);
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
 * The service in-process, as the launcher of the service tests runs it, with the MongoDB
 * storage pointed nowhere (it connects lazily; internal lookups and saves do not use it).
 */
class Service
{
public:
    explicit Service(const fs::path& dataDir, std::vector<std::string> extraArgs = {})
    {
        m_previous = DdProviderFactory::instance().setCreateFunction(
            [this]() -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
                auto storage = std::make_unique<EventsStorage>();
                m_events = storage.get();
                return storage;
            });
        std::vector<std::string> args{"--http/listenOn=127.0.0.1:0", "--log/level=warning",
                                      "--dataDir=" + dataDir.string(),
                                      "--MongoDb/uri=mongodb://127.0.0.1:1/"
                                      "?serverSelectionTimeoutMS=100"};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        std::vector<const char*> argv;
        for (const auto& arg : args)
            argv.push_back(arg.c_str());
        if (m_launcher.startService(argv, true))
            m_port = m_launcher.moduleInstance()->httpEndpoints().front().port;
    }
    ~Service()
    {
        m_launcher.stop();
        DdProviderFactory::instance().setCreateFunction(std::move(m_previous));
    }

    std::uint16_t port() const { return m_port; }
    EventsStorage* events() const { return m_events; }

private:
    DdProviderFactory::CreateFunction m_previous;
    std::atomic<EventsStorage*> m_events{nullptr};
    kest::cloud::storage::metadatadb::test::Launcher m_launcher;
    std::uint16_t m_port = 0;
};

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
    const auto threadsBefore = threadCpuSeconds();
    const double cpuStart = cpuSeconds();
    const auto start = steady_clock::now();
    for (auto& packet : packets)
        saveWhenReady(*storage, std::move(packet));
    storage->flush();
    const double seconds = secondsSince(start);
    const double cpu = cpuSeconds() - cpuStart;
    const auto threadsAfter = threadCpuSeconds();
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
        Service service(dataDir, std::move(serviceArgs));
        if (!service.port()) {
            std::printf("the service did not start\n");
            return 0;
        }
        std::atomic<std::size_t> next{0};
        std::atomic<std::int64_t> refused{0};
        std::atomic<std::int64_t> failed{0};
        std::vector<LatencyStats> stats(connections);
        std::vector<std::thread> threads;
        const auto threadsBefore = threadCpuSeconds();
        const double cpuStart = cpuSeconds();
        const auto start = steady_clock::now();
        for (int c = 0; c < connections; ++c) {
            threads.emplace_back([&, c] {
                pthread_setname_np(pthread_self(), "bench client");
                HttpConnection connection(service.port());
                BackOff backOff;
                for (std::size_t i; (i = next++) < requests.size();) {
                    for (;;) {
                        const auto sent = steady_clock::now();
                        const int status = connection.exchange(requests[i]);
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
        service.events()->flush();
        const double seconds = secondsSince(start);
        const double cpu = cpuSeconds() - cpuStart;
        const auto threadsAfter = threadCpuSeconds();

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
    std::printf("\n== Posting to 127.0.0.1:%u for %.0f s from %d connections\n", options.port,
                options.ingestSeconds, options.connections);
    std::fflush(stdout);
    std::atomic<std::size_t> next{0};
    std::atomic<std::int64_t> accepted{0}, refused{0}, failed{0};
    const auto end =
        steady_clock::now() + duration_cast<nanoseconds>(duration<double>(options.ingestSeconds));
    std::vector<std::thread> threads;
    for (int c = 0; c < options.connections; ++c) {
        threads.emplace_back([&] {
            HttpConnection connection(options.port);
            BackOff backOff;
            while (steady_clock::now() < end) {
                const int status = connection.exchange(requests[next++ % requests.size()]);
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
    // Request texts made beforehand, so that the client spends its time sending.
    std::vector<std::string> requests;
    {
        const auto packets = makeIngestPackets(options.seed, options.ingestPackets);
        for (std::size_t i = 0; i < packets.size(); i += options.batch) {
            std::vector<ObjectMetadataPacket> batch;
            for (std::size_t j = i; j < std::min(packets.size(), i + options.batch); ++j)
                batch.push_back(*packets[j]);
            requests.push_back(postJsonRequest(kDataPath, kest::reflect::json::serialize(batch)));
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
        "\n== Ingest: %lld packets of 5 objects, %zu requests, %.0f KB per request, %d "
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
    const auto kinds = makeQueries(options.seed, options.queries, info);

    const fs::path dataDir = options.dir / "http_bench_lookups";
    fs::remove_all(dataDir);
    std::optional<Service> service;
    std::uint16_t port = options.port;
    if (!port) {
        service.emplace(dataDir, std::vector<std::string>{"--analyticsDb/path=" +
                                                          searchedStorePath(options.dir).string()});
        port = service->port();
    }
    if (!port) {
        std::printf("the service did not start\n");
        return;
    }
    const std::string section =
        "end to end: internal lookups over HTTP on " + std::to_string(info.trackCount) + " tracks";

    std::printf(
        "\n== Internal lookups over HTTP, one at a time on one connection (ms, from "
        "sending the request to its whole answer)\n");
    std::printf("%-36s %8s %8s %8s %10s %10s %8s\n", "", "p50", "p99", "max", "goal p99",
                "mean hits", "");
    HttpConnection connection(port);
    std::vector<std::string> all;
    for (const auto& kind : kinds) {
        if (kind.filters.empty())
            continue;
        std::vector<std::string> requests;
        for (const auto& filter : kind.filters)
            requests.push_back(getRequest(searchTarget(filter)));
        all.insert(all.end(), requests.begin(), requests.end());
        for (std::size_t i = 0; i < std::min<std::size_t>(5, requests.size()); ++i)
            connection.exchange(requests[i]);

        LatencyStats stats;
        std::size_t hits = 0, failures = 0;
        std::string body;
        for (const auto& request : requests) {
            const auto start = steady_clock::now();
            const int status = connection.exchange(request, &body);
            stats.add(steady_clock::now() - start);
            std::vector<ObjectTrackEx> tracks;
            if (status != 200 || !kest::reflect::json::deserialize(body, &tracks))
                ++failures;
            hits += tracks.size();
        }
        const double p99 = toMs(stats.percentile(99));
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

    // Every search of every kind, from several connections at once.
    std::atomic<std::size_t> next{0};
    std::vector<LatencyStats> stats(options.connections);
    std::vector<std::thread> threads;
    const auto start = steady_clock::now();
    for (int c = 0; c < options.connections; ++c) {
        threads.emplace_back([&, c] {
            HttpConnection own(port);
            for (std::size_t i; (i = next++) < all.size();) {
                const auto sent = steady_clock::now();
                own.exchange(all[i]);
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
    if (!parseOptions(argc, argv, &options)) {
        printUsage();
        return 2;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);
    std::printf("http_api_bench: working in %s\n", options.dir.c_str());
    std::printf(
        "goals: HTTP ingest >= %.0f%% of the storage-only ingest of the same run; search "
        "p99 as the storage benchmark's (%.0f ms, free text %.0f ms)\n",
        kIngestGoalRatio * 100, kLookupGoalMs, kFreeTextGoalMs);
    fs::create_directories(options.dir);

    if (options.ingest)
        measureIngest(options);
    if (options.lookups)
        measureLookups(options);
    return 0;
}
