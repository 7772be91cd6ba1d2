#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include <kest/network/aio/run_sync.h>
#include <kest/network/http/server/authentication_dispatcher.h>
#include <kest/network/http/server/builder.h>
#include <kest/network/http/server/http_server_connection.h>
#include <kest/network/http/server/rest/message_dispatcher.h>
#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>
#include <kest/utils/zu_settings.h>

#include "http_test_peers.h"

namespace kest::network::http::server {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

/** A blocking loopback client on a raw socket, with a timeout on every read. */
class RawClient
{
public:
    explicit RawClient(std::uint16_t port)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawClient() { ::close(m_fd); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return m_connected; }

    bool send(std::string_view data)
    {
        while (!data.empty()) {
            const ssize_t sent = ::send(m_fd, data.data(), data.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    /** One response: status (0 when none came), headers text, body by Content-Length. */
    struct Response
    {
        int status = 0;
        std::string head;
        std::string body;
    };

    Response read(std::chrono::milliseconds timeout = 5s)
    {
        Response response;
        std::size_t headEnd;
        while ((headEnd = m_pending.find("\r\n\r\n")) == std::string::npos) {
            if (!readMore(timeout))
                return response;
        }
        response.head = m_pending.substr(0, headEnd + 4);
        m_pending.erase(0, headEnd + 4);
        response.status = std::atoi(response.head.c_str() + 9);
        std::size_t length = 0;
        if (const auto at = response.head.find("Content-Length: "); at != std::string::npos)
            length = std::stoul(response.head.substr(at + 16));
        if (!m_headOnly) {
            while (m_pending.size() < length) {
                if (!readMore(timeout))
                    return response;
            }
            response.body = m_pending.substr(0, length);
            m_pending.erase(0, length);
        }
        return response;
    }

    /** True when the server closed the connection (EOF or reset) within the timeout. */
    bool closedByPeer(std::chrono::milliseconds timeout = 5s)
    {
        while (true) {
            pollfd item{m_fd, POLLIN, 0};
            if (::poll(&item, 1, static_cast<int>(timeout.count())) <= 0)
                return false;
            char buffer[4096];
            const ssize_t got = ::recv(m_fd, buffer, sizeof(buffer), 0);
            if (got <= 0)
                return true;
        }
    }

    void expectHeadOnly(bool value) { m_headOnly = value; }

private:
    bool readMore(std::chrono::milliseconds timeout)
    {
        pollfd item{m_fd, POLLIN, 0};
        if (::poll(&item, 1, static_cast<int>(timeout.count())) <= 0)
            return false;
        char buffer[8192];
        const ssize_t got = ::recv(m_fd, buffer, sizeof(buffer), 0);
        if (got <= 0)
            return false;
        m_pending.append(buffer, static_cast<std::size_t>(got));
        return true;
    }

    int m_fd = -1;
    bool m_connected = false;
    bool m_headOnly = false;
    std::string m_pending;
};

std::string post(std::string_view path, std::string_view body, std::string_view extra = {})
{
    return "POST " + std::string(path) +
           " HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           std::string(extra) + "\r\n" + std::string(body);
}

/** Echoes method, body and path parameters; completes from another thread on request. */
class EchoHandler : public AbstractRequestHandler
{
public:
    void processRequest(RequestContext context,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        RequestResult result(StatusCode::ok,
                             context.request.method + ":" + context.request.body + ":" +
                                 context.requestPathParams.getByName("id").value_or(""),
                             "text/plain");
        result.headers.emplace_back("X-Peer", context.clientEndpoint.host);
        if (context.request.header("X-Async")) {
            std::thread([result = std::move(result),
                         handler = std::move(completionHandler)]() mutable {
                std::this_thread::sleep_for(10ms);
                handler(std::move(result));
            }).detach();
            return;
        }
        completionHandler(std::move(result));
    }
};

/** Never completes on its own: the test holds the completion handler. */
struct Parked
{
    std::mutex mutex;
    std::vector<kest::utils::MoveOnlyFunc<void(RequestResult)>> handlers;
    std::atomic<int> destroyed{0};
};

class ParkingHandler : public AbstractRequestHandler
{
public:
    explicit ParkingHandler(Parked* parked) : m_parked(parked) {}
    ~ParkingHandler() override { ++m_parked->destroyed; }

    void processRequest(RequestContext,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        std::lock_guard lock(m_parked->mutex);
        m_parked->handlers.push_back(std::move(completionHandler));
    }

private:
    Parked* m_parked;
};

class HttpServerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        settings.endpoints = {SocketAddress{"127.0.0.1", 0}};
        settings.ioThreads = 2;
        dispatcher.registerRequestProcessor("/echo/{id}",
                                            []() { return std::make_unique<EchoHandler>(); });
        dispatcher.registerRequestProcessor(
            "/park", [this]() { return std::make_unique<ParkingHandler>(&parked); }, "POST");
    }

    void TearDown() override
    {
        if (server)
            server->stop();
        std::lock_guard lock(parked.mutex);
        for (auto& handler : parked.handlers)
            handler(RequestResult(StatusCode::ok));
        parked.handlers.clear();
    }

    std::uint16_t start()
    {
        server = Builder::buildOrThrow(settings, &authentication, &dispatcher);
        EXPECT_TRUE(server->bind(settings.endpoints));
        EXPECT_TRUE(server->listen(settings.listenBacklog));
        const auto endpoints = server->endpoints();
        EXPECT_EQ(endpoints.size(), 1u);
        EXPECT_NE(endpoints.at(0).port, 0);
        return endpoints.at(0).port;
    }

    /** Waits until `count` requests are parked and takes their completions. */
    std::vector<kest::utils::MoveOnlyFunc<void(RequestResult)>> takeParked(std::size_t count)
    {
        std::vector<kest::utils::MoveOnlyFunc<void(RequestResult)>> taken;
        EXPECT_TRUE(waitUntil([&] {
            std::lock_guard lock(parked.mutex);
            if (parked.handlers.size() < count)
                return false;
            taken = std::exchange(parked.handlers, {});
            return true;
        })) << "Requests were not parked";
        return taken;
    }

    /** The server still answers a fresh client. */
    void expectServing(std::uint16_t port)
    {
        RawClient client(port);
        ASSERT_TRUE(client.send(post("/echo/ok", "alive")));
        EXPECT_EQ(client.read().body, "POST:alive:ok");
    }

    Settings settings;
    rest::MessageDispatcher dispatcher;
    AuthenticationDispatcher authentication;
    Parked parked;
    std::unique_ptr<MultiAddressHttpServer> server;
};

TEST_F(HttpServerTest, KeepAliveServesSeveralRequestsIncludingHeadAndNotFound)
{
    const auto port = start();
    RawClient client(port);
    ASSERT_TRUE(client.connected());
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(client.send(post("/echo/" + std::to_string(i), "body" + std::to_string(i))));
        const auto response = client.read();
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.body, "POST:body" + std::to_string(i) + ":" + std::to_string(i));
        EXPECT_NE(response.head.find("Content-Type: text/plain\r\n"), std::string::npos);
        EXPECT_NE(response.head.find("X-Peer: 127.0.0.1\r\n"), std::string::npos);
    }
    // Two requests in one write are answered in order.
    ASSERT_TRUE(client.send(post("/echo/a", "1") + post("/echo/b", "2", "X-Async: 1\r\n")));
    EXPECT_EQ(client.read().body, "POST:1:a");
    EXPECT_EQ(client.read().body, "POST:2:b");

