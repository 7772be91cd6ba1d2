// Sequential request latency of the HTTP client against the project's own server on loopback:
// kept-alive connections taken from the I/O thread's pool (a new client object per call, as a
// search makes one per peer), then a new TCP connection per call, then the same reused calls
// through the typed API frame. Prints p50, p99 and mean per mode and the connections the server
// saw.

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/describe/class.hpp>

#include <kest/network/aio/aio_thread.h>
#include <kest/network/http/client/async_http_client.h>
#include <kest/network/http/default_api_result_code_descriptor.h>
#include <kest/network/http/generic_api_client.h>
#include <kest/network/http/server/builder.h>
#include <kest/network/http/server/rest/message_dispatcher.h>

#include "command_line.h"
#include "latency_stats.h"

namespace {

namespace aio = kest::network::aio;
using kest::network::SocketAddress;
namespace http = kest::network::http;
using namespace kest::network::http;
using Clock = std::chrono::steady_clock;

constexpr int kWarmUpCalls = 200;

struct Named
{
    std::string name;
};
BOOST_DESCRIBE_STRUCT(Named, (), (name))

/** Answers a small JSON list and remembers which client ports (connections) it saw. */
class Handler : public AbstractRequestHandler
{
public:
    Handler(std::mutex* mutex, std::set<std::uint16_t>* ports) : m_mutex(mutex), m_ports(ports) {}

    void processRequest(RequestContext context,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completion) override
    {
        {
            std::lock_guard lock(*m_mutex);
            m_ports->insert(context.clientEndpoint.port);
        }
        completion(RequestResult(StatusCode::ok, R"([{"name":"a"}])", "application/json"));
    }

private:
    std::mutex* m_mutex;
    std::set<std::uint16_t>* m_ports;
};

struct Figures
{
    kest::bench::LatencyStats latency;
    double meanUs = 0;
    int failures = 0;
};

Figures measure(int calls, const std::function<bool()>& call)
{
    for (int i = 0; i < kWarmUpCalls; ++i)
        call();
    Figures figures;
    Clock::duration total{};
    for (int i = 0; i < calls; ++i) {
        const auto start = Clock::now();
        if (!call())
            ++figures.failures;
        figures.latency.add(Clock::now() - start);
        total += Clock::now() - start;
    }
    figures.meanUs = std::chrono::duration<double, std::micro>(total).count() / calls;
    return figures;
}

double us(std::chrono::nanoseconds duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

bool plainCall(aio::AioThread* thread, const kest::utils::Url& url, bool reuse)
{
    client::AsyncHttpClient client(thread);
    client.setReuseConnections(reuse);
    std::promise<bool> done;
    client.doGet(url, [&done](std::error_code error, std::unique_ptr<client::Response> response) {
        done.set_value(!error && response && response->statusCode == StatusCode::ok);
    });
    return done.get_future().get();
}

}  // namespace

int main(int argc, char** argv)
{
    int calls = 5000;
    kest::bench::CommandLine commandLine(
        "http_client_bench [OPTIONS]: sequential GETs of the HTTP client against our server");
    commandLine.option("--calls", &calls, "calls per mode, after 200 warm-up ones", 1);
    bool help = false;
    if (!commandLine.parse(argc, argv, &help))
        return help ? 0 : 2;

    std::mutex mutex;
    std::set<std::uint16_t> ports;
    http::server::rest::MessageDispatcher dispatcher;
    dispatcher.registerRequestProcessor(
        "/bench", [&]() { return std::make_unique<Handler>(&mutex, &ports); }, "GET");
    http::server::Settings settings;
    settings.endpoints = {SocketAddress{"127.0.0.1", 0}};
    settings.ioThreads = 1;
    auto httpServer = http::server::Builder::buildOrThrow(settings, nullptr, &dispatcher);
    if (!httpServer->bind(settings.endpoints) || !httpServer->listen(settings.listenBacklog)) {
        std::fprintf(stderr, "cannot listen on loopback: %s\n",
                     httpServer->lastError().message().c_str());
        return 1;
    }
    const std::string base =
        "http://127.0.0.1:" + std::to_string(httpServer->endpoints().at(0).port);
    const kest::utils::Url url(base + "/bench");

    aio::AioThread thread;
    GenericApiClient<DefaultApiResultCodeDescriptor> apiClient(
        kest::utils::Url(base), kest::network::ssl::kDefaultCertificateCheck, &thread);

    struct Mode
    {
        const char* name;
        std::function<bool()> call;
    };
    const std::vector<Mode> modes{
        {"reused connection", [&]() { return plainCall(&thread, url, true); }},
        {"new connection per call", [&]() { return plainCall(&thread, url, false); }},
        {"API frame, reused connection",
         [&]() {
             const auto [status, items] =
                 apiClient.makeSyncCallInternal<std::vector<Named>>("GET", "/bench", {});
             return status == StatusCode::ok && items.size() == 1;
         }},
    };

    std::printf(
        "HTTP client, sequential GET on loopback: %d calls per mode after %d warm-up "
        "calls\n\n",
        calls, kWarmUpCalls);
    std::printf("%-30s %10s %10s %10s %12s %9s\n", "mode", "p50 us", "p99 us", "mean us",
                "connections", "failures");
    for (const auto& mode : modes) {
        std::size_t before = 0;
        {
            std::lock_guard lock(mutex);
            before = ports.size();
        }
        const Figures figures = measure(calls, mode.call);
        std::size_t after = 0;
        {
            std::lock_guard lock(mutex);
            after = ports.size();
        }
        std::printf("%-30s %10.1f %10.1f %10.1f %12zu %9d\n", mode.name,
                    us(figures.latency.percentile(50)), us(figures.latency.percentile(99)),
                    figures.meanUs, after - before, figures.failures);
    }
    apiClient.pleaseStopSync();
    return 0;
}
