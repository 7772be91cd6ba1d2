// Faults the service must live through without losing what it accepted: its MongoDB going away,
// its disk refusing writes, and being stopped or killed in the middle of ingest. Each test runs
// the service executable as a child process on loopback and takes well under a minute.

#include <gtest/gtest.h>

#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <kest/analytics_db/events_storage.h>
#include <kest/analytics_db/object_track_ex.h>
#include <kest/cloud/storage/model/db_error_data.h>
#include <kest/cloud/storage/testing/http_exchange.h>
#include <kest/cloud/storage/testing/keep_alive_connection.h>
#include <kest/cloud/storage/testing/service_process.h>
#include <kest/cloud/storage/testing/temporary_directory.h>
#include <kest/cloud/storage/testing/wait_for.h>
#include <kest/reflect/json.h>

namespace kest::cloud::storage::metadatadb::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using kest::analytics::db::ObjectTrackEx;
using std::chrono::duration;

/** Nothing listens there: lookups through it fail at once. */
const std::string kNoMongoDb = "mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100";

std::string serviceExecutable()
{
    if (const char* path = std::getenv("KEST_METADATA_STORAGE_EXE"))
        return path;
    return (fs::read_symlink("/proc/self/exe").parent_path() / "metadata_storage").string();
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string uuid(unsigned group, unsigned long long index)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%08x-0000-4000-8000-%012llx", group, index);
    return text;
}

/** One packet with one object of its own track. */
struct Packet
{
    std::string device;
    std::string track;
    std::int64_t timestampUs = 0;
};

std::string toJson(const std::vector<Packet>& packets)
{
    std::string json = "[";
    for (const auto& p : packets) {
        if (json.size() > 1)
            json += ',';
        json +=
            R"({"deviceId":")" + p.device + R"(","timestampUs":)" + std::to_string(p.timestampUs) +
            R"(,"durationUs":40000,"streamIndex":"primary","objectMetadataList":[{"trackId":")" +
            p.track +
            R"(","typeId":"car","objectMetadataType":"regular","boundingBox":{"x":0.1,"y":0.1,"width":0.2,"height":0.2}}]})";
    }
    return json + "]";
}

/** The service executable as a child, its output drained on a thread of its own. */
class Service
{
public:
    Service(const std::string& dataDir, std::vector<std::string> args)
    {
        args.insert(args.end(),
                    {"--http/listenOn=127.0.0.1:0", "--dataDir=" + dataDir, "--log/level=info"});
        if (std::none_of(args.begin(), args.end(),
                         [](const auto& a) { return a.starts_with("--MongoDb/uri="); })) {
            args.push_back("--MongoDb/uri=" + kNoMongoDb);
        }
        m_process = std::make_unique<ServiceProcess>(serviceExecutable(), args);
        const auto listening = m_process->waitForLine(
            std::regex(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})"));
        if (listening)
            m_port = static_cast<std::uint16_t>(std::stoi((*listening)[1].str()));
        // A child blocked on a full pipe would stall: its log is read all along.
        m_drain = std::thread([this] {
            const std::regex never("$^.");
            while (!m_stopDraining) {
                if (!m_process->waitForLine(never))
                    std::this_thread::sleep_for(10ms);
            }
        });
    }

    ~Service()
    {
        if (m_drain.joinable()) {
            if (!m_exited)
                m_process->signal(SIGKILL);
            m_stopDraining = true;
            m_drain.join();
        }
    }

    std::uint16_t port() const { return m_port; }
    pid_t pid() const { return m_process->pid(); }
    void signal(int number) { m_process->signal(number); }

    /** Waits for the process to end; its wait status. The output is readable after it. */
    int wait()
    {
        // The drain reads until the pipe closes with the process.
        std::this_thread::sleep_for(10ms);
        m_stopDraining = true;
        m_drain.join();
        m_exited = true;
        return m_process->wait();
    }

    const std::string& output() const { return m_process->output(); }

private:
    std::unique_ptr<ServiceProcess> m_process;
    std::uint16_t m_port = 0;
    std::thread m_drain;
    std::atomic<bool> m_stopDraining{false};
    bool m_exited = false;
};

