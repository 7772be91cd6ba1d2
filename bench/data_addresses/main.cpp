// A year of one device's data addresses in the shared database: the data-address recorder on a
// simulated clock saves and compacts the spans of a steady and of a bursty device, with and
// without retention, its last days in a real MongoDB (bench/common/with_standin starts a
// stand-in) and the days before in a model of the document in memory; then distributed searches
// for the device's newest minute go through an in-process service whose address the spans name,
// and the document is measured. See README.md.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kest/cloud/storage/api/client_factory.h>
#include <kest/cloud/storage/cluster_settings.h>
#include <kest/cloud/storage/model/data_address_recorder.h>
#include <kest/cloud/storage/model/mongo_data_distribution_storage.h>
#include <kest/cloud/storage/testing/recording_data_distribution_storage.h>
#include <kest/cloud/storage/testing/running_service.h>
#include <kest/utils/log/logger.h>

#include "command_line.h"
#include "figure.h"
#include "latency_stats.h"

namespace {

using namespace std::chrono_literals;
using namespace kest::cloud::storage::metadatadb;
using kest::network::http::StatusCode;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kDayMs = 86'400'000;
constexpr std::int64_t kStepMs = 10'000;         //< One committed batch per device and step.
constexpr std::int64_t kT0 = 1'735'689'600'000;  //< 2025-01-01T00:00:00Z.

struct Options
{
    std::string mongoUri;
    int days = 365;
    /** The last days run against MongoDB; the stand-in takes about 10 ms per write. */
    int liveDays = 3;
    int searches = 200;
};

/**
 * What the recorder asks of the shared database goes to a model of the documents in memory, or,
 * once live, to MongoDB; counted, and waited for.
 */
class TrackingStorage : public AbstractDataDistributionStorage
{
public:
    explicit TrackingStorage(const std::string& uri) : m_mongo(uri) {}

    /** Copies the device's document from the model to MongoDB; from then on MongoDB serves. */
    bool goLive(const std::string& deviceId)
    {
        std::vector<DataInfo> spans;
        std::string node;
        for (const auto& span : m_memory.document(deviceId)) {
            spans.push_back({deviceId, span.period});
            node = span.node;
        }
        m_live = true;
        if (spans.empty())
            return true;
        std::promise<bool> done;
        m_mongo.appendDataAddresses(
            spans, node, [&done](AppendResult result) { done.set_value(result.failed.empty()); });
        return done.get_future().get();
    }