    ASSERT_TRUE(client.send("GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_EQ(client.read().status, 404);

    ASSERT_TRUE(client.send("HEAD /echo/h HTTP/1.1\r\nHost: x\r\n\r\n"));
    client.expectHeadOnly(true);
    const auto head = client.read();
    EXPECT_EQ(head.status, 200);
    EXPECT_NE(head.head.find("Content-Length: 7\r\n"), std::string::npos);  // "HEAD::h"
    client.expectHeadOnly(false);
    ASSERT_TRUE(client.send(post("/echo/after", "x", "Connection: close\r\n")));
    EXPECT_EQ(client.read().body, "POST:x:after");  // no stray body bytes from HEAD
    EXPECT_TRUE(client.closedByPeer());
}

TEST_F(HttpServerTest, Http10KeepsAliveOnlyWhenAsked)
{
    const auto port = start();
    RawClient client(port);
    ASSERT_TRUE(client.send("GET /echo/k HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"));
    const auto kept = client.read();
    EXPECT_EQ(kept.body, "GET::k");
    EXPECT_NE(kept.head.find("Connection: keep-alive\r\n"), std::string::npos);
    ASSERT_TRUE(client.send("GET /echo/c HTTP/1.0\r\n\r\n"));
    const auto closing = client.read();
    EXPECT_EQ(closing.body, "GET::c");
    EXPECT_NE(closing.head.find("Connection: close\r\n"), std::string::npos);
    EXPECT_TRUE(client.closedByPeer());
}

TEST_F(HttpServerTest, PortInUseFailsBindWithError)
{
    const auto port = start();
    auto other = Builder::buildOrThrow(settings, nullptr, &dispatcher);
    EXPECT_FALSE(other->bind({SocketAddress{"127.0.0.1", port}}));
    EXPECT_EQ(other->lastError(), std::errc::address_in_use);
}

TEST_F(HttpServerTest, OversizedHeaderAndBodyAreRefusedOthersStillServed)
{
    settings.maxHeaderBytes = 1024;
    settings.maxBodyBytes = 100;
    const auto port = start();

    RawClient bigHeader(port);
    ASSERT_TRUE(
        bigHeader.send("GET /echo/x HTTP/1.1\r\nX-Big: " + std::string(4000, 'a') + "\r\n\r\n"));
    EXPECT_EQ(bigHeader.read().status, 431);
    EXPECT_TRUE(bigHeader.closedByPeer());

    RawClient declaredBig(port);
    ASSERT_TRUE(declaredBig.send(post("/echo/x", std::string(101, 'b'))));
    EXPECT_EQ(declaredBig.read().status, 413);

    RawClient chunkedBig(port);
    ASSERT_TRUE(chunkedBig.send(
        "POST /echo/x HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
        "50\r\n" +
        std::string(80, 'c') + "\r\n50\r\n" + std::string(80, 'c') + "\r\n0\r\n\r\n"));
    EXPECT_EQ(chunkedBig.read().status, 413);

    RawClient waiting(port);
    ASSERT_TRUE(waiting.send(
        "POST /echo/c HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\nExpect: 100-continue\r\n\r\n"));
    EXPECT_EQ(waiting.read().status, 100);
    ASSERT_TRUE(waiting.send("body"));
    EXPECT_EQ(waiting.read().body, "POST:body:c");

    RawClient exact(port);
    ASSERT_TRUE(exact.send(post("/echo/x", std::string(100, 'd'))));
    EXPECT_EQ(exact.read().status, 200);
    expectServing(port);
}

TEST_F(HttpServerTest, GarbageGets400AndServerGoesOn)
{
    const auto port = start();
    for (const std::string& garbage :
         {std::string("\x01\x02\x03 junk\r\n\r\n"), std::string("GET / HTTP/x.y\r\n\r\n"),
          std::string("POST /echo/x HTTP/1.1\r\nHost: x\r\nContent-Length: -5\r\n\r\n"),
          std::string("GET /echo/a%00junk HTTP/1.1\r\nHost: x\r\n\r\n")}) {
        RawClient client(port);
        ASSERT_TRUE(client.send(garbage));
        EXPECT_EQ(client.read().status, 400) << garbage;
        EXPECT_TRUE(client.closedByPeer());
    }
    {
        RawClient halfAndGone(port);
        ASSERT_TRUE(halfAndGone.send("POST /echo/x HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"));
    }
    expectServing(port);
}

TEST_F(HttpServerTest, SlowAndIdleClientsAreTimedOut)
{
    // One I/O thread: its timers fire in the order they are due, so what one connection's close
    // shows of another's holds however loaded the machine is.
    settings.ioThreads = 1;
    settings.requestReadTimeout = 200ms;
    settings.idleTimeout = 1s;
    const auto port = start();

    // Idle from before the slow request starts, for longer than the request's time by then.
    RawClient idle(port);
    ASSERT_TRUE(idle.send(post("/echo/i", "")));
    EXPECT_EQ(idle.read().status, 200);

    // Trickling does not extend the deadline of the whole request: a byte every 50 ms would keep
    // a per-read deadline from ever passing.
    RawClient slow(port);
    ASSERT_TRUE(slow.send("POST /echo/x HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\nab"));
    bool closed = false;
    for (int i = 0; i < 998 && !closed; ++i)
        closed = !slow.send("c") || slow.closedByPeer(50ms);
    EXPECT_TRUE(closed);

    // The idle connection is not held to the request's deadline, and is closed on its own.
    ASSERT_TRUE(idle.send(post("/echo/j", "")));
    EXPECT_EQ(idle.read().status, 200);
    EXPECT_TRUE(idle.closedByPeer(30s));
}

TEST_F(HttpServerTest, ConnectionsPastTheLimitAreClosedAtOnce)
{
    settings.maxConnections = 2;
    const auto port = start();
    RawClient first(port);
    RawClient second(port);
    ASSERT_TRUE(first.send(post("/echo/1", "")));
    ASSERT_TRUE(second.send(post("/echo/2", "")));
    EXPECT_EQ(first.read().status, 200);
    EXPECT_EQ(second.read().status, 200);

    RawClient third(port);
    EXPECT_TRUE(third.closedByPeer(2s));
}

TEST_F(HttpServerTest, StopClosesIdleConnectionsAndLetsRequestsInFlightBeAnswered)
{
    settings.stopTimeout = 20s;
    const auto port = start();
    RawClient idle(port);
    ASSERT_TRUE(idle.send(post("/echo/1", "")));
    EXPECT_EQ(idle.read().status, 200);

    std::optional<RawClient> pending(std::in_place, port);
    ASSERT_TRUE(pending->send(post("/park", "")));
    auto handlers = takeParked(1);
    ASSERT_EQ(handlers.size(), 1u);

    const auto stopBegan = std::chrono::steady_clock::now();
    auto stopped = std::async(std::launch::async, [this]() { server->stop(); });
    EXPECT_TRUE(idle.closedByPeer(5s));
    RawClient late(port);
    EXPECT_FALSE(late.connected() && late.send(post("/echo/1", "")) && late.read(300ms).status);

    std::thread completer([&]() {
        std::this_thread::sleep_until(stopBegan + 200ms);
        handlers.front()(RequestResult(StatusCode::accepted, "finished", "text/plain"));
    });
    const auto response = pending->read();
    EXPECT_EQ(response.status, 202);
    EXPECT_EQ(response.body, "finished");
    EXPECT_NE(response.head.find("Connection: close"), std::string::npos);
    EXPECT_TRUE(pending->closedByPeer(5s));
    pending.reset();  // as a client does on "Connection: close", which ends the server's linger
    completer.join();

    ASSERT_EQ(stopped.wait_for(10s), std::future_status::ready);
    stopped.get();
    // Returned only once the handler was done with and destroyed.
    EXPECT_GE(std::chrono::steady_clock::now() - stopBegan, 200ms);
    EXPECT_EQ(parked.destroyed, 1);
}

TEST_F(HttpServerTest, StopGivesUpOnAHandlerAfterTheBoundAndItsLateCompletionIsDropped)
{
    ZuSettings stored;
    stored.setValue("http/stopTimeoutMs", "400");
    Settings loaded;
    EXPECT_EQ(loaded.stopTimeout, Settings::kDefaultStopTimeout);
    loaded.load(stored);
    EXPECT_EQ(loaded.stopTimeout, 400ms);
    settings.stopTimeout = loaded.stopTimeout;

    const auto port = start();
    RawClient first(port);
    ASSERT_TRUE(first.send(post("/park", "")));
    RawClient second(port);
    ASSERT_TRUE(second.send(post("/park", "")));
    auto handlers = takeParked(2);
    ASSERT_EQ(handlers.size(), 2u);

    std::mutex linesMutex;
    std::vector<std::string> warnings;
    auto& logger = kest::utils::log::Logger::instance();
    const int observer = logger.addObserver(
        [&](kest::utils::log::Level level, const std::string&, const std::string& message) {
            std::lock_guard lock(linesMutex);
            if (level == kest::utils::log::Level::warning)
                warnings.push_back(message);
        });
    const auto stopBegan = std::chrono::steady_clock::now();
    auto stopped = std::async(std::launch::async, [this]() { server->stop(); });
    const bool ready = stopped.wait_for(20s) == std::future_status::ready;
    const auto stopTook = std::chrono::steady_clock::now() - stopBegan;
    logger.removeObserver(observer);
    ASSERT_TRUE(ready);
    EXPECT_GE(stopTook, 400ms);
    EXPECT_EQ(std::count_if(warnings.begin(), warnings.end(),
                            [](const std::string& line) {
                                return line.find("2 request handler(s) still pending") !=
                                       std::string::npos;
                            }),
              1)
        << ::testing::PrintToString(warnings);
    EXPECT_TRUE(first.closedByPeer(5s));
    EXPECT_TRUE(second.closedByPeer(5s));
    EXPECT_EQ(parked.destroyed, 0);  // still owed its completion

    // Late completions neither reach a closed connection nor wait for a stopped thread: each
    // handler is destroyed at once, on the completing thread, and exactly once.
    std::thread([&]() { handlers[0](RequestResult(StatusCode::ok)); }).join();
    EXPECT_EQ(parked.destroyed, 1);
    server.reset();
    std::thread([&]() { handlers[1](RequestResult(StatusCode::ok)); }).join();
    EXPECT_EQ(parked.destroyed, 2);
}

TEST_F(HttpServerTest, CompletionFromAnotherThreadReachesTheClientAndHandlerDies)
{
    const auto port = start();
    RawClient client(port);
    ASSERT_TRUE(client.send(post("/park", "")));
    auto handlers = takeParked(1);
    ASSERT_EQ(handlers.size(), 1u);
    auto handler = std::move(handlers.front());
    EXPECT_EQ(parked.destroyed, 0);
    std::thread([&]() {
        handler(RequestResult(StatusCode::accepted, "later", "text/plain"));
    }).join();
    const auto response = client.read();
    EXPECT_EQ(response.status, 202);
    EXPECT_EQ(response.body, "later");
    EXPECT_EQ(parked.destroyed, 1);
}

/** Throws where it is told to by the last path segment. */
class ThrowingHandler : public AbstractRequestHandler
{
public:
    explicit ThrowingHandler(Parked* parked) : m_parked(parked) {}

    void processRequest(RequestContext context,
                        kest::utils::MoveOnlyFunc<void(RequestResult)> completionHandler) override
    {
        const auto where = context.requestPathParams.getByName("where").value_or("");
        if (where == "afterCompleting")
            completionHandler(RequestResult(StatusCode::created));
        if (where == "afterParking") {
            std::lock_guard lock(m_parked->mutex);
            m_parked->handlers.push_back(std::move(completionHandler));
        }
        if (where == "int")
            throw 42;
        throw std::runtime_error("handler failure");
    }

private:
    Parked* m_parked;
};

TEST_F(HttpServerTest, ThrowingHandlersGet500AndLateOrRepeatedCompletionsAreRefused)
{
    dispatcher.registerRequestProcessor("/throw/factory",
                                        []() -> std::unique_ptr<AbstractRequestHandler> {
                                            throw std::runtime_error("factory failure");
                                        });
    dispatcher.registerRequestProcessor(
        "/throw/in/{where}", [this]() { return std::make_unique<ThrowingHandler>(&parked); });
    const int assertionsBefore = kest::utils::assertionFailureCount();
    const auto port = start();

    RawClient client(port);
    ASSERT_TRUE(client.send(post("/throw/factory", "")));
    EXPECT_EQ(client.read().status, 500);
    ASSERT_TRUE(client.send(post("/throw/in/process", "")));
    EXPECT_EQ(client.read().status, 500);
    ASSERT_TRUE(client.send(post("/throw/in/int", "")));
    EXPECT_EQ(client.read().status, 500);
    // An answer given before the throw stands.
    ASSERT_TRUE(client.send(post("/throw/in/afterCompleting", "")));
    EXPECT_EQ(client.read().status, 201);

    // A failed handler calling its completion later must not answer the next request.
    ASSERT_TRUE(client.send(post("/throw/in/afterParking", "")));
    EXPECT_EQ(client.read().status, 500);
    auto failed = takeParked(1);
    ASSERT_EQ(failed.size(), 1u);
    ASSERT_TRUE(client.send(post("/park", "")));
    auto pending = takeParked(1);
    ASSERT_EQ(pending.size(), 1u);
    std::thread([&]() { failed[0](RequestResult(StatusCode::ok, "stale", "text/plain")); }).join();

    // The pending request completes from another thread, twice.
    std::thread([&]() {
        pending[0](RequestResult(StatusCode::accepted, "once", "text/plain"));
        pending[0](RequestResult(StatusCode::ok, "twice", "text/plain"));
    }).join();
    const auto response = client.read();
    EXPECT_EQ(response.status, 202);
    EXPECT_EQ(response.body, "once");
    ASSERT_TRUE(client.send(post("/echo/next", "n")));
    EXPECT_EQ(client.read().body, "POST:n:next");  // nothing of the refused calls in between
    EXPECT_EQ(kest::utils::assertionFailureCount(), assertionsBefore + 2);
    expectServing(port);
}

TEST_F(HttpServerTest, ZeroTimeoutsMeanNoLimitAndHugeOnesDoNotOverflow)
{
    ZuSettings stored;
    stored.setValue("http/requestReadTimeoutMs", "0");
    stored.setValue("http/idleTimeoutMs", "9223372036854775807");
    Settings loaded;
    loaded.load(stored);
    EXPECT_EQ(loaded.requestReadTimeout, 0ms);
    EXPECT_EQ(loaded.idleTimeout, Settings::kMaxTimeout);

    for (const auto timeout : {0ms, std::chrono::milliseconds::max()}) {
        SCOPED_TRACE(timeout.count());
        settings.requestReadTimeout = timeout;
        settings.idleTimeout = timeout;
        const auto port = start();
        RawClient client(port);
        ASSERT_TRUE(client.send(post("/echo/1", "a")));
        EXPECT_EQ(client.read().body, "POST:a:1");
        EXPECT_FALSE(client.closedByPeer(300ms));
        // A request sent in parts is not cut off either.
        ASSERT_TRUE(client.send("POST /echo/2 HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\n"));
        EXPECT_FALSE(client.closedByPeer(100ms));
        ASSERT_TRUE(client.send("b"));
        EXPECT_EQ(client.read().body, "POST:b:2");
        server->stop();
        server.reset();
    }
}

TEST_F(HttpServerTest, FramingLimitAndVersionFaultsAreAnsweredAndCloseTheConnection)
{
    settings.maxHeaderBytes = 1024;
    settings.maxChunkLineBytes = 64;
    const auto port = start();
    const std::string chunked = "POST /echo/c HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: ";
    struct Case
    {
        std::string name;
        std::string request;
        int status;
        bool closes;
    };
    const std::vector<Case> cases = {
        {"smuggling past a final non-chunked coding",
         chunked +
             "chunked, identity\r\n\r\n0\r\n\r\nGET /echo/smuggled HTTP/1.1\r\nHost: x\r\n\r\n",
         400, true},
        {"compressed body", chunked + "gzip, chunked\r\n\r\n0\r\n\r\n", 501, true},
        {"chunk extension without end", chunked + "chunked\r\n\r\n1;" + std::string(8192, 'x'), 400,
         true},
        {"trailer without end", chunked + "chunked\r\n\r\n0\r\nX: " + std::string(8192, 'x'), 431,
         true},
        {"request line too long", "GET /" + std::string(4096, 'a'), 414, true},
        {"HTTP/2.0", "GET /echo/v HTTP/2.0\r\nHost: x\r\n\r\n", 505, true},
        {"HTTP/1.0 chunked",
         "POST /echo/c HTTP/1.0\r\nConnection: keep-alive\r\n"
         "Transfer-Encoding: chunked\r\n\r\n1\r\nz\r\n0\r\n\r\n",
         200, true},
        {"HTTP/1.2", "GET /echo/v HTTP/1.2\r\nHost: x\r\n\r\n", 200, false},
        {"empty line first", "\r\nGET /echo/e HTTP/1.1\r\nHost: x\r\n\r\n", 200, false},
        {"absolute form",
         "POST http://127.0.0.1/echo/a HTTP/1.1\r\nHost: x\r\n"
         "Content-Length: 0\r\n\r\n",
         200, false},
    };
    for (const auto& [name, request, status, closes] : cases) {
        SCOPED_TRACE(name);
        RawClient client(port);
        ASSERT_TRUE(client.send(request));
        const auto response = client.read();
        EXPECT_EQ(response.status, status);
        if (status >= 400) {
            // The answer says what was wrong.
            EXPECT_NE(response.head.find("Content-Type: text/plain"), std::string::npos);
            EXPECT_FALSE(response.body.empty());
        }
        if (closes) {
            EXPECT_NE(response.head.find("Connection: close\r\n"), std::string::npos);
            EXPECT_EQ(client.read(1s).status, 0);  // nothing more, smuggled or not
            EXPECT_TRUE(client.closedByPeer());
        } else {
            ASSERT_TRUE(client.send(post("/echo/next", "n")));
            EXPECT_EQ(client.read().body, "POST:n:next");
        }
    }
    expectServing(port);
}

TEST_F(HttpServerTest, ContinueIsSentToHttp11ClientsOnly)
{
    const auto port = start();
    RawClient old(port);
    ASSERT_TRUE(
        old.send("POST /echo/c HTTP/1.0\r\nContent-Length: 4\r\nExpect: 100-continue\r\n\r\n"));
    EXPECT_EQ(old.read(300ms).status, 0);
    ASSERT_TRUE(old.send("body"));
    EXPECT_EQ(old.read().body, "POST:body:c");
}

TEST_F(HttpServerTest, AcceptBacksOffWhileOutOfDescriptors)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "The sanitizer runtimes need descriptors of their own to check the code";
#endif
    const auto port = start();
    std::mutex mutex;
    std::vector<std::chrono::steady_clock::time_point> failures;
    auto& logger = kest::utils::log::Logger::instance();
    const int observer = logger.addObserver(
        [&](kest::utils::log::Level, const std::string&, const std::string& message) {
            if (message.starts_with("Accept has failed")) {
                std::lock_guard lock(mutex);
                failures.push_back(std::chrono::steady_clock::now());
            }
        });
    const auto failed = [&] {
        std::lock_guard lock(mutex);
        return failures;
    };

    // Use up every descriptor the process may have, but one for the client.
    int highest = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        highest = std::max(highest, std::atoi(entry.path().filename().c_str()));
    rlimit original{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
    rlimit lowered = original;
    lowered.rlim_cur = static_cast<rlim_t>(highest) + 16;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    std::vector<int> fillers;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;)
        fillers.push_back(fd);
    ASSERT_FALSE(fillers.empty());
    ::close(fillers.back());
    fillers.pop_back();

    std::optional<RawClient> client(std::in_place, port);
    const bool connected = client->connected();
    // Five failures, waited 10, 20, 40 and 80 ms apart at the least, however loaded the machine:
    // retrying every few milliseconds would fail five times in a fraction of that.
    const bool fiveFailures = waitUntil([&] { return failed().size() >= 5; });
    for (const int fd : fillers)
        ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &original);