bool post(std::uint16_t port, const std::vector<Packet>& packets)
{
    const auto response =
        exchange(port, "POST", "/metadataDb/v1/data", toJson(packets), "application/json");
    return response && response->status == 200;
}

/** The tracks of a device that an internal lookup finds; nothing when the lookup fails. */
std::optional<std::set<ZuUuid>> tracksOf(std::uint16_t port, const std::string& device)
{
    const auto response =
        exchange(port, "GET", "/metadataDb/v1/data?internal_lookup=1&deviceIds=" + device);
    if (!response || response->status != 200)
        return std::nullopt;
    std::vector<ObjectTrackEx> tracks;
    if (!kest::reflect::json::deserialize(response->body, &tracks))
        return std::nullopt;
    std::set<ZuUuid> ids;
    for (const auto& track : tracks)
        ids.insert(track.id);
    return ids;
}

bool searchable(std::uint16_t port, const std::vector<Packet>& packets)
{
    std::map<std::string, std::set<ZuUuid>> found;
    for (const auto& packet : packets) {
        if (!found.contains(packet.device)) {
            const auto tracks = tracksOf(port, packet.device);
            if (!tracks)
                return false;
            found[packet.device] = *tracks;
        }
        if (!found[packet.device].contains(ZuUuid(packet.track)))
            return false;
    }
    return true;
}

int status(std::uint16_t port, const std::string& method, const std::string& target)
{
    const auto response = exchange(port, method, target);
    return response ? response->status : 0;
}

/**
 * Posts packets of a few devices, one request after another, until stopped or until the service
 * stops answering; remembers every packet acknowledged with 200 and when.
 */
class SustainedIngest
{
public:
    struct Acknowledged
    {
        Clock::time_point time;
        std::vector<Packet> packets;
    };

    static constexpr unsigned kDevices = 4;
    static constexpr std::size_t kPacketsPerRequest = 20;

    explicit SustainedIngest(std::uint16_t port, unsigned group) : m_port(port), m_group(group)
    {
        m_thread = std::thread([this] { run(); });
    }
    ~SustainedIngest() { stop(); }

    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

    static std::string device(unsigned group, unsigned i) { return uuid(group, i); }
    std::string device(unsigned i) const { return device(m_group, i); }
    std::vector<Acknowledged> acknowledged() const
    {
        std::lock_guard lock(m_mutex);
        return m_acknowledged;
    }
    std::size_t refusedRequests() const { return m_refused; }
    std::size_t acknowledgedPackets() const
    {
        std::lock_guard lock(m_mutex);
        return m_acknowledged.size() * kPacketsPerRequest;
    }

private:
    void run()
    {
        unsigned long long next = 0;
        int failures = 0;
        std::unique_ptr<KeepAliveConnection> connection;
        while (!m_stop && failures < 100) {
            std::vector<Packet> packets;
            for (std::size_t i = 0; i < kPacketsPerRequest; ++i, ++next) {
                packets.push_back({device(static_cast<unsigned>(next % kDevices)),
                                   uuid(m_group + 1, next),
                                   1'700'000'000'000'000 + static_cast<std::int64_t>(next) * 1000});
            }
            if (!connection || !connection->connected())
                connection = std::make_unique<KeepAliveConnection>(m_port);
            const auto response = connection->request("POST", "/metadataDb/v1/data",
                                                      toJson(packets), "application/json");
            if (response && response->status == 200) {
                std::lock_guard lock(m_mutex);
                m_acknowledged.push_back({Clock::now(), std::move(packets)});
                failures = 0;
                continue;
            }
            // Not accepted. A refusal (the storage is behind) is retried until stopped; a
            // connection that fails over and over means the service is gone.
            if (response) {
                ++m_refused;
            } else {
                connection.reset();
                ++failures;
            }
            std::this_thread::sleep_for(10ms);
        }
    }

    std::uint16_t m_port;
    unsigned m_group;
    std::atomic<bool> m_stop{false};
    std::atomic<std::size_t> m_refused{0};
    mutable std::mutex m_mutex;
    std::vector<Acknowledged> m_acknowledged;
    std::thread m_thread;
};

constexpr auto kIngestTime = 1500ms;

class FaultTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!fs::exists(serviceExecutable()))
            GTEST_SKIP() << "No service executable at " << serviceExecutable();
    }

    std::string eventsDatabase() const { return m_dataDir.path() + "/analytics_db/events.sqlite"; }

    TemporaryDirectory m_dataDir;
};

