// Mixed ingest and search against running instances for a given time, at a bounded rate. Every
// sample period it prints a row: each instance's resident memory, what was sent and what failed.
// At the end it counts, through internal lookups on each instance, the tracks stored against the
// tracks whose saves were answered 200. scripts/soak starts the instances and runs it.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/utils/log/logger.h>

#include "command_line.h"
#include "http_client.h"
#include "process_info.h"

namespace {

using namespace std::chrono_literals;
using namespace kest::cloud::storage::metadatadb;
using kest::analytics::db::ObjectTrackEx;
using kest::common::metadata::ObjectMetadataPacket;
using kest::network::http::StatusCode;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kStartMs = 1'767'225'600'000;
constexpr int kPacketsPerTrack = 5;
constexpr std::int64_t kPacketSpacingMs = 40;
constexpr auto kTick = 100ms;

struct Options
{
    std::string urls;
    std::string pids;
    int seconds = 600;
    int sampleSeconds = 30;
    int tracksPerSecond = 40;  //< Per instance; each track is 5 packets.
    int searchesPerSecond = 4;
    int devicesPerInstance = 10;
};

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');) {
        if (!part.empty())
            parts.push_back(part);
    }
    return parts;
}

/** The metrics page of an instance; empty when it does not answer. */
std::string metricsPage(const std::string& url)
{
    return kest::bench::HttpClient(url).get("/metadataDb/metrics").body;
}

/** The value of an unlabelled (or fully written) series in a metrics page; -1 when missing. */
double metric(const std::string& page, const std::string& series)
{
    const auto at = page.find("\n" + series + " ");
    if (at == std::string::npos)
        return -1;
    return std::atof(page.c_str() + at + series.size() + 2);
}

/** Sum of every series of a family (label sets aside). */
double metricSum(const std::string& page, const std::string& family)
{
    double sum = 0;
    std::stringstream stream(page);
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind(family, 0) == 0 &&
            (line[family.size()] == '{' || line[family.size()] == ' ')) {
            sum += std::atof(line.c_str() + line.rfind(' ') + 1);
        }
    }
    return sum;
}

/** One instance's devices and what was sent to it. */
struct Target
{
    std::string url;
    std::vector<ZuUuid> devices;
    /** Per device, the data time of its next track; written by the instance's ingest thread. */
    std::vector<std::atomic<std::int64_t>> nextTimeMs;
    std::atomic<std::uint64_t> tracksSent{0};
    std::atomic<std::uint64_t> tracksAccepted{0};
    std::atomic<std::uint64_t> saveRequests{0};
    std::atomic<std::uint64_t> saveErrors{0};

    Target(std::string url, int devices) : url(std::move(url)), nextTimeMs(devices)
    {
        for (int i = 0; i < devices; ++i) {
            this->devices.push_back(ZuUuid::createUuid());
            nextTimeMs[i] = kStartMs;
        }
    }
};

struct SearchCounts
{
    std::atomic<std::uint64_t> internal{0};
    std::atomic<std::uint64_t> distributed{0};
    /** Distributed searches that found tracks: the fan-out reached the instances with data. */
    std::atomic<std::uint64_t> distributedFound{0};
    std::atomic<std::uint64_t> errors{0};
};

void ingest(Target* target, const Options& options, Clock::time_point end)
{
    auto client = api::ClientFactory::instance().create(kest::utils::Url(target->url));
    client->setRequestTimeout(10s);
    const int tracksPerTick = std::max(1, options.tracksPerSecond / 10);
    std::size_t device = 0;
    auto next = Clock::now();
    while (Clock::now() < end) {
        std::vector<ObjectMetadataPacket> packets;
        for (int t = 0; t < tracksPerTick; ++t) {
            // Each track lies whole in one request: an accepted request is its tracks stored.
            const std::size_t d = device++ % target->devices.size();
            const std::int64_t startMs = target->nextTimeMs[d].load();
            const ZuUuid track = ZuUuid::createUuid();
            for (int p = 0; p < kPacketsPerTrack; ++p) {
                ObjectMetadataPacket packet;
                packet.deviceId = target->devices[d];
                packet.timestampUs = (startMs + p * kPacketSpacingMs) * 1000;
                packet.durationUs = kPacketSpacingMs * 1000;
                packet.streamIndex = kest::common::metadata::StreamIndex::primary;
                kest::common::metadata::ObjectMetadata object;
                object.trackId = track;
                object.typeId = t % 2 ? "person" : "car";
                object.objectMetadataType = kest::common::metadata::ObjectMetadataType::regular;
                object.boundingBox = {0.1 + 0.01 * p, 0.2, 0.3, 0.4};
                object.attributes = {{"color", t % 3 ? "red" : "blue"}};
                packet.objectMetadataList.push_back(std::move(object));
                packets.push_back(std::move(packet));
            }
            target->nextTimeMs[d] = startMs + 1000;
        }
        target->tracksSent += tracksPerTick;
        ++target->saveRequests;
        const auto [status] = client->saveDataSync(packets);
        if (status == StatusCode::ok)
            target->tracksAccepted += tracksPerTick;
        else
            ++target->saveErrors;
        next += kTick;
        std::this_thread::sleep_until(next);
    }
}