    void getStorageInfo(const std::vector<std::string>& deviceIds, const ZuTimePeriod& period,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override
    {
        m_mongo.getStorageInfo(deviceIds, period, std::move(handler));
    }
    void saveDataAddress(const std::vector<DataInfo>& data, const std::string& host,
                         MoveOnlyFunc<void(std::vector<DataInfo>)> handler) override
    {
        m_mongo.saveDataAddress(data, host, std::move(handler));
    }
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override
    {
        m_mongo.getInstancesLoad(std::move(handler));
    }
    void saveInstanceLoad(const InstanseLoad& load) override { m_mongo.saveInstanceLoad(load); }
    void getDeviceInstancesMapping(std::chrono::system_clock::time_point since,
                                   MoveOnlyFunc<void(bool, DeviceMapping)> handler) override
    {
        m_mongo.getDeviceInstancesMapping(since, std::move(handler));
    }
    void saveInstanceLoadSync(const InstanseLoad& load) override
    {
        m_mongo.saveInstanceLoadSync(load);
    }

    void appendDataAddresses(const std::vector<DataInfo>& data, const std::string& host,
                             MoveOnlyFunc<void(AppendResult)> handler) override
    {
        begin();
        m_spans += data.size();
        target().appendDataAddresses(
            data, host, [this, handler = std::move(handler)](AppendResult result) mutable {
                m_failed += result.failed.size();
                handler(std::move(result));
                end();
            });
    }
    void getDataAddresses(const std::string& host, const std::vector<std::string>& deviceIds,
                          MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler) override
    {
        begin();
        target().getDataAddresses(
            host, deviceIds,
            [this, handler = std::move(handler)](bool ok, std::vector<DataInfo> spans) mutable {
                handler(ok, std::move(spans));
                end();
            });
    }
    void replaceDataAddresses(const std::string& deviceId, const std::string& host,
                              const std::vector<ZuTimePeriod>& add,
                              const std::vector<ZuTimePeriod>& remove,
                              MoveOnlyFunc<void(bool)> handler) override
    {
        begin();
        ++m_replaces;
        target().replaceDataAddresses(deviceId, host, add, remove,
                                      [this, handler = std::move(handler)](bool ok) mutable {
                                          handler(ok);
                                          end();
                                      });
    }

    /** Until no operation is in flight; those started by handlers included. */
    void waitIdle()
    {
        std::unique_lock lock(m_mutex);
        m_idle.wait(lock, [this] { return m_inFlight == 0; });
    }

    /** Spans appended, appends that failed, replacements. */
    std::size_t spans() const { return m_spans; }
    std::size_t failed() const { return m_failed; }
    std::size_t replaces() const { return m_replaces; }
    MongoDataDistributionStorage& mongo() { return m_mongo; }

private:
    AbstractDataDistributionStorage& target()
    {
        return m_live ? static_cast<AbstractDataDistributionStorage&>(m_mongo) : m_memory;
    }
    void begin()
    {
        std::lock_guard lock(m_mutex);
        ++m_inFlight;
    }
    void end()
    {
        std::lock_guard lock(m_mutex);
        if (--m_inFlight == 0)
            m_idle.notify_all();
    }

    MongoDataDistributionStorage m_mongo;
    test::RecordingDataDistributionStorage m_memory;
    std::atomic<bool> m_live{false};
    std::mutex m_mutex;
    std::condition_variable m_idle;
    int m_inFlight = 0;
    std::atomic<std::size_t> m_spans{0};
    std::atomic<std::size_t> m_failed{0};
    std::atomic<std::size_t> m_replaces{0};
};

struct Scenario
{
    const char* name;
    /** A minute of activity every three minutes, else all the time. */
    bool bursty;
    int maxAgeDays;
};

struct Outcome
{
    std::size_t documentBytes = 0;
    std::size_t documentSpans = 0;
    double spansPerHour = 0;  //< Appended over the last simulated day.
    double writesPerHour = 0;
    std::size_t failed = 0;
    kest::bench::LatencyStats search;
    double simulatedSeconds = 0;
};

/** The device's document: its size in BSON bytes and its number of spans. */
std::pair<std::size_t, std::size_t> measureDocument(MongoDataDistributionStorage& mongo,
                                                    const std::string& deviceId)
{
    const auto client = mongo.getClient();
    mongo::Document filter;
    filter.appendString(MongoDataDistributionStorage::kDeviceId, deviceId);
    auto cursor =
        client.collection(mongo.dbName(), MongoDataDistributionStorage::kDataDistributionCollection)
            .find(filter);
    const auto document = cursor.next();
    if (!document)
        return {0, 0};
    return {document->size(),
            document->getDocumentArray(MongoDataDistributionStorage::kStorageInfo).size()};
}

Outcome simulate(const Options& options, const Scenario& scenario, const std::string& node,
                 api::AbstractClient& entry)
{
    const auto started = Clock::now();
    TrackingStorage storage(options.mongoUri);
    const ZuUuid device = ZuUuid::createUuid();
    std::int64_t nowMs = kT0;
    const std::int64_t endMs = kT0 + options.days * kDayMs;
    Outcome outcome;
    {
        DataAddressRecorder recorder(
            &storage, node,
            DataAddressRecorder::Options{
                .leaseLength = conf::ClusterSettings::kDefaultDataAddressFlushInterval,
                .clock =
                    [&nowMs] {
                        return std::chrono::system_clock::time_point(
                            std::chrono::milliseconds(nowMs));
                    },
                .timer = false});
        recorder.start();
        storage.waitIdle();
        std::size_t spansBeforeLastDay = 0, writesBeforeLastDay = 0;
        const std::int64_t liveFromMs = endMs - std::min(options.liveDays, options.days) * kDayMs;
        while (nowMs < endMs) {
            const std::int64_t from = nowMs;
            if (from == liveFromMs && !storage.goLive(device.toStdString()))
                std::fprintf(stderr, "%s: copying the document to MongoDB failed\n", scenario.name);
            nowMs += kStepMs;
            if (nowMs > endMs - kDayMs && from <= endMs - kDayMs) {
                spansBeforeLastDay = storage.spans();
                writesBeforeLastDay = storage.spans() + storage.replaces();
            }
            if (!scenario.bursty || (from - kT0) % 180'000 < 60'000)
                recorder.recordCommitted({{device, ZuTimePeriodList{ZuTimePeriod(from, kStepMs)}}});
            // The storage's retention step: nothing older than maxAgeDays is left.
            if (scenario.maxAgeDays > 0) {
                recorder.setOldestKept(std::chrono::system_clock::time_point(
                    std::chrono::milliseconds(nowMs - scenario.maxAgeDays * kDayMs)));
            }
            recorder.tick();
            storage.waitIdle();
        }
        outcome.spansPerHour = (storage.spans() - spansBeforeLastDay) / 24.0;
        outcome.writesPerHour = (storage.spans() + storage.replaces() - writesBeforeLastDay) / 24.0;
        recorder.stop();
        storage.waitIdle();
    }
    outcome.failed = storage.failed();
    outcome.simulatedSeconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::tie(outcome.documentBytes, outcome.documentSpans) =
        measureDocument(storage.mongo(), device.toStdString());

    DataRequestData search;
    search.filter.deviceIds = {device};
    search.filter.timePeriod = ZuTimePeriod(endMs - 60'000, 60'000);
    for (int i = 0; i < options.searches; ++i) {
        const auto sent = Clock::now();
        const auto status = std::get<0>(entry.getDataSync(search));
        if (status != StatusCode::ok)
            std::fprintf(stderr, "a search answered %d\n", static_cast<int>(status));
        outcome.search.add(Clock::now() - sent);
    }
    return outcome;
}

double ms(std::chrono::nanoseconds duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

int run(const Options& options)
{
    // The service whose address the spans name: a search reads the document and asks it.
    test::RunningService service(options.mongoUri, {"--log/level=warning"});
    if (!service.started()) {
        std::fprintf(stderr, "the in-process service did not start\n");
        return 1;
    }
    const std::string node = service.url();
    auto entry = api::ClientFactory::instance().create(kest::utils::Url(node));

    const Scenario scenarios[] = {{"steady, maxAgeDays 0", false, 0},
                                  {"steady, maxAgeDays 30", false, 30},
                                  {"bursty, maxAgeDays 0", true, 0},
                                  {"bursty, maxAgeDays 30", true, 30}};
    const double leaseS =
        std::chrono::duration<double>(conf::ClusterSettings::kDefaultDataAddressFlushInterval)
            .count();
    std::printf(
        "One device's data addresses over %d simulated days at the default lease length "
        "F = %.0f s\n(a batch committed every %lld s while the device is active; bursty: "
        "a minute of activity\nevery 3 minutes), compacted hourly; the last %d days "
        "against the MongoDB at hand, the\ndays before in memory. Then %d distributed "
        "searches for the newest minute through a\nservice that the spans name; %u "
        "cores.\n\n",
        options.days, leaseS, static_cast<long long>(kStepMs / 1000),
        std::min(options.liveDays, options.days), options.searches,
        std::thread::hardware_concurrency());
    std::printf("%-24s %9s %7s %10s %10s %10s %9s %9s\n", "", "document", "spans", "spans/h",
                "writes/h", "search", "search", "run");
    std::printf("%-24s %9s %7s %10s %10s %10s %9s %9s\n", "", "KiB", "", "last day", "last day",
                "p50 ms", "max ms", "s");

    int status = 0;
    using kest::bench::Figure;
    const std::string section = "cluster: a device's data addresses";
    const std::string after = " after " + std::to_string(options.days) + " days";
    for (const Scenario& scenario : scenarios) {
        const Outcome outcome = simulate(options, scenario, node, *entry);
        const double kib = outcome.documentBytes / 1024.0;
        const double p50 = ms(outcome.search.percentile(50));
        std::printf("%-24s %9.1f %7zu %10.2f %10.2f %10.2f %9.2f %9.0f\n", scenario.name, kib,
                    outcome.documentSpans, outcome.spansPerHour, outcome.writesPerHour, p50,
                    ms(outcome.search.percentile(100)), outcome.simulatedSeconds);
        if (outcome.failed > 0) {
            std::fprintf(stderr, "%s: %zu spans failed to save\n", scenario.name, outcome.failed);
            status = 1;
        }
        const std::string name = scenario.name;
        recordFigure(
            Figure::measured(section, name + ": document size" + after, kib, "KiB")
                .atMost(64)
                .withNote(std::to_string(outcome.documentSpans) +
                          " spans; a distributed search naming the device reads it whole"));
        recordFigure(
            Figure::measured(section, name + ": distributed search, median" + after, p50, "ms")
                .atMost(10)
                .withNote("the newest minute, through the node the spans name"));
        recordFigure(
            Figure::measured(section, name + ": spans added per device-hour", outcome.spansPerHour,
                             "")
                .atMost(3600 / leaseS)
                .withNote("the last day; F = " + std::to_string(static_cast<int>(leaseS)) + " s"));
    }
    std::printf(
        "\nGoals: a document of at most 64 KiB, a search median of at most 10 ms, at most "
        "3600 s / F = %.0f spans\nadded per device-hour of steady stream.\n",
        3600 / leaseS);
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (const char* uri = std::getenv("KEST_TEST_MONGODB_URI"))
        options.mongoUri = uri;
    kest::bench::CommandLine commandLine(
        "data_addresses_bench [OPTIONS]: a device's data addresses over a simulated year\n"
        "(run through bench/common/with_standin, or with KEST_TEST_MONGODB_URI or --mongo)");
    commandLine.option("--mongo", &options.mongoUri, "the shared MongoDB's URI")
        .option("--days", &options.days, "simulated days", 2)
        .option("--live-days", &options.liveDays, "the last days, run against MongoDB", 1)
        .option("--searches", &options.searches, "distributed searches per scenario", 1);
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;
    if (options.mongoUri.empty()) {
        commandLine.printUsage(stderr);
        return 2;
    }
    kest::utils::log::Logger::instance().setLevel(kest::utils::log::Level::warning);
    return run(options);
}