// ------------------------------------------------------------------------------------------------
// MongoDB killed and brought back.

std::string sourceDir()
{
    return KEST_SOURCE_DIR;
}

/** A private MongoDB stand-in run by scripts/mongo_standin, killed and restarted by its PID. */
class MongoStandIn
{
public:
    explicit MongoStandIn(std::string state) : m_state(std::move(state)) {}
    ~MongoStandIn() { run("stop"); }

    /** Starts it on `port` (0: a free one); its URI, empty on failure. */
    std::string start(std::uint16_t port = 0)
    {
        const std::string out = m_state + "/start.out";
        if (run("start", std::to_string(port) + " >" + out) != 0)
            return {};
        std::ifstream file(out);
        std::string uri;
        std::getline(file, uri);
        return uri;
    }

    void kill()
    {
        std::ifstream file(m_state + "/pid");
        pid_t pid = 0;
        if (file >> pid && pid > 0)
            ::kill(pid, SIGKILL);
    }

private:
    int run(const std::string& command, const std::string& rest = {})
    {
        const std::string line =
            sourceDir() + "/scripts/mongo_standin " + command + " '" + m_state + "' " + rest;
        return std::system(line.c_str());
    }

    std::string m_state;
};

std::uint16_t portOf(const std::string& uri)
{
    std::smatch match;
    if (!std::regex_search(uri, match, std::regex(R"(:(\d+)/?)")))
        return 0;
    return static_cast<std::uint16_t>(std::stoi(match[1].str()));
}