void search(std::vector<std::unique_ptr<Target>>* targets, const Options& options,
            Clock::time_point end, SearchCounts* counts)
{
    if (options.searchesPerSecond == 0)
        return;
    std::vector<std::unique_ptr<api::AbstractClient>> clients;
    for (const auto& target : *targets) {
        clients.push_back(api::ClientFactory::instance().create(kest::utils::Url(target->url)));
        clients.back()->setRequestTimeout(10s);
    }
    std::mt19937 random(7);
    const auto period = std::chrono::microseconds(1'000'000 / options.searchesPerSecond);
    auto next = Clock::now();
    for (std::uint64_t n = 0; Clock::now() < end; ++n) {
        const std::size_t asked = random() % targets->size();
        DataRequestData request;
        request.filter.maxObjectTracksToSelect = 50;
        if (n % 2 == 0) {
            // Internal: one of the instance's own devices over its whole data.
            const auto& target = *(*targets)[asked];
            request.internal_lookup = true;
            request.filter.deviceIds = {target.devices[random() % target.devices.size()]};
            if (n % 4 == 0)
                request.filter.freeText = "red";
            ++counts->internal;
        } else {
            // Distributed: a device of each instance, a minute of their data old enough for its
            // address to be recorded (a flush every 30 s is two minutes of data time at the
            // default rate).
            std::int64_t latestMs = std::numeric_limits<std::int64_t>::max();
            for (const auto& target : *targets) {
                const std::size_t d = random() % target->devices.size();
                request.filter.deviceIds.insert(target->devices[d]);
                latestMs = std::min(latestMs, target->nextTimeMs[d].load());
            }
            const std::int64_t recordedMs = latestMs - 300'000;
            const std::int64_t startMs =
                recordedMs - kStartMs > 60'000
                    ? kStartMs +
                          static_cast<std::int64_t>(random() % (recordedMs - kStartMs - 60'000))
                    : kStartMs;
            request.filter.timePeriod = ZuTimePeriod(startMs, 60'000);
            ++counts->distributed;
        }
        const auto [status, tracks] = clients[asked]->getDataSync(request);
        if (status != StatusCode::ok)
            ++counts->errors;
        else if (!request.internal_lookup && !tracks.empty())
            ++counts->distributedFound;
        next += period;
        std::this_thread::sleep_until(next);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    kest::bench::CommandLine commandLine(
        "soak_driver --urls URL,URL,... [OPTIONS]: mixed ingest and search against running "
        "instances");
    commandLine.option("--urls", &options.urls, "the instances' base URLs, comma-separated")
        .option("--pids", &options.pids, "their PIDs, for their memory (else their metrics)")
        .option("--seconds", &options.seconds, "how long to drive them", 1)
        .option("--sample-seconds", &options.sampleSeconds, "seconds between rows", 1)
        .option("--tracks-per-second", &options.tracksPerSecond, "per instance, 5 packets each", 1)
        .option("--searches-per-second", &options.searchesPerSecond, "in all", 0)
        .option("--devices", &options.devicesPerInstance, "devices per instance", 1);
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;
    const auto urls = split(options.urls);
    std::vector<pid_t> pids;
    for (const auto& pid : split(options.pids))
        pids.push_back(std::atoi(pid.c_str()));
    if (urls.empty() || (!pids.empty() && pids.size() != urls.size())) {
        commandLine.printUsage(stderr);
        return 2;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);

    std::vector<std::unique_ptr<Target>> targets;
    for (const auto& url : urls)
        targets.push_back(std::make_unique<Target>(url, options.devicesPerInstance));
    SearchCounts searches;

    std::printf(
        "soak: %zu instances, %d s, %d tracks/s (x%d packets) per instance, %d searches/s\n",
        targets.size(), options.seconds, options.tracksPerSecond, kPacketsPerTrack,
        options.searchesPerSecond);
    std::printf("%8s", "time_s");
    for (std::size_t i = 0; i < targets.size(); ++i)
        std::printf("  rss%zu_MiB  anon%zu  file%zu", i + 1, i + 1, i + 1);
    std::printf("  %12s  %10s  %10s  %10s\n", "tracks_sent", "save_err", "searches", "search_err");

    const auto started = Clock::now();
    const auto end = started + std::chrono::seconds(options.seconds);
    std::vector<std::thread> threads;
    for (auto& target : targets)
        threads.emplace_back(ingest, target.get(), std::cref(options), end);
    threads.emplace_back(search, &targets, std::cref(options), end, &searches);

    std::vector<std::vector<double>> rss(targets.size());
    const auto printRow = [&]() {
        const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
        std::printf("%8.0f", elapsed);
        for (std::size_t i = 0; i < targets.size(); ++i) {
            const double mib =
                pids.empty()
                    ? metric(metricsPage(targets[i]->url), "process_resident_memory_bytes") /
                          (1024.0 * 1024.0)
                    : kest::bench::ProcessInfo(pids[i]).residentMiB().value_or(-1);
            rss[i].push_back(mib);
            std::printf("  %9.1f", mib);
            // Anonymous memory is what the process holds; file-backed pages (the store's mapped
            // and cached pages, code) the kernel can reclaim.
            const auto parts =
                pids.empty() ? std::nullopt : kest::bench::ProcessInfo(pids[i]).residentParts();
            std::printf("  %5.1f  %5.1f", parts ? parts->anonymousMiB : -1.0,
                        parts ? parts->fileMiB : -1.0);
        }
        std::uint64_t sent = 0, saveErrors = 0;
        for (const auto& target : targets) {
            sent += target->tracksSent;
            saveErrors += target->saveErrors;
        }
        std::printf("  %12llu  %10llu  %10llu  %10llu\n", (unsigned long long)sent,
                    (unsigned long long)saveErrors,
                    (unsigned long long)(searches.internal + searches.distributed),
                    (unsigned long long)searches.errors.load());
        std::fflush(stdout);
    };
    printRow();
    for (auto next = started + std::chrono::seconds(options.sampleSeconds); next < end;
         next += std::chrono::seconds(options.sampleSeconds)) {
        std::this_thread::sleep_until(next);
        printRow();
    }
    for (auto& thread : threads)
        thread.join();
    printRow();

    // Everything accepted is committed within the commit delay; wait until the queues are empty.
    std::printf("\nsoak: traffic stopped; waiting for the write queues to drain\n");
    for (int i = 0; i < 120; ++i) {
        bool drained = true;
        for (const auto& target : targets) {
            drained =
                drained && metric(metricsPage(target->url), "metadatadb_write_queue_packets") == 0;
        }
        if (drained)
            break;
        std::this_thread::sleep_for(500ms);
    }

    int failures = 0;
    std::printf("\n%-24s %12s %12s %12s %10s %10s %10s %10s %10s %10s\n", "instance", "expected",
                "stored", "sent", "save_req", "save_err", "pkt_failed", "peer_fail", "peer_tmo",
                "mongo_fail");
    std::uint64_t expectedTotal = 0, storedTotal = 0;
    for (const auto& target : targets) {
        auto client = api::ClientFactory::instance().create(kest::utils::Url(target->url));
        client->setRequestTimeout(60s);
        std::uint64_t stored = 0;
        for (const ZuUuid& device : target->devices) {
            DataRequestData request;
            request.internal_lookup = true;
            request.filter.deviceIds = {device};
            const auto [status, tracks] = client->getDataSync(request);
            if (status != StatusCode::ok) {
                std::printf("soak: counting lookup on %s failed: %d\n", target->url.c_str(),
                            (int)status);
                ++failures;
            }
            std::set<ZuUuid> ids;
            for (const auto& track : tracks)
                ids.insert(track.id);
            stored += ids.size();
        }
        const std::string page = metricsPage(target->url);
        std::printf("%-24s %12llu %12llu %12llu %10llu %10llu %10.0f %10.0f %10.0f %10.0f\n",
                    target->url.c_str(), (unsigned long long)target->tracksAccepted.load(),
                    (unsigned long long)stored, (unsigned long long)target->tracksSent.load(),
                    (unsigned long long)target->saveRequests.load(),
                    (unsigned long long)target->saveErrors.load(),
                    metric(page, "metadatadb_packets_failed_total"),
                    metric(page, "metadatadb_fanout_peer_failures_total"),
                    metric(page, "metadatadb_fanout_peer_timeouts_total"),
                    metricSum(page, "metadatadb_mongodb_operation_failures_total"));
        expectedTotal += target->tracksAccepted;
        storedTotal += stored;
    }
    std::printf("%-24s %12llu %12llu\n", "total", (unsigned long long)expectedTotal,
                (unsigned long long)storedTotal);
    std::printf("searches: %llu internal, %llu distributed (%llu found tracks), %llu failed\n",
                (unsigned long long)searches.internal.load(),
                (unsigned long long)searches.distributed.load(),
                (unsigned long long)searches.distributedFound.load(),
                (unsigned long long)searches.errors.load());

    // Levelling off: the growth over the second half of the run against the first half's.
    for (std::size_t i = 0; i < rss.size(); ++i) {
        const auto& samples = rss[i];
        if (samples.size() < 3)
            continue;
        const double first = samples.front(), middle = samples[samples.size() / 2],
                     last = samples.back();
        double peak = 0;
        for (const double sample : samples)
            peak = std::max(peak, sample);
        std::printf(
            "rss instance %zu: start %.1f MiB, middle %.1f, end %.1f, peak %.1f; first "
            "half %+.1f MiB, second half %+.1f MiB\n",
            i + 1, first, middle, last, peak, middle - first, last - middle);
    }
    const bool complete = storedTotal == expectedTotal;
    std::printf("soak: %s\n", complete && failures == 0 ? "every accepted track is stored"
                                                        : "TRACKS MISSING OR COUNT FAILED");
    return complete && failures == 0 ? 0 : 1;
}
