// Hostile HTTP clients against the service, on loopback: slowloris, header floods, huge declared
// bodies, garbage bytes, thousands of idle connections, pipelined junk and a client guessing
// bearer tokens, one attack after the other and then all at once. With --tls the listener serves
// TLS and every attack speaks it, plus two that never finish a handshake. Throughout, a
// well-behaved client pings the service on a kept-alive connection, and the service's resident
// memory is sampled. Prints, per attack, the ping latency (p50, p99, max, failures) and the peak
// RSS, then the goals with pass or fail. See README.md.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <kest/cloud/storage/testing/service_process.h>
#include <kest/network/testing/test_certificates.h>

#include "command_line.h"
#include "figure.h"
#include "http_client.h"
#include "latency_stats.h"
#include "process_info.h"

namespace fs = std::filesystem;
using namespace std::chrono;
using kest::bench::Figure;
using kest::bench::LatencyStats;
using kest::cloud::storage::metadatadb::test::spawnProcess;

namespace {

constexpr auto kPingGoal = 100ms;
constexpr auto kPingInterval = 5ms;
const std::string kPing = "POST /metadataDb/ping HTTP/1.1\r\nHost: b\r\nContent-Length: 0\r\n\r\n";
constexpr const char* kPingPath = "/metadataDb/ping";
/** Wrong tokens the brute-force attack must have sent during its phase. */
constexpr std::size_t kWrongTokensGoal = 10'000;
constexpr std::size_t kTokensPerStep = 50;

struct Options
{
    std::string service = KEST_METADATA_STORAGE_PATH;
    bool shortRun = false;
    milliseconds phase = 8s;
    int idleConnections = 5000;
    int slowConnections = 1000;
    int floodConnections = 16;
    /** Connections that declare a body just under the limit and stream it. */
    int bodyConnections = 4;
    /** Peak resident memory allowed to the service during the run. */
    std::size_t rssGoalMiB = 0;
    /** The service's own limits for this run (its defaults unless given). */
    std::size_t maxBodyMiB = 64;
    /** The listener serves TLS and the attacks speak it. */
    bool tls = false;
};

// ------------------------------------------------------------------------------------------------
// TLS: the client side of every connection when the listener serves it.

SSL_CTX* clientContext()
{
    static SSL_CTX* context = [] {
        SSL_CTX* made = SSL_CTX_new(TLS_client_method());
        // Attackers do not care whom they talk to.
        SSL_CTX_set_verify(made, SSL_VERIFY_NONE, nullptr);
        SSL_CTX_set_mode(made, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        return made;
    }();
    return context;
}

// ------------------------------------------------------------------------------------------------
// The service as a child process.

class ServiceChild
{
public:
    explicit ServiceChild(const Options& options)
    {
        m_dir = fs::temp_directory_path() / ("hostile_http." + std::to_string(::getpid()));
        fs::create_directories(m_dir);
        const std::string log = (m_dir / "service.log").string();
        // The token guesser needs credentials to guess; the ping stays open.
        const std::string tokens = (m_dir / "tokens").string();
        std::ofstream(tokens) << "reader sha256:" << std::string(64, '0')
                              << " GET /metadataDb/v1/*\n";
        std::vector<std::string> args = {
            options.service,
            "--http/listenOn=127.0.0.1:0",
            "--dataDir=" + (m_dir / "data").string(),
            "--log/file=" + log,
            "--log/level=info",
            "--http/maxBodyBytes=" + std::to_string(options.maxBodyMiB << 20),
            "--http/tokensFile=" + tokens,
            "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"};
        m_tls = options.tls;
        if (options.tls) {
            args.push_back("--http/certificateFile=" + m_certificates.server.certificate);
            args.push_back("--http/privateKeyFile=" + m_certificates.server.key);
        }
        m_pid = spawnProcess(std::move(args));
        const auto deadline = steady_clock::now() + 20s;
        const std::regex listening(R"(HTTP server is listening on \{ 127\.0\.0\.1:(\d+) \})");
        while (m_pid > 0 && m_port == 0 && steady_clock::now() < deadline) {
            std::ifstream file(log);
            std::string line;
            std::smatch match;
            while (std::getline(file, line)) {
                if (std::regex_search(line, match, listening))
                    m_port = static_cast<std::uint16_t>(std::stoi(match[1].str()));
            }
            std::this_thread::sleep_for(20ms);
        }
    }

    ~ServiceChild()
    {
        if (m_pid > 0 && alive()) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
        std::error_code error;
        fs::remove_all(m_dir, error);
    }

    std::uint16_t port() const { return m_port; }
    bool alive() const { return m_pid > 0 && ::waitpid(m_pid, nullptr, WNOHANG) == 0; }
    /** Where a well-behaved client reaches it, and the CAs it then trusts. */
    std::string url() const
    {
        return (m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(m_port);
    }
    std::string caFile() const { return m_tls ? m_certificates.caFile : std::string(); }

    /** Resident memory in bytes. */
    std::size_t rss() const
    {
        return static_cast<std::size_t>(kest::bench::ProcessInfo(m_pid).residentMiB().value_or(0) *
                                        1048576);
    }

private:
    kest::network::test::TestCertificates m_certificates;
    bool m_tls = false;
    fs::path m_dir;
    pid_t m_pid = -1;
    std::uint16_t m_port = 0;
};

// ------------------------------------------------------------------------------------------------
// Raw connections for the attackers: non-blocking, written to as far as the kernel takes, read
// only to throw the answers away.

int openConnection(std::uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 &&
        errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    return fd;
}

/** Sends what the socket takes now; false when the server has closed the connection. */
bool sendSome(int fd, std::string_view bytes)
{
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n >= 0 || errno == EAGAIN || errno == EWOULDBLOCK || errno == EINPROGRESS ||
           errno == ENOTCONN;
}

/** Reads and drops what has arrived; false when the server has closed the connection. */
bool drain(int fd)
{
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (n > 0)
            continue;
        if (n == 0)
            return false;
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOTCONN || errno == EINPROGRESS;
    }
}

/**
 * One attacking connection: plain TCP, or TLS over it with a handshake that advances a step per
 * pass, so that thousands of them can be driven from one thread.
 */
struct AttackConnection
{
    int fd = -1;
    SSL* ssl = nullptr;
    bool ready = false;
    /** TLS only: what the last write could not take yet, which must be offered again. */
    std::string pending;

    void close()
    {
        if (ssl)
            SSL_free(ssl);
        ssl = nullptr;
        if (fd >= 0)
            ::close(fd);
        fd = -1;
        ready = false;
        pending.clear();
    }

    bool open(std::uint16_t port, bool tls)
    {
        fd = openConnection(port);
        if (fd < 0)
            return false;
        if (tls) {
            ssl = SSL_new(clientContext());
            SSL_set_fd(ssl, fd);
            SSL_set_connect_state(ssl);
        }
        ready = !tls;
        return true;
    }

    /** False when the connection failed. */
    bool advanceHandshake()
    {
        const int result = SSL_do_handshake(ssl);
        if (result == 1) {
            ready = true;
            return true;
        }
        const int error = SSL_get_error(ssl, result);
        ERR_clear_error();
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    }

    bool send(std::string_view bytes)
    {
        if (!ssl)
            return sendSome(fd, bytes);
        pending.append(bytes);
        while (!pending.empty()) {
            const int n = SSL_write(ssl, pending.data(), static_cast<int>(pending.size()));
            if (n > 0) {
                pending.erase(0, static_cast<std::size_t>(n));
                continue;
            }
            const int error = SSL_get_error(ssl, n);
            ERR_clear_error();
            return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
        }
        return true;
    }

    /** Reads and drops the answers; false when the server has closed the connection. */
    bool drainAnswers()
    {
        if (!ssl)
            return drain(fd);
        char buffer[16384];
        for (;;) {
            const int n = SSL_read(ssl, buffer, sizeof(buffer));
            if (n > 0)
                continue;
            const int error = SSL_get_error(ssl, n);
            ERR_clear_error();
            return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
        }
    }
};

/** Connections of one attack, each reopened when the server closes it. */
class Attack
{
public:
    using Step = std::function<std::string(std::size_t connection, std::size_t round)>;

    /** `tls` speaks TLS on each connection; the step's bytes go out once its handshake is done. */
    Attack(std::string name, std::uint16_t port, int connections, milliseconds pause, Step step,
           bool tls = false)
        : m_name(std::move(name)),
          m_port(port),
          m_connections(static_cast<std::size_t>(connections)),
          m_rounds(m_connections.size(), 0),
          m_pause(pause),
          m_step(std::move(step)),
          m_tls(tls)
    {}
    ~Attack() { closeAll(); }

    const std::string& name() const { return m_name; }
    std::size_t reopened() const { return m_reopened; }
    std::size_t open() const
    {
        return static_cast<std::size_t>(std::count_if(m_connections.begin(), m_connections.end(),
                                                      [](const auto& c) { return c.fd >= 0; }));
    }
    /** Steps whose bytes went out. */
    std::size_t stepsSent() const { return m_stepsSent; }

    /** One pass over the connections: each gets its next bytes. */
    void pass()
    {
        for (std::size_t i = 0; i < m_connections.size(); ++i) {
            AttackConnection& connection = m_connections[i];
            if (connection.fd < 0) {
                m_rounds[i] = 0;
                if (!connection.open(m_port, m_tls))
                    continue;
            }
            bool alive = connection.ready || connection.advanceHandshake();
            if (alive && connection.ready) {
                // Over TLS, new bytes wait until the last ones have gone.
                if (connection.pending.empty()) {
                    alive = connection.send(m_step(i, m_rounds[i]++));
                    ++m_stepsSent;
                } else {
                    alive = connection.send({});
                }
                alive = alive && connection.drainAnswers();
            }
            if (!alive) {
                connection.close();
                ++m_reopened;
            }
        }
    }

    milliseconds pause() const { return m_pause; }

    void closeAll()
    {
        for (auto& connection : m_connections)
            connection.close();
    }

private:
    std::string m_name;
    std::uint16_t m_port;
    std::vector<AttackConnection> m_connections;
    std::vector<std::size_t> m_rounds;
    milliseconds m_pause;
    Step m_step;
    bool m_tls = false;
    std::size_t m_reopened = 0;
    std::size_t m_stepsSent = 0;
};

std::string junk(std::size_t size, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

std::vector<std::unique_ptr<Attack>> makeAttacks(const Options& options, std::uint16_t port)
{
    std::vector<std::unique_ptr<Attack>> attacks;
    const std::string head = "POST /metadataDb/v1/data HTTP/1.1\r\nHost: h\r\n";

    const bool tls = options.tls;
    attacks.push_back(std::make_unique<Attack>(
        "idle connections", port, options.idleConnections, 200ms,
        [](std::size_t, std::size_t) { return std::string(); }, tls));

    // A request head one byte at a time, never finished.
    const std::string slowHead = head + "Content-Type: application/json\r\nX-Slow: ";
    attacks.push_back(std::make_unique<Attack>(
        "slowloris", port, options.slowConnections, 100ms,
        [slowHead](std::size_t, std::size_t round) {
            return round < slowHead.size() ? std::string(1, slowHead[round]) : std::string("a");
        },
        tls));

    attacks.push_back(std::make_unique<Attack>(
        "header flood", port, options.floodConnections, 0ms,
        [head](std::size_t, std::size_t round) {
            std::string bytes = round == 0 ? head : std::string();
            for (int i = 0; i < 64; ++i)
                bytes += "X-Flood-" + std::to_string(round * 64 + i) + ": " + std::string(40, 'f') +
                         "\r\n";
            return bytes;
        },
        tls));

    // A length far beyond the limit is refused on its head; one just under it is streamed, and
    // what the server holds is what really arrived.
    const std::size_t underLimit = (options.maxBodyMiB << 20) - 1;
    const std::string block = std::string(64 * 1024, 'b');
    attacks.push_back(std::make_unique<Attack>(
        "huge Content-Length", port, options.bodyConnections * 2, 0ms,
        [head, underLimit, block](std::size_t connection, std::size_t round) {
            if (connection % 2 == 0) {
                return round == 0 ? head +
                                        "Content-Type: application/json\r\nContent-Length: "
                                        "999999999999999999\r\n\r\n"
                                  : block;
            }
            return round == 0 ? head + "Content-Type: application/json\r\nContent-Length: " +
                                    std::to_string(underLimit) + "\r\n\r\n"
                              : block;
        },
        tls));

    attacks.push_back(std::make_unique<Attack>(
        "garbage bytes", port, 16, 0ms,
        [](std::size_t connection, std::size_t round) {
            return junk(4096, connection * 1'000'003 + round);
        },
        tls));

    // A good request, then junk in the same write: answered, then refused and closed.
    attacks.push_back(std::make_unique<Attack>(
        "pipelined junk", port, 16, 0ms,
        [](std::size_t connection, std::size_t round) {
            return kPing + kPing + junk(512, connection * 7 + round) + kPing;
        },
        tls));

    // Guesses at bearer tokens, 50 to a write, as fast as the service answers them.
    attacks.push_back(std::make_unique<Attack>(
        "wrong tokens", port, 4, 0ms,
        [](std::size_t connection, std::size_t round) {
            std::string bytes;
            for (std::size_t i = 0; i < kTokensPerStep; ++i) {
                bytes += "GET /metadataDb/v1/data HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer " +
                         std::to_string(connection) + "-" + std::to_string(round) + "-" +
                         std::to_string(i) + "\r\n\r\n";
            }
            return bytes;
        },
        tls));

    if (tls) {
        // What reaches a TLS listener before any handshake: nothing at all, and no TLS.
        attacks.push_back(std::make_unique<Attack>(
            "no handshake", port, options.idleConnections / 4, 200ms,
            [](std::size_t, std::size_t) { return std::string(); }, /*tls*/ false));
        attacks.push_back(std::make_unique<Attack>(
            "garbage for TLS", port, 16, 0ms,
            [](std::size_t connection, std::size_t round) {
                return junk(4096, connection * 31 + round);
            },
            /*tls*/ false));
    }
    return attacks;
}

// ------------------------------------------------------------------------------------------------

struct PhaseResult
{
    std::string name;
    LatencyStats ping;
    std::size_t pingFailures = 0;
    std::size_t peakRss = 0;
    std::size_t reopened = 0;
    std::size_t openAtEnd = 0;
};

/** Runs `attacks` together for the phase's time while pinging and sampling memory. */
PhaseResult runPhase(const Options& options, const std::string& name,
                     const std::vector<Attack*>& attacks, const ServiceChild& service)
{
    PhaseResult result;
    result.name = name;
    std::atomic<bool> stop{false};
    std::mutex mutex;

    std::thread pinger([&] {
        kest::bench::HttpClient client(service.url(), service.caFile());
        while (!stop) {
            const auto start = steady_clock::now();
            const int status = client.post(kPingPath, {}, {}).status;
            const auto elapsed = steady_clock::now() - start;
            {
                std::lock_guard lock(mutex);
                if (status == 200)
                    result.ping.add(duration_cast<nanoseconds>(elapsed));
                else
                    ++result.pingFailures;
            }
            std::this_thread::sleep_for(kPingInterval);
        }
    });
    std::thread sampler([&] {
        while (!stop) {
            const std::size_t rss = service.rss();
            {
                std::lock_guard lock(mutex);
                result.peakRss = std::max(result.peakRss, rss);
            }
            std::this_thread::sleep_for(50ms);
        }
    });
    std::vector<std::thread> attackers;
    for (Attack* attack : attacks) {
        attackers.emplace_back([&stop, attack] {
            while (!stop) {
                attack->pass();
                std::this_thread::sleep_for(attack->pause().count() ? attack->pause() : 1ms);
            }
        });
    }

    std::this_thread::sleep_for(options.phase);
    stop = true;
    for (auto& thread : attackers)
        thread.join();
    pinger.join();
    sampler.join();
    for (Attack* attack : attacks) {
        result.reopened += attack->reopened();
        result.openAtEnd += attack->open();
    }
    return result;
}

double ms(nanoseconds duration)
{
    return duration_cast<microseconds>(duration).count() / 1000.0;
}

void raiseDescriptorLimit(int wanted)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t needed = static_cast<rlim_t>(wanted);
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = std::min(limit.rlim_max, needed);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ::getrlimit(RLIMIT_NOFILE, &limit);
    std::printf("open files: soft limit %llu (hard %llu)\n",
                static_cast<unsigned long long>(limit.rlim_cur),
                static_cast<unsigned long long>(limit.rlim_max));
}

bool parse(int argc, char** argv, Options* options, bool* help)
{
    std::int64_t phaseMs = 0;
    int idle = 0, slow = 0;
    kest::bench::CommandLine commandLine(
        "hostile_http_bench [OPTIONS]: hostile clients against a service process, pinged "
        "meanwhile");
    commandLine.flag("--short", &options->shortRun, "1.5 s per attack and fewer connections")
        .flag("--tls", &options->tls, "against a TLS listener")
        .option("--service", &options->service, "the service executable")
        .option("--phase-ms", &phaseMs, "milliseconds per attack (8000, short 1500)", 1)
        .option("--idle", &idle, "idle connections (5000, short 1500)", 0)
        .option("--slow", &slow, "slowloris connections (1000, short 300)", 0);
    if (!commandLine.parse(argc, argv, help))
        return false;
    if (options->shortRun) {
        options->phase = 1500ms;
        options->idleConnections = 1500;
        options->slowConnections = 300;
    }
    if (commandLine.given("--phase-ms"))
        options->phase = milliseconds(phaseMs);
    if (commandLine.given("--idle"))
        options->idleConnections = idle;
    if (commandLine.given("--slow"))
        options->slowConnections = slow;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    bool help = false;
    if (!parse(argc, argv, &options, &help))
        return help ? 0 : 2;
    ::signal(SIGPIPE, SIG_IGN);
    // The attackers' sockets and the service's (which inherits the limit) with room to spare.
    const int connections = options.idleConnections * 2 + options.slowConnections * 2 + 256;
    raiseDescriptorLimit(connections * 2);

    ServiceChild service(options);
    if (service.port() == 0) {
        std::fprintf(stderr, "the service at %s did not start\n", options.service.c_str());
        return 1;
    }
    const std::size_t baselineRss = service.rss();
    // The budget: what the service holds idle, the bodies it may be streamed at once (each held
    // whole up to the body limit, by design), and 32 KiB of buffers per open connection.
    const std::size_t openConnections = static_cast<std::size_t>(
        options.idleConnections + options.slowConnections + options.floodConnections + 64);
    // Over TLS each connection also holds what Asio's TLS stream keeps for its whole life: an
    // input and an output buffer of a TLS record each, and OpenSSL's pair of 17 KiB BIO buffers
    // between them and the SSL object, 68 KiB in all.
    const std::size_t perConnection = (options.tls ? 32 + 68 : 32) * 1024;
    const std::size_t rssGoal =
        baselineRss +
        static_cast<std::size_t>(options.bodyConnections) * (options.maxBodyMiB << 20) +
        openConnections * perConnection + (64u << 20);

    std::printf("hostile %s against 127.0.0.1:%u, %lld ms per attack%s\n",
                options.tls ? "HTTPS" : "HTTP", service.port(),
                static_cast<long long>(options.phase.count()), options.shortRun ? " (short)" : "");
    std::printf("service RSS before: %.1f MiB\n\n", baselineRss / 1048576.0);

    auto attacks = makeAttacks(options, service.port());
    std::vector<PhaseResult> results;
    results.push_back(runPhase(options, "no attack", {}, service));
    std::size_t wrongTokens = 0;
    for (auto& attack : attacks) {
        results.push_back(runPhase(options, attack->name(), {attack.get()}, service));
        if (attack->name() == "wrong tokens")
            wrongTokens = attack->stepsSent() * kTokensPerStep;
        attack->closeAll();
    }
    std::vector<Attack*> all;
    for (auto& attack : attacks)
        all.push_back(attack.get());
    results.push_back(runPhase(options, "all at once", all, service));
    for (auto& attack : attacks)
        attack->closeAll();
    results.push_back(runPhase(options, "after", {}, service));
    const bool alive = service.alive();

    std::printf("%-20s %8s %9s %9s %9s %9s %11s %10s %9s\n", "attack", "pings", "p50 ms", "p99 ms",
                "max ms", "failed", "peak RSS", "reconnects", "held");
    LatencyStats allPings;
    std::size_t pingFailures = 0;
    std::size_t peakRss = 0;
    for (const auto& r : results) {
        std::printf("%-20s %8zu %9.2f %9.2f %9.2f %9zu %7.1f MiB %10zu %9zu\n", r.name.c_str(),
                    r.ping.count(), ms(r.ping.percentile(50)), ms(r.ping.percentile(99)),
                    ms(r.ping.percentile(100)), r.pingFailures, r.peakRss / 1048576.0, r.reopened,
                    r.openAtEnd);
        allPings.add(r.ping);
        pingFailures += r.pingFailures;
        peakRss = std::max(peakRss, r.peakRss);
    }

    const double p99 = ms(allPings.percentile(99));
    const bool pingOk = allPings.count() > 0 && p99 <= ms(kPingGoal) && pingFailures == 0;
    const bool memoryOk = peakRss <= rssGoal;
    std::printf(
        "\ngoal: ping p99 <= %.0f ms with no failed ping: p99 %.2f ms over %zu pings, %zu "
        "failed: %s\n",
        ms(kPingGoal), p99, allPings.count(), pingFailures, pingOk ? "PASS" : "FAIL");
    std::printf(
        "goal: peak RSS <= %.1f MiB (idle %.1f MiB + %d streamed bodies x %zu MiB + %zu KiB "
        "x %zu connections + 64 MiB): %.1f MiB: %s\n",
        rssGoal / 1048576.0, baselineRss / 1048576.0, options.bodyConnections, options.maxBodyMiB,
        perConnection / 1024, openConnections, peakRss / 1048576.0, memoryOk ? "PASS" : "FAIL");
    std::printf("goal: the service is still running: %s\n", alive ? "PASS" : "FAIL");
    const bool guessesOk = wrongTokens >= kWrongTokensGoal;
    std::printf(
        "goal: >= %zu wrong tokens sent in the guessing phase (all refused, ping as "
        "above): %zu: %s\n",
        kWrongTokensGoal, wrongTokens, guessesOk ? "PASS" : "FAIL");

    const std::string section = std::string("hostile clients against the ") +
                                (options.tls ? "TLS" : "plain HTTP") +
                                " listener (bench/hostile_http" + (options.tls ? " --tls" : "") +
                                (options.shortRun ? " --short" : "") + ")";
    kest::bench::recordFigure(Figure::measured(section, "ping p99 through every attack", p99, "ms")
                                  .atMost(ms(kPingGoal))
                                  .withNote(std::to_string(pingFailures) + " pings failed of " +
                                            std::to_string(allPings.count() + pingFailures)));
    kest::bench::recordFigure(Figure::measured(section, "peak RSS", peakRss / 1048576.0, "MiB")
                                  .atMost(rssGoal / 1048576.0));
    kest::bench::recordFigure(Figure::measured(section, "wrong bearer tokens sent in one phase",
                                               static_cast<double>(wrongTokens), "tokens")
                                  .atLeast(static_cast<double>(kWrongTokensGoal)));
    kest::bench::recordFigure(
        Figure::measured(section, "service still running", alive ? 1 : 0, "").atLeast(1));
    return pingOk && memoryOk && alive && guessesOk ? 0 : 1;
}