TEST_F(FaultTest, MongoDbKilledLookupsFailQuicklyIngestGoesOnAndLookupsRecover)
{
    TemporaryDirectory mongoState;
    MongoStandIn mongo(mongoState.path());
    const std::string uri = mongo.start();
    if (uri.empty())
        GTEST_SKIP() << "The MongoDB stand-in cannot be started here";

    Service service(m_dataDir.path(), {"--MongoDb/uri=" + uri, "--analyticsDb/maxCommitDelayMs=100",
                                       "--cluster/advertisedUrl=http://127.0.0.1:1",
                                       "--cluster/loadPublishIntervalMs=1000",
                                       "--cluster/dataAddressFlushIntervalMs=200"});
    ASSERT_NE(0, service.port()) << service.output();
    const std::uint16_t port = service.port();
    // A device nobody holds data of: a distributed search for it needs only MongoDB.
    const std::string search =
        "/metadataDb/v1/data?deviceIds=" + uuid(9, 9) + "&startTimeMs=0&durationMs=1000";
    const std::string optimal = "/metadataDb/v1/optimalInstance?VmsId=" + uuid(8, 8);

    ASSERT_TRUE(waitFor([&] { return status(port, "GET", optimal) == 200; }, 15s))
        << "the load record never appeared";
    ASSERT_EQ(200, status(port, "GET", search));

    mongo.kill();
    // The driver notices a dead server at its next check, so the first lookups may still get
    // through on a pooled connection; from then on every one must fail within the bound.
    constexpr auto kFailureBound = 8s;
    const auto killed = Clock::now();
    double slowestFailure = 0;
    int failures = 0;
    while (failures < 3 && Clock::now() < killed + 20s) {
        const auto started = Clock::now();
        const int searchStatus = status(port, "GET", search);
        const double searchSeconds = secondsSince(started);
        const auto optimalStarted = Clock::now();
        const int optimalStatus = status(port, "GET", optimal);
        const double optimalSeconds = secondsSince(optimalStarted);
        EXPECT_LT(searchSeconds, std::chrono::duration<double>(kFailureBound).count());
        EXPECT_LT(optimalSeconds, std::chrono::duration<double>(kFailureBound).count());
        if (searchStatus == 500 && optimalStatus == 500) {
            ++failures;
            slowestFailure = std::max({slowestFailure, searchSeconds, optimalSeconds});
        }
    }
    ASSERT_EQ(3, failures) << "lookups did not fail while MongoDB was down";

    // Ingest and internal lookups do not need MongoDB.
    std::vector<Packet> packets;
    for (int i = 0; i < 50; ++i)
        packets.push_back(
            {uuid(1, static_cast<unsigned>(i % 3)), uuid(2, i), 1'700'000'000'000'000 + i});
    ASSERT_TRUE(post(port, packets));
    EXPECT_TRUE(waitFor([&] { return searchable(port, packets); }, 5s));
    EXPECT_EQ(200, status(port, "POST", "/metadataDb/ping"));

    const auto restarted = Clock::now();
    ASSERT_FALSE(mongo.start(portOf(uri)).empty());
    const bool recovered = waitFor(
        [&] { return status(port, "GET", search) == 200 && status(port, "GET", optimal) == 200; },
        30s);
    const double recoverySeconds = secondsSince(restarted);
    EXPECT_TRUE(recovered) << "lookups did not recover without a restart";
    EXPECT_TRUE(searchable(port, packets));

    std::printf(
        "[ figures  ] MongoDB down: lookups answered 500 within %.2f s (bound %lld s); "
        "recovered %.2f s after MongoDB was back\n",
        slowestFailure,
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::seconds>(kFailureBound).count()),
        recoverySeconds);
    service.signal(SIGTERM);
    const int exit = service.wait();
    EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << service.output();
}

// ------------------------------------------------------------------------------------------------
// Writes refused: the file-size limit stands in for a full disk (every write past it fails as a
// write past the end of a full volume does), and is lifted again as space would return.

std::optional<std::vector<DbErrorData>> saveErrors(std::uint16_t port)
{
    const auto response = exchange(port, "GET", "/metadataDb/v1/dataSaveErrors/;");
    if (!response || response->status != 200)
        return std::nullopt;
    std::vector<DbErrorData> errors;
    if (!kest::reflect::json::deserialize(response->body, &errors))
        return std::nullopt;
    return errors;
}

bool reportsFailure(const std::vector<DbErrorData>& errors, const Packet& packet)
{
    const std::int64_t ms = packet.timestampUs / 1000;
    for (const auto& error : errors) {
        if (error.deviceId != ZuUuid(packet.device))
            continue;
        for (const auto& period : error.timePeriod) {
            if (period.contains(ms))
                return true;
        }
    }
    return false;
}

TEST_F(FaultTest, RefusedWritesAreReportedTheServiceStaysUpAndWritesResume)
{
    // The child inherits an ignored SIGXFSZ, so a write past the limit fails with EFBIG instead
    // of killing it.
    struct sigaction ignore
    {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous
    {};
    ::sigaction(SIGXFSZ, &ignore, &previous);
    Service service(m_dataDir.path(), {"--analyticsDb/maxCommitDelayMs=100"});
    ::sigaction(SIGXFSZ, &previous, nullptr);
    ASSERT_NE(0, service.port()) << service.output();
    const std::uint16_t port = service.port();

    const auto packetsOf = [](unsigned device, int first, int count) {
        std::vector<Packet> packets;
        for (int i = first; i < first + count; ++i) {
            packets.push_back({uuid(3, device), uuid(4, static_cast<unsigned long long>(i)),
                               1'700'000'000'000'000 + i * 1'000'000LL});
        }
        return packets;
    };
    const auto before = packetsOf(1, 0, 20);
    ASSERT_TRUE(post(port, before));
    ASSERT_TRUE(waitFor([&] { return searchable(port, before); }, 5s));

    rlimit original{};
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_FSIZE, nullptr, &original));
    rlimit full = original;
    full.rlim_cur = 1;
    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_FSIZE, &full, nullptr));

    const auto during = packetsOf(2, 100, 20);
    const auto failedAt = Clock::now();
    ASSERT_TRUE(post(port, during)) << "a save is accepted before it is written";
    std::vector<DbErrorData> errors;
    const bool reported = waitFor(
        [&] {
            const auto current = saveErrors(port);
            if (current)
                errors = *current;
            return std::all_of(during.begin(), during.end(),
                               [&](const Packet& p) { return reportsFailure(errors, p); });
        },
        10s);
    const double reportSeconds = secondsSince(failedAt);
    EXPECT_TRUE(reported) << "the failed periods were not reported";
    for (const auto& packet : before)
        EXPECT_FALSE(reportsFailure(errors, packet)) << "a committed packet reported as failed";
    EXPECT_EQ(200, status(port, "POST", "/metadataDb/ping"));
    EXPECT_TRUE(searchable(port, before)) << "reads stopped with the writes";

    ASSERT_EQ(0, ::prlimit(service.pid(), RLIMIT_FSIZE, &original, nullptr));
    const auto after = packetsOf(3, 200, 20);
    const auto resumedAt = Clock::now();
    ASSERT_TRUE(post(port, after));
    EXPECT_TRUE(waitFor([&] { return searchable(port, after); }, 10s))
        << "writes did not resume when space returned";
    const double resumeSeconds = secondsSince(resumedAt);
    EXPECT_TRUE(searchable(port, before));

    std::printf(
        "[ figures  ] writes refused: failed periods reported after %.2f s; after space "
        "returned, new packets searchable after %.2f s\n",
        reportSeconds, resumeSeconds);
    service.signal(SIGTERM);
    const int exit = service.wait();
    EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << service.output();
}