    ASSERT_TRUE(connected);
    ASSERT_TRUE(fiveFailures);
    const auto times = failed();
    EXPECT_GE(times[4] - times[0], 140ms);
    // Once descriptors are free again, the waiting client is served.
    ASSERT_TRUE(client->send(post("/echo/late", "l")));
    EXPECT_EQ(client->read().body, "POST:l:late");
    logger.removeObserver(observer);
}

TEST(HttpServerConnection, WorkQueuedOnAStoppedThreadDoesNotKeepTheConnectionAlive)
{
    // A connection closed once its thread has stopped leaves its cancelled reads and waits
    // queued there, holding the connection. Were the connection to own its thread, neither
    // could ever be destroyed.
    auto pool = std::make_unique<aio::AioThreadPool>(1);
    auto thread = pool->nextWeak();
    auto& ioContext = thread.lock()->ioContext();
    boost::asio::ip::tcp::socket socket(ioContext);
    std::optional<RawClient> client;
    {
        boost::asio::ip::tcp::acceptor acceptor(
            ioContext, boost::asio::ip::tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
        client.emplace(acceptor.local_endpoint().port());
        ASSERT_TRUE(client->connected());
        acceptor.accept(socket);
    }

    rest::MessageDispatcher dispatcher;
    HttpConnectionLimits limits;
    limits.request = {1024, 1024, 64};
    auto connection = std::make_shared<HttpServerConnection>(
        thread, std::move(socket), limits, &dispatcher,
        std::make_shared<std::atomic<std::size_t>>(1), std::make_shared<PendingHandlers>(),
        [](HttpServerConnection*) {});
    std::weak_ptr<HttpServerConnection> watched = connection;
    aio::runInThreadSync(connection->thread(), [&]() { connection->start(); });

    pool->stop();
    connection->close();
    connection.reset();
    EXPECT_FALSE(watched.expired());  //< Only the queued work holds it now.
    pool.reset();
    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace kest::network::http::server