// ------------------------------------------------------------------------------------------------
// Stopped or killed in the middle of ingest.

/** Every packet of `acknowledged` that an internal lookup does not find. */
std::vector<std::pair<Clock::time_point, Packet>> missing(
    std::uint16_t port, const std::vector<SustainedIngest::Acknowledged>& acknowledged,
    unsigned group)
{
    std::map<std::string, std::set<ZuUuid>> found;
    for (unsigned i = 0; i < SustainedIngest::kDevices; ++i) {
        const std::string device = SustainedIngest::device(group, i);
        found[device] = tracksOf(port, device).value_or(std::set<ZuUuid>());
    }
    std::vector<std::pair<Clock::time_point, Packet>> result;
    for (const auto& request : acknowledged) {
        for (const auto& packet : request.packets) {
            if (!found[packet.device].contains(ZuUuid(packet.track)))
                result.emplace_back(request.time, packet);
        }
    }
    return result;
}

/** "ok", or what SQLite's check of the file found; `quick`: without the indexes' contents. */
std::string integrityCheck(const std::string& file, bool quick = false)
{
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return "cannot open " + file;
    }
    std::string result;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, quick ? "PRAGMA quick_check" : "PRAGMA integrity_check", -1,
                           &statement, nullptr) == SQLITE_OK) {
        while (sqlite3_step(statement) == SQLITE_ROW)
            result += reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    } else {
        result = sqlite3_errmsg(db);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return result;
}

TEST_F(FaultTest, SigtermDuringIngestKeepsEveryAcknowledgedPacket)
{
    std::size_t acknowledgedPackets = 0;
    std::vector<SustainedIngest::Acknowledged> acknowledged;
    {
        Service service(m_dataDir.path(), {"--analyticsDb/maxCommitDelayMs=200"});
        ASSERT_NE(0, service.port()) << service.output();
        SustainedIngest ingest(service.port(), 10);
        ASSERT_TRUE(waitFor([&] { return ingest.acknowledgedPackets() > 0; }, 20s));
        // Long enough for many batches to be committed, and more to be waiting.
        std::this_thread::sleep_for(kIngestTime);
        service.signal(SIGTERM);
        const int exit = service.wait();
        ingest.stop();
        EXPECT_TRUE(WIFEXITED(exit) && WEXITSTATUS(exit) == 0) << service.output();
        acknowledged = ingest.acknowledged();
        acknowledgedPackets = ingest.acknowledgedPackets();
    }
    EXPECT_EQ("ok", integrityCheck(eventsDatabase()));

    Service restarted(m_dataDir.path(), {});
    ASSERT_NE(0, restarted.port()) << restarted.output();
    const auto lost = missing(restarted.port(), acknowledged, 10);
    EXPECT_TRUE(lost.empty()) << lost.size() << " of " << acknowledgedPackets
                              << " acknowledged packets are missing after the restart";
    std::printf(
        "[ figures  ] SIGTERM during ingest: %zu packets acknowledged, %zu missing after "
        "the restart\n",
        acknowledgedPackets, lost.size());
}

TEST_F(FaultTest, SigkillDuringIngestLeavesAConsistentStoreAndLosesAtMostTheCommitDelay)
{
    constexpr auto kCommitDelay = 200ms;
    constexpr auto kMaxBacklogLag = kest::analytics::db::EventsStorage::kMaxBacklogLag;
    // What a batch may take to be written after its delay ran out, on a loaded machine.
    constexpr auto kWriteAllowance = 1000ms;
    std::size_t acknowledgedPackets = 0;
    std::vector<SustainedIngest::Acknowledged> acknowledged;
    Clock::time_point killedAt;
    std::size_t refused = 0;
    {
        Service service(m_dataDir.path(),
                        {"--analyticsDb/maxCommitDelayMs=" + std::to_string(kCommitDelay.count())});
        ASSERT_NE(0, service.port()) << service.output();
        SustainedIngest ingest(service.port(), 20);
        ASSERT_TRUE(waitFor([&] { return ingest.acknowledgedPackets() > 0; }, 20s));
        // Long enough for many batches to be committed, and more to be waiting.
        std::this_thread::sleep_for(kIngestTime);
        killedAt = Clock::now();
        service.signal(SIGKILL);
        service.wait();
        ingest.stop();
        acknowledged = ingest.acknowledged();
        acknowledgedPackets = ingest.acknowledgedPackets();
        refused = ingest.refusedRequests();
    }
    EXPECT_EQ("ok", integrityCheck(eventsDatabase()));

    Service restarted(m_dataDir.path(), {});
    ASSERT_NE(0, restarted.port()) << restarted.output();
    const auto lost = missing(restarted.port(), acknowledged, 20);
    double oldestLostSeconds = 0;
    for (const auto& [time, packet] : lost)
        oldestLostSeconds = std::max(oldestLostSeconds, duration<double>(killedAt - time).count());
    // The storage stops acknowledging once its backlog is older than the delay and the lag it
    // allows; one batch may still be being written at the kill.
    EXPECT_LT(oldestLostSeconds,
              duration<double>(kCommitDelay + kMaxBacklogLag + kWriteAllowance).count())
        << lost.size() << " of " << acknowledgedPackets << " acknowledged packets were lost";
    std::printf(
        "[ figures  ] SIGKILL during ingest: %zu packets acknowledged (%zu requests refused "
        "while the writer was behind), %zu lost, the "
        "oldest acknowledged %.3f s before the kill (commit delay %lld ms, backlog lag "
        "%lld ms)\n",
        acknowledgedPackets, refused, lost.size(), oldestLostSeconds,
        static_cast<long long>(kCommitDelay.count()),
        static_cast<long long>(kMaxBacklogLag.count()));
}

// ------------------------------------------------------------------------------------------------
// Killed while every packet opens a track: what was acknowledged and lost is never older than
// the bound the storage keeps, and nothing at all when saves are answered once committed.

/**
 * Clients that post batches of 20 packets as fast as they are answered, each client with a
 * device of its own whose time goes forward a millisecond a packet; each packet has one object
 * of a new track with an attribute whose value the batch shares.
 */
class NewTrackIngest
{
public:
    struct Batch
    {
        Clock::time_point acknowledged;
        std::string first;
        std::string last;
    };

    static constexpr int kClients = 4;
    static constexpr std::size_t kPacketsPerBatch = 20;

    NewTrackIngest(std::uint16_t port, unsigned group) : m_port(port), m_group(group)
    {
        for (int c = 0; c < kClients; ++c)
            m_threads.emplace_back([this, c] { run(c); });
    }
    ~NewTrackIngest() { stop(); }

    void stop()
    {
        m_stop = true;
        for (auto& thread : m_threads) {
            if (thread.joinable())
                thread.join();
        }
    }
    std::vector<Batch> acknowledged() const
    {
        std::lock_guard lock(m_mutex);
        return m_acknowledged;
    }
    std::size_t acknowledgedBatches() const
    {
        std::lock_guard lock(m_mutex);
        return m_acknowledged.size();
    }

private:
    void run(int client)
    {
        const std::string device = uuid(m_group, static_cast<unsigned>(client));
        std::unique_ptr<KeepAliveConnection> connection;
        unsigned long long next = 0;
        int failures = 0;
        while (!m_stop && failures < 100) {
            std::string json = "[";
            Batch batch;
            const std::string word = "lot" + std::to_string(m_group) + "x" +
                                     std::to_string(client) + "x" + std::to_string(next);
            for (std::size_t i = 0; i < kPacketsPerBatch; ++i, ++next) {
                const std::string track = uuid(m_group + 1 + static_cast<unsigned>(client), next);
                if (i == 0)
                    batch.first = track;
                batch.last = track;
                json +=
                    std::string(i ? "," : "") + R"({"deviceId":")" + device +
                    R"(","timestampUs":)" +
                    std::to_string(1'700'000'000'000'000 + static_cast<long long>(next) * 1000) +
                    R"(,"durationUs":1000,"streamIndex":"primary","objectMetadataList":[{"trackId":")" +
                    track +
                    R"(","typeId":"car","objectMetadataType":"regular","boundingBox":{"x":0.1,"y":0.1,"width":0.2,"height":0.2},"attributes":[{"name":"batch","value":")" +
                    word + R"("}]}]})";
            }
            json += "]";
            for (;;) {
                if (!connection || !connection->connected())
                    connection = std::make_unique<KeepAliveConnection>(m_port);
                const auto response =
                    connection->request("POST", "/metadataDb/v1/data", json, "application/json");
                if (response && response->status == 200) {
                    batch.acknowledged = Clock::now();
                    std::lock_guard lock(m_mutex);
                    m_acknowledged.push_back(std::move(batch));
                    failures = 0;
                    break;
                }
                if (!response) {
                    connection.reset();
                    if (++failures >= 100 || m_stop)
                        return;
                }
                if (m_stop)
                    return;
                // Refused while the storage is behind: the same batch again, a little later.
                std::this_thread::sleep_for(5ms);
            }
        }
    }

    std::uint16_t m_port;
    unsigned m_group;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    std::vector<Batch> m_acknowledged;
    std::vector<std::thread> m_threads;
};

/** The acknowledged batches whose first or last track an internal lookup by id cannot find. */
std::vector<NewTrackIngest::Batch> missingBatches(std::uint16_t port,
                                                  const std::vector<NewTrackIngest::Batch>& batches)
{
    std::vector<NewTrackIngest::Batch> missing;
    std::mutex mutex;
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            KeepAliveConnection connection(port);
            for (std::size_t i; (i = next++) < batches.size();) {
                bool found = true;
                for (const auto& track : {batches[i].first, batches[i].last}) {
                    const auto response = connection.request(
                        "GET", "/metadataDb/v1/data?internal_lookup=1&objectTrackId=" + track);
                    found = found && response && response->status == 200 &&
                            response->body.find(track) != std::string::npos;
                }
                if (!found) {
                    std::lock_guard lock(mutex);
                    missing.push_back(batches[i]);
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    return missing;
}

TEST_F(FaultTest, SigkillWhileEveryPacketOpensATrackLosesOnlyWhatIsWithinTheBound)
{
    constexpr auto kCommitDelay = 200ms;
    // The bound the storage keeps, and what scheduling on a loaded machine adds to it.
    constexpr auto kBound =
        kCommitDelay + kest::analytics::db::EventsStorage::kMaxBacklogLag + 250ms;
    constexpr int kKills = 10;
    std::mt19937 random(std::random_device{}());
    double worstSeconds = 0;
    std::size_t acknowledgedBatches = 0, lostBatches = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        std::vector<NewTrackIngest::Batch> acknowledged;
        Clock::time_point killedAt;
        {
            Service service(m_dataDir.path(), {"--analyticsDb/maxCommitDelayMs=" +
                                               std::to_string(kCommitDelay.count())});
            ASSERT_NE(0, service.port()) << service.output();
            NewTrackIngest ingest(service.port(), 0x100 * (kill + 1));
            ASSERT_TRUE(waitFor([&] { return ingest.acknowledgedBatches() > 0; }, 20s));
            // Killed at a random moment.
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::uniform_int_distribution<>(2000, 10000)(random)));
            killedAt = Clock::now();
            service.signal(SIGKILL);
            service.wait();
            ingest.stop();
            acknowledged = ingest.acknowledged();
        }
        // A quick check after each kill, the whole check after the last.
        EXPECT_EQ("ok", integrityCheck(eventsDatabase(), kill + 1 < kKills));

        Service restarted(m_dataDir.path(), {});
        ASSERT_NE(0, restarted.port()) << restarted.output();
        // Every batch of the last seconds before the kill, where losses can be, and every 20th
        // before them, where none can.
        std::vector<NewTrackIngest::Batch> checked;
        for (std::size_t i = 0; i < acknowledged.size(); ++i) {
            if (i % 20 == 0 || killedAt - acknowledged[i].acknowledged < 5s)
                checked.push_back(acknowledged[i]);
        }
        const auto lost = missingBatches(restarted.port(), checked);
        double oldest = 0;
        for (const auto& batch : lost)
            oldest = std::max(oldest, duration<double>(killedAt - batch.acknowledged).count());
        EXPECT_LE(oldest, duration<double>(kBound).count())
            << "kill " << kill << ": " << lost.size() << " of " << acknowledged.size()
            << " acknowledged batches lost";
        worstSeconds = std::max(worstSeconds, oldest);
        acknowledgedBatches += acknowledged.size();
        lostBatches += lost.size();
        restarted.signal(SIGTERM);
        restarted.wait();
    }
    std::printf(
        "[ figures  ] SIGKILL, a new track in every packet, %d kills: %zu batches of %zu "
        "acknowledged, %zu lost, the oldest acknowledged %.3f s before its kill (bound %.3f s: "
        "commit delay, backlog lag and 250 ms of scheduling)\n",
        kKills, acknowledgedBatches, NewTrackIngest::kPacketsPerBatch, lostBatches, worstSeconds,
        duration<double>(kBound).count());
}

TEST_F(FaultTest, SigkillLosesNothingAcknowledgedWhenSavesWaitForTheirCommit)
{
    std::size_t acknowledgedBatches = 0, lostBatches = 0;
    for (int kill = 0; kill < 2; ++kill) {
        std::vector<NewTrackIngest::Batch> acknowledged;
        {
            Service service(m_dataDir.path(), {"--analyticsDb/ackAfterCommit=true"});
            ASSERT_NE(0, service.port()) << service.output();
            NewTrackIngest ingest(service.port(), 0x1000 * (kill + 1));
            ASSERT_TRUE(waitFor([&] { return ingest.acknowledgedBatches() > 100; }, 20s));
            service.signal(SIGKILL);
            service.wait();
            ingest.stop();
            acknowledged = ingest.acknowledged();
        }
        Service restarted(m_dataDir.path(), {});
        ASSERT_NE(0, restarted.port()) << restarted.output();
        const auto lost = missingBatches(restarted.port(), acknowledged);
        EXPECT_TRUE(lost.empty()) << lost.size() << " of " << acknowledged.size()
                                  << " acknowledged batches lost";
        acknowledgedBatches += acknowledged.size();
        lostBatches += lost.size();
        restarted.signal(SIGTERM);
        restarted.wait();
    }
    std::printf(
        "[ figures  ] SIGKILL with analyticsDb/ackAfterCommit: %zu batches of %zu acknowledged, "
        "%zu lost\n",
        acknowledgedBatches, NewTrackIngest::kPacketsPerBatch, lostBatches);
}

}  // namespace
}  // namespace kest::cloud::storage::metadatadb::test
